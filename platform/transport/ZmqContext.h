#pragma once

#include <zmq.hpp>

namespace Tavrin::Veq::ClientBroker {

// The process's one ZeroMQ context. It is never terminated: sockets may still be closing on
// other threads while the process exits, and terminating would block on them.
class ZmqContext {
public:
    static zmq::context_t& Get();
    // Ends the context and its threads once every socket is closed; for a clean process exit.
    // Nothing may use ZeroMQ afterwards.
    static void Terminate();
};

}  // namespace Tavrin::Veq::ClientBroker
