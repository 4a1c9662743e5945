// The MQTT commands: what each reply says for each outcome of the gate and the agent, the topics
// clients may publish on, payloads that cannot be used, and which brokers offer which command.

#include "broker/AppHandlerFactory.h"
#include "mqtt/DisableMqttConnectionCommand.h"
#include "mqtt/DisableMqttConnectionCommandResponse.h"
#include "mqtt/EnableMqttConnectionCommand.h"
#include "mqtt/EnableMqttConnectionCommandResponse.h"
#include "mqtt/ExtensionMqttBroker.h"
#include "mqtt/NotifyZCPCommand.h"
#include "mqtt/PublishMqttMessageCommand.h"
#include "mqtt/PublishMqttMessageResponse.h"
#include "platform/fs/utility.h"
#include "platform/string/String.h"
#include "tests/support/FakeAgents.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <json/json.h>

namespace VEQ {
namespace {

using Tavrin::Veq::ClientBroker::ExtensionType;
using Tavrin::Veq::ClientBroker::Result;
using State = AgentInterface::Notification::MqttConnectionState;
using R = ExtensionMqttBrokerResult;

constexpr const char* kGuid = "2B7C1E90-5E0C-4C0B-9A57-0F4D2B7C6B1A";

ClientRequest Request(const std::string& command, const std::string& payload = "",
                      ElevationType elevation = ElevationType::User, const std::string& extensionId = "abc")
{
    Tavrin::Veq::ClientBroker::Message message;
    message.guid = kGuid;
    message.notification.command = command;
    message.notification.payload = payload;
    BrokerContext context;
    context.setElevationType(elevation);
    context.setExtensionType(ExtensionType::App);
    ClientContext client;
    client.extensionId = extensionId;
    ClientRequest request;
    request.setMessage(message);
    request.setBrokerContext(context);
    request.setClientContext(client);
    return request;
}

Result Ask(BaseCommandHandler& handler, const ClientRequest& request)
{
    bool pending = false;
    return handler.GetResponse(request, pending);
}

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

// The commands with the gate's answer chosen by the test.
class EnableWith : public EnableMqttConnectionCommand {
public:
    EnableWith(Log& log, R outcome) : EnableMqttConnectionCommand(log, "abc"), outcome_(outcome) {}
    R EnableMqttConnectionToBroker(std::string, ElevationType) override { return outcome_; }

private:
    R outcome_;
};

class DisableWith : public DisableMqttConnectionCommand {
public:
    DisableWith(Log& log, R outcome) : DisableMqttConnectionCommand(log, "abc"), outcome_(outcome) {}
    R DisableMqttConnectionToBroker(std::string, ElevationType) override { return outcome_; }

private:
    R outcome_;
};

class PublishWith : public PublishMqttMessageCommand {
public:
    PublishWith(Log& log, R outcome) : PublishMqttMessageCommand(log, "abc"), outcome_(outcome) {}
    R PublishMsgToBroker(std::string, ElevationType, const std::string&, const std::string&, uint32_t&) override
    {
        return outcome_;
    }

private:
    R outcome_;
};

class MqttCommandsTest : public ::testing::Test {
protected:
    MqttCommandsTest()
    {
        utility::InitLog(log_, L"MqttCommands.log", Log::kDebug);
        ExtensionMqttBroker::ResetForTests();
        config_->SetMqtt(L"alerts", L"Always");
        agent_->SetState(State::Connected);
    }
    ~MqttCommandsTest() override { ExtensionMqttBroker::ResetForTests(); }

    void RemoveAgent()
    {
        root_.reset();
        root_ = std::make_unique<VEQ::Test::TempRoot>(PlatformServices{.configAgent = config_});
    }

