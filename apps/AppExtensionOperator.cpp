#include "apps/AppExtensionOperator.h"

#include "apps/GlobalSocketIds.h"
#include "apps/Handshake.h"
#include "broker/AppClientBroker.h"
#include "broker/BrokerFolders.h"
#include "platform/bus/VEQNotificationData.h"
#include "platform/device/VeqInfo.h"
#include "platform/fs/utility.h"
#include "platform/process/ClientCapacity.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"
#include "platform/transport/NotificationFactory.h"
#include "platform/transport/WireCodec.h"

#include <json/json.h>

#include <algorithm>
#include <memory>

namespace VEQ {
namespace {

using Tavrin::Veq::ClientBroker::ConnectionDetails;
using Tavrin::Veq::ClientBroker::NotificationFactory;

constexpr int kLogLevel = 4;

}  // namespace

AppExtensionOperator::AppExtensionOperator(BrokerContext& brokerContext) : m_brokerContext(brokerContext)
{
    utility::InitLog(log, L"AppExtensionOperator.log", kLogLevel);
    log.d(L"Init");
}

AppExtensionOperator::~AppExtensionOperator()
{
    std::lock_guard<std::mutex> lock(m_clientsMutex);
    for (auto& [handle, broker] : m_clients) {
        ProcessHandles::CloseHandle(handle);
        delete broker;
        ClientCapacity::Released();
    }
    m_clients.clear();
}

std::wstring AppExtensionOperator::GlobalSocketPath(ElevationType elevation)
{
    std::wstring id;
    if (!CRegUtil::GetRegValueOfStringType(HKEY_LOCAL_MACHINE, GlobalSocketIds::kBrokerKey,
                                           GlobalSocketIds::ValueNameFor(elevation), id) ||
        id.empty()) {
        return {};
    }
    std::wstring root;
    utility::GetVeqAppDataRootPath(root);
    return root + BrokerFolders::kBroker +
           (elevation == ElevationType::User ? BrokerFolders::kSharedUser : BrokerFolders::kElevated) + id;
}

void AppExtensionOperator::Start()
{
    log.d(L"start before lock");
    std::lock_guard<std::mutex> lock(m_clientsMutex);
    log.d(L"start after lock");
    m_stopEvent.Reset();
    m_state = OperatorState::Started;
    StartThreads();
}

void AppExtensionOperator::StartThreads()
{
    if (m_suspending) {
        return;
    }
    if (m_pServerGlobalWorkerThread == nullptr) {
        m_pServerGlobalWorkerThread = new std::thread(&AppExtensionOperator::WorkerThread, this);
    } else {
        log.d(L"m_pServerGlobalWorkerThread already started");
    }
    if (m_pClientMonitorThread == nullptr) {
        m_pClientMonitorThread = new std::thread(&AppExtensionOperator::ClientMonitorThread, this);
    }
}

void AppExtensionOperator::WorkerThread()
{
    const wchar_t* function = L"VEQ::AppExtensionOperator::WorkerThread";
    try {
        log.d(L"Worker thread started");
        auto* server = NotificationFactory::GetInstance(NotificationFactory::kServerRole);
        {
            std::lock_guard<std::mutex> lock(m_clientsMutex);
            m_pServer = server;
        }
        ConnectionDetails details;
        const wchar_t* valueName = GlobalSocketIds::ValueNameFor(GetElevation());
        if (!CRegUtil::DoesKeyExists(HKEY_LOCAL_MACHINE, GlobalSocketIds::kBrokerKey)) {
            log.d(L"%s, Registry key %s does not exist", function, GlobalSocketIds::kBrokerKey);
        } else if (const std::wstring path = GlobalSocketPath(GetElevation()); path.empty()) {
            log.d(L"%s, Unable to access registry value %s", function, valueName);
        } else {
            details.method = 1;
            details.endpoint = String::UTF16ToUTF8(path);
        }
        server->Start(details);
        while (!m_suspending) {
            Result received = server->Wait(kWaitTimeoutMs);
            if (received.message.notification.command == kConnectCommand) {
                ProcessMessage(received.message);
            }
        }
    } catch (const std::exception& error) {
        log.e(L"%s: Exception: %s", function, error.what());
    }
    log.d(L"Exit worker thread");
}

void AppExtensionOperator::ProcessMessage(const Message& message)
{
    auto handshake = ProcessMessageData(message.notification.payload);
    if (!handshake) {
        return;
    }
    // A client speaks for the process it runs in: the pid it claims must be the one the kernel
    // recorded for its connection, or it could spend another process's connections.
    if (!message.peer || message.peer->processId != handshake->processId) {
        log.w(L"%s: Refused a handshake claiming PID %d from PID %d (uid %d)", L"VEQ::AppExtensionOperator::ProcessMessage",
              handshake->processId, message.peer ? message.peer->processId : 0u,
              message.peer ? message.peer->userId : 0u);
        SendConnectResponse(message, {}, handshake->clientContext.sdkVersion);
        return;
    }
    log.d(L"%s: Handshake from PID %d, uid %d", L"VEQ::AppExtensionOperator::ProcessMessage", handshake->processId,
          message.peer->userId);
    log.d(L"%s: StartPrivateAppHandler for client PID: %d ", L"VEQ::AppExtensionOperator::ProcessMessage",
          handshake->processId);
    const std::wstring socketId = StartPrivateAppHandler(handshake->clientContext, handshake->processId);
    SendConnectResponse(message, socketId, handshake->clientContext.sdkVersion);
}

// A member that cannot be converted throws, which ends the worker thread.
std::optional<Handshake> AppExtensionOperator::ProcessMessageData(const std::string& data)
{
    auto handshake = Handshake::Read(data);
    if (!handshake) {
        log.e(L"ProcessMessageData error");
    }
    return handshake;
}

std::wstring AppExtensionOperator::StartPrivateAppHandler(const ClientContext& clientContext, uint32_t processId)
{
    const wchar_t* function = L"VEQ::AppExtensionOperator::StartPrivateAppHandler";
    ProcessHandle handle = ProcessHandles::OpenProcess(processId);
    if (handle == nullptr) {
        return {};
    }
    std::lock_guard<std::mutex> lock(m_clientsMutex);
    int32_t& count = m_connectionCountByPid[processId];
    if (count >= kMaxConnectionsPerProcess) {
        log.w(L"%s: Rate limit exceeded for PID %d (50 connections)", function, processId);
        ProcessHandles::CloseHandle(handle);
        return {};
    }
    // A client is either given a broker that will listen or told at once that there is none.
    if (const std::string shortfall = ClientCapacity::Shortfall(); !shortfall.empty()) {
        log.w(L"%s: No room for another client, PID %d refused: %s", function, processId, shortfall);
        ProcessHandles::CloseHandle(handle);
        return {};
    }
    AppClientBroker* broker = nullptr;
    try {
        broker = new AppClientBroker(m_brokerContext, clientContext);
        broker->SetAppExtensionOperator(this);
        broker->SetPeerProcessId(processId);
        broker->Start();
    } catch (const std::exception& error) {
        // Out of memory or threads: nothing of this client stays behind.
        log.e(L"%s: Failed to create AppClientBroker for PID: %d: %s", function, processId, error.what());
        delete broker;
        ProcessHandles::CloseHandle(handle);
        return {};
    }
    m_clients[handle] = broker;
    ClientCapacity::Taken();
    ++count;
    m_brokersByPid[processId].push_back(broker);
    log.d(L"%s: Start app client broker for PID %d (count: %d)", function, processId, count);
    return broker->get_soketID();
}

void AppExtensionOperator::SendConnectResponse(const Message& message, const std::wstring& socketId,
                                               const std::string& sdkVersion)
{
    Json::Value reply;
    reply["callbackConnection"] = String::UTF16ToUTF8(socketId);
    reply["response"] = "accepted";
    reply["serverVersion"] = String::UTF16ToUTF8(VeqInfo::GetInstance()->GetVeqServiceVersion());
    reply["sdkVersion"] = sdkVersion;
    Result result;
    result.message = message;
    result.message.notification.payload = Tavrin::Veq::ClientBroker::WireCodec::Write(reply);
    m_pServer->SendResult(result);
}

void AppExtensionOperator::ClientMonitorThread()
{
    log.d(L"Enter client monitor thread");
    while (!m_stopEvent.Wait(kMonitorInterval)) {
        SweepClients();
    }
    log.d(L"Exit client monitor thread");
}

void AppExtensionOperator::SweepClients()
{
    const wchar_t* function = L"VEQ::AppExtensionOperator::ClientMonitorThread";
    std::vector<std::pair<ProcessHandle, AppClientBroker*>> dead;
    size_t running = 0;
    {
        std::lock_guard<std::mutex> lock(m_clientsMutex);
        for (auto& [handle, broker] : m_clients) {
            const bool ended = ProcessHandles::WaitForSingleObject(handle, 0) != WaitResult::Timeout;
            if (ended || broker->IsSuspending()) {
                dead.emplace_back(handle, broker);
            }
        }
        running = m_clients.size();
    }
    bool erased = false;
    for (auto& [handle, broker] : dead) {
        const bool suspending = broker->IsSuspending();
        log.d(L"%s, Client process has been closed. Stopping ClientBroker with socketId %s, No of client running : "
              L"%d is suspending : %d",
              function, broker->get_soketID(), running, suspending);
        // Suspending joins the broker's own thread, so no operator lock is held meanwhile.
        if (!suspending) {
            broker->Suspend();
        }
        std::lock_guard<std::mutex> lock(m_clientsMutex);
        auto entry = m_clients.find(handle);
        if (entry == m_clients.end() || entry->second != broker) {
            log.d(L"%s, Race detected: broker was updated before erase", function);
            continue;
        }
        const std::wstring socketId = broker->get_soketID();
        if (const uint32_t pid = ProcessHandles::GetProcessId(handle); pid != 0) {
            auto& brokers = m_brokersByPid[pid];
            brokers.erase(std::remove(brokers.begin(), brokers.end(), broker), brokers.end());
            if (--m_connectionCountByPid[pid] < 1) {
                m_connectionCountByPid.erase(pid);
                m_brokersByPid.erase(pid);
            }
        }
        ProcessHandles::CloseHandle(handle);
        delete broker;
        m_clients.erase(entry);
        ClientCapacity::Released();
        erased = true;
        log.d(L"%s, Erased client %s", function, socketId);
    }
    if (erased) {
        std::lock_guard<std::mutex> lock(m_clientsMutex);
        log.d(L"%s, One of the Client process has been closed, No of Clients : %d", function, m_clients.size());
    }
}

bool AppExtensionOperator::RouteToOldestConnection(const std::string& target, Message& message, Result& result,
                                                   BaseClientBroker* excludedBroker)
{
    const wchar_t* function = L"VEQ::AppExtensionOperator::RouteToOldestConnection";
    std::lock_guard<std::mutex> lock(m_clientsMutex);
    const bool selfTarget = !message.senderId.empty() && String::CaseInsesitiveEqual(message.senderId, target);
    const wchar_t* note = selfTarget ? L"(self-target)" : L"";
    for (auto& [handle, broker] : m_clients) {
        if (broker == nullptr || broker->IsSuspending() || broker == excludedBroker ||
            !String::CaseInsesitiveEqual(broker->get_clientContext().extensionId, target)) {
            continue;
        }
        const uint32_t pid = ProcessHandles::GetProcessId(handle);
        auto brokers = m_brokersByPid.find(pid);
        if (pid == 0 || brokers == m_brokersByPid.end() || brokers->second.empty() ||
            brokers->second.front() != broker) {
            continue;
        }
        log.d(L"%s: Routing message to oldest connection for extension %s, socket: %s %s", function, target,
              broker->get_soketID(), note);
        return broker->NotifyAndWaitForResponse(message, result);
    }
    log.e(L"%s: No oldest broker found for target extension ID: %s %s", function, target, note);
    return false;
}

void AppExtensionOperator::NotifyAll(Notification& notification, const wchar_t* function, const wchar_t* failureFormat)
{
    std::lock_guard<std::mutex> lock(m_clientsMutex);
    log.d(L"%s entered", function);
    for (auto& [handle, broker] : m_clients) {
        if (broker != nullptr && !broker->Notify(notification)) {
            log.e(failureFormat, function, ProcessHandles::GetProcessId(handle));
        }
    }
}

void AppExtensionOperator::notifyExtensionAppsAboutConfigChanges(Notification notification)
{
    NotifyAll(notification, L"VEQ::AppExtensionOperator::notifyExtensionAppsAboutConfigChanges",
              L"%s: Failed to send config change to app extension id: %d");
}

void AppExtensionOperator::notifyExtensionAppsAboutPackageStatusChanges(Notification notification)
{
    NotifyAll(notification, L"VEQ::AppExtensionOperator::notifyExtensionAppsAboutPackageStatusChanges",
              L"%s: Failed to send register status change to app extension id: %d");
}

void AppExtensionOperator::notifyExtensionAppsAboutRegisterStatusChanges(Notification notification)
{
    NotifyAll(notification, L"VEQ::AppExtensionOperator::notifyExtensionAppsAboutRegisterStatusChanges",
              L"%s: Failed to send register status change to app extension id: %d");
}

// The caller holds the manager's lock; the operator's own lock is not taken here.
void AppExtensionOperator::OnVEQNotification(VEQNotificationData& data)
{
    for (auto& [handle, broker] : m_clients) {
        broker->OnVEQNotification(data);
    }
}

void AppExtensionOperator::Suspend()
{
    std::lock_guard<std::mutex> suspendLock(m_suspendMutex);
    m_stopEvent.Set();
    log.d(L"suspend before lock");
    {
        std::lock_guard<std::mutex> lock(m_clientsMutex);
        log.d(L"suspend after lock");
        m_suspending = true;
        m_state = OperatorState::Stopping;
        for (auto& [handle, broker] : m_clients) {
            if (broker == nullptr) {
                continue;
            }
            Notification stop;
            stop.command = kStopAppExtensionCommand;
            if (!broker->Notify(stop)) {
                log.e(L"%s: Failed to send stop app extension notification", L"VEQ::AppExtensionOperator::Suspend");
            }
            broker->Suspend();
        }
    }
    Tavrin::Veq::ClientBroker::INotificationBase* server = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_clientsMutex);
        server = m_pServer;
    }
    if (server != nullptr) {
        server->Stop();
    }
    if (m_pServerGlobalWorkerThread != nullptr) {
        m_pServerGlobalWorkerThread->join();
        delete m_pServerGlobalWorkerThread;
        m_pServerGlobalWorkerThread = nullptr;
    }
    {
        std::lock_guard<std::mutex> lock(m_clientsMutex);
        delete m_pServer;
        m_pServer = nullptr;
    }
    if (m_pClientMonitorThread != nullptr) {
        m_pClientMonitorThread->join();
        delete m_pClientMonitorThread;
        m_pClientMonitorThread = nullptr;
    }
    m_suspending = false;
    m_state = OperatorState::Stopped;
    log.d(L"Suspend finished");
}

}  // namespace VEQ
