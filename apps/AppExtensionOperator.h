#pragma once

#include "apps/Handshake.h"
#include "apps/OperatorState.h"
#include "broker/BrokerContext.h"
#include "broker/ClientContext.h"
#include "platform/log/Log.h"
#include "platform/process/ProcessHandles.h"
#include "platform/sync/ManualResetEvent.h"
#include "platform/transport/INotificationBase.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace VEQ {

class AppClientBroker;
class BaseClientBroker;
class VEQNotificationData;

// The front door of one side: the global socket where apps introduce themselves with
// "ConnectTo-Veq" and are given a private broker. It watches each app's process and tears the
// broker down when the process ends.
class AppExtensionOperator {
public:
    using Message = Tavrin::Veq::ClientBroker::Message;
    using Notification = Tavrin::Veq::ClientBroker::Notification;
    using Result = Tavrin::Veq::ClientBroker::Result;

    static constexpr const char* kConnectCommand = "ConnectTo-Veq";
    static constexpr const char* kStopAppExtensionCommand = "StopAppExtension";
    static constexpr int32_t kMaxConnectionsPerProcess = 50;
    static constexpr uint32_t kWaitTimeoutMs = 60000;
    static constexpr auto kMonitorInterval = std::chrono::milliseconds(1000);

    explicit AppExtensionOperator(BrokerContext& brokerContext);
    virtual ~AppExtensionOperator();
    AppExtensionOperator(const AppExtensionOperator&) = delete;
    AppExtensionOperator& operator=(const AppExtensionOperator&) = delete;

    void Start();
    void Suspend();
    ElevationType GetElevation() const { return m_brokerContext.getElevationType(); }
    OperatorState GetState() const { return m_state; }

    bool RouteToOldestConnection(const std::string& target, Message& message, Result& result,
                                 BaseClientBroker* excludedBroker);
    void notifyExtensionAppsAboutConfigChanges(Notification notification);
    void notifyExtensionAppsAboutPackageStatusChanges(Notification notification);
    void notifyExtensionAppsAboutRegisterStatusChanges(Notification notification);
    void OnVEQNotification(VEQNotificationData& data);

    // The global socket's path for a side, from the published id; empty when none is published.
    static std::wstring GlobalSocketPath(ElevationType elevation);

private:
    void StartThreads();
    void WorkerThread();
    void ClientMonitorThread();
    void SweepClients();
    void ProcessMessage(const Message& message);
    std::optional<Handshake> ProcessMessageData(const std::string& data);
    std::wstring StartPrivateAppHandler(const ClientContext& clientContext, uint32_t processId);
    void SendConnectResponse(const Message& message, const std::wstring& socketId, const std::string& sdkVersion);
    void NotifyAll(Notification& notification, const wchar_t* function, const wchar_t* failureFormat);

    BrokerContext m_brokerContext;
    std::map<ProcessHandle, AppClientBroker*> m_clients;
    std::map<uint32_t, int32_t> m_connectionCountByPid;
    std::map<uint32_t, std::vector<AppClientBroker*>> m_brokersByPid;
    std::mutex m_clientsMutex;
    std::mutex m_suspendMutex;
    Tavrin::Veq::ClientBroker::INotificationBase* m_pServer = nullptr;
    std::atomic<bool> m_suspending{false};
    ManualResetEvent m_stopEvent;
    std::thread* m_pServerGlobalWorkerThread = nullptr;
    std::thread* m_pClientMonitorThread = nullptr;
    std::atomic<OperatorState> m_state{OperatorState::Stopped};
    Log log;
};

}  // namespace VEQ
