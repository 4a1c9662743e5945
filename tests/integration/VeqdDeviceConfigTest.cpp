// "Get-DeviceConfig" with a refresh through veqd: the registration state that veqctl sets, a
// refresh from the policy file, one made by an external agent that answers with veqctl, and one
// downloaded over mutual TLS from a local back end.

#include "sdk/AppClient.h"
#include "tests/support/BackgroundProcess.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/HttpsTestServer.h"
#include "tests/support/TestCa.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <sys/stat.h>
#include <thread>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using Veq::Sdk::AppClient;
using Veq::Sdk::AppClientOptions;
using Veq::Sdk::Side;

std::string Policy(const std::string& marker)
{
    return R"({"app_settings":[{"application_id":"Tavrin.veq","settings":{"extension_apps":{"enablement":"enabled",)"
           R"("ipcMethods_afunix":"both"}}}],"marker":")" +
           marker + R"("})";
}

struct ConfigReply {
    std::string marker;  // of the policy the reply carries
    std::string code;    // "" when the reply has no "refreshConfig"
    std::string description;
};

class VeqdDeviceConfigTest : public ::testing::Test {
protected:
    VeqdDeviceConfigTest()
    {
        char rootTemplate[] = "/tmp/veqd-config-XXXXXX";
        root_ = ::mkdtemp(rootTemplate);
        ::chmod(root_.c_str(), 0755);
        WritePolicy(Policy("first"));
    }

    ~VeqdDeviceConfigTest() override
    {
        app_.reset();
        monitor_.reset();
        daemon_.reset();
        std::filesystem::remove_all(root_);
    }

    void WritePolicy(const std::string& text)
    {
        std::ofstream(root_ + "/policy.json.new") << text;
        std::filesystem::rename(root_ + "/policy.json.new", root_ + "/policy.json");
    }

    void Start(const Json::Value& hostConfig = Json::Value(Json::objectValue))
    {
        Json::StreamWriterBuilder writer;
        std::ofstream(root_ + "/veqd.json") << Json::writeString(writer, hostConfig);
        daemon_ = std::make_unique<VEQ::Test::DaemonProcess>(root_);
        ASSERT_TRUE(daemon_->Start()) << daemon_->Output();
        monitor_ = std::make_unique<VEQ::Test::BackgroundProcess>(std::vector<std::string>{
            VEQCTL_PROGRAM, "--root", root_, "monitor", "--topic", "4", "--state", "24"});
        ASSERT_TRUE(monitor_->Start());
        ASSERT_TRUE(monitor_->WaitForOutput("monitoring", 10s)) << monitor_->Output();
        AppClientOptions options;
        options.dataRoot = root_;
        options.side = Side::Elevated;
        options.extensionId = "config.reader";
        options.extensionName = "config.reader";
        options.timeout = 70s;
        options.autoReconnect = false;
        app_ = std::make_unique<AppClient>(options);
        ASSERT_FALSE(app_->Connect());
    }

    VEQ::Test::ChildOutcome Veqctl(std::vector<std::string> args)
    {
        args.insert(args.begin(), {VEQCTL_PROGRAM, "--root", root_});
        return VEQ::Test::ChildProcess::Run(args);
    }

    ConfigReply Ask(const std::string& payload = R"({"refreshConfig":true})")
    {
        AppClient::Result result;
        EXPECT_FALSE(app_->Send("Get-DeviceConfig", payload, result));
        EXPECT_TRUE(result.isSuccess);
        Json::Value reply;
        Json::Value policy;
        ConfigReply config;
        if (Json::Reader().parse(result.message.notification.payload, reply) &&
            Json::Reader().parse(reply["configPolicy"].asString(), policy)) {
            config.marker = policy["marker"].asString();
            config.code = reply["refreshConfig"]["responseCode"].asString();
            config.description = reply["refreshConfig"]["responseDescription"].asString();
        }
        return config;
    }

    size_t RefreshRequests()
    {
        std::istringstream lines(monitor_->Output());
        size_t count = 0;
        for (std::string line; std::getline(lines, line);) {
            count += line.rfind("{", 0) == 0 ? 1 : 0;
        }
        return count;
    }

    std::string root_;
    std::unique_ptr<VEQ::Test::DaemonProcess> daemon_;
    std::unique_ptr<VEQ::Test::BackgroundProcess> monitor_;
    std::unique_ptr<AppClient> app_;
};