    Log log_;
    std::shared_ptr<VEQ::Test::FakeConfigAgent> config_ = std::make_shared<VEQ::Test::FakeConfigAgent>();
    std::shared_ptr<VEQ::Test::FakeNotificationAgent> agent_ = std::make_shared<VEQ::Test::FakeNotificationAgent>();
    std::unique_ptr<VEQ::Test::TempRoot> root_ = std::make_unique<VEQ::Test::TempRoot>(
        PlatformServices{.configAgent = config_, .notificationAgent = agent_});
};

TEST_F(MqttCommandsTest, EnableAndDisableReportTheGatesOutcomeInASuccessfulReply)
{
    struct Row {
        R outcome;
        std::string enable;
        std::string disable;
    };
    const Row rows[] = {
        {R::Success, Reply("isMqttEnabled", "true", "0", "Success"), Reply("isMqttDisabled", "true", "0", "Success")},
        {R::NotAllowed, Reply("isMqttEnabled", "false", "1", "Not allowed by VEQ config policy"),
         Reply("isMqttDisabled", "false", "1", "Not allowed by VEQ config policy")},
        {R::UnableToAccess, Reply("isMqttEnabled", "false", "2", "Unable to access VEQ MQTT features"),
         Reply("isMqttDisabled", "false", "2", "Unable to access VEQ MQTT features")},
        {R::NotConnected, Reply("isMqttEnabled", "false", "3", "MQTT did not connect sucessfully"),
         Reply("isMqttDisabled", "false", "", "")},
    };
    for (const auto& row : rows) {
        const std::string name = "outcome " + std::to_string(static_cast<int>(row.outcome));
        EnableWith enable(log_, row.outcome);
        Result result = Ask(enable, Request("Enable-MqttConnection"));
        EXPECT_TRUE(result.isSuccess) << name;
        EXPECT_EQ(result.message.guid, kGuid) << name;
        EXPECT_EQ(result.message.notification.command, "Receive-Enable-MqttConnection") << name;
        EXPECT_EQ(result.message.notification.payload, row.enable) << name;

        DisableWith disable(log_, row.outcome);
        result = Ask(disable, Request("Disable-MqttConnection"));
        EXPECT_TRUE(result.isSuccess) << name;
        EXPECT_EQ(result.message.notification.command, "Receive-Disable-MqttConnection") << name;
        EXPECT_EQ(result.message.notification.payload, row.disable) << name;
    }
}

TEST_F(MqttCommandsTest, EnableAndDisableActForTheBrokersClientOnItsSide)
{
    config_->SetMqtt(L"alerts", L"OnDemand");
    agent_->SetState(State::Disconnected);
    EnableMqttConnectionCommand enable(log_, "abc");
    DisableMqttConnectionCommand disable(log_, "abc");
    Ask(enable, Request("Enable-MqttConnection", "", ElevationType::User, "someone.else"));
    EXPECT_EQ(agent_->ConnectIds(), std::vector<std::wstring>{L"abc_2"});
    EXPECT_EQ(ExtensionMqttBroker::ClaimCount(), 1u);
    Ask(disable, Request("Disable-MqttConnection", "", ElevationType::User));
    EXPECT_EQ(ExtensionMqttBroker::ClaimCount(), 0u);
    EXPECT_EQ(agent_->Disconnects(), 1);
}

TEST_F(MqttCommandsTest, AClientPublishesBelowItsOwnPrefix)
{
    struct Row {
        const char* payload;
        const wchar_t* topic;
    };
    const Row rows[] = {
        {R"({"relativeTopic":"status","message":"m"})", L"app/abc/status/notification"},
        {R"({"relativeTopic":"status","message":"m","skipNotificationSuffix":"TRUE"})", L"app/abc/status"},
        {R"({"relativeTopic":"status","message":"m","skipNotificationSuffix":"false"})",
         L"app/abc/status/notification"},
        {R"({"relativeTopic":"a/b","message":"m","skipNotificationSuffix":"true"})", L"app/abc/a/b"},
        {R"({"message":"m"})", L"app/abc//notification"},
        {R"({"relativeTopic":"../../other","message":"m"})", L"app/abc/../../other/notification"},
    };
    PublishMqttMessageCommand publish(log_, "abc");
    for (const auto& row : rows) {
        const size_t before = agent_->PublishedMessages().size();
        const Result result = Ask(publish, Request("Publish-MqttMessage", row.payload));
        EXPECT_TRUE(result.isSuccess) << row.payload;
        const auto published = agent_->PublishedMessages();
        ASSERT_EQ(published.size(), before + 1) << row.payload;
        EXPECT_EQ(published.back().topic, row.topic) << row.payload;
        EXPECT_EQ(published.back().payload, L"m") << row.payload;
    }
}

TEST_F(MqttCommandsTest, APublishReportsTheAgentsStatus)
{
    struct Row {
        int32_t status;
        std::string reply;
    };
    const Row rows[] = {
        {0, Reply("isMqttMesssagePublished", "true", "0", "Published mqtt message successfully")},
        {3002, Reply("isMqttMesssagePublished", "false", "3002",
                     "Mqtt Broker currently not in a state to accept publish messages. The message has been queued "
                     "and will be sent as soon as possible.")},
        {3003, Reply("isMqttMesssagePublished", "false", "3003", "Mqtt Broker not connected")},
        {-1, Reply("isMqttMesssagePublished", "false", "4294967295", "Mqtt Broker is disable from config file")},
        {11, Reply("isMqttMesssagePublished", "false", "11", "Unknown error")},
    };
    PublishMqttMessageCommand publish(log_, "abc");
    for (const auto& row : rows) {
        agent_->SetPublishStatus(row.status);
        const Result result = Ask(publish, Request("Publish-MqttMessage", R"({"relativeTopic":"s","message":"m"})"));
        EXPECT_TRUE(result.isSuccess) << row.status;
        EXPECT_EQ(result.message.notification.command, "Receive-PublishMqttMessageResult") << row.status;
        EXPECT_EQ(result.message.notification.payload, row.reply) << row.status;
    }
}

TEST_F(MqttCommandsTest, APublishThatTheGateRefusesSaysWhy)
{
    struct Row {
        R outcome;
        std::string reply;
    };
    const Row rows[] = {
        {R::NotAllowed, Reply("isMqttMesssagePublished", "false", "1", "Not allowed by VEQ config policy")},
        {R::UnableToAccess, Reply("isMqttMesssagePublished", "false", "2", "Unable to access VEQ MQTT features")},
        {R::NotConnected, Reply("isMqttMesssagePublished", "false", "3", "MQTT did not connect sucessfully")},
    };
    for (const auto& row : rows) {
        PublishWith publish(log_, row.outcome);
        const Result result = Ask(publish, Request("Publish-MqttMessage", R"({"relativeTopic":"s","message":"m"})"));
        EXPECT_TRUE(result.isSuccess) << static_cast<int>(row.outcome);
        EXPECT_EQ(result.message.notification.payload, row.reply) << static_cast<int>(row.outcome);
    }
    // And through the real gate, with the policy against it.
    config_->SetMqtt(L"none", L"Always");
    PublishMqttMessageCommand publish(log_, "abc");
    const Result result = Ask(publish, Request("Publish-MqttMessage", R"({"relativeTopic":"s","message":"m"})"));
    EXPECT_EQ(result.message.notification.payload, rows[0].reply);
    EXPECT_TRUE(agent_->PublishedMessages().empty());
}

TEST_F(MqttCommandsTest, APublishPayloadThatCannotBeUsedIsRefusedAndNothingIsSent)
{
    struct Row {
        const char* payload;
        int32_t code;
        const char* text;
    };
    const Row rows[] = {
        {"not json", 0, "Unable to parse MQTT payload/data"},
        {R"({"relativeTopic":"s","message":{"nested":true}})", -1, "Error in parsing MQTT payload/data"},
        {R"({"relativeTopic":["s"],"message":"m"})", -1, "Error in parsing MQTT payload/data"},
        {R"(["relativeTopic"])", -1, "Error in parsing MQTT payload/data"},
    };
    PublishMqttMessageCommand publish(log_, "abc");
    for (const auto& row : rows) {
        const Result result = Ask(publish, Request("Publish-MqttMessage", row.payload));
        EXPECT_FALSE(result.isSuccess) << row.payload;
        EXPECT_EQ(result.message.statusCode, row.code) << row.payload;
        EXPECT_EQ(result.message.statusText, row.text) << row.payload;
    }
    EXPECT_TRUE(agent_->PublishedMessages().empty());
}

TEST_F(MqttCommandsTest, EachCommandRefusesNamesNotItsOwn)
{
    EnableMqttConnectionCommand enable(log_, "abc");
    DisableMqttConnectionCommand disable(log_, "abc");
    PublishMqttMessageCommand publish(log_, "abc");
    NotifyZCPCommand notify(log_);
    for (BaseCommandHandler* handler : std::initializer_list<BaseCommandHandler*>{&enable, &disable, &publish, &notify}) {
        const std::string own = handler->GetSupportedCommandNames().at(0);
        const Result result = Ask(*handler, Request("Get-VeqStatus", "{}"));
        EXPECT_FALSE(result.isSuccess) << own;
        EXPECT_EQ(result.message.statusCode, -1) << own;
        EXPECT_EQ(result.message.statusText, "Command not Supported") << own;
        EXPECT_EQ(result.message.guid, kGuid) << own;
    }
    EXPECT_EQ(agent_->Connects(), 0);
    EXPECT_TRUE(agent_->PublishedMessages().empty());
}

TEST_F(MqttCommandsTest, NotifyZcpSendsAnAlertAndNamesWhatTheAgentDid)
{
    struct Row {
        int32_t status;
        const char* result;
    };
    const Row rows[] = {{0, "Success"},           {-1, "GeneralError"},       {3003, "MQTTNotConnected"},
                        {3002, "MQTTMessageQueued"}, {11, "ExceptionWasThrown"}, {42, "GeneralError"}};
    NotifyZCPCommand notify(log_);
    for (const auto& row : rows) {
        agent_->SetPublishStatus(row.status);
        const Result result =
            Ask(notify, Request("Notify-ZCP", R"({"notify":"appInstalled","param":"{\"app\":\"x\",\"n\":2}"})"));
        EXPECT_TRUE(result.isSuccess) << row.status;
        EXPECT_EQ(result.message.statusCode, 0) << row.status;
        EXPECT_EQ(result.message.guid, kGuid) << row.status;
        EXPECT_EQ(result.message.notification.command, "Receive-NotifyZCP") << row.status;
        EXPECT_EQ(result.message.notification.payload, std::string(R"({"result":")") + row.result + "\"}")
            << row.status;
    }
    const auto published = agent_->PublishedMessages();
    ASSERT_FALSE(published.empty());
    EXPECT_EQ(published.back().topic, L"alert");
    Json::Value alert;
    ASSERT_TRUE(Json::Reader().parse(String::UTF16ToUTF8(published.back().payload), alert));
    EXPECT_EQ(alert["type"].asString(), "notify");
    EXPECT_EQ(alert["notify"].asString(), "appInstalled");
    EXPECT_EQ(alert["param"]["app"].asString(), "x") << "the param travels as JSON, not as its text";
    EXPECT_EQ(alert["param"]["n"].asInt(), 2);
}

TEST_F(MqttCommandsTest, NotifyZcpFailsOnlyWhenItCannotSend)
{
    NotifyZCPCommand notify(log_);
    // A param that is no JSON still goes, as null.
    Result result = Ask(notify, Request("Notify-ZCP", R"({"notify":"n","param":"not json"})"));
    EXPECT_TRUE(result.isSuccess);
    ASSERT_EQ(agent_->PublishedMessages().size(), 1u);
    EXPECT_NE(agent_->PublishedMessages()[0].payload.find(L"\"param\":null"), std::wstring::npos);

    struct Row {
        const char* name;
        const char* payload;
        const char* textStart;
    };
    const Row rows[] = {
        {"payload not JSON", "not json", ""},
        {"no param", R"({"notify":"n"})", "Exception catched:"},
        {"param not a string", R"({"notify":"n","param":{"a":1}})", "Exception catched:"},
    };
    for (const auto& row : rows) {
        result = Ask(notify, Request("Notify-ZCP", row.payload));
        EXPECT_FALSE(result.isSuccess) << row.name;
        EXPECT_EQ(result.message.statusCode, -1) << row.name;
        EXPECT_EQ(result.message.guid, kGuid) << row.name;
        EXPECT_EQ(result.message.statusText.rfind(row.textStart, 0), 0u) << row.name << ": " << result.message.statusText;
    }
    EXPECT_EQ(agent_->PublishedMessages().size(), 1u);

    RemoveAgent();
    result = Ask(notify, Request("Notify-ZCP", R"({"notify":"n","param":"{}"})"));
    EXPECT_FALSE(result.isSuccess) << "no agent";
    EXPECT_EQ(result.message.statusCode, -1) << "no agent";
}

TEST_F(MqttCommandsTest, ResponsesReadBackWhatTheyWrite)
{
    const PublishMqttMessageResponse written{"false", "3003", "Mqtt Broker not connected"};
    const auto read = PublishMqttMessageResponse::Deserialize(PublishMqttMessageResponse::Serialize(written));
    EXPECT_EQ(read.isMqttMesssagePublished, "false");
    EXPECT_EQ(read.responseCode, "3003");
    EXPECT_EQ(read.responseDescription, "Mqtt Broker not connected");
    EXPECT_EQ(EnableMqttConnectionCommandResponse::Deserialize("not json").isMqttEnabled, "");
    // Members read before a failure stay.
    const auto partial = DisableMqttConnectionCommandResponse::Deserialize(
        R"({"isMqttDisabled":"true","responseCode":{"x":1},"responseDescription":"d"})");
    EXPECT_EQ(partial.isMqttDisabled, "true");
    EXPECT_EQ(partial.responseCode, "");
    EXPECT_EQ(partial.responseDescription, "");
}

TEST_F(MqttCommandsTest, AppBrokersOfferTheMqttCommandsInTheirPlaceAndPluginsAlone)
{
    for (ElevationType side : {ElevationType::User, ElevationType::Elevated}) {
        BrokerContext context;
        context.setElevationType(side);
        context.setExtensionType(ExtensionType::App);
        ClientContext client;
        client.extensionId = "abc";
        AppHandlerFactory factory;
        std::vector<std::string> names;
        for (BaseCommandHandler* handler : factory.GetHandlers(context, client, log_)) {
            names.push_back(handler->GetSupportedCommandNames().at(0));
            delete handler;
        }
        std::vector<std::string> expected = {"Get-VeqStatus",       "Get-DeviceAccessStamp", "Get-DeviceConfig",
                                             "Enable-MqttConnection", "Disable-MqttConnection", "Publish-MqttMessage",
                                             "Verify-Signature",    "Test-Applicability",    "Get-VeqTags",
                                             "Get-PackageList",     "Invoke-HttpRequest",    "Start-PackageOperation"};
        // Only elevated apps may call the back end.
        if (side == ElevationType::User) {
            std::erase(expected, "Invoke-HttpRequest");
        }
        EXPECT_EQ(names, expected) << static_cast<int>(side);
    }
    NotifyZCPCommand notify(log_);
    for (auto [type, kept] : {std::pair{ExtensionType::Plugin, true}, std::pair{ExtensionType::App, false}}) {
        BrokerContext context;
        context.setElevationType(ElevationType::User);
        context.setExtensionType(type);
        EXPECT_EQ(notify.IsApplicable(context), kept) << static_cast<int>(type);
    }
}

}  // namespace
}  // namespace VEQ
