#pragma once

#include "broker/BaseCommandHandler.h"
#include "broker/BrokerContext.h"
#include "broker/ClientContext.h"
#include "broker/ClientRequest.h"
#include "broker/EndpointUsers.h"
#include "platform/log/Log.h"
#include "platform/transport/INotificationBase.h"

#include <atomic>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace VEQ {

class AppExtensionOperator;
class VEQNotificationData;

// The server side of one client's private connection: its socket file, its log file, its worker
// thread, and the dispatch of each message to the command handlers.
class BaseClientBroker {
public:
    using Message = Tavrin::Veq::ClientBroker::Message;
    using Notification = Tavrin::Veq::ClientBroker::Notification;
    using Result = Tavrin::Veq::ClientBroker::Result;
    using INotificationBase = Tavrin::Veq::ClientBroker::INotificationBase;

    static constexpr const char* kCloseConnectionCommand = "Close-Connection";
    static constexpr const char* kBrokerSource = "ExtensionBroker";
    static constexpr int32_t kCommandNotSupportedCode = 17001;
    static constexpr const char* kCommandNotSupportedText = "Command not supported";
    static constexpr int32_t kTimeoutCode = 17002;
    static constexpr const char* kTimeoutText = "Request could not be completed within one minute";
    static constexpr const char* kServiceTarget = "VEQ";

    BaseClientBroker(const BaseClientBroker&) = delete;
    BaseClientBroker& operator=(const BaseClientBroker&) = delete;
    virtual ~BaseClientBroker();

    void StartServer();
    void SuspendServer();
    bool IsSuspending() const { return suspending; }

    std::wstring& get_soketID() { return socketId; }
    void set_soketID(const std::wstring& id) { socketId = id; }
    BrokerContext& get_brokerContext() { return brokerContext; }
    ClientContext& get_clientContext() { return clientContext; }
    void SetAppExtensionOperator(AppExtensionOperator* owner) { appExtensionOperator = owner; }
    // The one process whose connections the broker takes; set before StartServer (0: any).
    void SetPeerProcessId(uint32_t processId) { peerProcessId = processId; }

    void Send_Result(Result& result);
    bool Notify(Notification& notification);
    // Sends message to the client as a request and fills result with its answer.
    bool NotifyAndWaitForResponse(Message& message, Result& result);
    // Bus subscriber: answers a pending package operation when its package's event arrives.
    void OnVEQNotification_2(VEQNotificationData& data);

    static constexpr int kPackageEventTopic = 30;
    static constexpr const char* kStartPackageOperationCommand = "Start-PackageOperation";
    static constexpr const char* kPackageOperationResultCommand = "Receive-PackageOperationResult";
    static constexpr const char* kMqttMessageCommand = "Receive-MqttMessage";

protected:
    BaseClientBroker(const BrokerContext& brokerContext, const ClientContext& clientContext);

    // The concrete brokers' relay of an inbound MQTT message to a client whose id is in its topic.
    void RelayMqttMessage(VEQNotificationData& data);
    // Installs the handler list once, while the worker may already be reading it.
    void SetHandlers(std::vector<BaseCommandHandler*> list);

    std::vector<BaseCommandHandler*> handlers;
    std::mutex handlersMutex;  // the list is filled while the worker may be dispatching
    Log log;

private:
    void WorkerThread();
    void RestartServer(Tavrin::Veq::ClientBroker::ConnectionDetails& details);
    void CloseAfterClientRequest();
    void ReceiveRequest(Message& received);
    BaseCommandHandler* LocateHandler(ClientRequest& request);
    void InvokeHandler(BaseCommandHandler* handler, ClientRequest& request);
    void HandleTargetedRequest(Message& received);
    void ClearThreadsWithStatusReady();
    void SendUnderLock(Result& result);
    void RemoveSocketFiles();
    std::string SerializeSPOResponse(const std::string& requestPayload, const std::string& resultText,
                                     std::wstring& operationType);
    void AddSenderToPayload(Message& message, const wchar_t* function);
    static std::wstring PendingPackageId(const std::string& payload);
    static void CountFailedForcedInstall(const std::wstring& packageId, const std::wstring& packageVersion);

    std::atomic<bool> suspending{false};
    BrokerContext brokerContext;
    ClientContext clientContext;
    std::wstring socketId;
    AppExtensionOperator* appExtensionOperator = nullptr;
    uint32_t peerProcessId = 0;
    INotificationBase* server = nullptr;
    std::thread* workerThread = nullptr;
    std::mutex mutex;  // guards server and every send on it
    std::shared_ptr<EndpointUsers> endpointUsers = std::make_shared<EndpointUsers>();
    std::shared_future<void> endpointDeleted;  // set when a client's Close-Connection hands the endpoint off
    std::vector<std::future<Result>> runningCommands;
    const int32_t commandTimeoutSeconds = 60;
    const int32_t commandTimeoutMarginSeconds = 2;
    const int32_t runningCommandsSweepThreshold = 5;
    std::wstring subscriptionId;

    // Written by the worker and read by the bus's thread; the lock keeps the pair consistent.
    std::mutex pendingMutex;
    bool hasPendingOperation = false;
    ClientRequest pendingRequest;
};

}  // namespace VEQ
