#include "broker/BaseClientBroker.h"

#include "broker/BrokerFolders.h"
#include "broker/HandleTargetedRequestHelper.h"
#include "platform/bus/VEQNotificationData.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/utility.h"
#include "platform/string/String.h"
#include "platform/sync/TaskPool.h"
#include "platform/transport/NotificationFactory.h"
#include "platform/util/CGuid.h"
#include "platform/util/ThreadGarbageCollector.h"

#include <chrono>

namespace VEQ {
namespace {

using Tavrin::Veq::ClientBroker::ConnectionDetails;
using Tavrin::Veq::ClientBroker::NotificationFactory;

constexpr auto kPauseAfterMessage = std::chrono::milliseconds(100);
constexpr int kLogLevel = 4;
constexpr size_t kMaxIdInFileName = 128;

// The client's id names its log file. It comes from the client, so nothing in it may leave the
// log folder or make an impossible name.
std::wstring LogFileNameFor(const std::string& extensionId)
{
    std::wstring name = L"BaseClientBroker";
    for (wchar_t c : String::UTF8ToUTF16(extensionId.substr(0, kMaxIdInFileName))) {
        const bool plain = (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9') ||
                           c == L'-' || c == L'_' || c == L'.' || c == L'{' || c == L'}';
        name += plain ? c : L'_';
    }
    return name + L".log";
}

}  // namespace

BaseClientBroker::BaseClientBroker(const BrokerContext& brokerContextIn, const ClientContext& clientContextIn)
    : brokerContext(brokerContextIn), clientContext(clientContextIn)
{
    utility::InitLog(log, LogFileNameFor(clientContext.extensionId), kLogLevel);
    log.d(L"%s: Init, m_ExtensionId = %s", L"VEQ::BaseClientBroker::BaseClientBroker", clientContext.extensionId);
}

BaseClientBroker::~BaseClientBroker()
{
    for (auto* handler : handlers) {
        if (handler != nullptr) {
            handler->StopHandler();
        }
    }
    // A handler that outlived its wait still uses its handler object: wait for it.
    for (auto& running : runningCommands) {
        if (running.valid()) {
            running.wait();
        }
    }
    runningCommands.clear();
    SuspendServer();
    for (auto* handler : handlers) {
        delete handler;
    }
}

void BaseClientBroker::StartServer()
{
    const wchar_t* function = L"VEQ::BaseClientBroker::StartServer";
    log.d(L"%s: Init", function);
    if (suspending || workerThread != nullptr) {
        log.d(L"%s: Exit", function);
        return;
    }
    std::wstring folder;
    utility::GetVeqAppDataRootPath(folder);
    folder += BrokerFolders::kBroker;
    const bool userSide = brokerContext.getElevationType() == ElevationType::User;
    folder += userSide ? BrokerFolders::kSharedUser : BrokerFolders::kElevated;
    if (!FileSystem::directoryExists(folder)) {
        FileSystem::createDirectory(folder, true);
        if (userSide) {
            utility::ApplyFilePermissions(folder, BrokerFolders::kSharedUserAcl, true);
        }
    }
    socketId = folder + Utility::CGuid::NewGuid(true);
    utility::createFileWithAcl(socketId, userSide);
    workerThread = new std::thread(&BaseClientBroker::WorkerThread, this);
    log.d(L"%s: Exit", function);
}

void BaseClientBroker::WorkerThread()
{
    const wchar_t* function = L"VEQ::BaseClientBroker::WorkerThread";
    try {
        ConnectionDetails details;
        details.method = 1;
        details.endpoint = String::UTF16ToUTF8(socketId);
        {
            std::lock_guard<std::mutex> lock(mutex);
            server = NotificationFactory::GetInstance(NotificationFactory::kServerRole);
            log.d(L"%s : Start the server :%s", function, socketId);
            const int rc = server->Start(details);
            if (rc != 0) {
                log.e(L"%s: Failed to start server: Socket: %s, SdkError: %d", function, socketId, rc);
            }
            // A broker suspended before it got here must not stay subscribed once it is gone.
            if (!suspending) {
                subscriptionId = VEQPublisherSubscriber::GetInstance()->Subscribe(
                    [this](VEQNotificationData& data) { OnVEQNotification_2(data); }, true);
                if (subscriptionId.empty()) {
                    log.e(L"%s Couldn't subscribe to OnVEQNotification_2", function);
                }
            }
        }
        while (!suspending) {
            log.d(L"%s : Waiting for message", function);
            INotificationBase* endpoint = nullptr;
            {
                std::lock_guard<std::mutex> lock(mutex);
                endpoint = server;
            }
            // Only this thread replaces the endpoint, and it is deleted elsewhere only after this
            // thread has ended, so it can be waited on without the lock (Stop must reach it).
            Result received = endpoint->Wait(INotificationBase::kInfinite);
            if (received.message.statusCode == INotificationBase::kWaitFailed) {
                log.d(L"%s : Exception in zmq wait for message:%s", function, socketId);
                RestartServer(details);
            }
            log.d(L"%s : Message received", function);
            if (received.message.notification.command == kCloseConnectionCommand || suspending) {
                CloseAfterClientRequest();
                break;
            }
            ReceiveRequest(received.message);
            std::this_thread::sleep_for(kPauseAfterMessage);
        }
        log.d(L"%s : End of wait loop", function);
    } catch (const std::exception& error) {
        log.e(L"%s Exception while waiting for message :%s", function, error.what());
    }
}

void BaseClientBroker::RestartServer(ConnectionDetails& details)
{
    const wchar_t* function = L"VEQ::BaseClientBroker::WorkerThread";
    std::lock_guard<std::mutex> lock(mutex);
    server->Stop();
    log.d(L"%s : Stop successful:%s", function, socketId);
    delete server;
    server = NotificationFactory::GetInstance(NotificationFactory::kServerRole);
    const int rc = server->Start(details);
    if (rc != 0) {
        log.e(L"%s: Failed to start server: Socket: %s, SdkError: %d", function, socketId, rc);
    }
    log.d(L"%s : Restarted server:%s", function, socketId);
}

void BaseClientBroker::CloseAfterClientRequest()
{
    const wchar_t* function = L"VEQ::BaseClientBroker::WorkerThread";
    log.d(L"%s : Received close connection command from client, socketId : %s", function, socketId);
    suspending = true;
    INotificationBase* taken = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (server != nullptr) {
            log.d(L"%s: Server stop initiated", function);
            taken = server;
            server = nullptr;
        }
    }
    if (taken != nullptr) {
        // This thread is the endpoint's waiter, so another thread stops and deletes it.
        auto* stopper = new std::thread([taken] {
            taken->Stop();
            delete taken;
        });
        log.d(L"%s: Dumping thread to garbage collector", function);
        ThreadGarbageCollector::GetInstance()->Dump(stopper);
        log.d(L"%s: Server stop completed", function);
    }
}

void BaseClientBroker::SuspendServer()
{
    const wchar_t* function = L"VEQ::BaseClientBroker::SuspendServer";
    log.d(L"%s: Init socket=%s", function, socketId);
    suspending = true;
    for (auto* handler : handlers) {
        if (handler != nullptr) {
            handler->StopHandler();
        }
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        VEQPublisherSubscriber::GetInstance()->Unsubscribe(subscriptionId);
        subscriptionId.clear();
        if (server != nullptr) {
            log.d(L"%s: Server stop initiated", function);
            server->Stop();
            log.d(L"%s: Server stop completed", function);
        }
    }
    try {
        if (workerThread != nullptr) {
            log.d(L"%s: server worker thread joining", function);
            workerThread->join();
            log.d(L"%s: server worker thread joined", function);
            delete workerThread;
            workerThread = nullptr;
        }
    } catch (const std::exception& error) {
        log.d(L"%s: Exception while joining or deleting thread: %s", function, error.what());
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        delete server;
        server = nullptr;
    }
    RemoveSocketFiles();
    log.d(L"%s: Exit", function);
}

void BaseClientBroker::RemoveSocketFiles()
{
    const wchar_t* function = L"VEQ::BaseClientBroker::SuspendServer";
    try {
        log.d(L"%s: delete file", function);
        if (!socketId.empty()) {
            FileSystem::deleteDirectoryOrFile(socketId, false);
            FileSystem::deleteDirectoryOrFile(socketId + BrokerFolders::kNotifySuffix, false);
        }
    } catch (const std::exception& error) {
        log.e(L"%s, Exception(%s) occurred while deleting the socket file = %s", function, error.what(), socketId);
    }
}

void BaseClientBroker::Send_Result(Result& result)
{
    SendUnderLock(result);
}

void BaseClientBroker::SendUnderLock(Result& result)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (server != nullptr) {
        server->SendResult(result);
    }
}

