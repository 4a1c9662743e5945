// "GetWarrantyInfoAndUpdateTagReg" against a real HTTPS warranty service: what the service
// receives, which dates become tags, and that the tags show in "Get-VeqTags".

#include "broker/ReplyJson.h"
#include "commands/GetVeqTagsCommand.h"
#include "http/GetWarrantyInfoAndUpdateTagRegCommand.h"
#include "platform/applicability/AppAndTagCollection.h"
#include "platform/fs/utility.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"
#include "platform/util/DateTimeUtility.h"
#include "tests/support/HttpsTestServer.h"
#include "tests/support/TempRoot.h"
#include "tests/support/TestCa.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using Command = GetWarrantyInfoAndUpdateTagRegCommand;
using Tavrin::Veq::ClientBroker::Result;
using Test::HttpsTestServer;
using Test::TestCa;

constexpr const char* kSentinel = "kept";
constexpr const char* kDefault = "<default>";  // a date kDefaultAgeDays ago, as written for a missing one
const wchar_t* const kTags[] = {Command::kWarrantyTagName, Command::kSwiftTuneTagName, Command::kGuardLatchTagName};

ClientRequest Request(const std::string& command, const std::string& payload)
{
    Tavrin::Veq::ClientBroker::Message message;
    message.guid = "6A1D0F3B-2C4E-4B8A-9F7D-5E3C1B0A9D8E";
    message.notification.command = command;
    message.notification.payload = payload;
    ClientRequest request;
    request.setMessage(message);
    return request;
}

Json::Value Parse(const std::string& text)
{
    Json::Value value;
    EXPECT_TRUE(ReplyJson::Parse(text, value)) << text;
    return value;
}

class WarrantyTagCommandTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        PlatformSettings settings;
        settings.http.publicCaFile = ca_.CaFile();
        settings.http.connectTimeout = 3s;
        settings.http.totalTimeout = 5s;
        root_.Reinstall({}, settings);
        ASSERT_TRUE(utility::InitLog(log_, L"Warranty.log", Log::kDebug));
        AppAndTagCollection::GetInstance()->SetTags({});
    }

    std::string RequestPayload(const std::string& url) const
    {
        Json::Value root(Json::objectValue);
        root["id"] = "req-1";
        root["warrantyUrl"] = url;
        root["eServicesApiKey"] = "key-1";
        root["serialNumber"] = "SN 1&x=2";
        return ReplyJson::Write(root);
    }

    Result Ask(const std::string& payload)
    {
        Command command(log_);
        bool pending = false;
        Result result = command.GetResponse(Request(Command::kCommandName, payload), pending);
        EXPECT_FALSE(pending);
        return result;
    }

    static std::string Tag(const wchar_t* name)
    {
        std::wstring value;
        if (!CRegUtil::GetRegValueOfStringType(HKEY_LOCAL_MACHINE, Command::kTagsKey, name, value)) {
            return "<absent>";
        }
        return String::UTF16ToUTF8(value);
    }

    // The tags as an app sees them.
    Json::Value VeqTags()
    {
        GetVeqTagsCommand command(log_, "com.example.app");
        bool pending = false;
        return Parse(command.GetResponse(Request("Get-VeqTags", ""), pending).message.notification.payload);
    }

    static void ExpectDefaultDate(const std::string& text)
    {
        static const std::regex kShape(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)");
        ASSERT_TRUE(std::regex_match(text, kShape)) << text;
        const int64_t age = DateTimeUtility::GetCurrentGmtDatetime() -
                            DateTimeUtility::ConvertStringToTimeTMInGMT(String::UTF8ToUTF16(text));
        EXPECT_NEAR(static_cast<double>(age), 1095.0 * 86400, 60.0) << text;
    }

    VEQ::Test::TempRoot root_;
    TestCa ca_{root_.PathUtf8() + "/ca", "Warranty CA"};
    HttpsTestServer server_{ca_.IssueServer("warranty")};
    Log log_;
};

