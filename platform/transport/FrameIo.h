#pragma once

#include <zmq.hpp>

#include <string>
#include <vector>

namespace Tavrin::Veq::ClientBroker {

// Multipart send and receive, with a bound on the parts kept.
class FrameIo {
public:
    // Frames larger than the socket accepts never reach here: ZeroMQ drops such peers itself.
    static constexpr int64_t kMaxFrameBytes = 16 * 1024 * 1024;

    // Reads one whole message. Returns false when none was waiting; tooMany is set when the message
    // had more than maxFrames parts (they are all read, and frames holds the first maxFrames).
    static bool Receive(zmq::socket_t& socket, std::vector<std::string>& frames, size_t maxFrames, bool& tooMany);
    // The same, also giving the sender's "Peer-Address" as ZeroMQ recorded it (empty when none).
    static bool Receive(zmq::socket_t& socket, std::vector<std::string>& frames, size_t maxFrames, bool& tooMany,
                        std::string& peerAddress);
    // The same, waiting up to timeoutMs (> 0) for a message. Waiting inside the receive costs one
    // wake-up less than polling first and receiving after.
    static bool ReceiveWithin(zmq::socket_t& socket, std::vector<std::string>& frames, size_t maxFrames,
                              bool& tooMany, int timeoutMs);

    // Sends all frames without blocking. 0 or the errno of the failure (EHOSTUNREACH: the peer is gone).
    static int Send(zmq::socket_t& socket, const std::vector<std::string>& frames);
};

}  // namespace Tavrin::Veq::ClientBroker
