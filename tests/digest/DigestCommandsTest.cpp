// The back end's signed content and the digest's local state: JWS checks, "Verify-Signature"
// with the policy's keys, and "RegistryAndDigestCleanup" as the digest address changes.

#include "digest/RegistryAndDigestManagerCommand.h"
#include "digest/SmartMessageV2Utility.h"
#include "digest/VerifySignatureOfDigestCommand.h"
#include "digest/VerifySignatureResponse.h"
#include "platform/crypto/JwsVerifier.h"
#include "platform/device/DeveloperSettings.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/registry/CRegUtil.h"
#include "platform/util/CoreUtility.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"
#include "tests/support/TestJws.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <unistd.h>

namespace VEQ {
namespace {

using Tavrin::Veq::ClientBroker::Message;
using Tavrin::Veq::ClientBroker::Result;
using VEQ::Test::TestJws;

Result Ask(BaseCommandHandler& handler, const std::string& command, const std::string& payload)
{
    Message message;
    message.guid = "G-2";
    message.notification.command = command;
    message.notification.payload = payload;
    ClientRequest request;
    request.setMessage(message);
    bool pending = false;
    return handler.GetResponse(request, pending);
}

TEST(JwsVerifierTest, OnlyAKeyOfTheNamedAlgorithmThatVerifiesTheseBytesMakesItValid)
{
    const TestJws rsa(TestJws::Algorithm::RS256);
    const TestJws ec(TestJws::Algorithm::ES256);
    const TestJws stranger(TestJws::Algorithm::RS256);
    const auto wide = [](const std::string& text) { return String::UTF8ToUTF16(text); };
    const std::vector<std::wstring> keys = {wide(stranger.PublicPem()), wide(rsa.PublicBase64Der()), wide(ec.PublicPem())};
    const std::string signedByRsa = rsa.Sign(R"({"messages":[]})");
    std::string tampered = signedByRsa;
    tampered[tampered.find('.') + 2] ^= 1;
    const std::string header = TestJws::Base64Url(R"({"alg":"none"})");
    struct Row {
        const char* what;
        std::string text;
        std::vector<std::wstring> keys;
        int status;
    };
    const std::vector<Row> rows = {
        {"RS256, base64 DER key among others", signedByRsa, keys, SignatureCheckResult::kValid},
        {"ES256, PEM key", ec.Sign("{}"), keys, SignatureCheckResult::kValid},
        {"payload changed", tampered, keys, SignatureCheckResult::kContentMismatch},
        {"signed by someone else", stranger.Sign("{}"), {wide(rsa.PublicPem())}, SignatureCheckResult::kContentMismatch},
        {"RS256 header on an EC signature", ec.Sign("{}", R"({"alg":"RS256"})"), {wide(ec.PublicPem())},
         SignatureCheckResult::kNoTrustAnchors},
        {"alg none", header + "." + TestJws::Base64Url("{}") + ".", keys, SignatureCheckResult::kMalformed},
        {"plain JSON", R"({"messages":[]})", keys, SignatureCheckResult::kNotSigned},
        {"not base64url", "a+b.c.d", keys, SignatureCheckResult::kMalformed},
        {"no keys", signedByRsa, {}, SignatureCheckResult::kNoTrustAnchors},
        {"keys that are no keys", signedByRsa, {L"not a key", L"-----BEGIN PUBLIC KEY-----\nAAAA\n"},
         SignatureCheckResult::kNoTrustAnchors},
    };
    for (const Row& row : rows) {
        const SignatureCheckResult result = JwsVerifier::VerifyContentWithKeys(row.text, row.keys, true);
        EXPECT_EQ(result.status, row.status) << row.what << ": " << result.message;
        EXPECT_EQ(result.isValid, row.status == SignatureCheckResult::kValid) << row.what;
        // Not enforced (a developer setting): the finding stays, the content is taken.
        EXPECT_TRUE(JwsVerifier::VerifyContentWithKeys(row.text, row.keys, false).isValid) << row.what;
    }
    EXPECT_EQ(JwsVerifier::Payload(signedByRsa), R"({"messages":[]})");
}

// The walk-through in docs/digest.md, run as written, signs content that the service accepts.
TEST(JwsVerifierTest, ContentSignedAsTheDocsSayVerifies)
{
    std::ifstream doc(std::string(VEQ_DOCS_DIR) + "/digest.md");
    std::string text((std::istreambuf_iterator<char>(doc)), std::istreambuf_iterator<char>());
    const size_t section = text.find("## Signing content");
    ASSERT_NE(section, std::string::npos);
    const size_t start = text.find("```sh\n", section);
    const size_t end = text.find("```", start + 6);
    ASSERT_NE(end, std::string::npos);
    VEQ::Test::TempRoot root;
    const std::string folder = root.BelowUtf8("signing");
    std::filesystem::create_directories(folder);
    std::ofstream(folder + "/digest.json") << R"({"messages":[{"id":"m1","text":"Caf\u00e9"}]})";
    std::ofstream(folder + "/sign.sh") << "set -e\ncd " << folder << "\n" << text.substr(start + 6, end - start - 6);
    ASSERT_EQ(std::system(("bash " + folder + "/sign.sh >/dev/null 2>&1").c_str()), 0);
    std::ifstream signedFile(folder + "/digest.json.signed");
    std::ifstream publicKey(folder + "/signer.pub");
    const std::string signedText((std::istreambuf_iterator<char>(signedFile)), std::istreambuf_iterator<char>());
    const std::string key((std::istreambuf_iterator<char>(publicKey)), std::istreambuf_iterator<char>());
    const auto result = JwsVerifier::VerifyContentWithKeys(signedText, {String::UTF8ToUTF16(key)}, true);
    EXPECT_TRUE(result.isValid) << result.message;
    EXPECT_EQ(JwsVerifier::Payload(signedText), R"({"messages":[{"id":"m1","text":"Caf\u00e9"}]})");
}

class DigestCommandsTest : public ::testing::Test {
protected:
    DigestCommandsTest()
    {
        previous_ = ConfigPolicyAgent::GetInstance()->GetPolicyDocument();
        // The signed-in user is this test's own, whose hive holds the digest's timestamp.
        const std::string sessionFile = root_.BelowUtf8("session.json");
        std::ofstream(sessionFile) << "{\"sessionId\": 2, \"uid\": " << getuid() << "}";
        PlatformSettings settings;
        settings.sessionSource = "file";
        settings.sessionFile = sessionFile;
        root_.Reinstall({}, settings);
    }
    ~DigestCommandsTest() override
    {
        ConfigPolicyAgent::GetInstance()->SetPolicyDocument(previous_);
        DeveloperSettings::GetInstance()->SetSkipSignedContentCheck(false);
    }

