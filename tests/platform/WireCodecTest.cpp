#include "platform/transport/WireCodec.h"

#include <gtest/gtest.h>

#include <random>

namespace Tavrin::Veq::ClientBroker {
namespace {

TEST(WireCodec, MessageSurvivesTheRoundTripWithEveryField)
{
    Message message;
    message.guid = "g-1";
    message.annex = "a";
    message.senderType = "App";
    message.senderId = "id";
    message.senderName = "name";
    message.senderKind = std::string(1, '\x02');
    message.senderElevation = "User";
    message.notification = {"Get-VeqStatus", "{\"k\":\"v\"}", "VEQ", "svc"};
    message.statusCode = -17002;
    message.statusSource = "ExtensionBroker";
    message.statusText = "t\xc3\xa9xt";

    Message decoded;
    std::string error;
    ASSERT_TRUE(WireCodec::DecodeMessage(WireCodec::EncodeMessage(message), decoded, error)) << error;
    EXPECT_EQ(WireCodec::EncodeMessage(decoded), WireCodec::EncodeMessage(message));
    EXPECT_EQ(decoded.senderKind, message.senderKind);
    EXPECT_EQ(decoded.statusCode, -17002);
}

// The records are written without building a JSON document; the text must be what the JSON
// writer gives, byte for byte, whatever the strings hold.
TEST(WireCodec, WritesRecordsExactlyAsTheJsonWriterDoes)
{
    std::mt19937 random(7);
    auto text = [&random] {
        std::string out;
        const size_t length = random() % 12;
        for (size_t i = 0; i < length; ++i) {
            out += static_cast<char>(random() % 256);  // control bytes, quotes, NUL, bytes above 0x7f
        }
        return out;
    };
    for (int i = 0; i < 500; ++i) {
        Result result;
        result.isSuccess = i % 2 == 0;
        Message& message = result.message;
        for (std::string* field : {&message.guid, &message.annex, &message.senderType, &message.senderId,
                                   &message.senderName, &message.senderKind, &message.senderElevation,
                                   &message.notification.command, &message.notification.payload,
                                   &message.notification.targetId, &message.notification.targetName,
                                   &message.statusSource, &message.statusText}) {
            *field = text();
        }
        message.statusCode = static_cast<int32_t>(random());
        ASSERT_EQ(WireCodec::EncodeMessage(message), WireCodec::Write(WireCodec::ToJson(message)));
        ASSERT_EQ(WireCodec::EncodeResult(result), WireCodec::Write(WireCodec::ToJson(result)));
    }
}

TEST(WireCodec, EncodesOnOneLine)
{
    Result result;
    result.message.notification.payload = "{\n}";
    const std::string text = WireCodec::EncodeResult(result);
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST(WireCodec, AbsentAndUnknownMembersAreTolerated)
{
    Message decoded;
    std::string error;
    ASSERT_TRUE(WireCodec::DecodeMessage(R"({"guid":"x","extra":[1,2],"notification":{"command":"C","more":1}})",
                                         decoded, error));
    EXPECT_EQ(decoded.guid, "x");
    EXPECT_EQ(decoded.notification.command, "C");
    EXPECT_EQ(decoded.statusCode, 0);
    EXPECT_TRUE(decoded.statusText.empty());
}

TEST(WireCodec, RejectsWhatIsNotAMessage)
{
    const char* rows[] = {
        "",
        "not json",
        "[1,2]",
        "\"text\"",
        R"({"guid":5})",
        R"({"statusCode":"17001"})",
        R"({"statusCode":1.5})",
        R"({"statusCode":9999999999})",
        R"({"notification":"Get-VeqStatus"})",
        R"({"notification":{"command":["a"]}})",
        R"({"notification":{"payload":{"a":1}}})",
        "{\"guid\":\"x\"",
    };
    for (const char* row : rows) {
        Message decoded;
        std::string error;
        EXPECT_FALSE(WireCodec::DecodeMessage(row, decoded, error)) << "accepted: " << row;
        EXPECT_FALSE(error.empty()) << row;
    }
}

TEST(WireCodec, RejectsAResultWithWrongTypes)
{
    const char* rows[] = {R"({"isSuccess":"true"})", R"({"message":[]})", R"({"message":{"guid":1}})"};
    for (const char* row : rows) {
        Result decoded;
        std::string error;
        EXPECT_FALSE(WireCodec::DecodeResult(row, decoded, error)) << "accepted: " << row;
    }
}

TEST(WireCodec, DeeplyNestedInputIsRefusedWithoutCrashing)
{
    std::string deep(100000, '[');
    Message decoded;
    std::string error;
    EXPECT_FALSE(WireCodec::DecodeMessage(deep, decoded, error));
}

}  // namespace
}  // namespace Tavrin::Veq::ClientBroker
