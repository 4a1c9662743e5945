#pragma once

#include "platform/transport/INotificationBase.h"

#include <string>

namespace Tavrin::Veq::ClientBroker {

class NotificationFactory {
public:
    static constexpr const char* kServerRole = "Server";

    // A new endpoint for the role, owned by the caller; null for a role that has none.
    // Tests replace what it makes through VEQ::Platform::Install.
    static INotificationBase* GetInstance(const std::string& role);
};

}  // namespace Tavrin::Veq::ClientBroker
