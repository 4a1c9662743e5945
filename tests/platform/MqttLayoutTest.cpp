// The pieces the MQTT agent is built from: the topic layout, the policy's connection modes, the
// waits between attempts, and the alerts' payloads.

#include "platform/mqtt/MqttConnectMode.h"
#include "platform/mqtt/MqttTopics.h"
#include "platform/mqtt/NotificationAlertUtility.h"
#include "platform/mqtt/ReconnectBackoff.h"
#include "platform/string/String.h"

#include <gtest/gtest.h>

#include <json/json.h>

namespace VEQ {
namespace {

using namespace std::chrono_literals;

TEST(MqttTopicsTest, TheRootIsConfiguredOrNamedAfterTheClient)
{
    struct Row {
        const char* root;
        const char* expected;
    };
    for (const Row& row : {Row{"", "devices/dev-7"}, Row{"fleet/a/dev-7", "fleet/a/dev-7"},
                           Row{"fleet/a/dev-7//", "fleet/a/dev-7"}}) {
        const MqttTopics topics(row.root, "dev-7");
        EXPECT_EQ(topics.Root(), row.expected) << row.root;
        EXPECT_EQ(topics.Outbound("alert"), std::string(row.expected) + "/alert") << row.root;
        EXPECT_EQ(topics.Status(), std::string(row.expected) + "/status") << row.root;
        EXPECT_EQ(topics.InboxFilter(), std::string(row.expected) + "/inbox/app/+/#") << row.root;
    }
}

TEST(MqttConnectModeTest, ThePolicyNamesTheMode)
{
    struct Row {
        const wchar_t* features;
        const wchar_t* connectType;
        MqttConnectMode mode;
    };
    const Row rows[] = {
        {L"", L"OnDemand", MqttConnectMode::Forbidden},
        {L"alerts,none", L"OnDemand", MqttConnectMode::Forbidden},
        {L"alerts", L"0", MqttConnectMode::Forbidden},
        {L"alerts", L"OnDemand", MqttConnectMode::OnDemand},
        {L"alerts", L"NRT", MqttConnectMode::NearRealTime},
        {L"alerts", L"ondemand", MqttConnectMode::AlwaysOn},
        {L"None", L"", MqttConnectMode::AlwaysOn},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ConnectModeOf({row.features, row.connectType}), row.mode)
            << String::UTF16ToUTF8(row.features) << "/" << String::UTF16ToUTF8(row.connectType);
    }
}

TEST(ReconnectBackoffTest, WaitsDoubleUpToTheLongestAndStartOverAfterASuccess)
{
    ReconnectBackoff backoff(100ms, 1000ms);
    const std::chrono::milliseconds longest[] = {100ms, 200ms, 400ms, 800ms, 1000ms, 1000ms};
    for (int round = 0; round < 2; ++round) {
        for (size_t n = 0; n < std::size(longest); ++n) {
            const auto wait = backoff.Next();
            EXPECT_LE(wait, longest[n]) << "attempt " << n;
            EXPECT_GE(wait, longest[n] * 4 / 5) << "attempt " << n;
        }
        backoff.Reset();
    }
}

TEST(NotificationAlertUtilityTest, AlertsAreOneLineOfJsonForTheAlertTopic)
{
    Json::Value param;
    param["app"] = "notes";
    VEQNotificationData notify;
    ASSERT_TRUE(NotificationAlertUtility::ConstructZCPPayload(L"appInstalled", param, notify));
    VEQNotificationData state;
    ASSERT_TRUE(NotificationAlertUtility::ConstructZCPPayloadForDeviceActionState(4, L"getAppList",
                                                                                 L"User not logged in", L"", state));
    for (const VEQNotificationData* data : {&notify, &state}) {
        EXPECT_EQ(data->getTopic(), L"alert");
        EXPECT_EQ(data->getPayload().find(L'\n'), std::wstring::npos);
        EXPECT_EQ(data->getFieldValue(L"time").size(), 20u) << "e.g. 2024-05-01T12:00:00Z";
    }
    Json::Value payload;
    ASSERT_TRUE(Json::Reader().parse(String::UTF16ToUTF8(notify.getPayload()), payload));
    EXPECT_EQ(payload["type"].asString(), "notify");
    EXPECT_EQ(payload["notify"].asString(), "appInstalled");
    EXPECT_EQ(payload["param"], param);
    ASSERT_TRUE(Json::Reader().parse(String::UTF16ToUTF8(state.getPayload()), payload));
    EXPECT_EQ(payload["type"].asString(), "deviceActionState");
    EXPECT_EQ(payload["action"].asString(), "getAppList");
    EXPECT_EQ(payload["state"].asInt(), 4);
    EXPECT_EQ(payload["message"].asString(), "User not logged in");
    EXPECT_EQ(payload["detail"].asString(), "");
}

}  // namespace
}  // namespace VEQ
