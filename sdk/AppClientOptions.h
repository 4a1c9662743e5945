#pragma once
// How an AppClient finds the service, introduces itself and recovers from a restart.

#include "sdk/Side.h"

#include <chrono>
#include <string>

namespace Veq::Sdk {

// How Reconnect retries while the service comes back: `attempts` handshakes in all, waiting
// firstDelay after the first failure and twice as long after each next one, at most maxDelay.
struct ReconnectPolicy {
    int attempts = 5;
    std::chrono::milliseconds firstDelay{200};
    std::chrono::milliseconds maxDelay{3000};
};

struct AppClientOptions {
    std::string dataRoot;  // empty: DataRoot::Resolve() picks it
    Side side = Side::User;
    // Sent in "ConnectTo-Veq". The id names the app's log file on the service's side and is the
    // id other clients address it by.
    std::string extensionId;
    std::string extensionName;
    std::string extensionVersion = "1.0.0";
    // Bound of each step: the handshake, the connection to the broker, and each command.
    std::chrono::milliseconds timeout{10000};
    // When the broker is found gone, the next call connects again by itself (with the retries of
    // `reconnect`); otherwise calls fail with ConnectionLost until Reconnect is called.
    bool autoReconnect = true;
    ReconnectPolicy reconnect;
};

}  // namespace Veq::Sdk
