// veqd with a real mosquitto: apps enable, publish and receive through the service's one MQTT
// connection, in each connection mode, while the broker and the apps come and go.

#include "sdk/AppClient.h"
#include "tests/support/BackgroundProcess.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/MosquittoBroker.h"
#include "tests/support/MqttTestClient.h"

#include <gtest/gtest.h>

#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <sys/stat.h>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using Veq::Sdk::AppClient;
using Veq::Sdk::AppClientOptions;
using Veq::Sdk::Side;

constexpr auto kDeadline = 15s;
// Above the service's 30 s wait for a connection, which a publish may sit out.
constexpr auto kSlowCommand = 45s;

std::string Reply(const char* flagName, const char* flag, const char* code, const char* description)
{
    Json::Value root;
    root[flagName] = flag;
    root["responseCode"] = code;
    root["responseDescription"] = description;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, root);
}

std::string PublishPayload(const std::string& relativeTopic, const std::string& message, const char* skipSuffix = "")
{
    Json::Value root;
    root["relativeTopic"] = relativeTopic;
    root["message"] = message;
    root["skipNotificationSuffix"] = skipSuffix;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, root);
}

const std::string kPublished = Reply("isMqttMesssagePublished", "true", "0", "Published mqtt message successfully");

class VeqdMqttTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!VEQ::Test::MosquittoBroker::Available()) {
            GTEST_SKIP() << "mosquitto is not installed";
        }
        char rootTemplate[] = "/tmp/veqd-mqtt-XXXXXX";
        root_ = ::mkdtemp(rootTemplate);
        ::chmod(root_.c_str(), 0755);
        ASSERT_TRUE(broker_.Start()) << broker_.Output();
    }

    void TearDown() override
    {
        clients_.clear();
        if (daemon_ && daemon_->Running()) {
            EXPECT_EQ(daemon_->Stop(), 0) << "veqd did not stop cleanly\n" << daemon_->Output();
        }
        daemon_.reset();
        if (!root_.empty()) {
            std::filesystem::remove_all(root_);
        }
    }

    // The host configuration naming the test's broker (or none with port 0), and the policy.
    void Configure(const std::string& clientId, int port, const std::string& features, const std::string& connectType)
    {
        clientId_ = clientId;
        Json::Value config(Json::objectValue);
        if (port != 0) {
            config["mqtt"]["host"] = "127.0.0.1";
            config["mqtt"]["port"] = port;
            config["mqtt"]["clientId"] = clientId;
        }
        std::ofstream(root_ + "/veqd.json") << config;
        std::ofstream(root_ + "/policy.json")
            << R"({"app_settings":[{"application_id":"Tavrin.veq","settings":{"extension_apps":)"
            << R"({"enablement":"enabled","ipcMethods_afunix":"both"}}}],"mqtt":{"mqttFeatures":")" << features
            << R"(","mqttConnectType":")" << connectType << R"("}})";
    }

    void StartDaemon()
    {
        daemon_ = std::make_unique<VEQ::Test::DaemonProcess>(
            root_, std::vector<std::string>{"--config", root_ + "/veqd.json"});
        ASSERT_TRUE(daemon_->Start()) << daemon_->Output();
    }

    // The back end's view of this device's topics.
    std::unique_ptr<VEQ::Test::MqttTestClient> Backend(const std::string& name)
    {
        auto backend = std::make_unique<VEQ::Test::MqttTestClient>(name);
        EXPECT_TRUE(backend->Connect(broker_.Port()));
        EXPECT_TRUE(backend->Subscribe(Topic("#")));
        return backend;
    }

    std::string Topic(const std::string& below) const { return "devices/" + clientId_ + "/" + below; }

    AppClient* App(const std::string& id)
    {
        AppClientOptions options;
        options.dataRoot = root_;
        options.side = Side::User;
        options.extensionId = id;
        options.extensionName = id;
        options.timeout = kSlowCommand;
        options.autoReconnect = false;
        auto client = std::make_unique<AppClient>(options);
        if (auto error = client->Connect()) {
            ADD_FAILURE() << id << ": " << error.Message();
            return nullptr;
        }
        clients_.push_back(std::move(client));
        return clients_.back().get();
    }

    static AppClient::Result Send(AppClient& app, const std::string& command, const std::string& payload = "{}")
    {
        AppClient::Result result;
        if (auto error = app.Send(command, payload, result)) {
            ADD_FAILURE() << command << ": " << error.Message();
        }
        return result;
    }

    std::string root_;
    std::string clientId_;
    VEQ::Test::MosquittoBroker broker_;
    std::unique_ptr<VEQ::Test::DaemonProcess> daemon_;
    std::vector<std::unique_ptr<AppClient>> clients_;
};

