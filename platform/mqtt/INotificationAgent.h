#pragma once

#include "platform/mqtt/MqttConnectionState.h"

#include <cstdint>
#include <string>

namespace VEQ {

class VEQNotificationData;

// The service's one MQTT connection to the cloud.
class INotificationAgent {
public:
    using MqttConnectionState = AgentInterface::Notification::MqttConnectionState;
    using MqttConnectionRequestParams = AgentInterface::Notification::MqttConnectionRequestParams;

    // Publish statuses.
    static constexpr int32_t kPublished = 0;
    static constexpr int32_t kQueued = 3002;
    static constexpr int32_t kNotConnected = 3003;
    static constexpr int32_t kDisabledByConfig = -1;
    static constexpr int32_t kAgentException = 11;

    virtual ~INotificationAgent() = default;

    // Publishes data's payload below topic; one of the statuses above.
    virtual int32_t Publish(VEQNotificationData& data, const std::wstring& topic) = 0;
    virtual MqttConnectionState RequestForMqttConnection(MqttConnectionRequestParams& params) = 0;
    virtual MqttConnectionState Disconnect(MqttConnectionRequestParams& params) = 0;
    virtual MqttConnectionState GetConnectionState() = 0;
};

}  // namespace VEQ
