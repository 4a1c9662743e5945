#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/policy/PolicyFile.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <sys/stat.h>

namespace VEQ {
namespace {

// An agent of the test's own, so that the process-wide one stays as other tests expect it.
class PrivateAgent : public ConfigPolicyAgent {
public:
    PrivateAgent() = default;
};

void Write(const std::string& path, const std::string& text, mode_t mode = 0644)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    ::chmod(path.c_str(), mode);
}

Json::Value Parse(const std::string& text)
{
    Json::Value value;
    std::string error;
    EXPECT_TRUE(PolicyFile::Parse(text, value, error)) << text << ": " << error;
    return value;
}

class PolicyFileTest : public ::testing::Test {
protected:
    std::string File() const { return root_.BelowUtf8("policy.json"); }
    std::wstring WideFile() const { return root_.Below(L"policy.json"); }

    VEQ::Test::TempRoot root_;
};

TEST_F(PolicyFileTest, OnlyAStrictJsonObjectInARegularFileIsAPolicy)
{
    struct Row {
        const char* what;
        std::function<void(const std::string& path)> make;
        bool accepted;
    };
    const Row rows[] = {
        {"an object", [](const std::string& p) { Write(p, R"({"mqtt":{"mqttFeatures":"all"}})"); }, true},
        {"an object after a byte order mark", [](const std::string& p) { Write(p, "\xEF\xBB\xBF{\"a\":1}"); }, true},
        {"an object readable only by its owner", [](const std::string& p) { Write(p, "{}", 0600); }, true},
        {"no file", [](const std::string&) {}, false},
        {"an empty file", [](const std::string& p) { Write(p, ""); }, false},
        {"text that is not JSON", [](const std::string& p) { Write(p, "enablement=enabled"); }, false},
        {"a half-written object", [](const std::string& p) { Write(p, R"({"app_settings":[{"applic)"); }, false},
        {"an array", [](const std::string& p) { Write(p, R"([{"mqtt":{}}])"); }, false},
        {"a number", [](const std::string& p) { Write(p, "42"); }, false},
        {"two objects in a row", [](const std::string& p) { Write(p, R"({"a":1}{"b":2})"); }, false},
        {"a name given twice", [](const std::string& p) { Write(p, R"({"mqtt":{},"mqtt":{}})"); }, false},
        {"a comment", [](const std::string& p) { Write(p, "{} // policy"); }, false},
        {"a file every user may write", [](const std::string& p) { Write(p, "{}", 0666); }, false},
        {"a directory", [](const std::string& p) { ::mkdir(p.c_str(), 0755); }, false},
        {"a FIFO, which must not block the reader", [](const std::string& p) { ::mkfifo(p.c_str(), 0644); }, false},
        {"a file too large",
         [](const std::string& p) { Write(p, "{\"a\":\"" + std::string(PolicyFile::kMaxSize, 'x') + "\"}"); }, false},
    };
    int number = 0;
    for (const Row& row : rows) {
        const std::string name = "policy" + std::to_string(++number) + ".json";
        row.make(root_.BelowUtf8(name));
        Json::Value document = "untouched";
        EXPECT_EQ(PolicyFile::Read(root_.Below(String::UTF8ToUTF16(name)), document), row.accepted) << row.what;
        if (row.accepted) {
            EXPECT_TRUE(document.isObject()) << row.what;
        } else {
            EXPECT_EQ(document, Json::Value("untouched")) << row.what;
        }
    }
}

TEST_F(PolicyFileTest, AFileThatIsNoPolicyLeavesTheLastGoodOneInForce)
{
    PrivateAgent agent;
    const Json::Value good = Parse(R"({"mqtt":{"mqttFeatures":"all","mqttConnectType":"NRT"}})");
    Write(File(), R"({"mqtt":{"mqttFeatures":"all","mqttConnectType":"NRT"}})");
    ASSERT_TRUE(agent.LoadFromFile(WideFile()));
    ASSERT_EQ(agent.GetPolicyDocument(), good);

    const char* broken[] = {"not json", "[1,2]", "{\"mqtt\":", ""};
    for (const char* text : broken) {
        Write(File(), text);
        EXPECT_FALSE(agent.LoadFromFile(WideFile())) << text;
        EXPECT_EQ(agent.GetPolicyDocument(), good) << text;
    }
    ::unlink(File().c_str());
    EXPECT_FALSE(agent.LoadFromFile(WideFile())) << "deleted";
    EXPECT_EQ(agent.GetPolicyDocument(), good) << "deleted";

    Write(File(), R"({"mqtt":{"mqttFeatures":"none"}})");
    EXPECT_TRUE(agent.LoadFromFile(WideFile()));
    MqttPolicy mqtt;
    agent.GetMqttPolicy(mqtt);
    EXPECT_EQ(mqtt.mqttFeatures, L"none");
    EXPECT_EQ(mqtt.mqttConnectType, L"");
}

}  // namespace
}  // namespace VEQ
