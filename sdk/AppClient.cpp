#include "sdk/AppClient.h"

#include "platform/string/String.h"
#include "platform/transport/ClientConnection.h"
#include "platform/transport/SocketFile.h"
#include "platform/transport/WireCodec.h"
#include "platform/util/CGuid.h"
#include "sdk/GlobalSocket.h"

#include <json/json.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace Veq::Sdk {
namespace {

using Tavrin::Veq::ClientBroker::ClientConnection;
using Tavrin::Veq::ClientBroker::SocketFile;
using Tavrin::Veq::ClientBroker::WireCodec;

// Set while a handler or the observer runs, so that calls that would wait for this very thread
// fail instead of hanging.
thread_local bool t_insideHandler = false;

class HandlerScope {
public:
    HandlerScope() : previous_(t_insideHandler) { t_insideHandler = true; }
    ~HandlerScope() { t_insideHandler = previous_; }
    HandlerScope(const HandlerScope&) = delete;
    HandlerScope& operator=(const HandlerScope&) = delete;

private:
    bool previous_;
};

Error InsideHandler()
{
    return {ErrorCode::InvalidCall,
            "this call would wait for the connection's own thread: it was made from inside a push or request "
            "handler (or the attempt observer). Hand the work to another thread."};
}

std::string NewGuid()
{
    return VEQ::String::UTF16ToUTF8(VEQ::Utility::CGuid::NewGuid(false));
}

std::string Milliseconds(std::chrono::milliseconds timeout)
{
    return std::to_string(timeout.count()) + " ms";
}

bool IsSocketFile(const std::string& path)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// The service publishes a socket's id, and a placeholder file, a moment before it listens there,
// so a missing or placeholder path is tried again until the deadline. A socket file that refuses
// was left by a service that stopped, and a refusal by permissions is final: both are told at once.
int ProbeWithin(const std::string& path, std::chrono::milliseconds timeout)
{
    constexpr auto kInterval = std::chrono::milliseconds(10);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        // Looked at before the probe: the placeholder turns into the socket at any moment.
        const bool wasSocket = IsSocketFile(path);
        const int error = SocketFile::Probe(path);
        const bool starting = error == ENOENT || (error == ECONNREFUSED && !wasSocket);
        if (!starting || std::chrono::steady_clock::now() >= deadline) {
            return error;
        }
        std::this_thread::sleep_for(kInterval);
    }
}

bool Retryable(ErrorCode code)
{
    // What a restarting service shows for a moment; a refusal or a permission stays as it is.
    return code == ErrorCode::NotPublished || code == ErrorCode::Unreachable || code == ErrorCode::NoHandshakeReply;
}

}  // namespace

const char* AppClient::SdkVersion()
{
    return VEQ_SDK_VERSION;
}

AppClient::AppClient(AppClientOptions options)
    : options_(std::move(options)), root_(DataRoot::Resolve(options_.dataRoot))
{
}

AppClient::~AppClient()
{
    Close();
}

std::string AppClient::Describe() const
{
    return std::string("the ") + SideName(options_.side) + " side";
}

Error AppClient::Connect()
{
    if (t_insideHandler) {
        return InsideHandler();
    }
    std::lock_guard<std::mutex> lock(callMutex_);
    if (connection_ && !lost_) {
        return {};
    }
    return ConnectOnce();
}

Error AppClient::Reconnect()
{
    if (t_insideHandler) {
        return InsideHandler();
    }
    std::lock_guard<std::mutex> lock(callMutex_);
    return ReconnectLocked();
}

void AppClient::Close()
{
    if (t_insideHandler) {
        return;
    }
    closing_ = true;
    {
        std::lock_guard<std::mutex> state(stateMutex_);
        closingChanged_.notify_all();
    }
    {
        std::lock_guard<std::mutex> lock(callMutex_);
        Drop();
        lost_ = false;
    }
    closing_ = false;
}

bool AppClient::IsConnected() const
{
    return connected_ && !lost_;
}

// Called with callMutex_ held.
Error AppClient::ConnectOnce()
{
    Drop();
    if (closing_) {
        return {ErrorCode::Closed, "the client was closed while connecting to " + Describe() + "."};
    }
    std::string globalPath;
    if (auto error = GlobalSocket::Locate(root_, options_.side, globalPath)) {
        return error;
    }
    {
        std::lock_guard<std::mutex> state(stateMutex_);
        globalPath_ = globalPath;
    }
    std::string brokerPath;
    std::string serverVersion;
    if (auto error = Handshake(globalPath, brokerPath, serverVersion)) {
        return error;
    }
    auto connection = std::make_unique<ClientConnection>();
    connection->SetPushHandler([this](const Notification& notification) { OnPush(notification); });
    connection->SetRequestHandler([this](const Message& request) { return OnRequest(request); });
    // A stop that arrives from here on belongs to this connection.
    lost_ = false;
    if (!connection->Connect(brokerPath, options_.timeout)) {
        return {ErrorCode::Unreachable, "cannot connect to the private broker that " + Describe() + " gave this app: " +
                                            connection->LastError() +
                                            ". The service may have stopped meanwhile; try again."};
    }
    {
        std::lock_guard<std::mutex> state(stateMutex_);
        brokerPath_ = brokerPath;
        serverVersion_ = serverVersion;
        lostReason_.clear();
    }
    connection_ = std::move(connection);
    connected_ = true;
    return {};
}

