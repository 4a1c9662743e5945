#include "platform/transport/ClientConnection.h"

#include <zmq.hpp>

#include "platform/transport/FolderWatch.h"
#include "platform/transport/FrameIo.h"
#include "platform/transport/SocketFile.h"
#include "platform/transport/WireCodec.h"
#include "platform/transport/ZmqContext.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace Tavrin::Veq::ClientBroker {
namespace {

constexpr int kReconnectIntervalMs = 20;
constexpr size_t kMaxQueuedPushes = 4096;
// A new broker usually listens within a millisecond: look again soon, then less often.
constexpr auto kFirstProbeRetry = std::chrono::microseconds(100);
constexpr auto kLongestProbeRetry = std::chrono::microseconds(5000);

std::string NewRoutingId()
{
    thread_local std::mt19937_64 random{std::random_device{}()};
    static constexpr char kHex[] = "0123456789abcdef";
    std::string id = "c-";
    for (int i = 0; i < 16; ++i) {
        id += kHex[random() & 0xF];
    }
    return id;
}

std::unique_ptr<zmq::socket_t> NewDealer(const std::string& routingId)
{
    auto socket = std::make_unique<zmq::socket_t>(ZmqContext::Get(), zmq::socket_type::dealer);
    socket->set(zmq::sockopt::routing_id, routingId);
    socket->set(zmq::sockopt::linger, 0);
    socket->set(zmq::sockopt::reconnect_ivl, kReconnectIntervalMs);
    socket->set(zmq::sockopt::maxmsgsize, FrameIo::kMaxFrameBytes);
    return socket;
}

std::string Describe(const std::string& path, int error)
{
    switch (error) {
    case ENOENT:
        return "no socket at " + path + " (is the service running, and is this the right side?)";
    case EACCES:
    case EPERM:
        return "permission denied on " + path + " (this side is not open to this user)";
    case ECONNREFUSED:
        return "nothing listens on " + path + " (stale socket file?)";
    default:
        return "cannot reach " + path + ": " + std::strerror(error);
    }
}

}  // namespace

ClientConnection::ClientConnection() = default;

ClientConnection::~ClientConnection()
{
    Close();
}

// A broker hands out its path before its endpoint listens, so a path that is missing or not yet
// listening is tried again until the deadline; a refusal by permissions is final at once.
bool ClientConnection::ProbeReachable(const std::string& path, std::chrono::steady_clock::time_point deadline)
{
    // A socket that this user may connect to is taken as it is: a probe connection would cost the
    // listener an accept on every connect. A stale one shows when nothing answers.
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) && ::access(path.c_str(), W_OK) == 0) {
        return true;
    }
    // A new broker's socket replaces its placeholder a moment after the path was handed out: the
    // watch wakes this thread when it does; without a watch, look again soon, then less often.
    std::optional<FolderWatch> watch;
    auto retry = std::chrono::duration_cast<std::chrono::microseconds>(kFirstProbeRetry);
    while (true) {
        const int error = SocketFile::Probe(path);
        if (error == 0) {
            return true;
        }
        const bool transient = error == ENOENT || error == ECONNREFUSED;
        const auto now = std::chrono::steady_clock::now();
        if (!transient || now >= deadline) {
            lastError_ = Describe(path, error);
            return false;
        }
        if (!watch) {
            watch.emplace(path);
            continue;  // the socket may have come before the watch
        }
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - now);
        if (watch->Active()) {
            watch->WaitForChange(std::min(left, std::chrono::duration_cast<std::chrono::microseconds>(kLongestProbeRetry)));
        } else {
            std::this_thread::sleep_for(std::min(retry, left));
            retry = std::min(retry * 2, std::chrono::duration_cast<std::chrono::microseconds>(kLongestProbeRetry));
        }
    }
}

bool ClientConnection::ConnectRequestsOnly(const std::string& socketPath, std::chrono::milliseconds timeout)
{
    Close();
    if (!ProbeReachable(socketPath, std::chrono::steady_clock::now() + timeout)) {
        return false;
    }
    routingId_ = NewRoutingId();
    auto request = NewDealer(routingId_);
    request->connect("ipc://" + socketPath);
    std::lock_guard<std::mutex> lock(requestMutex_);
    requestSocket_ = std::move(request);
    return true;
}

