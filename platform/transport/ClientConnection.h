#pragma once

#include "platform/transport/Message.h"
#include "platform/transport/Notification.h"
#include "platform/transport/Result.h"
#include "platform/transport/WakeSignal.h"

namespace zmq {
class socket_t;
}

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace Tavrin::Veq::ClientBroker {

// The client side of one endpoint: requests and their results on the socket file, pushes and the
// server's requests on the "_notify" file. Send may be called from any thread (one request at a
// time); pushes and server requests are handled on the connection's own thread.
class ClientConnection {
public:
    using PushHandler = std::function<void(const Notification&)>;
    using RequestHandler = std::function<Result(const Message&)>;

    ClientConnection();
    ~ClientConnection();
    ClientConnection(const ClientConnection&) = delete;
    ClientConnection& operator=(const ClientConnection&) = delete;

    // Connects both channels and waits until the server has registered this client for pushes.
    // False with LastError() set when the path is missing, not permitted or nothing answers.
    bool Connect(const std::string& socketPath, std::chrono::milliseconds timeout);
    // Connects the request channel only (the handshake socket of a side has no pushes).
    bool ConnectRequestsOnly(const std::string& socketPath, std::chrono::milliseconds timeout);
    void Close();
    bool IsConnected() const;
    const std::string& LastError() const { return lastError_; }

    // Sends message and waits for the result carrying its guid (or an empty guid: the server lost
    // track of the request and answers it anyway). nullopt on timeout.
    std::optional<Result> Send(const Message& message, std::chrono::milliseconds timeout);
    // For tests of bad input: sends raw frames and reads one raw reply.
    bool SendRaw(const std::vector<std::string>& frames);
    std::optional<std::string> ReceiveRaw(std::chrono::milliseconds timeout);

    // Handlers run on the connection's thread. Without a push handler, pushes queue for NextPush.
    void SetPushHandler(PushHandler handler);
    void SetRequestHandler(RequestHandler handler);
    std::optional<Notification> NextPush(std::chrono::milliseconds timeout);

private:
    bool ProbeReachable(const std::string& path, std::chrono::steady_clock::time_point deadline);
    bool AwaitWelcome(std::chrono::steady_clock::time_point deadline);
    void ListenThread();
    void HandleNotifyFrame(const std::string& frame);
    void HandleMonitorEvent();
    void SendHello();
    static std::optional<std::string> ReceiveOne(zmq::socket_t& socket, std::chrono::steady_clock::time_point deadline);

    std::string routingId_;
    std::string lastError_;

    mutable std::mutex requestMutex_;  // owner of requestSocket_
    std::unique_ptr<zmq::socket_t> requestSocket_;

    std::unique_ptr<zmq::socket_t> notifySocket_;   // used by listenThread_ once it runs
    std::unique_ptr<zmq::socket_t> monitorSocket_;  // connection events of notifySocket_
    bool helloQueued_ = false;                      // the first connection's hello is already on its way
    WakeSignal stopWake_;
    std::thread listenThread_;

    std::mutex stateMutex_;
    std::condition_variable changed_;
    bool welcomed_ = false;
    bool stopping_ = false;
    PushHandler pushHandler_;
    RequestHandler requestHandler_;
    std::deque<Notification> pushes_;
};

}  // namespace Tavrin::Veq::ClientBroker
