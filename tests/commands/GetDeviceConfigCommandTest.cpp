#include "commands/GetDeviceConfigCommand.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/fs/utility.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/policy/ExternalRefreshSource.h"
#include "platform/policy/PolicyDownloadRefreshSource.h"
#include "platform/policy/PolicyFile.h"
#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"
#include "tests/support/Eventually.h"
#include "tests/support/FakeAgents.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace VEQ {
namespace {

using Tavrin::Veq::ClientBroker::Result;

const char* const kStoredPolicy = R"({"mqtt":{"mqttFeatures":"none"}})";
const char* const kRefreshedPolicy = R"({"mqtt":{"mqttFeatures":"all"}})";

Json::Value Document(const std::string& text)
{
    Json::Value value;
    std::string error;
    EXPECT_TRUE(PolicyFile::Parse(text, value, error)) << text;
    return value;
}

ClientRequest Request(const std::string& command, const std::string& payload)
{
    Tavrin::Veq::ClientBroker::Message message;
    message.notification.command = command;
    message.notification.payload = payload;
    ClientRequest request;
    request.setMessage(message);
    return request;
}

// The process-wide agent as the command reaches it, with a hook before each poll of the refresh
// status: the test decides there, poll by poll, how the refresh goes.
class PolledAgent : public IConfigAgent {
public:
    bool GetDeviceConfigPolicy(DeviceConfigPolicy& policy) override { return Real()->GetDeviceConfigPolicy(policy); }
    std::wstring GetConfigPolicy() override { return Real()->GetConfigPolicy(); }
    bool LoadPlatformPolicy(PlatformPolicy& policy) override { return Real()->LoadPlatformPolicy(policy); }
    bool GetMqttPolicy(MqttPolicy& policy) override { return Real()->GetMqttPolicy(policy); }
    int32_t GetRefreshStatus() override
    {
        const int poll = ++polls;
        if (beforePoll) {
            beforePoll(poll);
        }
        return Real()->GetRefreshStatus();
    }

    std::function<void(int poll)> beforePoll;
    std::atomic<int> polls{0};

private:
    static ConfigPolicyAgent* Real() { return ConfigPolicyAgent::GetInstance(); }
};

// Requests for a refresh seen on the bus.
class RefreshRequests {
public:
    RefreshRequests()
    {
        id_ = VEQPublisherSubscriber::GetInstance()->Subscribe(
            [this](VEQNotificationData& data) {
                if (data.getTopicId() == 4 && data.getEventState() == 24) {
                    ++count_;
                }
            },
            false);
    }
    ~RefreshRequests() { VEQPublisherSubscriber::GetInstance()->Unsubscribe(id_); }
    int Count() const { return count_; }

private:
    std::wstring id_;
    std::atomic<int> count_{0};
};

struct Reply {
    std::string configPolicy;
    bool hasOutcome = false;
    std::string code;
    std::string description;
};

Reply Read(const Result& result)
{
    EXPECT_TRUE(result.isSuccess);
    EXPECT_EQ(result.message.notification.command, "Receive-DeviceConfig");
    const Json::Value json = Document(result.message.notification.payload);
    const Json::Value& outcome = json["refreshConfig"];
    EXPECT_TRUE(!json.isMember("refreshConfig") || outcome["responseCode"].isString()) << "the code is text";
    return {json["configPolicy"].asString(), json.isMember("refreshConfig"), outcome["responseCode"].asString(),
            outcome["responseDescription"].asString()};
}

PlatformServices With(std::shared_ptr<IConfigAgent> agent)
{
    PlatformServices services;
    services.configAgent = std::move(agent);
    return services;
}

// The real agent, refreshing through a source that the test answers for (as another agent of the
// host would), reached by the command through a hook on its polls. Registered device; a short poll
// interval, and the same 110 polls to the time limit as the command's defaults.
class GetDeviceConfigCommandTest : public ::testing::Test {
protected:
    static constexpr int32_t kPollMs = 1;
    static constexpr int32_t kLimitMs = 110;
    static constexpr int32_t kStopTheHandler = 1000;

    void SetUp() override
    {
        ASSERT_TRUE(utility::InitLog(log_, L"Commands.log", Log::kDebug));
        ASSERT_TRUE(CoreUtility::GetInstance()->SetDeviceRegistered(true));
        Restart(std::make_shared<ExternalRefreshSource>());
    }
    void TearDown() override
    {
        ConfigPolicyAgent::GetInstance()->SetRefreshSource(nullptr);
        ConfigPolicyAgent::GetInstance()->SetPolicyDocument(Json::Value());
    }
    void Restart(std::shared_ptr<IPolicyRefreshSource> source)
    {
        ConfigPolicyAgent::GetInstance()->SetRefreshSource(std::move(source));
        ConfigPolicyAgent::GetInstance()->SetPolicyDocument(Document(kStoredPolicy));
        agent_->polls = 0;
        agent_->beforePoll = nullptr;
    }