bool ClientConnection::Connect(const std::string& socketPath, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    if (!ConnectRequestsOnly(socketPath, timeout) || !ProbeReachable(socketPath + "_notify", deadline)) {
        Close();
        return false;
    }
    notifySocket_ = NewDealer(routingId_);
    // Every (re)connection of the push channel introduces this client again, so that a server
    // endpoint restarted on the same path learns where to push.
    const std::string monitorAddress = "inproc://veq-client-monitor-" + routingId_;
    if (zmq_socket_monitor(notifySocket_->handle(), monitorAddress.c_str(), ZMQ_EVENT_CONNECTED) != 0) {
        lastError_ = std::string("cannot watch the push channel: ") + zmq_strerror(zmq_errno());
        Close();
        return false;
    }
    monitorSocket_ = std::make_unique<zmq::socket_t>(ZmqContext::Get(), zmq::socket_type::pair);
    monitorSocket_->set(zmq::sockopt::linger, 0);
    monitorSocket_->connect(monitorAddress);
    notifySocket_->connect("ipc://" + socketPath + "_notify");
    // Queued now, the hello leaves with the connection itself, without waiting for the monitor.
    SendHello();
    helloQueued_ = true;
    const bool welcomed = AwaitWelcome(deadline);
    listenThread_ = std::thread(&ClientConnection::ListenThread, this);
    if (!welcomed) {
        const int error = SocketFile::Probe(socketPath);
        lastError_ = error != 0 ? Describe(socketPath, error)
                                : "no answer from " + socketPath + " within " + std::to_string(timeout.count()) + " ms";
        Close();
        return false;
    }
    return true;
}

// Reads the push channel on the connecting thread until the welcome: one thread fewer to wake
// before Connect returns. The server sends nothing to a client before its welcome.
bool ClientConnection::AwaitWelcome(std::chrono::steady_clock::time_point deadline)
{
    while (true) {
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            if (welcomed_) {
                return true;
            }
        }
        auto frame = ReceiveOne(*notifySocket_, deadline);
        if (!frame) {
            return false;
        }
        HandleNotifyFrame(*frame);
    }
}

void ClientConnection::Close()
{
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        stopping_ = true;
    }
    stopWake_.Raise();
    if (listenThread_.joinable()) {
        listenThread_.join();
    }
    if (notifySocket_) {
        zmq_socket_monitor(notifySocket_->handle(), nullptr, 0);
    }
    monitorSocket_.reset();
    notifySocket_.reset();
    {
        std::lock_guard<std::mutex> lock(requestMutex_);
        requestSocket_.reset();
    }
    stopWake_.Clear();
    std::lock_guard<std::mutex> lock(stateMutex_);
    stopping_ = false;
    welcomed_ = false;
}

bool ClientConnection::IsConnected() const
{
    std::lock_guard<std::mutex> lock(requestMutex_);
    return requestSocket_ != nullptr;
}

std::optional<Result> ClientConnection::Send(const Message& message, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::lock_guard<std::mutex> lock(requestMutex_);
    if (!requestSocket_ || FrameIo::Send(*requestSocket_, {WireCodec::EncodeMessage(message)}) != 0) {
        return std::nullopt;
    }
    while (auto frame = ReceiveOne(*requestSocket_, deadline)) {
        Result result;
        std::string error;
        if (!WireCodec::DecodeResult(*frame, result, error)) {
            continue;
        }
        // Anything else is the late answer to an earlier request that this client gave up on.
        if (result.message.guid == message.guid || result.message.guid.empty()) {
            return result;
        }
    }
    return std::nullopt;
}

bool ClientConnection::SendRaw(const std::vector<std::string>& frames)
{
    std::lock_guard<std::mutex> lock(requestMutex_);
    return requestSocket_ && FrameIo::Send(*requestSocket_, frames) == 0;
}

std::optional<std::string> ClientConnection::ReceiveRaw(std::chrono::milliseconds timeout)
{
    std::lock_guard<std::mutex> lock(requestMutex_);
    if (!requestSocket_) {
        return std::nullopt;
    }
    return ReceiveOne(*requestSocket_, std::chrono::steady_clock::now() + timeout);
}

// The last part of the next message of at most two parts on socket, which the caller owns for the
// while: the request socket under requestMutex_, or the push socket before the listening thread runs.
std::optional<std::string> ClientConnection::ReceiveOne(zmq::socket_t& socket, std::chrono::steady_clock::time_point deadline)
{
    while (true) {
        const auto remaining =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        // 0 still takes a message that is already there.
        const int timeoutMs = static_cast<int>(std::clamp<int64_t>(remaining, 0, INT32_MAX));
        std::vector<std::string> frames;
        bool tooMany = false;
        bool received = false;
        try {
            received = FrameIo::ReceiveWithin(socket, frames, 2, tooMany, timeoutMs);
        } catch (const zmq::error_t& error) {
            if (error.num() != EINTR) {
                return std::nullopt;
            }
        }
        if (received && !frames.empty() && !tooMany) {
            return frames.back();
        }
        if (!received && timeoutMs == 0) {
            return std::nullopt;
        }
    }
}