TEST_F(VeqdDeviceConfigTest, AnUnregisteredDeviceIsNotRefreshedAndARegisteredOneReReadsItsFile)
{
    Start();
    const ConfigReply unregistered = Ask();
    EXPECT_EQ(unregistered.code, "12");
    EXPECT_EQ(unregistered.description, "unRegistered");
    EXPECT_EQ(unregistered.marker, "first");

    ASSERT_EQ(Veqctl({"registration", "registered"}).exitCode, 0);
    auto push = app_->NextPush(10s);
    ASSERT_TRUE(push);
    EXPECT_EQ(push->command, "Receive-RegistrationResult");
    EXPECT_EQ(push->payload, R"({"isRegistered":true})");

    WritePolicy(Policy("second"));
    const ConfigReply refreshed = Ask();
    EXPECT_EQ(refreshed.code, "0");
    EXPECT_EQ(refreshed.description, "success");
    EXPECT_EQ(refreshed.marker, "second");
    // A plain read asks for nothing.
    EXPECT_EQ(Ask("{}").code, "");
    // Only the registered device's refresh went out on the bus.
    EXPECT_EQ(RefreshRequests(), 1u);
    EXPECT_EQ(Veqctl({"registration", "maybe"}).exitCode, 2);
}

// The client polls the refresh's status every half second; the external agent answers when it likes.
TEST_F(VeqdDeviceConfigTest, AnExternalRefresherHearsEachRequestAndItsAnswerReachesTheClient)
{
    Json::Value config;
    config["policy"]["refresh"] = "external";
    Start(config);
    ASSERT_EQ(Veqctl({"registration", "registered"}).exitCode, 0);
    // Nothing waits for an answer yet.
    EXPECT_EQ(Veqctl({"refresh-status", "0"}).exitCode, 6);
    struct Row {
        const char* what;
        std::chrono::milliseconds answerAfter;
        const char* status;
        const char* code;
        const char* description;
        const char* marker;
    };
    const Row rows[] = {
        {"success before the first poll", 0ms, "0", "0", "success", "rewritten"},
        {"a failure by the third poll", 1200ms, "13", "13", "configApiFailed", "rewritten"},
        {"a status without a word", 0ms, "7", "", "", "rewritten"},
    };
    size_t asked = 0;
    for (const Row& row : rows) {
        // On success the agent has rewritten the file: the reply carries what it wrote.
        WritePolicy(Policy("rewritten"));
        auto reply = std::async(std::launch::async, [this] { return Ask(); });
        ++asked;
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (RefreshRequests() < asked && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(20ms);
        }
        ASSERT_EQ(RefreshRequests(), asked) << row.what;
        std::this_thread::sleep_for(row.answerAfter);
        const auto reported = Veqctl({"refresh-status", row.status});
        ASSERT_EQ(reported.exitCode, 0) << row.what << ": " << reported.output;
        const ConfigReply got = reply.get();
        EXPECT_EQ(got.code, row.code) << row.what;
        EXPECT_EQ(got.description, row.description) << row.what;
        EXPECT_EQ(got.marker, row.marker) << row.what;
    }
}

TEST_F(VeqdDeviceConfigTest, SlowerARefreshNobodyAnswersEndsAfterFiftyFiveSeconds)
{
    Json::Value config;
    config["policy"]["refresh"] = "external";
    Start(config);
    ASSERT_EQ(Veqctl({"registration", "registered"}).exitCode, 0);
    const ConfigReply reply = Ask();
    EXPECT_EQ(reply.code, "15");
    EXPECT_EQ(reply.description, "timeout");
    EXPECT_EQ(reply.marker, "first");
}

TEST_F(VeqdDeviceConfigTest, ARefreshDownloadsThePolicyOverMutualTlsAndReplacesTheFile)
{
    VEQ::Test::TestCa ca(root_ + "/ca", "Back end CA");
    const auto server = ca.IssueServer("server");
    const auto device = ca.IssueClient("device", "device-42");
    VEQ::Test::HttpsTestServer backEnd(server, ca.CaFile());
    backEnd.Script("/devices/device-42/policy", {.status = 200, .body = Policy("downloaded")});
    Json::Value config;
    config["http"]["clientCert"] = device.certFile;
    config["http"]["clientKey"] = device.keyFile;
    config["http"]["caFile"] = ca.CaFile();
    config["policy"]["url"] = backEnd.Url("/devices/device-42/policy");
    Start(config);
    ASSERT_EQ(Veqctl({"registration", "registered"}).exitCode, 0);

    const ConfigReply reply = Ask();
    EXPECT_EQ(reply.code, "0");
    EXPECT_EQ(reply.marker, "downloaded");
    std::ifstream file(root_ + "/policy.json");
    std::string written((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    EXPECT_EQ(written, Policy("downloaded"));
    const auto requests = backEnd.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].clientCommonName, "device-42");

    // A back end that does not know the device leaves the policy as it is.
    backEnd.Script("/devices/device-42/policy", {.status = 403, .body = "{}"});
    const ConfigReply refused = Ask();
    EXPECT_EQ(refused.code, "12");
    EXPECT_EQ(refused.marker, "downloaded");
}

}  // namespace
}  // namespace VEQ
