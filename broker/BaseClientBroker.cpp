#include "broker/BaseClientBroker.h"

#include "broker/BrokerFolders.h"
#include "broker/HandleTargetedRequestHelper.h"
#include "module/Extensions.h"
#include "platform/bus/VEQNotificationData.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/utility.h"
#include "platform/registry/PackageUtils.h"
#include "platform/string/String.h"
#include "platform/sync/TaskPool.h"
#include "platform/transport/NotificationFactory.h"
#include "platform/util/CGuid.h"
#include "platform/util/ThreadGarbageCollector.h"

#include <json/json.h>

#include <chrono>

namespace VEQ {
namespace {

using Tavrin::Veq::ClientBroker::ConnectionDetails;
using Tavrin::Veq::ClientBroker::NotificationFactory;

constexpr auto kPauseAfterMessage = std::chrono::milliseconds(100);
constexpr int kLogLevel = 4;
constexpr size_t kMaxIdInFileName = 128;
constexpr const wchar_t* kPackageStatusKey = L"Software\\Tavrin\\VEQ\\PackageStatus";
constexpr const wchar_t* kFailedInstallRetryCountValue = L"FailedInstallRetryCount";

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
    {
        std::lock_guard<std::mutex> lock(handlersMutex);
        for (auto* handler : handlers) {
            if (handler != nullptr) {
                handler->StopHandler();
            }
        }
    }
    // The worker is joined first: it is the one thread that adds to runningCommands.
    SuspendServer();
    // A handler that outlived its wait still uses its handler object: wait for it.
    for (auto& running : runningCommands) {
        if (running.valid()) {
            running.wait();
        }
    }
    runningCommands.clear();
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
    // The path goes to the client at once, while the worker binds it: the client's own trip
    // there overlaps the bind, and it waits for the socket should it arrive first.
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
        details.peerProcessId = peerProcessId;
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
    endpointUsers->WaitUntilIdle();
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
        // SuspendServer waits for that before it removes the socket files, which the endpoint
        // touches as it goes.
        auto deleted = std::make_shared<std::promise<void>>();
        endpointDeleted = deleted->get_future().share();
        auto* stopper = new std::thread([taken, users = endpointUsers, deleted] {
            taken->Stop();
            users->WaitUntilIdle();
            delete taken;
            deleted->set_value();
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
    {
        std::lock_guard<std::mutex> lock(handlersMutex);
        for (auto* handler : handlers) {
            if (handler != nullptr) {
                handler->StopHandler();
            }
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
        if (server != nullptr) {
            endpointUsers->WaitUntilIdle();
            delete server;
            server = nullptr;
        }
    }
    if (endpointDeleted.valid()) {
        endpointDeleted.wait();  // set by the worker, which has been joined
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

void BaseClientBroker::SetHandlers(std::vector<BaseCommandHandler*> list)
{
    std::lock_guard<std::mutex> lock(handlersMutex);
    handlers = std::move(list);
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
    std::lock_guard<std::mutex> lock(handlersMutex);
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

// A command for another client: a plugin of that id first, then an app. The route runs on this
// worker and has no limit of its own: the sender waits for the target's answer.
void BaseClientBroker::HandleTargetedRequest(Message& received)
{
    HandleTargetedRequestHelper helper(&log);
    Result result;
    PluginInstanceDetails details;
    if (helper.HandleTargetedPluginRequest(received, result, brokerContext, clientContext, &details, 0,
                                           ElevationType::None) ||
        helper.HandleTargetedAppRequest(received, result, brokerContext, clientContext, 0)) {
        SendUnderLock(result);
        return;
    }
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

bool BaseClientBroker::NotifyAndWaitForResponse(Message& message, Result& result)
{
    const wchar_t* function = L"VEQ::BaseClientBroker::NotifyAndWaitForResponse";
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (server == nullptr) {
            return false;
        }
    }
    AddSenderToPayload(message, function);
    INotificationBase* endpoint = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex);
        endpoint = server;
        if (endpoint != nullptr) {
            endpointUsers->Enter();
        }
    }
    if (endpoint == nullptr) {
        return false;
    }
    // No lock while the client answers: pushes and results keep flowing, and several of these
    // may be in flight at once. Whoever deletes the endpoint stops it and waits for this call.
    const bool sent = endpoint->SendAndWait(message, result);
    endpointUsers->Leave();
    log.e(L"%s notify result %d %s", function, result.isSuccess, result.message.notification.payload);
    return sent;
}

void BaseClientBroker::AddSenderToPayload(Message& message, const wchar_t* function)
{
    try {
        Json::Value payload;
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        const std::string& text = message.notification.payload;
        std::string errors;
        if (!reader->parse(text.data(), text.data() + text.size(), &payload, &errors)) {
            log.e(L"%s Error parsing data: %s", function, text);
            return;
        }
        try {
            if (!message.senderId.empty()) {
                payload["sender_id"] = message.senderId;
            }
            if (!message.senderName.empty()) {
                payload["sender_name"] = message.senderName;
            }
        } catch (const std::exception& error) {
            log.e(L"%s Error modifying JSON: %s", function, error.what());
            return;
        }
        try {
            Json::StreamWriterBuilder writer;
            writer["indentation"] = "";
            writer["emitUTF8"] = true;
            message.notification.payload = Json::writeString(writer, payload);
        } catch (const std::exception& error) {
            log.e(L"%s Error serializing JSON: %s", function, error.what());
        }
    } catch (const std::exception& error) {
        log.e(L"%s Unhandled exception: %s", function, error.what());
    } catch (...) {
        log.e(L"%s Unknown error occurred", function);
    }
}

// Runs on the bus's thread. The out-of-range errors of a malformed pending payload are left to
// the bus, which logs them and goes on with its other subscribers.
void BaseClientBroker::OnVEQNotification_2(VEQNotificationData& data)
{
    const wchar_t* function = L"VEQ::BaseClientBroker::OnVEQNotification_2";
    ClientRequest pending;
    {
        std::lock_guard<std::mutex> lock(pendingMutex);
        if (data.getTopicId() != kPackageEventTopic || !hasPendingOperation) {
            return;
        }
        pending = pendingRequest;
    }
    std::wstring status = Extensions::ConvertEventStateToPackageStatusAsString(data.getEventState());
    std::wstring packageId, packageType, packageName, packageVersion, installationTrigger;
    data.deserializePayloadForPackageEvent(packageId, packageType, packageName, packageVersion, installationTrigger);
    log.d(L"%s Received status: %s for package id : %s", function, status, packageId);
    if (status.empty()) {
        return;
    }
    const bool final = String::CaseInsesitiveEqual(status, std::wstring(L"installed")) ||
                       String::CaseInsesitiveEqual(status, std::wstring(L"download_failed")) ||
                       String::CaseInsesitiveEqual(status, std::wstring(L"install_failed"));
    if (!final) {
        return;  // progress is not reported
    }
    const Message& request = pending.getMessage();
    if (request.notification.command != kStartPackageOperationCommand) {
        return;
    }
    const std::wstring pendingPackageId = PendingPackageId(request.notification.payload);
    if (!String::CaseInsesitiveEqual(packageId, pendingPackageId)) {
        log.e(L"%s package_Id mismatch error, response not sent to server - lastClientPkgId: %s  packageId: %s",
              function, pendingPackageId, packageId);
        return;
    }
    if (status == L"download_failed") {
        status = L"download_error";
    } else if (status == L"install_failed") {
        status = L"install_fail";
    }
    std::wstring operationType;
    const std::string reply = SerializeSPOResponse(request.notification.payload, String::UTF16ToUTF8(status), operationType);
    if (status == L"install_fail" && operationType == L"forcedInstall") {
        CountFailedForcedInstall(packageId, packageVersion);
    }
    Notification notification;
    notification.command = kPackageOperationResultCommand;
    notification.payload = reply;
    const bool sent = Notify(notification);
    log.d(L"%s Notification to the server: %s ", function, sent ? L"success" : L"failed");
    std::lock_guard<std::mutex> lock(pendingMutex);
    // A command that arrived meanwhile owns the pending state now.
    if (pendingRequest.getMessage().guid == request.guid) {
        pendingRequest = ClientRequest();
    }
}

// The package id of a pending request, read the way clients have always written it: the text
// after the colon of the first comma-separated piece that mentions "packageId".
std::wstring BaseClientBroker::PendingPackageId(const std::string& payload)
{
    for (const auto& piece : String::Split(payload, ',')) {
        const auto parts = String::Split(piece, ':');
        if (parts.at(0).find("packageId") == std::string::npos) {
            continue;
        }
        std::wstring id = String::UTF8ToUTF16(parts.at(1));
        for (wchar_t strip : {L' ', L'}', L' ', L'"'}) {
            std::erase(id, strip);
        }
        return id;
    }
    return {};
}

void BaseClientBroker::CountFailedForcedInstall(const std::wstring& packageId, const std::wstring& packageVersion)
{
    PackageUtils counter(packageId, packageVersion, kPackageStatusKey, kFailedInstallRetryCountValue);
    const int count = counter.GetIntValueFromReg(true);
    counter.SetKeyValueInRegistry(count == -1 ? 1 : count + 1, true);
}

std::string BaseClientBroker::SerializeSPOResponse(const std::string& requestPayload, const std::string& resultText,
                                                   std::wstring& operationType)
{
    const wchar_t* function = L"VEQ::BaseClientBroker::SerializeSPOResponse";
    try {
        Json::Value reply;
        Json::Value request;
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        std::string errors;
        if (reader->parse(requestPayload.data(), requestPayload.data() + requestPayload.size(), &request, &errors)) {
            reply["requestId"] = request["requestId"].asString();
            reply["packageId"] = request["packageId"].asString();
            reply["result"] = resultText;
            operationType = String::UTF8ToUTF16(request["operationType"].asString());
        }
        Json::FastWriter writer;
        return writer.write(reply);
    } catch (const std::exception& error) {
        log.e(L"%s Unhandled exception while parsing: %s", function, error.what());
    } catch (...) {
        log.e(L"%s Unknown error occurred", function);
    }
    log.e(L"%s Error parsing/serializing the response", function);
    return {};
}

void BaseClientBroker::RelayMqttMessage(VEQNotificationData& data)
{
    const std::wstring topic = data.getTopic();
    if (topic.find(String::UTF8ToUTF16(clientContext.extensionId)) == std::wstring::npos) {
        return;
    }
    Json::Value message;
    message["relativeTopic"] = String::UTF16ToUTF8(topic);
    message["message"] = String::UTF16ToUTF8(data.getPayload());
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    Notification notification;
    notification.command = kMqttMessageCommand;
    notification.payload = Json::writeString(writer, message);
    Notify(notification);
}

}  // namespace VEQ
