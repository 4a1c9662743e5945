#pragma once
// The service's control socket, <data root>/control (sdk/ControlProtocol.h): tools run by the
// service's own user put events on the service's bus through it, as if the service's agents had
// published them. The socket file is private to that user.

#include "platform/transport/Message.h"
#include "platform/transport/Result.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace Tavrin::Veq::ClientBroker {
class ZmqServerEndpoint;
}

namespace VEQ {

class ControlServer {
public:
    using Message = Tavrin::Veq::ClientBroker::Message;
    using Result = Tavrin::Veq::ClientBroker::Result;

    static constexpr const char* kStatusSource = "ControlServer";
    // The publisher's name that subscribers see in the bus's log.
    static constexpr const wchar_t* kPublisherName = L"control";

    // dataRoot empty: the platform's data root at Start.
    explicit ControlServer(std::wstring dataRoot = {});
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Listens at <data root>/control and serves on a thread of its own. False (logged) when the
    // socket cannot be made; true when it already runs.
    bool Start();
    // Stops serving, joins the thread and removes the socket files. Safe to call twice.
    void Stop();
    // Empty until Start.
    std::string SocketPath() const;

private:
    void ServeThread();
    static Result Handle(const Message& request);
    static Result PublishEvent(const Message& request);
    static Result ListPlugins(const Message& request);
    static Result CollectDiagnostics(const Message& request);

    const std::wstring configuredRoot_;
    mutable std::mutex mutex_;  // guards Start and Stop
    std::string path_;
    std::unique_ptr<Tavrin::Veq::ClientBroker::ZmqServerEndpoint> endpoint_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
};

}  // namespace VEQ