TEST_F(VeqdMqttTest, EnableAnswersForEachConnectionMode)
{
    struct Row {
        const char* name;
        bool broker;  // false: the configuration names no broker
        bool brokerThere;
        const char* features;
        const char* connectType;
        std::string reply;
    };
    const std::string enabled = Reply("isMqttEnabled", "true", "0", "Success");
    const Row rows[] = {
        {"on demand", true, true, "alerts", "OnDemand", enabled},
        {"near real time", true, true, "alerts", "NRT", enabled},
        {"always on", true, true, "alerts", "Always", enabled},
        {"always on, broker away", true, false, "alerts", "Always",
         Reply("isMqttEnabled", "false", "3", "MQTT did not connect sucessfully")},
        {"forbidden by the policy", true, true, "none", "OnDemand",
         Reply("isMqttEnabled", "false", "1", "Not allowed by VEQ config policy")},
        {"no broker configured", false, true, "alerts", "OnDemand",
         Reply("isMqttEnabled", "false", "2", "Unable to access VEQ MQTT features")},
    };
    int n = 0;
    for (const auto& row : rows) {
        const int port = !row.broker ? 0 : row.brokerThere ? broker_.Port() : VEQ::Test::MosquittoBroker::UnusedPort();
        Configure("dev-" + std::to_string(n++), port, row.features, row.connectType);
        auto backend = Backend(std::string("backend-") + row.name);
        StartDaemon();
        const bool alwaysOn = std::string(row.connectType) == "Always" && row.brokerThere;
        if (alwaysOn) {
            // The service connects by itself, before anyone asks.
            ASSERT_TRUE(backend->WaitFor(Topic("status"), "online", kDeadline)) << row.name;
        }
        AppClient* app = App("enabling.app");
        ASSERT_NE(app, nullptr) << row.name;
        const AppClient::Result result = Send(*app, "Enable-MqttConnection");
        EXPECT_TRUE(result.isSuccess) << row.name;
        EXPECT_EQ(result.message.notification.command, "Receive-Enable-MqttConnection") << row.name;
        EXPECT_EQ(result.message.notification.payload, row.reply) << row.name;
        if (row.reply == enabled && !alwaysOn) {
            EXPECT_TRUE(backend->WaitFor(Topic("status"), "online", kDeadline)) << row.name;
        }
        clients_.clear();
        EXPECT_EQ(daemon_->Stop(), 0) << row.name << "\n" << daemon_->Output();
    }
}

