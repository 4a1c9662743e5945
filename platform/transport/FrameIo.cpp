#include "platform/transport/FrameIo.h"

namespace Tavrin::Veq::ClientBroker {

namespace {

bool ReadRest(zmq::socket_t& socket, zmq::message_t& part, std::vector<std::string>& frames, size_t maxFrames,
              bool& tooMany, std::string* peerAddress = nullptr)
{
    while (true) {
        // A router's own routing-id part carries no properties; the peer's parts do.
        if (peerAddress != nullptr && peerAddress->empty()) {
            if (const char* address = zmq_msg_gets(part.handle(), "Peer-Address"); address != nullptr) {
                *peerAddress = address;
            }
        }
        if (frames.size() < maxFrames) {
            frames.emplace_back(static_cast<const char*>(part.data()), part.size());
        } else {
            tooMany = true;
        }
        if (!part.more()) {
            return true;
        }
        // The remaining parts of a message are already there once its first part is.
        if (!socket.recv(part, zmq::recv_flags::none)) {
            return true;
        }
    }
}

}  // namespace

bool FrameIo::Receive(zmq::socket_t& socket, std::vector<std::string>& frames, size_t maxFrames, bool& tooMany)
{
    frames.clear();
    tooMany = false;
    zmq::message_t part;
    return socket.recv(part, zmq::recv_flags::dontwait) && ReadRest(socket, part, frames, maxFrames, tooMany);
}

bool FrameIo::Receive(zmq::socket_t& socket, std::vector<std::string>& frames, size_t maxFrames, bool& tooMany,
                      std::string& peerAddress)
{
    frames.clear();
    tooMany = false;
    peerAddress.clear();
    zmq::message_t part;
    return socket.recv(part, zmq::recv_flags::dontwait) &&
           ReadRest(socket, part, frames, maxFrames, tooMany, &peerAddress);
}

bool FrameIo::ReceiveWithin(zmq::socket_t& socket, std::vector<std::string>& frames, size_t maxFrames, bool& tooMany,
                            int timeoutMs)
{
    frames.clear();
    tooMany = false;
    zmq::message_t part;
    socket.set(zmq::sockopt::rcvtimeo, timeoutMs);
    return socket.recv(part, zmq::recv_flags::none) && ReadRest(socket, part, frames, maxFrames, tooMany);
}

int FrameIo::Send(zmq::socket_t& socket, const std::vector<std::string>& frames)
{
    try {
        for (size_t i = 0; i < frames.size(); ++i) {
            const bool last = i + 1 == frames.size();
            const auto flags = zmq::send_flags::dontwait | (last ? zmq::send_flags::none : zmq::send_flags::sndmore);
            if (!socket.send(zmq::buffer(frames[i]), flags)) {
                return EAGAIN;
            }
        }
    } catch (const zmq::error_t& error) {
        return error.num();
    }
    return 0;
}

}  // namespace Tavrin::Veq::ClientBroker
