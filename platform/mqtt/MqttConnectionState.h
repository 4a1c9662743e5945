#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace VEQ::AgentInterface::Notification {

// States of the service's MQTT connection, as its agent reports them.
enum class MqttConnectionState : int32_t {
    Unknown = 0,
    Connected = 1,
    Connecting = 2,  // the outcome arrives through the request's status callback
    Disconnected = 3,
    NotSupportedByPolicy = 4,
    ServiceStopping = 7,
    NotReady = 8,
};

enum class MqttRequestType : int32_t {
    Connect = 1,
    Disconnect = 2,
};

// A request to bring the connection up or down on behalf of one client.
struct MqttConnectionRequestParams {
    int32_t requestType = 0;
    std::wstring clientId;
    uint32_t threadId = 0;
    int32_t requestValue = 0;
    bool connectFlag = false;
    std::function<void(MqttConnectionState)> statusCallback;
};

}  // namespace VEQ::AgentInterface::Notification