TEST_F(VeqdMqttTest, OnDemandTheConnectionStaysUntilTheLastAppLetsGoOrEnds)
{
    Configure("dev-claims", broker_.Port(), "alerts", "OnDemand");
    auto backend = Backend("backend");
    StartDaemon();
    AppClient* first = App("first.app");
    ASSERT_NE(first, nullptr);
    ASSERT_EQ(Send(*first, "Enable-MqttConnection").message.notification.payload,
              Reply("isMqttEnabled", "true", "0", "Success"));
    ASSERT_TRUE(backend->WaitFor(Topic("status"), "online", kDeadline));
    // The second app lives in a process of its own, which the test ends without a word.
    VEQ::Test::BackgroundProcess second({VEQ::Test::ChildProcess::TestProgram("veq_app_process"), root_, "user",
                                         "second.app", "Enable-MqttConnection"});
    ASSERT_TRUE(second.Start());
    ASSERT_TRUE(second.WaitForOutput("ready", kDeadline)) << second.Output();
    EXPECT_NE(second.Output().find(R"("isMqttEnabled":"true")"), std::string::npos) << second.Output();

    EXPECT_EQ(Send(*first, "Disable-MqttConnection").message.notification.payload,
              Reply("isMqttDisabled", "true", "0", "Success"));
    // Still the same connection: the next message goes out with no "offline" before it.
    EXPECT_EQ(Send(*first, "Publish-MqttMessage", PublishPayload("status", "still here")).message.notification.payload,
              kPublished);
    bool arrived = false;
    while (auto message = backend->Next(kDeadline)) {
        if (message->topic == Topic("app/first.app/status/notification")) {
            arrived = true;
            break;
        }
        EXPECT_NE(message->payload, "offline") << "the connection went while second.app held it";
    }
    EXPECT_TRUE(arrived);

    second.Kill();
    EXPECT_TRUE(backend->WaitFor(Topic("status"), "offline", kDeadline)) << "the ended app's claim was kept";
}

TEST_F(VeqdMqttTest, AnAppPublishesBelowItsOwnPrefix)
{
    Configure("dev-publish", broker_.Port(), "alerts", "NRT");
    auto backend = Backend("backend");
    StartDaemon();
    AppClient* app = App("com.example.notes");
    ASSERT_NE(app, nullptr);
    struct Row {
        std::string payload;
        std::string topic;
        std::string message;
    };
    const Row rows[] = {
        {PublishPayload("status", "hello"), Topic("app/com.example.notes/status/notification"), "hello"},
        {PublishPayload("status", "plain", "true"), Topic("app/com.example.notes/status"), "plain"},
    };
    // No enable first: a publish brings the connection up by itself.
    for (const auto& row : rows) {
        const AppClient::Result result = Send(*app, "Publish-MqttMessage", row.payload);
        EXPECT_TRUE(result.isSuccess) << row.topic;
        EXPECT_EQ(result.message.notification.command, "Receive-PublishMqttMessageResult") << row.topic;
        EXPECT_EQ(result.message.notification.payload, kPublished) << row.topic;
        EXPECT_TRUE(backend->WaitFor(row.topic, row.message, kDeadline)) << row.topic;
    }
}

TEST_F(VeqdMqttTest, AMessageForAnAppReachesThatAppAlone)
{
    Configure("dev-inbox", broker_.Port(), "alerts", "OnDemand");
    auto backend = Backend("backend");
    StartDaemon();
    AppClient* notes = App("notes.app");
    AppClient* mail = App("mail.app");
    ASSERT_NE(notes, nullptr);
    ASSERT_NE(mail, nullptr);
    Send(*notes, "Enable-MqttConnection");
    ASSERT_TRUE(backend->WaitFor(Topic("status"), "online", kDeadline));

    ASSERT_TRUE(backend->Publish(Topic("inbox/app/notes.app/settings"), R"({"volume":3})"));
    std::optional<AppClient::Notification> push;
    while ((push = notes->NextPush(kDeadline)) && push->command != "Receive-MqttMessage") {
    }
    ASSERT_TRUE(push) << "nothing reached the app";
    EXPECT_EQ(push->payload, R"({"message":"{\"volume\":3}","relativeTopic":"app/notes.app/settings"})");
    EXPECT_FALSE(mail->NextPush(300ms)) << "another app heard it too";
}

