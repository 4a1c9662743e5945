#pragma once

#include "module/ElevationType.h"
#include "mqtt/ExtensionMqttBrokerResult.h"
#include "platform/mqtt/MqttConnectionState.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace VEQ {

// The module's one gate to the service's MQTT connection: whether MQTT may be used under the
// policy, how the device connects, and, on demand, which extensions hold a claim on the
// connection so that it is dropped when the last one leaves. All state is process-wide.
class ExtensionMqttBroker {
public:
    using MqttConnectionState = AgentInterface::Notification::MqttConnectionState;

    static constexpr auto kConnectionWait = std::chrono::milliseconds(30000);

    static ExtensionMqttBrokerResult EnableMqttConnection(const std::string& extensionId, ElevationType elevation);
    static ExtensionMqttBrokerResult DisableMqttConnection(const std::string& extensionId, ElevationType elevation);
    static ExtensionMqttBrokerResult PublishMqttMessage(const std::string& extensionId, ElevationType elevation,
                                                        const std::wstring& topic, const std::wstring& payload,
                                                        uint32_t& status);
    static ExtensionMqttBrokerResult RequestMqttConnection(const std::string& connectionId, bool ignoreTimeout);
    static void MqttConnectionStatusCallback(MqttConnectionState state);

    static bool IsMqttAllowedByConfigPolicy();
    static bool IsMqttConnectingOnDemand();
    static bool IsMqttConnectingNRT();

    static void AddExtensionIdToList(const std::string& extensionId, ElevationType elevation);
    static void RemoveExtensionIdFromList(const std::string& extensionId, ElevationType elevation);

    static void InitLog();
    static void UnInit();

    // For tests: the claims held now, and a fresh start of the process-wide state.
    static size_t ClaimCount();
    static void ResetForTests();

private:
    static std::string ConnectionId(const std::string& extensionId, ElevationType elevation);
    static std::string ListKey(const std::string& extensionId, ElevationType elevation);
};

}  // namespace VEQ
