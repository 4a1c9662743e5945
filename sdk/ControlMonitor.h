#pragma once
// Watching the service's bus through its control socket (sdk/ControlProtocol.h, "Bus-Event"):
// every event published in the service once Connect has returned, in publication order. For the
// service's own user, like ControlClient. Calls come from one thread at a time.
//
//     Veq::Sdk::ControlMonitor monitor(Veq::Sdk::DataRoot::Resolve(), std::chrono::seconds(10));
//     if (auto error = monitor.Connect()) { ... error.Message() ... }
//     std::optional<Veq::Sdk::BusEvent> event;
//     while (!monitor.Next(std::chrono::seconds(1), event)) {
//         if (event && event->event.topic == 5 && event->event.state == 49) { ... }
//     }
//
// The service never waits for a monitor: one that reads too slowly loses events, which shows as a
// gap in BusEvent::sequence.

#include "platform/transport/Notification.h"
#include "sdk/AppClientOptions.h"
#include "sdk/BusEvent.h"
#include "sdk/DataRoot.h"
#include "sdk/Error.h"

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <ctime>
#include <sys/types.h>

namespace Tavrin::Veq::ClientBroker {
class ClientConnection;
}

namespace Veq::Sdk {

class ControlMonitor {
public:
    ControlMonitor(DataRoot root, std::chrono::milliseconds timeout);
    ~ControlMonitor();
    ControlMonitor(const ControlMonitor&) = delete;
    ControlMonitor& operator=(const ControlMonitor&) = delete;

    // Connects to the control socket's push channel and waits (up to the timeout) until the service
    // has registered this monitor: every event published after it returns is sent here. Errors:
    // Unreachable (the service is not running), PermissionDenied (another user's service). A
    // connection that is up is kept.
    Error Connect();
    // Drops the connection and connects again, retrying as policy says while the service is away:
    // for a service that stopped or restarted.
    Error Reconnect(const ReconnectPolicy& policy = {});
    void Close();

    // Waits up to timeout for the next event; event is empty when none came. ConnectionLost once
    // the service behind the socket stopped or restarted (after the events that had already come):
    // events published meanwhile are missed; Reconnect to go on. BadReply for a push that breaks
    // the protocol.
    Error Next(std::chrono::milliseconds timeout, std::optional<BusEvent>& event);

    const std::string& SocketPath() const { return path_; }

    // The push's payload and back: a JSON object of one line with every member.
    static std::string Encode(const BusEvent& event);
    static bool Decode(const std::string& payload, BusEvent& event, std::string& error);

private:
    // The inode alone is not enough: a socket file made right after the last one was removed
    // often gets its number again.
    struct FileIdentity {
        dev_t device = 0;
        ino_t inode = 0;
        timespec changed{};
        bool operator==(const FileIdentity& other) const
        {
            return device == other.device && inode == other.inode && changed.tv_sec == other.changed.tv_sec &&
                   changed.tv_nsec == other.changed.tv_nsec;
        }
    };
    static std::optional<FileIdentity> SocketIdentity(const std::string& path);
    // True when the socket file is no longer the one this monitor connected to.
    bool ServiceChanged() const;
    Error Take(const Tavrin::Veq::ClientBroker::Notification& push, std::optional<BusEvent>& event) const;

    const DataRoot root_;
    const std::chrono::milliseconds timeout_;
    const std::string path_;
    std::unique_ptr<Tavrin::Veq::ClientBroker::ClientConnection> connection_;
    FileIdentity connectedTo_;
    bool lost_ = false;
    // Pushes that had come before the loss was noticed, still to be handed out.
    std::deque<Tavrin::Veq::ClientBroker::Notification> left_;
};

}  // namespace Veq::Sdk
