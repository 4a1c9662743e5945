#include "platform/agents/AgentFactory.h"

#include "platform/Platform.h"

namespace VEQ {

AgentFactory* AgentFactory::GetInstance()
{
    static AgentFactory factory;
    return &factory;
}

std::shared_ptr<IConfigAgent> AgentFactory::GetConfigPolicyAgent()
{
    return Platform::ConfigAgent();
}

std::shared_ptr<INotificationAgent> AgentFactory::GetNotificationAgent()
{
    return Platform::NotificationAgent();
}

}  // namespace VEQ
