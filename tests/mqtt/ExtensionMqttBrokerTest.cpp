#include "broker/AppClientBroker.h"
#include "mqtt/ExtensionMqttBroker.h"
#include "platform/string/String.h"
#include "tests/support/Eventually.h"
#include "tests/support/FakeAgents.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace VEQ {
namespace {

using State = AgentInterface::Notification::MqttConnectionState;
using R = ExtensionMqttBrokerResult;

class ExtensionMqttBrokerTest : public ::testing::Test {
protected:
    ExtensionMqttBrokerTest() { ExtensionMqttBroker::ResetForTests(); }
    ~ExtensionMqttBrokerTest() override { ExtensionMqttBroker::ResetForTests(); }

    // The service without an MQTT connection at all.
    void RemoveAgent()
    {
        root_.reset();  // its end restores the default platform, so it goes first
        root_ = std::make_unique<VEQ::Test::TempRoot>(PlatformServices{.configAgent = config_});
    }

    std::shared_ptr<VEQ::Test::FakeConfigAgent> config_ = std::make_shared<VEQ::Test::FakeConfigAgent>();
    std::shared_ptr<VEQ::Test::FakeNotificationAgent> agent_ = std::make_shared<VEQ::Test::FakeNotificationAgent>();
    std::unique_ptr<VEQ::Test::TempRoot> root_ = std::make_unique<VEQ::Test::TempRoot>(
        PlatformServices{.configAgent = config_, .notificationAgent = agent_});
};

TEST_F(ExtensionMqttBrokerTest, ThePolicyDecidesWhetherAndHowMqttIsUsed)
{
    struct Row {
        const wchar_t* features;
        const wchar_t* connectType;
        bool allowed;
        bool onDemand;
        bool nrt;
    };
    const Row rows[] = {
        {L"", L"OnDemand", false, true, false},
        {L"none", L"OnDemand", false, true, false},
        {L"alerts,nonessential", L"NRT", false, false, true},
        {L"alerts", L"0", false, false, false},
        {L"alerts", L"OnDemand", true, true, false},
        {L"alerts", L"ondemand", true, false, false},
        {L"alerts", L"NRT", true, false, true},
        {L"alerts", L"Always", true, false, false},
    };
    for (const auto& row : rows) {
        config_->SetMqtt(row.features, row.connectType);
        const std::wstring name = std::wstring(row.features) + L"/" + row.connectType;
        EXPECT_EQ(ExtensionMqttBroker::IsMqttAllowedByConfigPolicy(), row.allowed) << String::UTF16ToUTF8(name);
        EXPECT_EQ(ExtensionMqttBroker::IsMqttConnectingOnDemand(), row.onDemand) << String::UTF16ToUTF8(name);
        EXPECT_EQ(ExtensionMqttBroker::IsMqttConnectingNRT(), row.nrt) << String::UTF16ToUTF8(name);
    }
}

TEST_F(ExtensionMqttBrokerTest, ForbiddenByPolicyRefusesEveryOperation)
{
    config_->SetMqtt(L"none", L"OnDemand");
    uint32_t status = 99;
    EXPECT_EQ(ExtensionMqttBroker::EnableMqttConnection("a", ElevationType::User), R::NotAllowed);
    EXPECT_EQ(ExtensionMqttBroker::DisableMqttConnection("a", ElevationType::User), R::NotAllowed);
    EXPECT_EQ(ExtensionMqttBroker::PublishMqttMessage("a", ElevationType::User, L"t", L"p", status), R::NotAllowed);
    EXPECT_EQ(agent_->Connects(), 0);
    EXPECT_EQ(status, 99u);
}

TEST_F(ExtensionMqttBrokerTest, OnDemandTheConnectionGoesWhenTheLastClaimIsReleased)
{
    config_->SetMqtt(L"alerts", L"OnDemand");
    EXPECT_EQ(ExtensionMqttBroker::EnableMqttConnection("first", ElevationType::User), R::Success);
    EXPECT_EQ(agent_->ConnectIds(), std::vector<std::wstring>{L"first_2"});
    EXPECT_EQ(ExtensionMqttBroker::EnableMqttConnection("second", ElevationType::Elevated), R::Success);
    EXPECT_EQ(ExtensionMqttBroker::EnableMqttConnection("second", ElevationType::Elevated), R::Success);
    EXPECT_EQ(agent_->Connects(), 1) << "a connected agent was asked again";
    EXPECT_EQ(ExtensionMqttBroker::ClaimCount(), 2u);

    EXPECT_EQ(ExtensionMqttBroker::DisableMqttConnection("second", ElevationType::Elevated), R::Success);
    EXPECT_EQ(agent_->Disconnects(), 0) << "disconnected while a claim was held";
    EXPECT_EQ(ExtensionMqttBroker::DisableMqttConnection("first", ElevationType::User), R::Success);
    EXPECT_EQ(agent_->Disconnects(), 1);
    // Even a client that never enabled drops an unclaimed connection.
    EXPECT_EQ(ExtensionMqttBroker::DisableMqttConnection("stranger", ElevationType::User), R::Success);
    EXPECT_EQ(agent_->Disconnects(), 2);
}

TEST_F(ExtensionMqttBrokerTest, OneExtensionOnBothSidesHoldsTwoClaims)
{
    config_->SetMqtt(L"alerts", L"OnDemand");
    agent_->SetConnectAnswer(State::NotReady);  // a failed connect still leaves the claim
    EXPECT_EQ(ExtensionMqttBroker::EnableMqttConnection("app", ElevationType::User), R::UnableToAccess);
    EXPECT_EQ(ExtensionMqttBroker::EnableMqttConnection("app", ElevationType::Elevated), R::UnableToAccess);
    EXPECT_EQ(ExtensionMqttBroker::ClaimCount(), 2u);
    ExtensionMqttBroker::DisableMqttConnection("app", ElevationType::User);
    EXPECT_EQ(ExtensionMqttBroker::ClaimCount(), 1u);
    EXPECT_EQ(agent_->Disconnects(), 0);
}

TEST_F(ExtensionMqttBrokerTest, NrtConnectsOnRequestAndIsNeverDroppedFromHere)
{
    config_->SetMqtt(L"alerts", L"NRT");
    EXPECT_EQ(ExtensionMqttBroker::EnableMqttConnection("app", ElevationType::Elevated), R::Success);
    EXPECT_EQ(agent_->ConnectIds(), std::vector<std::wstring>{L"app_1"});
    EXPECT_EQ(ExtensionMqttBroker::ClaimCount(), 0u);
    EXPECT_EQ(ExtensionMqttBroker::DisableMqttConnection("app", ElevationType::Elevated), R::Success);
    EXPECT_EQ(agent_->Disconnects(), 0);
}

TEST_F(ExtensionMqttBrokerTest, AlwaysOnOnlyReportsTheConnection)
{
    config_->SetMqtt(L"alerts", L"Always");
    agent_->SetState(State::Disconnected);
    EXPECT_EQ(ExtensionMqttBroker::EnableMqttConnection("app", ElevationType::User), R::NotConnected);
    agent_->SetState(State::Connected);
    EXPECT_EQ(ExtensionMqttBroker::EnableMqttConnection("app", ElevationType::User), R::Success);
    EXPECT_EQ(agent_->Connects(), 0);
}

TEST_F(ExtensionMqttBrokerTest, AConnectionInProgressIsAwaitedUntilItsCallbackOrTheServiceStops)
{
    config_->SetMqtt(L"alerts", L"NRT");
    agent_->SetConnectAnswer(State::Connecting);
    struct Row {
        const char* name;
        State signalled;
    };
    for (const Row& row : {Row{"state change", State::Connected}, Row{"service stop", State::ServiceStopping}}) {
        ExtensionMqttBroker::ResetForTests();
        const int before = agent_->Connects();
        auto waiting = std::async(std::launch::async, [] {
            return ExtensionMqttBroker::EnableMqttConnection("app", ElevationType::User);
        });
        // The request has to be made before its answer can come.
        ASSERT_TRUE(VEQ::Test::Eventually([&] { return agent_->Connects() > before; })) << row.name;
        ExtensionMqttBroker::MqttConnectionStatusCallback(row.signalled);
        EXPECT_EQ(waiting.get(), R::Success) << row.name;
    }
}

TEST_F(ExtensionMqttBrokerTest, APublishIsAttemptedAndItsStatusReported)
{
    config_->SetMqtt(L"alerts", L"Always");
    agent_->SetState(State::Connected);
    agent_->SetPublishStatus(INotificationAgent::kNotConnected);
    uint32_t status = 0;
    EXPECT_EQ(ExtensionMqttBroker::PublishMqttMessage("app", ElevationType::User, L"app/app/x", L"hi", status),
              R::Success);
    EXPECT_EQ(status, 3003u);
    auto published = agent_->PublishedMessages();
    ASSERT_EQ(published.size(), 1u);
    EXPECT_EQ(published[0].topic, L"app/app/x");
    EXPECT_EQ(published[0].payload, L"hi");
    EXPECT_EQ(published[0].publishFlag, 1);
}

TEST_F(ExtensionMqttBrokerTest, WithoutAnAgentNothingCanBeReached)
{
    RemoveAgent();
    config_->SetMqtt(L"alerts", L"OnDemand");
    uint32_t status = 0;
    EXPECT_EQ(ExtensionMqttBroker::DisableMqttConnection("a", ElevationType::User), R::UnableToAccess);
    EXPECT_EQ(ExtensionMqttBroker::PublishMqttMessage("a", ElevationType::User, L"t", L"p", status),
              R::UnableToAccess);
    EXPECT_EQ(ExtensionMqttBroker::RequestMqttConnection("a_2", false), R::UnableToAccess);
}

TEST_F(ExtensionMqttBrokerTest, ADepartingAppReleasesItsOnDemandClaim)
{
    config_->SetMqtt(L"alerts", L"OnDemand");
    BrokerContext context;
    context.setConnectionMethod(ConnectionMethod::LocalSocket);
    context.setElevationType(ElevationType::User);
    context.setExtensionType(Tavrin::Veq::ClientBroker::ExtensionType::App);
    ClientContext client;
    client.extensionId = "leaving";
    auto broker = std::make_unique<AppClientBroker>(context, client);
    broker->Start();
    ASSERT_EQ(ExtensionMqttBroker::EnableMqttConnection("leaving", ElevationType::User), R::Success);
    ASSERT_EQ(ExtensionMqttBroker::ClaimCount(), 1u);
    broker->Suspend();
    EXPECT_EQ(ExtensionMqttBroker::ClaimCount(), 0u);
    EXPECT_EQ(agent_->Disconnects(), 1);
}

}  // namespace
}  // namespace VEQ