TEST_F(WarrantyTagCommandTest, TheServiceGetsAFormPostWithTheKeyAndNoClientCertificate)
{
    server_.Script("/warranty", {200, {}, R"({"Warranty":[{"End":"2027-01-01"}]})"});
    const Result result = Ask(RequestPayload(server_.Url("/warranty?region=eu")));
    EXPECT_TRUE(result.isSuccess) << result.message.statusText;
    ASSERT_EQ(server_.Requests().size(), 1u);
    const auto seen = server_.Requests()[0];
    EXPECT_EQ(seen.method, "POST");
    EXPECT_EQ(seen.query, "region=eu");
    EXPECT_EQ(seen.body, "Serial=SN 1&x=2");  // as the plugin gave it: no escaping
    EXPECT_EQ(seen.Header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(seen.Header("clientid"), "key-1");
    EXPECT_EQ(seen.clientCommonName, "");
}

TEST_F(WarrantyTagCommandTest, TheLatestDatesBecomeTagsAndFailuresSayWhy)
{
    const std::string kNoDate = "Expiration Date cannot be parsed from GetWarranty response";
    struct Row {
        const char* name;
        int status;
        std::string body;
        bool success;
        int code;
        std::string statusText;
        std::string warranty, swiftTune, guardLatch;  // the tags after; kSentinel: untouched
    };
    const Row rows[] = {
        {"the later of two", 200, R"({"Warranty":[{"End":"2025-01-01T00:00:00Z"},{"End":"2027-06-30T00:00:00Z"}]})",
         true, 0, "", "2027-06-30T00:00:00Z", kDefault, kDefault},
        {"ties keep the first", 200, R"({"Warranty":[{"End":"2027-06-30"},{"End":"2027-06-30T00:00:00Z"}]})", true, 0,
         "", "2027-06-30", kDefault, kDefault},
        {"garbage dates are never chosen", 200,
         R"({"Warranty":[{"End":"soon"},{"End":"2026-13-01"},{"End":"2026-02-03 10:00:00"},{"End":7},{}]})", true, 0,
         "", "2026-02-03 10:00:00", kDefault, kDefault},
        {"services in mixed case", 200,
         R"({"Warranty":[{"End":"2027-01-01"}],"OtherServices":[{"Name":"Premium SWIFT Tune Plus","End":"2028-02-01"},)"
         R"({"Name":"swift tune","End":"2028-01-01"},{"Name":"GUARD latch","End":"2029-01-01"},)"
         R"({"Name":"Swift Tune"},{"End":"2031-01-01"},{"Name":"Other","End":"2030-01-01"}]})",
         true, 0, "", "2027-01-01", "2028-02-01", "2029-01-01"},
        {"empty arrays", 200, R"({"Warranty":[],"OtherServices":[]})", false, 2, kNoDate, kDefault, kDefault, kDefault},
        {"only garbage", 200, R"({"Warranty":[{"End":"2027-02-30"}]})", false, 2, kNoDate, kDefault, kDefault, kDefault},
        {"empty body", 200, "", false, 2, kNoDate, kDefault, kDefault, kDefault},
        {"not json", 200, "<html>", false, 2, kNoDate, kDefault, kDefault, kDefault},
        {"server error", 500, R"({"Warranty":[{"End":"2027-01-01"}]})", false, 4,
         "Http request for warranty information failed HttpResponseCode = 500", kSentinel, kSentinel, kSentinel},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        for (const wchar_t* tag : kTags) {
            ASSERT_TRUE(CRegUtil::SetKeyValueIn64BitRegView(HKEY_LOCAL_MACHINE, Command::kTagsKey, tag,
                                                            std::wstring(L"kept")));
        }
        server_.Script("/warranty", {row.status, {}, row.body});

        const Result result = Ask(RequestPayload(server_.Url("/warranty")));

        EXPECT_EQ(result.isSuccess, row.success);
        EXPECT_EQ(result.message.statusCode, 0);
        EXPECT_EQ(result.message.statusText, row.statusText);
        EXPECT_EQ(result.message.notification.command, Command::kReplyCommand);
        const Json::Value reply = Parse(result.message.notification.payload);
        EXPECT_EQ(reply["warrantyCommandResponseCode"].asInt(), row.code);
        EXPECT_EQ(reply["httpResponseCode"].asString(), std::to_string(row.status));
        EXPECT_EQ(reply["httpResponseBody"].asString(), row.body);
        EXPECT_FALSE(reply.isMember("id"));
        // The reply names only dates the service gave, and only on success.
        const auto named = [&](const std::string& tag) { return row.success && tag != kDefault ? tag : ""; };
        EXPECT_EQ(reply["expirationDate"].asString(), named(row.warranty));
        EXPECT_EQ(reply["swiftTuneExpirationDate"].asString(), named(row.swiftTune));
        EXPECT_EQ(reply["guardLatchExpirationDate"].asString(), named(row.guardLatch));

        const Json::Value shown = VeqTags();
        const std::string expected[] = {row.warranty, row.swiftTune, row.guardLatch};
        for (size_t i = 0; i < 3; ++i) {
            const std::string value = Tag(kTags[i]);
            if (expected[i] == kDefault) {
                ExpectDefaultDate(value);
            } else {
                EXPECT_EQ(value, expected[i]) << String::UTF16ToUTF8(kTags[i]);
            }
            EXPECT_EQ(shown[String::UTF16ToUTF8(kTags[i])].asString(), value);
        }
    }
}

TEST_F(WarrantyTagCommandTest, BadRequestsAndUnreachableServicesLeaveTheTagsAlone)
{
    struct Row {
        std::string payload;
        int code;
        std::string statusText;
        std::string httpResponseCode;
    };
    const Row rows[] = {
        {"{nope", 1, "Json Not Valid", ""},
        {R"({"warrantyUrl":"","eServicesApiKey":"","serialNumber":""})", 1, "Empty Id", ""},
        {R"({"id":"1","warrantyUrl":"https://x.example","eServicesApiKey":"k"})", 1, "Empty SerialNumber", ""},
        {RequestPayload("https://127.0.0.1:1/warranty"), 4,
         "Http request for warranty information failed HttpResponseCode = 0", "0"},
    };
    ASSERT_TRUE(CRegUtil::SetKeyValueIn64BitRegView(HKEY_LOCAL_MACHINE, Command::kTagsKey, Command::kWarrantyTagName,
                                                    std::wstring(L"kept")));
    for (const Row& row : rows) {
        SCOPED_TRACE(row.payload);
        const Result result = Ask(row.payload);
        EXPECT_FALSE(result.isSuccess);
        EXPECT_EQ(result.message.statusCode, 0);
        EXPECT_EQ(result.message.statusText, row.statusText);
        const Json::Value reply = Parse(result.message.notification.payload);
        EXPECT_EQ(reply["warrantyCommandResponseCode"].asInt(), row.code);
        EXPECT_EQ(reply["httpResponseCode"].asString(), row.httpResponseCode);
        EXPECT_EQ(Tag(Command::kWarrantyTagName), kSentinel);
        EXPECT_EQ(Tag(Command::kSwiftTuneTagName), "<absent>");
    }
    EXPECT_TRUE(server_.Requests().empty());
}

}  // namespace
}  // namespace VEQ
