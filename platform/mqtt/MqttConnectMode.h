#pragma once

#include "platform/policy/MqttPolicy.h"

namespace VEQ {

// How the policy's "mqtt" object wants the device connected (docs/policy.md). The module's gate
// reads the same two members the same way.
enum class MqttConnectMode {
    Forbidden,     // "mqttFeatures" empty or containing "none", or "mqttConnectType" "0"
    OnDemand,      // "OnDemand": up while a client asks for it
    NearRealTime,  // "NRT": up once a client asked for it, never dropped for a client
    AlwaysOn,      // anything else: the agent keeps it up by itself
};

MqttConnectMode ConnectModeOf(const MqttPolicy& policy);

}  // namespace VEQ
