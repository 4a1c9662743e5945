#include "platform/transport/ZmqServerEndpoint.h"

#include <zmq.hpp>

#include "platform/log/Log.h"
#include "platform/transport/FrameIo.h"
#include "platform/transport/SocketFile.h"
#include "platform/transport/WireCodec.h"
#include "platform/transport/ZmqContext.h"

#include <algorithm>
#include <cstring>
#include <list>

namespace Tavrin::Veq::ClientBroker {
namespace {

using VEQ::g_log;

constexpr const wchar_t* kClass = L"Tavrin::Veq::ClientBroker::ZmqServerEndpoint";
constexpr auto kRetryWindow = std::chrono::seconds(2);
constexpr auto kRetrySlice = std::chrono::milliseconds(10);
constexpr auto kUnstartedWaitLimit = std::chrono::seconds(1);
constexpr auto kPushDeadline = std::chrono::seconds(5);
constexpr size_t kMaxEnvelopeFrames = 3;  // routing id, optional empty delimiter, payload

// A client that was talking to an endpoint when it had to be restarted still expects its answer.
// The old endpoint hands the client's route to the next endpoint started on the same path.
class ReplyRoutes {
public:
    static void HandOver(const std::string& path, std::vector<std::string> envelope)
    {
        std::lock_guard<std::mutex> lock(Mutex());
        auto& routes = Routes();
        routes.remove_if([&](const auto& entry) { return entry.first == path; });
        routes.emplace_back(path, std::move(envelope));
        while (routes.size() > kCapacity) {
            routes.pop_front();
        }
    }

    static std::optional<std::vector<std::string>> TakeOver(const std::string& path)
    {
        std::lock_guard<std::mutex> lock(Mutex());
        auto& routes = Routes();
        for (auto it = routes.begin(); it != routes.end(); ++it) {
            if (it->first == path) {
                auto envelope = std::move(it->second);
                routes.erase(it);
                return envelope;
            }
        }
        return std::nullopt;
    }

private:
    static constexpr size_t kCapacity = 64;
    static std::mutex& Mutex()
    {
        static auto* mutex = new std::mutex();
        return *mutex;
    }
    static std::list<std::pair<std::string, std::vector<std::string>>>& Routes()
    {
        static auto* routes = new std::list<std::pair<std::string, std::vector<std::string>>>();
        return *routes;
    }
};

std::unique_ptr<zmq::socket_t> NewRouter()
{
    auto socket = std::make_unique<zmq::socket_t>(ZmqContext::Get(), zmq::socket_type::router);
    socket->set(zmq::sockopt::router_mandatory, 1);
    socket->set(zmq::sockopt::maxmsgsize, FrameIo::kMaxFrameBytes);
    socket->set(zmq::sockopt::linger, 0);
    return socket;
}

std::string GuidOf(const std::string& payload)
{
    std::string ignored;
    auto value = WireCodec::ParseObject(payload, ignored);
    if (value && (*value)["guid"].isString()) {
        return (*value)["guid"].asString();
    }
    return {};
}

}  // namespace

ZmqServerEndpoint::ZmqServerEndpoint(std::chrono::milliseconds requestTimeout) : requestTimeout_(requestTimeout) {}

ZmqServerEndpoint::~ZmqServerEndpoint()
{
    Stop();
    if (notifyThread_.joinable()) {
        notifyThread_.join();
    }
    SocketFile::Retire(path_, requestFile_, keptPlaceholder_);
    SocketFile::Retire(path_ + "_notify", notifyFile_, keptPlaceholder_);
    SocketFile::DropPlaceholder(keptPlaceholder_);
    std::unique_lock<std::mutex> lock(stateMutex_);
    idle_.wait(lock, [this] { return activeCalls_ == 0; });
    if (replyEnvelope_) {
        ReplyRoutes::HandOver(path_, std::move(*replyEnvelope_));
    }
}

int ZmqServerEndpoint::Start(ConnectionDetails& details)
{
    // Locks are taken one at a time here: elsewhere the request lock comes before the state lock.
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        if (started_ || stopped_ || starting_) {
            return EALREADY;
        }
        starting_ = true;
        path_ = details.endpoint;
    }
    const mode_t mode = SocketFile::ModeFor(path_);
    keptPlaceholder_ = SocketFile::KeepPlaceholder(path_);
    auto request = NewRouter();
    auto notify = NewRouter();
    if (details.peerProcessId != 0) {
        const int pid = static_cast<int>(details.peerProcessId);
        for (auto* socket : {request.get(), notify.get()}) {
            zmq_setsockopt(socket->handle(), ZMQ_IPC_FILTER_PID, &pid, sizeof pid);
        }
    }
    int rc = SocketFile::Bind(*request, path_, mode, &requestFile_);
    if (rc == 0) {
        rc = SocketFile::Bind(*notify, path_ + "_notify", mode, &notifyFile_);
    }
    if (rc != 0) {
        g_log.e(L"%s: bind failed on %s: %s", kClass, path_, std::strerror(rc));
        SocketFile::Retire(path_, requestFile_, keptPlaceholder_);  // when only the first bind held
        SocketFile::DropPlaceholder(keptPlaceholder_);
        keptPlaceholder_.clear();
        std::lock_guard<std::mutex> lock(stateMutex_);
        starting_ = false;
        return rc;
    }
    {
        std::lock_guard<std::mutex> io(requestMutex_);
        requestSocket_ = std::move(request);
    }
    notifySocket_ = std::move(notify);
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        replyEnvelope_ = ReplyRoutes::TakeOver(path_);
        replyEnvelopeHandedOver_ = replyEnvelope_.has_value();
        started_ = true;
        starting_ = false;
    }
    {
        std::lock_guard<std::mutex> notifyLock(notifyMutex_);
        notifyStopping_ = stopped_;
    }
    notifyThread_ = std::thread(&ZmqServerEndpoint::NotifyThread, this);
    return 0;
}

