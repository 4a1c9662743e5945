#pragma once

#include <cstdint>
#include <string>

namespace Tavrin::Veq::ClientBroker {

// Where an endpoint listens. method 1 is the local socket transport; endpoint is the socket file path (UTF-8).
struct ConnectionDetails {
    int32_t method = 0;
    std::string endpoint;
};

}  // namespace Tavrin::Veq::ClientBroker