Error AppClient::Handshake(const std::string& globalPath, std::string& brokerPath, std::string& serverVersion)
{
    // Probed first, to tell the caller precisely why the socket cannot be reached.
    switch (const int error = ProbeWithin(globalPath, options_.timeout)) {
    case 0:
        break;
    case ENOENT:
    case ECONNREFUSED:
        return {ErrorCode::Unreachable,
                "nothing listens on " + Describe() + "'s global socket " + globalPath + " (" + std::strerror(error) +
                    "): the service published it but does not serve it, so it is stopped, crashed or restarting. "
                    "Try again in a moment, or check that the service runs."};
    case EACCES:
    case EPERM:
        return {ErrorCode::PermissionDenied,
                options_.side == Side::Elevated
                    ? "permission denied on the elevated side's global socket " + globalPath +
                          ": that side is open only to the service's own user. Run as that user (root), or use the "
                          "user side."
                    : "permission denied on the user side's global socket " + globalPath +
                          ": it should be open to every local user; check the modes of " +
                          GlobalSocket::Folder(root_.Path(), options_.side) + " and of the folders above it."};
    default:
        return {ErrorCode::Unreachable,
                "cannot reach " + Describe() + "'s global socket " + globalPath + ": " + std::strerror(error) + "."};
    }

    ClientConnection global;
    if (!global.ConnectRequestsOnly(globalPath, options_.timeout)) {
        return {ErrorCode::Unreachable, "cannot connect to " + Describe() + "'s global socket: " + global.LastError()};
    }
    Json::Value introduction(Json::objectValue);
    introduction["extensionId"] = options_.extensionId;
    introduction["extensionVersion"] = options_.extensionVersion;
    introduction["extensionName"] = options_.extensionName;
    introduction["sdkVersion"] = SdkVersion();
    introduction["sdkLanguage"] = kSdkLanguage;
    introduction["clientProcessId"] = static_cast<Json::Int>(::getpid());
    Message request;
    request.guid = NewGuid();
    request.notification.command = kConnectCommand;
    request.notification.payload = WireCodec::Write(introduction);

    const auto reply = global.Send(request, options_.timeout);
    if (!reply) {
        return {ErrorCode::NoHandshakeReply,
                "no answer to \"" + std::string(kConnectCommand) + "\" from " + Describe() + "'s global socket " +
                    globalPath + " within " + Milliseconds(options_.timeout) +
                    ": the service may be busy or stopping. Try again, or allow a longer timeout."};
    }
    std::string parseError;
    const auto answer = WireCodec::ParseObject(reply->message.notification.payload, parseError);
    if (!answer || !(*answer)["callbackConnection"].isString()) {
        return {ErrorCode::BadReply, "the answer of " + Describe() + "'s global socket " + globalPath +
                                         " to \"" + kConnectCommand + "\" has no \"callbackConnection\": " +
                                         reply->message.notification.payload};
    }
    brokerPath = (*answer)["callbackConnection"].asString();
    if (brokerPath.empty()) {
        return {ErrorCode::Refused,
                Describe() + " refused this app at " + globalPath +
                    " (empty \"callbackConnection\"): the service refuses a process that already has " +
                    "50 connections open, or whose process id it cannot see. Close connections this process no "
                    "longer uses, and try again."};
    }
    serverVersion = (*answer)["serverVersion"].isString() ? (*answer)["serverVersion"].asString() : std::string();
    return {};
}

// Called with callMutex_ held.
Error AppClient::ReconnectLocked()
{
    Drop();
    const int attempts = std::max(1, options_.reconnect.attempts);
    auto delay = options_.reconnect.firstDelay;
    for (int attempt = 1;; ++attempt) {
        Error error = ConnectOnce();
        if (!error) {
            return error;
        }
        AttemptObserver observer;
        {
            std::lock_guard<std::mutex> state(stateMutex_);
            observer = attemptObserver_;
        }
        if (observer) {
            HandlerScope scope;
            observer(attempt, error);
        }
        if (!Retryable(error.Code()) || attempt >= attempts) {
            if (attempt > 1) {
                return {error.Code(), error.Message() + " (gave up after " + std::to_string(attempt) + " attempts)"};
            }
            return error;
        }
        if (!WaitBeforeRetry(delay)) {
            return {ErrorCode::Closed, "the client was closed while waiting to reconnect to " + Describe() + "."};
        }
        delay = std::min(delay * 2, options_.reconnect.maxDelay);
    }
}

bool AppClient::WaitBeforeRetry(std::chrono::milliseconds delay)
{
    std::unique_lock<std::mutex> state(stateMutex_);
    return !closingChanged_.wait_for(state, delay, [this] { return closing_.load(); });
}

