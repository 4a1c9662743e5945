#pragma once

#include "broker/BaseCommandHandler.h"
#include "broker/BrokerContext.h"
#include "broker/ClientContext.h"
#include "broker/ClientRequest.h"
#include "platform/log/Log.h"
#include "platform/transport/INotificationBase.h"

#include <atomic>
#include <cstdint>
#include <future>
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

    void Send_Result(Result& result);
    bool Notify(Notification& notification);
    void OnVEQNotification_2(VEQNotificationData& data);

protected:
    BaseClientBroker(const BrokerContext& brokerContext, const ClientContext& clientContext);

    std::vector<BaseCommandHandler*> handlers;
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

    std::atomic<bool> suspending{false};
    BrokerContext brokerContext;
    ClientContext clientContext;
    std::wstring socketId;
    AppExtensionOperator* appExtensionOperator = nullptr;
    INotificationBase* server = nullptr;
    std::thread* workerThread = nullptr;
    std::mutex mutex;  // guards server and every send on it
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