void BaseClientBroker::ReceiveRequest(Message& received)
{
    ClientRequest request;
    request.setBrokerContext(brokerContext);
    request.setClientContext(clientContext);
    Message message;
    message.guid = received.guid;
    message.notification = received.notification;
    message.statusCode = 0;
    message.statusSource = "None";
    message.statusText = "Success";
    request.setMessage(message);

    BaseCommandHandler* handler = LocateHandler(request);
    const std::string& targetId = received.notification.targetId;
    if (!targetId.empty() && targetId != kServiceTarget) {
        HandleTargetedRequest(received);
        return;
    }
    if (handler != nullptr) {
        InvokeHandler(handler, request);
        return;
    }
    Result result;
    result.isSuccess = false;
    result.message = message;
    result.message.statusCode = kCommandNotSupportedCode;
    result.message.statusText = kCommandNotSupportedText;
    result.message.statusSource = kBrokerSource;
    SendUnderLock(result);
    log.e(L"commandHandler not found %s", message.notification.command);
}

BaseCommandHandler* BaseClientBroker::LocateHandler(ClientRequest& request)
{
    const wchar_t* function = L"VEQ::BaseClientBroker::LocateHandler";
    const std::string& command = request.getMessage().notification.command;
    log.d(L"%s Requested Command: %s", function, String::UTF8ToUTF16(command));
    for (auto* handler : handlers) {
        const std::vector<std::string> names = handler->GetSupportedCommandNames();
        for (const auto& name : names) {
            if (name == command) {
                log.d(L"%s Requested Command Found", function);
                return handler;
            }
        }
    }
    log.e(L"%s Requested Command Not Found", function);
    return nullptr;
}

