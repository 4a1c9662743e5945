#pragma once

#include <string>

namespace VEQ {

// The policy's "mqtt" object: whether MQTT may be used and how the device connects.
struct MqttPolicy {
    std::wstring mqttFeatures;     // empty or containing "none": MQTT is forbidden
    std::wstring mqttConnectType;  // "OnDemand", "NRT", "0" (forbidden) or anything else (always on)
};

}  // namespace VEQ
