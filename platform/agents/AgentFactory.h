#pragma once

#include <memory>

namespace VEQ {

class IConfigAgent;
class INotificationAgent;

// The service's agents, as the module reaches them. What stands behind each is installed through
// Platform::Install (veqd at start, tests in their fixtures).
class AgentFactory {
public:
    static AgentFactory* GetInstance();

    std::shared_ptr<IConfigAgent> GetConfigPolicyAgent();
    // Null when the service runs without MQTT.
    std::shared_ptr<INotificationAgent> GetNotificationAgent();
};

}  // namespace VEQ
