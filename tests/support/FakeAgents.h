#pragma once
// Doubles of the service's agents: a policy whose MQTT record the test sets, and an MQTT
// connection whose state the test drives and whose requests it records.

#include "platform/mqtt/INotificationAgent.h"
#include "platform/policy/IConfigAgent.h"

#include <json/json.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace VEQ::Test {

class FakeConfigAgent : public IConfigAgent {
public:
    void SetMqtt(std::wstring features, std::wstring connectType);
    void SetDocument(const Json::Value& document);

    bool GetDeviceConfigPolicy(DeviceConfigPolicy& policy) override;
    std::wstring GetConfigPolicy() override;
    bool LoadPlatformPolicy(PlatformPolicy& policy) override;
    bool GetMqttPolicy(MqttPolicy& policy) override;

private:
    std::mutex mutex_;
    MqttPolicy mqtt_;
    Json::Value document_;
};

class FakeNotificationAgent : public INotificationAgent {
public:
    struct Published {
        std::wstring topic;
        std::wstring payload;
        int publishFlag;
    };

    void SetState(MqttConnectionState state) { state_ = state; }
    // What RequestForMqttConnection answers; Connected also makes the state Connected.
    void SetConnectAnswer(MqttConnectionState answer) { connectAnswer_ = answer; }
    void SetPublishStatus(int32_t status) { publishStatus_ = status; }

    int Connects() const { return connects_; }
    int Disconnects() const { return disconnects_; }
    std::vector<std::wstring> ConnectIds();
    std::vector<Published> PublishedMessages();

    int32_t Publish(VEQNotificationData& data, const std::wstring& topic) override;
    MqttConnectionState RequestForMqttConnection(MqttConnectionRequestParams& params) override;
    MqttConnectionState Disconnect(MqttConnectionRequestParams& params) override;
    MqttConnectionState GetConnectionState() override { return state_; }

private:
    std::atomic<MqttConnectionState> state_{MqttConnectionState::Disconnected};
    std::atomic<MqttConnectionState> connectAnswer_{MqttConnectionState::Connected};
    std::atomic<int32_t> publishStatus_{kPublished};
    std::atomic<int> connects_{0};
    std::atomic<int> disconnects_{0};
    std::mutex mutex_;
    std::vector<std::wstring> connectIds_;
    std::vector<Published> published_;
};

}  // namespace VEQ::Test