Result ZmqServerEndpoint::Wait(uint32_t timeoutMs)
{
    Enter();
    Result result;
    const auto now = Clock::now();
    const std::optional<Clock::time_point> deadline =
        timeoutMs == kInfinite ? std::nullopt : std::optional(now + std::chrono::milliseconds(timeoutMs));
    {
        std::unique_lock<std::mutex> lock(stateMutex_);
        if (!started_) {
            // Nothing listens. Report it, but no faster than once a second, so that a caller that
            // restarts the endpoint on failure cannot spin.
            auto until = now + kUnstartedWaitLimit;
            if (deadline && *deadline < until) {
                until = *deadline;
            }
            idle_.wait_until(lock, until, [this] { return stopped_.load(); });
            if (!stopped_) {
                result.message.statusCode = kWaitFailed;
            }
            --activeCalls_;
            idle_.notify_all();
            return result;
        }
    }

    std::unique_lock<std::mutex> io(requestMutex_);
    while (!stopped_) {
        FlushOutbox();
        zmq::pollitem_t items[] = {{requestSocket_->handle(), 0, ZMQ_POLLIN, 0},
                                   {nullptr, requestWake_.Fd(), ZMQ_POLLIN, 0}};
        try {
            zmq::poll(items, 2, PollSlice(deadline));
        } catch (const zmq::error_t& error) {
            if (error.num() == EINTR) {
                continue;
            }
            g_log.e(L"%s: wait failed on %s: %s", kClass, path_, error.what());
            result.message.statusCode = kWaitFailed;
            break;
        }
        if (items[1].revents & ZMQ_POLLIN) {
            requestWake_.Clear();
        }
        if ((items[0].revents & ZMQ_POLLIN) && ReceiveRequest(result.message)) {
            break;
        }
        if (deadline && Clock::now() >= *deadline) {
            break;
        }
    }
    io.unlock();
    FlushIfIdle();
    Leave();
    return result;
}

