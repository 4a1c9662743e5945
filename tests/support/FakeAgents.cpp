#include "tests/support/FakeAgents.h"

#include "platform/bus/VEQNotificationData.h"
#include "platform/string/String.h"

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
