#pragma once
// Doubles of the service's agents: a policy whose MQTT record the test sets, a source of policy
// refreshes that the test holds and answers, and an MQTT connection whose state the test drives
// and whose requests it records.

#include "platform/mqtt/INotificationAgent.h"
#include "platform/policy/IConfigAgent.h"
#include "platform/policy/IPolicyRefreshSource.h"

#include <json/json.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace VEQ::Test {

class FakeConfigAgent : public IConfigAgent {
public:
    void SetMqtt(std::wstring features, std::wstring connectType);
    void SetDocument(const Json::Value& document);
    // What GetRefreshStatus answers; PolicyRefreshStatus::kNone until set.
    void SetRefreshStatus(int32_t status) { refreshStatus_ = status; }

    bool GetDeviceConfigPolicy(DeviceConfigPolicy& policy) override;
    std::wstring GetConfigPolicy() override;
    bool LoadPlatformPolicy(PlatformPolicy& policy) override;
    bool GetMqttPolicy(MqttPolicy& policy) override;
    int32_t GetRefreshStatus() override { return refreshStatus_; }

private:
    std::atomic<int32_t> refreshStatus_{PolicyRefreshStatus::kNone};
    std::mutex mutex_;
    MqttPolicy mqtt_;
    Json::Value document_;
};

// Each refresh pass waits while the source is held, then answers what onPass returns (0 unless
// set). Cancel lets every pass through.
class FakeRefreshSource : public IPolicyRefreshSource {
public:
    explicit FakeRefreshSource(bool held = false) : held_(held) {}

    void SetOnPass(std::function<int32_t(int pass)> onPass);
    void Hold();
    void Release();
    // Passes entered so far; WaitForStarted waits up to 10 s for count of them.
    int Started();
    bool WaitForStarted(int count);

    int32_t Refresh() override;
    void Cancel() override { Release(); }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool held_;
    int started_ = 0;
    std::function<int32_t(int)> onPass_;
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