// Called with callMutex_ held.
Error AppClient::EnsureConnected()
{
    if (connection_ && !lost_) {
        return {};
    }
    if (!lost_) {
        return ConnectOnce();
    }
    if (options_.autoReconnect) {
        return ReconnectLocked();
    }
    std::lock_guard<std::mutex> state(stateMutex_);
    return {ErrorCode::ConnectionLost, "the connection to " + Describe() + " is gone: " + lostReason_ +
                                           ". Call Reconnect() to connect again."};
}

// Called with callMutex_ held. Waits for the connection's thread, so never from a handler.
void AppClient::Drop()
{
    connected_ = false;
    connection_.reset();
}

void AppClient::MarkLost(const std::string& reason)
{
    std::lock_guard<std::mutex> state(stateMutex_);
    if (!lost_) {
        lostReason_ = reason;
        lost_ = true;
    }
}

Error AppClient::Send(const std::string& command, const std::string& payload, Result& result,
                      const std::string& targetId, const std::string& targetName)
{
    Message request;
    request.notification.command = command;
    request.notification.payload = payload;
    request.notification.targetId = targetId;
    request.notification.targetName = targetName;
    return Send(request, result);
}

Error AppClient::Send(const Message& request, Result& result)
{
    if (t_insideHandler) {
        return InsideHandler();
    }
    std::lock_guard<std::mutex> lock(callMutex_);
    if (auto error = EnsureConnected()) {
        return error;
    }
    Message message = request;
    if (message.guid.empty()) {
        message.guid = NewGuid();
    }
    if (auto reply = connection_->Send(message, options_.timeout)) {
        result = std::move(*reply);
        return {};
    }

    const std::string broker = BrokerPath();
    const std::string next = options_.autoReconnect ? "The next call connects again." : "Call Reconnect() to connect again.";
    const std::string what = "no result for \"" + message.notification.command + "\" from " + Describe() +
                             "'s broker " + broker + " within " + Milliseconds(options_.timeout);
    if (lost_) {
        std::lock_guard<std::mutex> state(stateMutex_);
        return {ErrorCode::ConnectionLost, what + ": " + lostReason_ + ". " + next};
    }
    if (const int gone = SocketFile::Probe(broker); gone != 0) {
        MarkLost("its broker " + broker + " is gone (" + std::strerror(gone) + ")");
        return {ErrorCode::ConnectionLost,
                what + ", and the broker is gone (" + std::strerror(gone) + "): the service stopped or restarted. " + next};
    }
    // The broker still listens: it is busy with this or an earlier request, and a new connection
    // would only queue behind the same service.
    return {ErrorCode::NoReply, what + "; the broker is still there and may be busy (a command may take up to a "
                                       "minute). Allow a longer timeout, or try again."};
}

void AppClient::OnPush(const Notification& notification)
{
    if (notification.command == kStopCommand) {
        MarkLost(Describe() + " asked this app to stop (\"" + std::string(kStopCommand) +
                 "\"): the service is stopping, or its policy closed the side");
    }
    std::unique_lock<std::mutex> state(stateMutex_);
    if (auto handler = pushHandler_) {
        state.unlock();
        HandlerScope scope;
        handler(notification);
        return;
    }
    if (pushes_.size() < kMaxQueuedPushes) {
        pushes_.push_back(notification);
        pushArrived_.notify_all();
    }
}

AppClient::Result AppClient::OnRequest(const Message& request)
{
    RequestHandler handler;
    {
        std::lock_guard<std::mutex> state(stateMutex_);
        handler = requestHandler_;
    }
    Result reply;
    if (!handler) {
        reply.message = request;
        reply.message.statusText = "This app takes no requests";
        return reply;
    }
    {
        HandlerScope scope;
        reply = handler(request);
    }
    if (reply.message.guid.empty()) {
        reply.message.guid = request.guid;
    }
    return reply;
}

void AppClient::SetPushHandler(PushHandler handler)
{
    std::lock_guard<std::mutex> state(stateMutex_);
    pushHandler_ = std::move(handler);
}

std::optional<AppClient::Notification> AppClient::NextPush(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> state(stateMutex_);
    if (!pushArrived_.wait_for(state, timeout, [this] { return !pushes_.empty(); })) {
        return std::nullopt;
    }
    Notification next = std::move(pushes_.front());
    pushes_.pop_front();
    return next;
}

void AppClient::SetRequestHandler(RequestHandler handler)
{
    std::lock_guard<std::mutex> state(stateMutex_);
    requestHandler_ = std::move(handler);
}

void AppClient::SetAttemptObserver(AttemptObserver observer)
{
    std::lock_guard<std::mutex> state(stateMutex_);
    attemptObserver_ = std::move(observer);
}

std::string AppClient::GlobalSocketPath() const
{
    std::lock_guard<std::mutex> state(stateMutex_);
    return globalPath_;
}

std::string AppClient::BrokerPath() const
{
    std::lock_guard<std::mutex> state(stateMutex_);
    return brokerPath_;
}

std::string AppClient::ServerVersion() const
{
    std::lock_guard<std::mutex> state(stateMutex_);
    return serverVersion_;
}

}  // namespace Veq::Sdk
