#pragma once

#include "platform/transport/INotificationBase.h"
#include "platform/transport/SocketFile.h"
#include "platform/transport/WakeSignal.h"

namespace zmq {
class socket_t;
}

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Tavrin::Veq::ClientBroker {

// The server endpoint on ZeroMQ over ipc (docs/protocol.md).
//
// Two sockets: requests and their results travel on the socket file itself (ROUTER); pushes and
// the server's own requests on the file followed by "_notify" (ROUTER). ZeroMQ sockets must not be
// used by two threads at once, so:
//  - the request socket belongs to whichever thread holds requestMutex_: the thread in Wait, or a
//    sender when nobody waits. A result sent while another thread waits is handed over through
//    outbox_ and a wake-up, so Wait never holds up SendResult;
//  - the notification socket belongs to a thread of its own, which takes pushes and requests
//    from a queue and hands the client's replies to the callers of SendAndWait.
class ZmqServerEndpoint : public INotificationBase {
public:
    static constexpr int32_t kMalformedStatus = 400;
    static constexpr const char* kTransportSource = "Transport";

    explicit ZmqServerEndpoint(std::chrono::milliseconds requestTimeout = std::chrono::seconds(60));
    ~ZmqServerEndpoint() override;
    ZmqServerEndpoint(const ZmqServerEndpoint&) = delete;
    ZmqServerEndpoint& operator=(const ZmqServerEndpoint&) = delete;

    int Start(ConnectionDetails& details) override;
    Result Wait(uint32_t timeoutMs) override;
    void Stop() override;
    void SendResult(Result& result) override;
    bool SendNotification(Notification& notification) override;
    bool SendAndWait(Message& message, Result& result) override;

private:
    using Clock = std::chrono::steady_clock;
    using Frames = std::vector<std::string>;

    struct Outgoing {
        Frames frames;
        // Set for a result addressed to a client that has not reconnected yet after a restart.
        std::optional<Clock::time_point> retryUntil;
    };
    struct PendingRequest {
        bool done = false;
        bool answered = false;
        Result result;
    };
    struct Command {
        std::string frame;
        std::string requestId;                  // empty for a push
        std::shared_ptr<std::promise<bool>> delivered;  // set for a push
    };

    bool Push(const Notification& notification);

    // Request socket.
    bool ReceiveRequest(Message& message);
    void AnswerMalformed(const Frames& envelope, const std::string& payload, const std::string& reason);
    void Deliver(Outgoing outgoing);
    void FlushOutbox();
    void FlushIfIdle();
    std::chrono::milliseconds PollSlice(std::optional<Clock::time_point> deadline) const;

    // Notification socket.
    void NotifyThread();
    bool RunCommands();
    void Execute(Command& command);
    void ReceiveNotifyFrames();
    void Complete(const std::string& requestId, bool answered, Result result);
    void FailAllPending();

    void Enter();
    void Leave();

    const std::chrono::milliseconds requestTimeout_;
    std::string path_;
    SocketFile::Identity requestFile_;
    SocketFile::Identity notifyFile_;
    std::string keptPlaceholder_;  // the path's placeholder under a hidden name, while the sockets stand

    std::mutex requestMutex_;  // owner of requestSocket_
    std::unique_ptr<zmq::socket_t> requestSocket_;
    WakeSignal requestWake_;

    std::mutex stateMutex_;
    std::condition_variable idle_;
    bool started_ = false;
    bool starting_ = false;
    std::atomic<bool> stopped_{false};
    int activeCalls_ = 0;
    std::optional<Frames> replyEnvelope_;
    bool replyEnvelopeHandedOver_ = false;
    std::deque<Outgoing> outbox_;
    std::deque<Outgoing> retries_;

    std::unique_ptr<zmq::socket_t> notifySocket_;  // used only by notifyThread_
    WakeSignal notifyWake_;
    std::thread notifyThread_;
    std::mutex notifyMutex_;
    std::condition_variable notifyDone_;
    bool notifyStopping_ = true;  // until Start: nothing is accepted before the channel runs
    std::deque<Command> commands_;
    std::vector<std::string> peers_;  // clients that said hello, the latest last
    std::map<std::string, PendingRequest*> pending_;
    uint64_t nextRequestId_ = 0;
};

}  // namespace Tavrin::Veq::ClientBroker
