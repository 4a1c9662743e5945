#include "platform/mqtt/MqttConnectMode.h"

namespace VEQ {

MqttConnectMode ConnectModeOf(const MqttPolicy& policy)
{
    // Letter case matters in all of these, as it does for the module's gate.
    if (policy.mqttFeatures.empty() || policy.mqttFeatures.find(L"none") != std::wstring::npos ||
        policy.mqttConnectType == L"0") {
        return MqttConnectMode::Forbidden;
    }
    if (policy.mqttConnectType == L"OnDemand") {
        return MqttConnectMode::OnDemand;
    }
    if (policy.mqttConnectType == L"NRT") {
        return MqttConnectMode::NearRealTime;
    }
    return MqttConnectMode::AlwaysOn;
}

}  // namespace VEQ
