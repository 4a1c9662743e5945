#pragma once

#include <cstdint>

namespace VEQ {

enum class ExtensionMqttBrokerResult : int32_t {
    Success = 0,
    NotAllowed = 1,      // the policy forbids MQTT
    UnableToAccess = 2,  // no notification agent, or it is not ready
    NotConnected = 3,    // the connection did not come up in time, or an always-on one is down
};

}  // namespace VEQ