void ClientConnection::SetPushHandler(PushHandler handler)
{
    std::lock_guard<std::mutex> lock(stateMutex_);
    pushHandler_ = std::move(handler);
}

void ClientConnection::SetRequestHandler(RequestHandler handler)
{
    std::lock_guard<std::mutex> lock(stateMutex_);
    requestHandler_ = std::move(handler);
}

std::optional<Notification> ClientConnection::NextPush(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(stateMutex_);
    if (!changed_.wait_for(lock, timeout, [this] { return !pushes_.empty(); })) {
        return std::nullopt;
    }
    Notification next = std::move(pushes_.front());
    pushes_.pop_front();
    return next;
}

void ClientConnection::ListenThread()
{
    while (true) {
        zmq::pollitem_t items[] = {{notifySocket_->handle(), 0, ZMQ_POLLIN, 0},
                                   {monitorSocket_->handle(), 0, ZMQ_POLLIN, 0},
                                   {nullptr, stopWake_.Fd(), ZMQ_POLLIN, 0}};
        try {
            zmq::poll(items, 3, std::chrono::milliseconds(-1));
        } catch (const zmq::error_t& error) {
            if (error.num() == EINTR) {
                continue;
            }
            return;
        }
        if (items[2].revents & ZMQ_POLLIN) {
            std::lock_guard<std::mutex> lock(stateMutex_);
            if (stopping_) {
                return;
            }
        }
        if (items[1].revents & ZMQ_POLLIN) {
            HandleMonitorEvent();
        }
        if (items[0].revents & ZMQ_POLLIN) {
            std::vector<std::string> frames;
            bool tooMany = false;
            while (FrameIo::Receive(*notifySocket_, frames, 2, tooMany)) {
                if (!frames.empty() && !tooMany) {
                    HandleNotifyFrame(frames.back());
                }
            }
        }
    }
}

void ClientConnection::HandleMonitorEvent()
{
    std::vector<std::string> frames;
    bool tooMany = false;
    while (FrameIo::Receive(*monitorSocket_, frames, 2, tooMany)) {
        uint16_t event = 0;
        if (!frames.empty() && frames[0].size() >= sizeof(event)) {
            std::memcpy(&event, frames[0].data(), sizeof(event));
        }
        if (event == ZMQ_EVENT_CONNECTED) {
            if (helloQueued_) {
                helloQueued_ = false;
            } else {
                SendHello();
            }
        }
    }
}

void ClientConnection::SendHello()
{
    Json::Value hello(Json::objectValue);
    hello["type"] = FrameType::kHello;
    FrameIo::Send(*notifySocket_, {WireCodec::Write(hello)});
}

void ClientConnection::HandleNotifyFrame(const std::string& text)
{
    std::string error;
    auto frame = WireCodec::ParseObject(text, error);
    if (!frame || !(*frame)["type"].isString()) {
        return;
    }
    const std::string type = (*frame)["type"].asString();
    if (type == FrameType::kWelcome) {
        std::lock_guard<std::mutex> lock(stateMutex_);
        welcomed_ = true;
        changed_.notify_all();
    } else if (type == FrameType::kNotification) {
        Notification notification;
        if (!WireCodec::FromJson((*frame)["notification"], notification, error)) {
            return;
        }
        std::unique_lock<std::mutex> lock(stateMutex_);
        if (auto handler = pushHandler_) {
            lock.unlock();
            try {
                handler(notification);
            } catch (...) {
                // A failing handler must not end the connection's thread.
            }
            return;
        }
        if (pushes_.size() < kMaxQueuedPushes) {
            pushes_.push_back(std::move(notification));
            changed_.notify_all();
        }
    } else if (type == FrameType::kRequest && (*frame)["requestId"].isString()) {
        Message message;
        Result reply;
        if (WireCodec::FromJson((*frame)["message"], message, error)) {
            RequestHandler handler;
            {
                std::lock_guard<std::mutex> lock(stateMutex_);
                handler = requestHandler_;
            }
            if (handler) {
                try {
                    reply = handler(message);
                } catch (const std::exception& failure) {
                    reply.message = message;
                    reply.message.statusText = failure.what();
                }
            } else {
                reply.message = message;
                reply.message.statusText = "This client takes no requests";
            }
        }
        Json::Value answer(Json::objectValue);
        answer["type"] = FrameType::kResult;
        answer["requestId"] = (*frame)["requestId"];
        answer["result"] = WireCodec::ToJson(reply);
        FrameIo::Send(*notifySocket_, {WireCodec::Write(answer)});
    }
}

}  // namespace Tavrin::Veq::ClientBroker