void ZmqServerEndpoint::Stop()
{
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        stopped_ = true;
        idle_.notify_all();
    }
    requestWake_.Raise();
    {
        std::lock_guard<std::mutex> lock(notifyMutex_);
        notifyStopping_ = true;
    }
    notifyWake_.Raise();
}

void ZmqServerEndpoint::SendResult(Result& result)
{
    Enter();
    Outgoing outgoing;
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        if (replyEnvelope_) {
            outgoing.frames = *replyEnvelope_;
            if (replyEnvelopeHandedOver_) {
                outgoing.retryUntil = Clock::now() + kRetryWindow;
            }
        }
    }
    if (outgoing.frames.empty()) {
        g_log.w(L"%s: no request to answer on %s, result dropped", kClass, path_);
    } else {
        outgoing.frames.push_back(WireCodec::EncodeResult(result));
        Deliver(std::move(outgoing));
    }
    Leave();
}

bool ZmqServerEndpoint::SendNotification(Notification& notification)
{
    Enter();
    const bool delivered = Push(notification);
    Leave();
    return delivered;
}

bool ZmqServerEndpoint::Push(const Notification& notification)
{
    Json::Value frame(Json::objectValue);
    frame["type"] = FrameType::kNotification;
    frame["notification"] = WireCodec::ToJson(notification);
    auto delivered = std::make_shared<std::promise<bool>>();
    auto outcome = delivered->get_future();
    {
        std::lock_guard<std::mutex> lock(notifyMutex_);
        if (notifyStopping_) {
            return false;
        }
        commands_.push_back({WireCodec::Write(frame), {}, delivered});
    }
    notifyWake_.Raise();
    return outcome.wait_for(kPushDeadline) == std::future_status::ready && outcome.get();
}

bool ZmqServerEndpoint::SendAndWait(Message& message, Result& result)
{
    Enter();
    PendingRequest entry;
    std::unique_lock<std::mutex> lock(notifyMutex_);
    bool queued = false;
    std::string requestId;
    if (!notifyStopping_) {
        requestId = std::to_string(++nextRequestId_);
        Json::Value frame(Json::objectValue);
        frame["type"] = FrameType::kRequest;
        frame["requestId"] = requestId;
        frame["message"] = WireCodec::ToJson(message);
        pending_[requestId] = &entry;
        commands_.push_back({WireCodec::Write(frame), requestId, nullptr});
        queued = true;
    }
    if (queued) {
        lock.unlock();
        notifyWake_.Raise();
        lock.lock();
        notifyDone_.wait_for(lock, requestTimeout_, [&entry] { return entry.done; });
        pending_.erase(requestId);
    }
    lock.unlock();
    if (entry.answered) {
        result = std::move(entry.result);
    } else {
        result.isSuccess = false;
        result.message = message;
        result.message.statusCode = kWaitFailed;
        result.message.statusSource = kTransportSource;
        result.message.statusText = "No reply from the client";
    }
    Leave();
    return entry.answered;
}

bool ZmqServerEndpoint::ReceiveRequest(Message& message)
{
    Frames frames;
    bool tooMany = false;
    std::string peerAddress;
    while (FrameIo::Receive(*requestSocket_, frames, kMaxEnvelopeFrames, tooMany, peerAddress)) {
        const bool wellFormed = !tooMany && frames.size() >= 2 && (frames.size() == 2 || frames[1].empty());
        if (!wellFormed) {
            g_log.w(L"%s: dropped a message of %d parts on %s", kClass, frames.size() + (tooMany ? 1 : 0), path_);
            continue;
        }
        Frames envelope(frames.begin(), frames.end() - 1);
        std::string error;
        Message received;
        if (!WireCodec::DecodeMessage(frames.back(), received, error)) {
            AnswerMalformed(envelope, frames.back(), error);
            continue;
        }
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            replyEnvelope_ = std::move(envelope);
            replyEnvelopeHandedOver_ = false;
        }
        received.peer = PeerCredentials::FromPeerAddress(peerAddress);
        message = std::move(received);
        return true;
    }
    return false;
}