void BaseClientBroker::InvokeHandler(BaseCommandHandler* handler, ClientRequest& request)
{
    const wchar_t* function = L"VEQ::BaseClientBroker::InvokeHandler";
    Result result;
    // The task owns its flag: one that outlives the wait must not write into this frame.
    auto pendingFlag = std::make_shared<std::atomic<bool>>(false);
    runningCommands.push_back(TaskPool::Shared().Submit([handler, request, pendingFlag]() {
        bool pending = false;
        Result response = handler->GetResponse(request, pending);
        *pendingFlag = pending;
        return response;
    }));
    auto& running = runningCommands.back();
    const auto wait = std::chrono::seconds(commandTimeoutSeconds - commandTimeoutMarginSeconds);
    bool pendingOperation = false;
    if (running.wait_for(wait) == std::future_status::ready) {
        auto finished = std::move(running);
        result = finished.get();  // a handler's escaping exception ends the worker, as documented
        pendingOperation = *pendingFlag;
    } else {
        result.message = request.getMessage();
        result.isSuccess = false;
        result.message.statusCode = kTimeoutCode;
        result.message.statusText = kTimeoutText;
        result.message.statusSource = kBrokerSource;
    }
    {
        std::lock_guard<std::mutex> lock(pendingMutex);
        hasPendingOperation = pendingOperation;
        if (pendingOperation) {
            pendingRequest = request;
        }
    }
    SendUnderLock(result);
    log.e(L"%s: Result.isSuccess is: %d", function, result.isSuccess);
    if (runningCommands.size() >= static_cast<size_t>(runningCommandsSweepThreshold)) {
        ClearThreadsWithStatusReady();
    }
}

void BaseClientBroker::ClearThreadsWithStatusReady()
{
    std::erase_if(runningCommands, [](std::future<Result>& running) {
        return !running.valid() || running.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
    if (runningCommands.empty()) {
        std::vector<std::future<Result>>().swap(runningCommands);
    } else if (runningCommands.capacity() > runningCommands.size()) {
        runningCommands.shrink_to_fit();
    }
}

void BaseClientBroker::HandleTargetedRequest(Message& received)
{
    HandleTargetedRequestHelper helper(&log);
    Result result;
    PluginInstanceDetails details;
    helper.BuildTargetErrorResult(received, details, result, kBrokerSource);
    SendUnderLock(result);
    log.e(L"%s the command couldn't be sent error: %s ", L"VEQ::BaseClientBroker::HandleTargetedRequest",
          result.message.statusText);
}

bool BaseClientBroker::Notify(Notification& notification)
{
    const wchar_t* function = L"VEQ::BaseClientBroker::Notify";
    std::lock_guard<std::mutex> lock(mutex);
    if (server == nullptr) {
        return false;
    }
    log.d(L"%s: Notify started for command : %s", function, notification.command);
    const bool sent = server->SendNotification(notification);
    log.d(L"%s: Notify completed with result : %d for command : %s", function, sent, notification.command);
    return sent;
}

void BaseClientBroker::OnVEQNotification_2(VEQNotificationData& /*data*/)
{
    // Deferred package results are answered here once package operations exist.
}

}  // namespace VEQ
