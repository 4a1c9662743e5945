#pragma once
// An app's connection to the service (docs/protocol.md): finds the global socket of its side,
// introduces itself with "ConnectTo-Veq", and then talks to the private broker it was given.
//
//     Veq::Sdk::AppClientOptions options;
//     options.extensionId = "com.example.app";
//     options.extensionName = "Example";
//     Veq::Sdk::AppClient client(options);
//     Veq::Sdk::AppClient::Result result;
//     if (auto error = client.Send("Get-VeqStatus", "{}", result)) {
//         std::cerr << error.Message() << "\n";
//     }
//
// Calls may come from any thread; they run one at a time. Pushes and the service's requests are
// handled on a thread of the connection, which a reconnection waits for: from inside a handler
// (or the attempt observer) every call but NextPush fails with InvalidCall. Hand work that needs
// the service to another thread.

#include "platform/transport/Message.h"
#include "platform/transport/Notification.h"
#include "platform/transport/Result.h"
#include "sdk/AppClientOptions.h"
#include "sdk/DataRoot.h"
#include "sdk/Error.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace Tavrin::Veq::ClientBroker {
class ClientConnection;
}

namespace Veq::Sdk {

class AppClient {
public:
    using Message = Tavrin::Veq::ClientBroker::Message;
    using Notification = Tavrin::Veq::ClientBroker::Notification;
    using Result = Tavrin::Veq::ClientBroker::Result;
    using PushHandler = std::function<void(const Notification&)>;
    using RequestHandler = std::function<Result(const Message&)>;
    // Told of each failed attempt of Reconnect before it waits for the next one.
    using AttemptObserver = std::function<void(int attempt, const Error& error)>;

    static constexpr const char* kConnectCommand = "ConnectTo-Veq";
    static constexpr const char* kStopCommand = "StopAppExtension";
    static constexpr const char* kSdkLanguage = "C++";
    static const char* SdkVersion();

    explicit AppClient(AppClientOptions options);
    ~AppClient();
    AppClient(const AppClient&) = delete;
    AppClient& operator=(const AppClient&) = delete;

    // One attempt: read the side's socket id, hand-shake, connect to the broker and wait until it
    // takes pushes. A connection that is already up is kept.
    Error Connect();
    // Drops the connection and connects again, with the retries and back-off of the policy. For a
    // service that restarted: its new global socket id is read again.
    Error Reconnect();
    // Leaves the broker; the service tears it down once this process ends. A later call connects again.
    void Close();
    // Connected, and the broker not known to be gone.
    bool IsConnected() const;

    // Sends one request and waits for its result. Connects first when needed: once when there is
    // no connection yet, through Reconnect when the broker was found gone and autoReconnect is on.
    // A request that got no result is not sent again. An empty guid is filled in.
    Error Send(const Message& request, Result& result);
    Error Send(const std::string& command, const std::string& payload, Result& result,
               const std::string& targetId = {}, const std::string& targetName = {});

    // Without a push handler, pushes queue (up to kMaxQueuedPushes) for NextPush. The queue
    // outlives reconnections. "StopAppExtension" is delivered too, after the client took note.
    static constexpr size_t kMaxQueuedPushes = 4096;
    void SetPushHandler(PushHandler handler);
    std::optional<Notification> NextPush(std::chrono::milliseconds timeout);
    // Answers the service's requests (commands that other clients route to this app). Without a
    // handler they are answered with isSuccess false.
    void SetRequestHandler(RequestHandler handler);
    void SetAttemptObserver(AttemptObserver observer);

    const DataRoot& Root() const { return root_; }
    // Of the current or last connection; empty before the first.
    std::string GlobalSocketPath() const;
    std::string BrokerPath() const;
    std::string ServerVersion() const;

private:
    Error ConnectOnce();
    Error Handshake(const std::string& globalPath, std::string& brokerPath, std::string& serverVersion);
    Error ReconnectLocked();
    Error EnsureConnected();
    void Drop();
    void MarkLost(const std::string& reason);
    void OnPush(const Notification& notification);
    Result OnRequest(const Message& request);
    std::string Describe() const;  // "the user side"
    bool WaitBeforeRetry(std::chrono::milliseconds delay);

    const AppClientOptions options_;
    const DataRoot root_;

    std::mutex callMutex_;  // one call at a time; owner of connection_
    std::unique_ptr<Tavrin::Veq::ClientBroker::ClientConnection> connection_;
    std::atomic<bool> connected_{false};
    std::atomic<bool> lost_{false};
    std::atomic<bool> closing_{false};
    std::condition_variable closingChanged_;

    mutable std::mutex stateMutex_;
    std::string globalPath_;
    std::string brokerPath_;
    std::string serverVersion_;
    std::string lostReason_;
    PushHandler pushHandler_;
    RequestHandler requestHandler_;
    AttemptObserver attemptObserver_;
    std::deque<Notification> pushes_;
    std::condition_variable pushArrived_;
};

}  // namespace Veq::Sdk
