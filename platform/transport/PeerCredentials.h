#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Tavrin::Veq::ClientBroker {

// Who is at the other end of a local socket, as the kernel recorded it when the peer connected
// (SO_PEERCRED). Pids are those of the service's pid namespace.
struct PeerCredentials {
    uint32_t processId = 0;
    uint32_t userId = 0;
    uint32_t groupId = 0;

    // ZeroMQ hands these over on ipc as the "Peer-Address" property of each received part:
    // "<host>:<uid>:<gid>:<pid>". Nullopt for anything else (a transport without credentials).
    static std::optional<PeerCredentials> FromPeerAddress(const std::string& address);
};

}  // namespace Tavrin::Veq::ClientBroker