void ZmqServerEndpoint::AnswerMalformed(const Frames& envelope, const std::string& payload, const std::string& reason)
{
    g_log.w(L"%s: malformed message on %s: %s", kClass, path_, reason);
    Result answer;
    answer.message.guid = GuidOf(payload);
    answer.message.statusCode = kMalformedStatus;
    answer.message.statusSource = kTransportSource;
    answer.message.statusText = "Malformed message: " + reason;
    Frames frames = envelope;
    frames.push_back(WireCodec::EncodeResult(answer));
    FrameIo::Send(*requestSocket_, frames);
}

void ZmqServerEndpoint::Deliver(Outgoing outgoing)
{
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        outbox_.push_back(std::move(outgoing));
    }
    FlushIfIdle();
}

void ZmqServerEndpoint::FlushIfIdle()
{
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        if (outbox_.empty()) {
            return;
        }
    }
    std::unique_lock<std::mutex> io(requestMutex_, std::try_to_lock);
    if (io.owns_lock()) {
        FlushOutbox();
    } else {
        // The thread in Wait owns the socket and sends it when it wakes.
        requestWake_.Raise();
    }
}

void ZmqServerEndpoint::FlushOutbox()
{
    std::deque<Outgoing> batch;
    batch.swap(retries_);
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        std::move(outbox_.begin(), outbox_.end(), std::back_inserter(batch));
        outbox_.clear();
    }
    for (auto& outgoing : batch) {
        if (!requestSocket_) {
            continue;
        }
        const int rc = FrameIo::Send(*requestSocket_, outgoing.frames);
        if (rc == 0) {
            continue;
        }
        if (rc == EHOSTUNREACH && outgoing.retryUntil && Clock::now() < *outgoing.retryUntil) {
            retries_.push_back(std::move(outgoing));
            continue;
        }
        g_log.w(L"%s: result dropped on %s: %s", kClass, path_, std::strerror(rc));
    }
}

std::chrono::milliseconds ZmqServerEndpoint::PollSlice(std::optional<Clock::time_point> deadline) const
{
    using std::chrono::milliseconds;
    milliseconds slice(-1);
    if (deadline) {
        slice = std::max(milliseconds(0), std::chrono::ceil<milliseconds>(*deadline - Clock::now()));
    }
    if (!retries_.empty() && (slice.count() < 0 || slice > kRetrySlice)) {
        slice = kRetrySlice;
    }
    return slice;
}

void ZmqServerEndpoint::NotifyThread()
{
    try {
        while (true) {
            zmq::pollitem_t items[] = {{notifySocket_->handle(), 0, ZMQ_POLLIN, 0},
                                       {nullptr, notifyWake_.Fd(), ZMQ_POLLIN, 0}};
            try {
                zmq::poll(items, 2, std::chrono::milliseconds(-1));
            } catch (const zmq::error_t& error) {
                if (error.num() == EINTR) {
                    continue;
                }
                throw;
            }
            if (items[1].revents & ZMQ_POLLIN) {
                notifyWake_.Clear();
                if (!RunCommands()) {
                    break;
                }
            }
            if (items[0].revents & ZMQ_POLLIN) {
                ReceiveNotifyFrames();
            }
        }
    } catch (const std::exception& error) {
        g_log.e(L"%s: notification channel of %s failed: %s", kClass, path_, error.what());
    }
    FailAllPending();
}

bool ZmqServerEndpoint::RunCommands()
{
    std::deque<Command> batch;
    {
        std::lock_guard<std::mutex> lock(notifyMutex_);
        if (notifyStopping_) {
            return false;
        }
        batch.swap(commands_);
    }
    for (auto& command : batch) {
        Execute(command);
    }
    return true;
}