    void PolicyKeys(const std::vector<std::string>& keys)
    {
        Json::Value document(Json::objectValue);
        document[JwsVerifier::kPolicyKeysMember] = Json::Value(Json::arrayValue);
        for (const std::string& key : keys) {
            document[JwsVerifier::kPolicyKeysMember].append(key);
        }
        ConfigPolicyAgent::GetInstance()->SetPolicyDocument(document);
    }

    Json::Value Cleanup(const std::string& payload)
    {
        const Result result = Ask(cleanup_, "RegistryAndDigestCleanup", payload);
        EXPECT_TRUE(result.isSuccess);
        EXPECT_EQ(result.message.notification.command, "Receive-RegistryAndDigestCleanup");
        Json::Value reply;
        Json::Reader().parse(result.message.notification.payload, reply);
        return reply;
    }

    VEQ::Test::TempRoot root_;
    Json::Value previous_;
    Log log_;
    VerifySignatureOfDigestCommand verify_{log_};
    RegistryAndDigestManagerCommand cleanup_{log_};
};

TEST_F(DigestCommandsTest, VerifySignatureChecksThePayloadWithThePolicysKeys)
{
    const TestJws signer(TestJws::Algorithm::ES256);
    PolicyKeys({signer.PublicPem()});
    const auto verdict = [&](const std::string& payload) {
        const Result result = Ask(verify_, "Verify-Signature", payload);
        EXPECT_TRUE(result.isSuccess);
        EXPECT_EQ(result.message.statusCode, 0);
        EXPECT_EQ(result.message.guid, "G-2");
        return result.message.notification.payload;
    };
    EXPECT_EQ(verdict(signer.Sign("{}")), R"({"isSigned":"true","responseCode":"0","responseDescription":"Success"})");
    EXPECT_EQ(verdict("{}"), R"({"isSigned":"false","responseCode":"51","responseDescription":"Failure"})");
    PolicyKeys({});
    EXPECT_EQ(verdict(signer.Sign("{}")), R"({"isSigned":"false","responseCode":"51","responseDescription":"Failure"})");
    DeveloperSettings::GetInstance()->SetSkipSignedContentCheck(true);
    EXPECT_EQ(verdict("{}"), R"({"isSigned":"true","responseCode":"0","responseDescription":"Success"})");
    // Another command's name gets nothing from this handler.
    EXPECT_FALSE(Ask(verify_, "verify-signature", "{}").isSuccess);
    const auto back = VerifySignatureResponse::Deserialize(verdict("{}"));
    EXPECT_EQ(back.responseCode, "0");
    EXPECT_EQ(VerifySignatureOfDigestCommand::getResponseDescription(51), "Success");
}

TEST_F(DigestCommandsTest, ACleanupDropsTheCachedDigestOnlyWhenItsAddressChanges)
{
    using SmartMessageV2::SmartMessageV2Utility;
    const auto flags = [](const Json::Value& reply) {
        return std::pair{reply["cachedDigestAndRegDeleted"].asBool(), reply["hashUpdated"].asBool()};
    };
    // Nothing cached: the missing ETag counts as a failed deletion.
    EXPECT_EQ(flags(Cleanup("{}")), std::pair(false, false));
    EXPECT_EQ(flags(Cleanup("not json")), std::pair(false, false));
    EXPECT_EQ(flags(Cleanup(R"({"digestUrl":"https://a.example/d"})")), std::pair(false, true));
    EXPECT_EQ(flags(Cleanup(R"({"digestUrl":"https://a.example/d"})")), std::pair(false, false));
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, SmartMessageV2Utility::kMessagingPluginKey,
                                      SmartMessageV2Utility::kEtagValueName, L"\"e1\""));
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_CURRENT_USER, SmartMessageV2Utility::kStatusKey,
                                      L"LastMessageDigestTimeStamp", L"1700000000"));
    EXPECT_EQ(flags(Cleanup(R"({"digestUrl":"https://a.example/d2"})")), std::pair(true, true));
    std::wstring etag;
    EXPECT_FALSE(CRegUtil::GetRegValueOfStringType(HKEY_LOCAL_MACHINE, SmartMessageV2Utility::kMessagingPluginKey,
                                                   SmartMessageV2Utility::kEtagValueName, etag));
    std::string hash;
    ASSERT_TRUE(SmartMessageV2Utility::ReadPreviousHash(hash));
    EXPECT_EQ(hash, CoreUtility::GetInstance()->ComputeUrlHash("https://a.example/d2"));
    EXPECT_EQ(hash.size(), 64u);
}

}  // namespace
}  // namespace VEQ
