#pragma once

#include <cstdint>
#include <string>

namespace Tavrin::Veq::ClientBroker {

// Where an endpoint listens. method 1 is the local socket transport; endpoint is the socket file path (UTF-8).
struct ConnectionDetails {
    int32_t method = 0;
    std::string endpoint;
    // When set, the endpoint takes connections from this process only (the kernel's pid of the
    // connecting process); others are dropped as they connect.
    uint32_t peerProcessId = 0;
};

}  // namespace Tavrin::Veq::ClientBroker