    // On poll number `poll`, the refresh ends with status; a success brings the refreshed policy.
    void AnswerOnPoll(int poll, int32_t status, GetDeviceConfigCommand& command)
    {
        agent_->beforePoll = [poll, status, &command](int current) {
            if (current != poll) {
                return;
            }
            if (status == kStopTheHandler) {
                // The policy changes too, but the stop comes first: the reply keeps what was read.
                ConfigPolicyAgent::GetInstance()->SetPolicyDocument(Document(kRefreshedPolicy));
                command.StopHandler();
                return;
            }
            if (status == 0) {
                ConfigPolicyAgent::GetInstance()->SetPolicyDocument(Document(kRefreshedPolicy));
            }
            EXPECT_TRUE(ConfigPolicyAgent::GetInstance()->ReportRefreshStatus(status));
        };
    }

    static Result Ask(GetDeviceConfigCommand& command, const std::string& payload,
                      const std::string& name = "Get-DeviceConfig")
    {
        bool pending = false;
        return command.GetResponse(Request(name, payload), pending);
    }

    std::shared_ptr<PolledAgent> agent_ = std::make_shared<PolledAgent>();
    VEQ::Test::TempRoot root_{With(agent_)};
    Log log_;
};

TEST_F(GetDeviceConfigCommandTest, OnlyTrueAsTextInAnyCaseOrAsBooleanAsksForARefresh)
{
    struct Row {
        const char* payload;
        bool asks;
    };
    const Row rows[] = {
        {"", false},
        {"not json {", false},
        {"[true]", false},
        {"{}", false},
        {R"({"refreshConfig":false})", false},
        {R"({"refreshConfig":1})", false},
        {R"({"refreshConfig":" true"})", false},
        {R"({"refreshConfig":null})", false},
        {R"({"refreshConfig":{"true":true}})", false},
        {R"({"refreshConfig":true})", true},
        {R"({"refreshConfig":"TRUE"})", true},
        {R"({"refreshConfig":"tRuE"})", true},
    };
    GetDeviceConfigCommand command(log_, kPollMs, kLimitMs);
    for (const Row& row : rows) {
        Restart(std::make_shared<ExternalRefreshSource>());
        AnswerOnPoll(1, 0, command);
        RefreshRequests requests;
        const Reply reply = Read(Ask(command, row.payload));
        EXPECT_EQ(requests.Count(), row.asks ? 1 : 0) << row.payload;
        EXPECT_EQ(agent_->polls, row.asks ? 1 : 0) << row.payload;
        EXPECT_EQ(reply.hasOutcome, row.asks) << row.payload;
        EXPECT_EQ(reply.configPolicy, row.asks ? kRefreshedPolicy : kStoredPolicy) << row.payload;
    }
}

TEST_F(GetDeviceConfigCommandTest, TheRefreshOutcomeDecidesTheReplyAndWhenThePollingEnds)
{
    struct Row {
        const char* name;
        bool registered;
        int answerOnPoll;  // 0: the refresh never ends
        int32_t status;
        int expectedPolls;
        const char* code;  // nullptr: no "refreshConfig"
        const char* description;
    };
    const Row rows[] = {
        {"success on the first poll", true, 1, 0, 1, "0", "success"},
        {"certificate expired", true, 1, 11, 1, "11", "certExpired"},
        {"refused by the back end", true, 2, 12, 2, "12", "unRegistered"},
        {"fetch failed on the third poll", true, 3, 13, 3, "13", "configApiFailed"},
        {"asked too soon", true, 1, 14, 1, "14", "timeThreasholdNotMet"},
        {"a status of no meaning", true, 1, 7, 1, nullptr, nullptr},
        {"success on the last poll before the limit", true, 110, 0, 110, "0", "success"},
        {"still running at the limit", true, 0, -1, 110, "15", "timeout"},
        {"the service stops during the wait", true, 2, kStopTheHandler, 2, nullptr, nullptr},
        {"an unregistered device", false, 1, 0, 0, "12", "unRegistered"},
    };
    for (const Row& row : rows) {
        Restart(std::make_shared<ExternalRefreshSource>());
        ASSERT_TRUE(CoreUtility::GetInstance()->SetDeviceRegistered(row.registered));
        GetDeviceConfigCommand command(log_, kPollMs, kLimitMs);
        AnswerOnPoll(row.answerOnPoll, row.status, command);
        RefreshRequests requests;
        const Reply reply = Read(Ask(command, R"({"refreshConfig":true})"));
        EXPECT_EQ(requests.Count(), row.registered ? 1 : 0) << row.name;
        EXPECT_EQ(agent_->polls, row.expectedPolls) << row.name;
        EXPECT_EQ(reply.hasOutcome, row.code != nullptr) << row.name;
        EXPECT_EQ(reply.code, row.code ? row.code : "") << row.name;
        EXPECT_EQ(reply.description, row.description ? row.description : "") << row.name;
        // Only a success reads the policy again; otherwise the reply holds what was stored.
        EXPECT_EQ(reply.configPolicy, row.expectedPolls > 0 && row.status == 0 ? kRefreshedPolicy : kStoredPolicy)
            << row.name;
    }
}

TEST_F(GetDeviceConfigCommandTest, OtherCommandsAreRefusedAndTheTimingsDefaultToHalfASecondAndFiftyFiveSeconds)
{
    GetDeviceConfigCommand command(log_);
    EXPECT_EQ(command.PollIntervalMs(), 500);
    EXPECT_EQ(command.FetchTimeoutMs(), 55000);
    const Result result = Ask(command, "{}", "Get-Deviceconfig");
    EXPECT_FALSE(result.isSuccess);
    EXPECT_EQ(result.message.statusCode, -1);
    EXPECT_EQ(result.message.statusText, "Command not Supported");
}

TEST_F(GetDeviceConfigCommandTest, FiftyConcurrentRequestsShareAtMostTwoRefreshesAndAllSeeTheLastOne)
{
    constexpr int kClients = 50;
    auto source = std::make_shared<VEQ::Test::FakeRefreshSource>(true);
    source->SetOnPass([](int pass) {
        Json::Value document = Document(kRefreshedPolicy);
        document["pass"] = pass;
        ConfigPolicyAgent::GetInstance()->SetPolicyDocument(document);
        return 0;
    });
    Restart(source);
    RefreshRequests requests;
    GetDeviceConfigCommand command(log_, kPollMs, 20000);
    std::vector<Reply> replies(kClients);
    std::vector<std::thread> clients;
    for (int n = 0; n < kClients; ++n) {
        clients.emplace_back([&, n] { replies[n] = Read(Ask(command, R"({"refreshConfig":true})")); });
    }
    // Every request is in before the first refresh may end.
    ASSERT_TRUE(source->WaitForStarted(1));
    ASSERT_TRUE(VEQ::Test::Eventually([&] { return requests.Count() == kClients; }));
    source->Release();
    for (auto& client : clients) {
        client.join();
    }
    EXPECT_LE(source->Started(), 2);
    const std::string last = String::UTF16ToUTF8(ConfigPolicyAgent::GetInstance()->GetConfigPolicy());
    EXPECT_NE(last.find("\"pass\":" + std::to_string(source->Started())), std::string::npos) << last;
    for (int n = 0; n < kClients; ++n) {
        EXPECT_EQ(replies[n].code, "0") << "client " << n;
        EXPECT_EQ(replies[n].configPolicy, last) << "client " << n;
    }
}

// A refresh from the back end, short of HTTPS: the download replaces the policy file (readable by
// all, writable by no other user), the policy in force follows, and the reply carries it.
TEST_F(GetDeviceConfigCommandTest, ADownloadedPolicyReplacesThePolicyFileAndIsInTheReply)
{
    const std::string path = root_.BelowUtf8("policy.json");
    std::ofstream(path) << kStoredPolicy;
    std::string askedUrl;
    Restart(std::make_shared<PolicyDownloadRefreshSource>(
        *ConfigPolicyAgent::GetInstance(), String::UTF8ToUTF16(path), "https://config.example/device/policy",
        [&askedUrl](const std::string& url) {
            askedUrl = url;
            return PolicyDownloadRefreshSource::Download{200, 0, "", kRefreshedPolicy, false};
        }));

    GetDeviceConfigCommand command(log_, kPollMs, 20000);
    const Reply reply = Read(Ask(command, R"({"refreshConfig":true})"));
    EXPECT_EQ(askedUrl, "https://config.example/device/policy");
    EXPECT_EQ(reply.code, "0");
    EXPECT_EQ(reply.configPolicy, kRefreshedPolicy);
    std::stringstream written;
    written << std::ifstream(path).rdbuf();
    EXPECT_EQ(written.str(), kRefreshedPolicy);
    struct stat file {};
    ASSERT_EQ(::stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0644u);
}

}  // namespace
}  // namespace VEQ
