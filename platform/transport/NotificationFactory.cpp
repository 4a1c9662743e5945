#include "platform/transport/NotificationFactory.h"

#include "platform/Platform.h"
#include "platform/transport/ZmqServerEndpoint.h"

namespace Tavrin::Veq::ClientBroker {

INotificationBase* NotificationFactory::GetInstance(const std::string& role)
{
    if (auto factory = VEQ::Platform::EndpointFactory()) {
        return factory(role);
    }
    if (role == kServerRole) {
        return new ZmqServerEndpoint();
    }
    return nullptr;
}

}  // namespace Tavrin::Veq::ClientBroker
