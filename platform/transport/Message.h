#pragma once

#include "platform/transport/Notification.h"
#include "platform/transport/PeerCredentials.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Tavrin::Veq::ClientBroker {

// One record of the command protocol, in both directions. All strings are UTF-8.
struct Message {
    std::string guid;
    std::string annex;
    std::string senderType;
    std::string senderId;
    std::string senderName;
    std::string senderKind;
    std::string senderElevation;
    Notification notification;
    int32_t statusCode = 0;
    std::string statusSource;
    std::string statusText;
    // Who sent a received record, as the kernel tells it; never on the wire.
    std::optional<PeerCredentials> peer;
};

}  // namespace Tavrin::Veq::ClientBroker