void ZmqServerEndpoint::Execute(Command& command)
{
    std::vector<std::string> peers;
    {
        std::lock_guard<std::mutex> lock(notifyMutex_);
        peers = peers_;
    }
    if (!command.requestId.empty() && peers.size() > 1) {
        peers.erase(peers.begin(), peers.end() - 1);  // a request goes to the client that spoke last
    }
    bool delivered = false;
    for (const auto& peer : peers) {
        const int rc = FrameIo::Send(*notifySocket_, {peer, command.frame});
        if (rc == 0) {
            delivered = true;
        } else if (rc == EHOSTUNREACH) {
            std::lock_guard<std::mutex> lock(notifyMutex_);
            peers_.erase(std::remove(peers_.begin(), peers_.end(), peer), peers_.end());
        }
    }
    if (command.delivered) {
        command.delivered->set_value(delivered);
    } else if (!delivered) {
        Complete(command.requestId, false, {});
    }
}

void ZmqServerEndpoint::ReceiveNotifyFrames()
{
    Frames frames;
    bool tooMany = false;
    while (FrameIo::Receive(*notifySocket_, frames, kMaxEnvelopeFrames, tooMany)) {
        if (tooMany || frames.size() < 2) {
            g_log.w(L"%s: dropped a notification-channel message on %s", kClass, path_);
            continue;
        }
        const std::string& peer = frames.front();
        std::string error;
        auto frame = WireCodec::ParseObject(frames.back(), error);
        const std::string type = frame && (*frame)["type"].isString() ? (*frame)["type"].asString() : "";
        if (type == FrameType::kHello) {
            {
                std::lock_guard<std::mutex> lock(notifyMutex_);
                peers_.erase(std::remove(peers_.begin(), peers_.end(), peer), peers_.end());
                peers_.push_back(peer);
            }
            Json::Value welcome(Json::objectValue);
            welcome["type"] = FrameType::kWelcome;
            FrameIo::Send(*notifySocket_, {peer, WireCodec::Write(welcome)});
        } else if (type == FrameType::kResult && (*frame)["requestId"].isString()) {
            Result reply;
            const bool valid = WireCodec::FromJson((*frame)["result"], reply, error);
            if (!valid) {
                g_log.w(L"%s: malformed reply on %s: %s", kClass, path_, error);
            }
            Complete((*frame)["requestId"].asString(), valid, std::move(reply));
        } else {
            g_log.w(L"%s: dropped an unknown notification-channel frame on %s", kClass, path_);
        }
    }
}

void ZmqServerEndpoint::Complete(const std::string& requestId, bool answered, Result result)
{
    std::lock_guard<std::mutex> lock(notifyMutex_);
    auto it = pending_.find(requestId);
    if (it == pending_.end()) {
        return;  // a reply after its caller gave up
    }
    it->second->done = true;
    it->second->answered = answered;
    it->second->result = std::move(result);
    notifyDone_.notify_all();
}

void ZmqServerEndpoint::FailAllPending()
{
    std::deque<Command> abandoned;
    {
        std::lock_guard<std::mutex> lock(notifyMutex_);
        notifyStopping_ = true;
        abandoned.swap(commands_);
        for (auto& [id, entry] : pending_) {
            entry->done = true;
        }
        notifyDone_.notify_all();
    }
    for (auto& command : abandoned) {
        if (command.delivered) {
            command.delivered->set_value(false);
        }
    }
}

void ZmqServerEndpoint::Enter()
{
    std::lock_guard<std::mutex> lock(stateMutex_);
    ++activeCalls_;
}

void ZmqServerEndpoint::Leave()
{
    std::lock_guard<std::mutex> lock(stateMutex_);
    --activeCalls_;
    idle_.notify_all();
}

}  // namespace Tavrin::Veq::ClientBroker
