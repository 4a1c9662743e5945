#pragma once
// A stand-in for one of the service's endpoints, for the cases a real service does not show on
// demand: a socket that never answers, a refusal, a broker that vanishes.

#include "platform/transport/Message.h"
#include "platform/transport/Result.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Tavrin::Veq::ClientBroker {
class ZmqServerEndpoint;
}

namespace VEQ::Test {

class FakeEndpoint {
public:
    using Message = Tavrin::Veq::ClientBroker::Message;
    using Result = Tavrin::Veq::ClientBroker::Result;
    // The answer to a request; nullopt leaves it unanswered.
    using Responder = std::function<std::optional<Result>(const Message&)>;

    // Listens at path (its folder must exist) and answers through responder on its own thread.
    FakeEndpoint(std::string path, Responder responder);
    ~FakeEndpoint();
    FakeEndpoint(const FakeEndpoint&) = delete;
    FakeEndpoint& operator=(const FakeEndpoint&) = delete;

    // Stops listening and removes the socket files, as a stopped service leaves things.
    void Vanish();
    std::vector<Message> Requests() const;
    const std::string& Path() const { return path_; }

    // A handshake answer that hands out callbackConnection ("" refuses).
    static Result HandshakeReply(const Message& request, const std::string& callbackConnection);
    // A successful answer with the given payload.
    static Result Success(const Message& request, const std::string& payload);

private:
    void Serve();

    const std::string path_;
    const Responder responder_;
    std::unique_ptr<Tavrin::Veq::ClientBroker::ZmqServerEndpoint> endpoint_;
    std::thread thread_;
    bool stopping_ = false;
    mutable std::mutex mutex_;
    std::vector<Message> requests_;
};

}  // namespace VEQ::Test