TEST_F(VeqdMqttTest, TheServiceReconnectsByItselfWhenTheBrokerComesBack)
{
    Configure("dev-restart", broker_.Port(), "alerts", "OnDemand");
    StartDaemon();
    AppClient* steady = App("steady.app");
    AppClient* other = App("other.app");
    ASSERT_NE(steady, nullptr);
    ASSERT_NE(other, nullptr);
    {
        auto backend = Backend("backend");
        Send(*steady, "Enable-MqttConnection");
        Send(*other, "Enable-MqttConnection");
        ASSERT_TRUE(backend->WaitFor(Topic("status"), "online", kDeadline));
    }
    ASSERT_TRUE(broker_.Stop());
    ASSERT_TRUE(broker_.Start()) << broker_.Output();
    auto backend = Backend("backend-after");
    ASSERT_TRUE(backend->WaitFor(Topic("status"), "online", kDeadline)) << "did not come back by itself";
    for (AppClient* app : {steady, other}) {
        EXPECT_EQ(Send(*app, "Publish-MqttMessage", PublishPayload("status", "back")).message.notification.payload,
                  kPublished);
    }
    EXPECT_TRUE(backend->WaitFor(Topic("app/steady.app/status/notification"), "back", kDeadline));
    EXPECT_TRUE(backend->WaitFor(Topic("app/other.app/status/notification"), "back", kDeadline));
}

// How often a line holding text is in one of the service's logs.
size_t LogCount(const std::string& root, const std::string& file, const std::string& text)
{
    std::ifstream log(root + "/log/" + file);
    std::stringstream content;
    content << log.rdbuf();
    const std::string all = content.str();
    size_t count = 0;
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
        ++count;
    }
    return count;
}

TEST_F(VeqdMqttTest, APublishWithTheBrokerGoneSaysSoAfterTheWait)
{
    Configure("dev-away", broker_.Port(), "alerts", "NRT");
    StartDaemon();
    AppClient* app = App("lonely.app");
    ASSERT_NE(app, nullptr);
    Send(*app, "Enable-MqttConnection");
    ASSERT_TRUE(broker_.Stop());
    ASSERT_TRUE(VEQ::Test::Eventually([&] { return LogCount(root_, "MqttNotificationAgent.log", "connection lost") > 0; },
                                      kDeadline))
        << "the service did not notice";
    // The service waits for the connection to come back, up to its limit, then tries anyway.
    const AppClient::Result result = Send(*app, "Publish-MqttMessage", PublishPayload("status", "lost"));
    EXPECT_TRUE(result.isSuccess);
    EXPECT_EQ(result.message.notification.payload,
              Reply("isMqttMesssagePublished", "false", "3003", "Mqtt Broker not connected"));
}

TEST_F(VeqdMqttTest, StoppingTheServiceEndsAPublishThatWaitsForTheBroker)
{
    Configure("dev-stop", broker_.Port(), "alerts", "NRT");
    StartDaemon();
    AppClient* app = App("waiting.app");
    ASSERT_NE(app, nullptr);
    Send(*app, "Enable-MqttConnection");
    ASSERT_TRUE(broker_.Stop());
    ASSERT_TRUE(VEQ::Test::Eventually([&] { return LogCount(root_, "MqttNotificationAgent.log", "connection lost") > 0; },
                                      kDeadline));
    const char* waiting = "Waiting for connection state event";
    const size_t before = LogCount(root_, "ExtensionMqttBroker.log", waiting);
    auto publish = std::async(std::launch::async, [&] {
        AppClient::Result result;
        app->Send("Publish-MqttMessage", PublishPayload("status", "late"), result);
        return result;
    });
    ASSERT_TRUE(VEQ::Test::Eventually([&] { return LogCount(root_, "ExtensionMqttBroker.log", waiting) > before; },
                                      kDeadline));
    // Well inside the service's own 30 s wait: the stop must not sit it out.
    EXPECT_EQ(daemon_->Stop(20s), 0) << daemon_->Output();
    publish.wait();
}

}  // namespace
}  // namespace VEQ
