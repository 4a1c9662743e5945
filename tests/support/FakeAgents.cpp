#include "tests/support/FakeAgents.h"

#include "platform/bus/VEQNotificationData.h"
#include "platform/string/String.h"

#include <chrono>

namespace VEQ::Test {

void FakeConfigAgent::SetMqtt(std::wstring features, std::wstring connectType)
{
    std::lock_guard<std::mutex> lock(mutex_);
    mqtt_ = {std::move(features), std::move(connectType)};
}

void FakeConfigAgent::SetDocument(const Json::Value& document)
{
    std::lock_guard<std::mutex> lock(mutex_);
    document_ = document;
}

bool FakeConfigAgent::GetDeviceConfigPolicy(DeviceConfigPolicy& policy)
{
    std::lock_guard<std::mutex> lock(mutex_);
    policy = DeviceConfigPolicy::FromJson(document_);
    return true;
}

std::wstring FakeConfigAgent::GetConfigPolicy()
{
    std::lock_guard<std::mutex> lock(mutex_);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return String::UTF8ToUTF16(Json::writeString(writer, document_));
}

bool FakeConfigAgent::LoadPlatformPolicy(PlatformPolicy&)
{
    return false;
}

bool FakeConfigAgent::GetMqttPolicy(MqttPolicy& policy)
{
    std::lock_guard<std::mutex> lock(mutex_);
    policy = mqtt_;
    return true;
}

void FakeRefreshSource::SetOnPass(std::function<int32_t(int pass)> onPass)
{
    std::lock_guard<std::mutex> lock(mutex_);
    onPass_ = std::move(onPass);
}

void FakeRefreshSource::Hold()
{
    std::lock_guard<std::mutex> lock(mutex_);
    held_ = true;
}

void FakeRefreshSource::Release()
{
    std::lock_guard<std::mutex> lock(mutex_);
    held_ = false;
    changed_.notify_all();
}

int FakeRefreshSource::Started()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return started_;
}

bool FakeRefreshSource::WaitForStarted(int count)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return started_ >= count; });
}

int32_t FakeRefreshSource::Refresh()
{
    std::function<int32_t(int)> onPass;
    int pass = 0;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        pass = ++started_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return !held_; });
        onPass = onPass_;
    }
    return onPass ? onPass(pass) : 0;
}

std::vector<std::wstring> FakeNotificationAgent::ConnectIds()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return connectIds_;
}

std::vector<FakeNotificationAgent::Published> FakeNotificationAgent::PublishedMessages()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return published_;
}

int32_t FakeNotificationAgent::Publish(VEQNotificationData& data, const std::wstring& topic)
{
    std::lock_guard<std::mutex> lock(mutex_);
    published_.push_back({topic, data.getPayload(), data.getPublishFlag()});
    return publishStatus_;
}

FakeNotificationAgent::MqttConnectionState FakeNotificationAgent::RequestForMqttConnection(
    MqttConnectionRequestParams& params)
{
    ++connects_;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        connectIds_.push_back(params.clientId);
    }
    const MqttConnectionState answer = connectAnswer_;
    if (answer == MqttConnectionState::Connected) {
        state_ = MqttConnectionState::Connected;
    }
    return answer;
}

FakeNotificationAgent::MqttConnectionState FakeNotificationAgent::Disconnect(MqttConnectionRequestParams&)
{
    ++disconnects_;
    state_ = MqttConnectionState::Disconnected;
    return MqttConnectionState::Disconnected;
}

}  // namespace VEQ::Test
