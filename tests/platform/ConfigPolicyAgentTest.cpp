#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/string/String.h"

#include <gtest/gtest.h>

#include <sstream>
#include <thread>

namespace VEQ {
namespace {

Json::Value Parse(const std::string& text)
{
    Json::Value value;
    Json::CharReaderBuilder reader;
    std::istringstream stream(text);
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(reader, stream, &value, &errors)) << text;
    return value;
}

class ConfigPolicyAgentTest : public ::testing::Test {
protected:
    void TearDown() override { ConfigPolicyAgent::GetInstance()->SetPolicyDocument(Json::Value()); }
};

TEST_F(ConfigPolicyAgentTest, PlatformPolicyComesFromThePlatformPolicyObjectOnly)
{
    struct Row {
        const char* document;
        bool loaded;
        const wchar_t* enterprise;
        const wchar_t* consumer;
        const wchar_t* api;
    };
    // A policy that cannot be loaded leaves the record as it was: "old".
    const Row rows[] = {
        {R"({"platform_policy":{"enterprise_auth_baseuri":"https://e.example/","consumer_auth_baseuri":"https://c.example/","api_baseuri":"https://api.example/v1"}})",
         true, L"https://e.example/", L"https://c.example/", L"https://api.example/v1"},
        {R"({"platform_policy":{"api_baseuri":"https://api.example/"}})", true, L"", L"", L"https://api.example/"},
        {R"({"platform_policy":{"api_baseuri":7,"enterprise_auth_baseuri":{"a":"b"},"consumer_auth_baseuri":null}})",
         true, L"", L"", L""},
        {R"({"platform_policy":{"api_baseuri":"https://ä.example/"}})", true, L"", L"", L"https://ä.example/"},
        {R"({"platform_policy":{}})", true, L"", L"", L""},
        {R"({"api_baseuri":"https://api.example/"})", false, L"old", L"old", L"old"},
        {R"({"platform_policy":"https://api.example/"})", false, L"old", L"old", L"old"},
        {R"(["platform_policy"])", false, L"old", L"old", L"old"},
        {"null", false, L"old", L"old", L"old"},
    };
    for (const Row& row : rows) {
        ConfigPolicyAgent::GetInstance()->SetPolicyDocument(Parse(row.document));
        PlatformPolicy policy(nullptr);
        policy.enterprise_auth_baseuri = policy.consumer_auth_baseuri = policy.api_baseuri = L"old";
        EXPECT_EQ(ConfigPolicyAgent::GetInstance()->LoadPlatformPolicy(policy), row.loaded) << row.document;
        EXPECT_EQ(policy.enterprise_auth_baseuri, row.enterprise) << row.document;
        EXPECT_EQ(policy.consumer_auth_baseuri, row.consumer) << row.document;
        EXPECT_EQ(policy.api_baseuri, row.api) << row.document;
    }
}

TEST_F(ConfigPolicyAgentTest, ReadingThePolicyLeavesTheDocumentAsItWasSet)
{
    const Json::Value document = Parse(R"({"app_settings":{"extension-support":"enabled"}})");
    ConfigPolicyAgent::GetInstance()->SetPolicyDocument(document);
    PlatformPolicy policy(nullptr);
    ConfigPolicyAgent::GetInstance()->LoadPlatformPolicy(policy);
    EXPECT_EQ(ConfigPolicyAgent::GetInstance()->GetPolicyDocument(), document);
}

TEST_F(ConfigPolicyAgentTest, ReadersSeeWholeDocumentsWhileTheyAreReplaced)
{
    const Json::Value first = Parse(R"({"platform_policy":{"api_baseuri":"https://one.example/"}})");
    const Json::Value second = Parse(R"({"platform_policy":{"api_baseuri":"https://two.example/"}})");
    std::thread writer([&] {
        for (int n = 0; n < 500; ++n) {
            ConfigPolicyAgent::GetInstance()->SetPolicyDocument(n % 2 == 0 ? first : second);
        }
    });
    for (int n = 0; n < 500; ++n) {
        PlatformPolicy policy(nullptr);
        if (ConfigPolicyAgent::GetInstance()->LoadPlatformPolicy(policy)) {
            ASSERT_TRUE(policy.api_baseuri == L"https://one.example/" || policy.api_baseuri == L"https://two.example/")
                << String::UTF16ToUTF8(policy.api_baseuri);
        }
    }
    writer.join();
}

}  // namespace
}  // namespace VEQ
