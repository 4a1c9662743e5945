#pragma once
// The service's control socket, <data root>/control (sdk/ControlProtocol.h): tools run by the
// service's own user put events on the service's bus through it, as if the service's agents had
// published them, and watch every event of the bus (the monitors, clients of its "_notify"
// channel). The socket file is private to that user.
//
// A command is one row of the table in Handle and one handler.

#include "platform/bus/VEQNotificationData.h"
#include "platform/transport/Message.h"
#include "platform/transport/Result.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
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
    // Bus events waiting for the monitors; beyond this, new ones are dropped (and counted in the
    // log) rather than held: the bus never waits for a monitor.
    static constexpr size_t kMaxQueuedEvents = 1024;

    // dataRoot empty: the platform's data root at Start.
    explicit ControlServer(std::wstring dataRoot = {});
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Listens at <data root>/control, serves on a thread of its own and forwards the bus's events
    // to monitors from another. False (logged) when the socket cannot be made; true when it
    // already runs.
    bool Start();
    // Leaves the bus, stops serving, joins the threads and removes the socket files. Safe to call twice.
    void Stop();
    // Empty until Start.
    std::string SocketPath() const;

private:
    struct QueuedEvent {
        uint64_t sequence = 0;
        VEQNotificationData data;
    };

    void ServeThread();
    Result Handle(const Message& request);
    Result PublishEvent(const Message& request);
    Result ListPlugins(const Message& request);
    Result CollectDiagnostics(const Message& request);
    Result SetRegistration(const Message& request);
    Result SetRefreshStatus(const Message& request);

    // On the publisher's thread: queues the event and returns.
    void OnBusEvent(const VEQNotificationData& data);
    void ForwardThread();

    const std::wstring configuredRoot_;
    mutable std::mutex mutex_;  // guards Start and Stop
    std::string path_;
    std::unique_ptr<Tavrin::Veq::ClientBroker::ZmqServerEndpoint> endpoint_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};

    std::wstring busSubscription_;
    std::thread forwardThread_;
    std::mutex queueMutex_;  // guards the members below
    std::condition_variable queueChanged_;
    std::deque<QueuedEvent> queue_;
    bool forwarding_ = false;
    uint64_t sequence_ = 0;  // of the last event seen on the bus
    uint64_t dropped_ = 0;   // not yet logged
    std::chrono::steady_clock::time_point lastDropLog_{};
};

}  // namespace VEQ
