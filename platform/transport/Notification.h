#pragma once

#include <string>

namespace Tavrin::Veq::ClientBroker {

// Command, payload and target of a message; all UTF-8.
struct Notification {
    std::string command;
    std::string payload;
    std::string targetId;
    std::string targetName;
};

}  // namespace Tavrin::Veq::ClientBroker
