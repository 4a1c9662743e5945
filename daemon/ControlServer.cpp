#include "daemon/ControlServer.h"

#include "broker/GetDiagnosticsCommandHandler.h"
#include "broker/ReplyJson.h"
#include "module/ExtensionModule.h"

#include "platform/Platform.h"
#include "platform/bus/VEQNotificationData.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/log/Log.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/util/CoreUtility.h"
#include "platform/string/String.h"
#include "platform/transport/WireCodec.h"
#include "platform/transport/ZmqServerEndpoint.h"
#include "sdk/ControlProtocol.h"

#include <algorithm>
#include <cerrno>
#include <future>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace VEQ {
namespace {

using Tavrin::Veq::ClientBroker::ConnectionDetails;
using Tavrin::Veq::ClientBroker::INotificationBase;
using Tavrin::Veq::ClientBroker::Notification;
using Tavrin::Veq::ClientBroker::WireCodec;
using Tavrin::Veq::ClientBroker::ZmqServerEndpoint;
namespace Protocol = ::Veq::Sdk::ControlProtocol;

constexpr const wchar_t* kClass = L"VEQ::ControlServer";
constexpr const char* kNotifySuffix = "_notify";
constexpr int32_t kNotSupportedStatus = -1;
constexpr const char* kNotSupportedText = "Command not Supported";
constexpr int32_t kSubscriberFailedStatus = 500;
constexpr mode_t kPrivateMode = 0600;
constexpr int32_t kRegistrationTopic = 2;
constexpr int32_t kRegisteredState = 11;
constexpr int32_t kUnregisteredState = 12;
// A monitor that keeps falling behind is told of in the log at most this often.
constexpr auto kDropLogInterval = std::chrono::seconds(1);

ControlServer::Result Answer(const ControlServer::Message& request, bool success, int32_t statusCode,
                             const std::string& statusText)
{
    ControlServer::Result result;
    result.isSuccess = success;
    result.message = request;
    result.message.notification.payload = "{}";
    result.message.statusCode = statusCode;
    result.message.statusSource = ControlServer::kStatusSource;
    result.message.statusText = statusText;
    return result;
}

Json::Value DiagnosticsJson(const GetDiagnosticsCommandHandler::DiagnosticsOperationResult& result, ElevationType side)
{
    Json::Value entry(Json::objectValue);
    entry["pluginId"] = String::UTF16ToUTF8(result.targetId);
    entry["side"] = side == ElevationType::Elevated ? "elevated" : side == ElevationType::User ? "user" : "none";
    entry["delivered"] = result.delivered;
    entry["timeout"] = result.timeout;
    entry["success"] = result.success;
    entry["deleteFilesOnUpload"] = result.deleteFilesOnUpload;
    entry["folder"] = String::UTF16ToUTF8(result.folder);
    return entry;
}

ControlServer::Result BadRequest(const ControlServer::Message& request, const std::string& statusText)
{
    g_log.w(L"%s: refused a request: %s", L"VEQ::ControlServer::PublishEvent", statusText);
    return Answer(request, false, Protocol::kBadRequestStatus, statusText);
}

// The payload of a "Bus-Event" push: every member, always, so that a reader needs no defaults.
std::string EncodeBusEvent(uint64_t sequence, const VEQNotificationData& data)
{
    Json::Value body(Json::objectValue);
    body[Protocol::kSequence] = Json::UInt64(sequence);
    body[Protocol::kTopic] = data.getTopicId();
    body[Protocol::kState] = data.getEventState();
    body[Protocol::kPayload] = String::UTF16ToUTF8(data.getPayload());
    body[Protocol::kExtension] = data.isExtensionNotification();
    body[Protocol::kMqttTopic] = String::UTF16ToUTF8(data.getTopic());
    body[Protocol::kMessageType] = String::UTF16ToUTF8(data.getMessageType());
    body[Protocol::kActionType] = String::UTF16ToUTF8(data.getActionType());
    body[Protocol::kPublishFlag] = data.getPublishFlag();
    return WireCodec::Write(body);
}

bool IsInteger(const Json::Value& value)
{
    // Reals are refused even when whole: a topic written 6.0 is not what the tool meant to send.
    return (value.type() == Json::intValue || value.type() == Json::uintValue) && value.isInt();
}

// A socket file of an earlier run (one that did not stop cleanly) would lend its mode to the new
// socket; it goes first. The "_notify" file needs no such care: the endpoint renames its new
// socket over it with the mode of the placeholder.
bool RemoveStale(const std::string& path)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        return errno == ENOENT;
    }
    if (S_ISDIR(status.st_mode)) {
        return false;
    }
    return ::unlink(path.c_str()) == 0;
}

// The endpoint takes the mode of the file it replaces, so the socket is never reachable by others,
// not even for the moment between binding and setting its mode.
bool CreatePlaceholder(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPrivateMode);
    if (fd < 0) {
        return false;
    }
    const bool done = ::fchmod(fd, kPrivateMode) == 0;
    ::close(fd);
    return done;
}

}  // namespace

ControlServer::ControlServer(std::wstring dataRoot) : configuredRoot_(std::move(dataRoot)) {}

ControlServer::~ControlServer()
{
    Stop();
}

std::string ControlServer::SocketPath() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return path_;
}

bool ControlServer::Start()
{
    const wchar_t* function = L"VEQ::ControlServer::Start";
    std::lock_guard<std::mutex> lock(mutex_);
    if (endpoint_) {
        return true;
    }
    const std::string root =
        String::UTF16ToUTF8(configuredRoot_.empty() ? Platform::Paths().dataRoot : configuredRoot_);
    std::error_code error;
    std::filesystem::create_directories(root, error);
    const std::string path = root + "/" + Protocol::kSocketName;
    if (error || !RemoveStale(path) || !CreatePlaceholder(path)) {
        g_log.e(L"%s: cannot prepare the control socket %s: %s", function, path,
                error ? error.message() : std::string(std::strerror(errno)));
        return false;
    }
    auto endpoint = std::make_unique<ZmqServerEndpoint>();
    ConnectionDetails details;
    details.method = 1;
    details.endpoint = path;
    if (const int rc = endpoint->Start(details); rc != 0) {
        g_log.e(L"%s: cannot listen on %s: %s", function, path, std::strerror(rc));
        ::unlink(path.c_str());
        return false;
    }
    path_ = path;
    endpoint_ = std::move(endpoint);
    stopping_ = false;
    {
        std::lock_guard<std::mutex> queueLock(queueMutex_);
        forwarding_ = true;
        sequence_ = 0;
        dropped_ = 0;
    }
    forwardThread_ = std::thread(&ControlServer::ForwardThread, this);
    thread_ = std::thread(&ControlServer::ServeThread, this);
    busSubscription_ = VEQPublisherSubscriber::GetInstance()->Subscribe(
        [this](VEQNotificationData& data) { OnBusEvent(data); }, false);
    g_log.i(L"%s: listening on %s", function, path_);
    return true;
}

void ControlServer::Stop()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!endpoint_) {
        return;
    }
    // Off the bus first: once Unsubscribe returns, no publisher is inside OnBusEvent.
    VEQPublisherSubscriber::GetInstance()->Unsubscribe(busSubscription_);
    busSubscription_.clear();
    {
        std::lock_guard<std::mutex> queueLock(queueMutex_);
        forwarding_ = false;
        queue_.clear();
    }
    queueChanged_.notify_all();
    if (forwardThread_.joinable()) {
        forwardThread_.join();
    }
    stopping_ = true;
    endpoint_->Stop();
    if (thread_.joinable()) {
        thread_.join();
    }
    endpoint_.reset();
    ::unlink(path_.c_str());
    ::unlink((path_ + kNotifySuffix).c_str());
    g_log.i(L"%s: stopped", L"VEQ::ControlServer::Stop");
}

void ControlServer::ServeThread()
{
    const wchar_t* function = L"VEQ::ControlServer::ServeThread";
    try {
        while (!stopping_) {
            Result received = endpoint_->Wait(INotificationBase::kInfinite);
            if (stopping_) {
                break;
            }
            const Message& request = received.message;
            if (request.notification.command.empty() && request.guid.empty() &&
                request.statusCode == INotificationBase::kWaitFailed) {
                g_log.e(L"%s: the control socket failed; no more events are taken", function);
                break;
            }
            Result answer;
            try {
                answer = Handle(request);
            } catch (const std::exception& failure) {
                g_log.e(L"%s: Exception: %s", function, failure.what());
                answer = Answer(request, false, kSubscriberFailedStatus,
                                std::string("The event failed in a subscriber: ") + failure.what());
            }
            endpoint_->SendResult(answer);
        }
    } catch (const std::exception& failure) {
        g_log.e(L"%s: Exception: %s", function, failure.what());
    }
}

ControlServer::Result ControlServer::Handle(const Message& request)
{
    using Handler = Result (ControlServer::*)(const Message&);
    static constexpr std::pair<const char*, Handler> kHandlers[] = {
        {Protocol::kPublishEventCommand, &ControlServer::PublishEvent},
        {Protocol::kListPluginsCommand, &ControlServer::ListPlugins},
        {Protocol::kCollectDiagnosticsCommand, &ControlServer::CollectDiagnostics},
        {Protocol::kSetRegistrationCommand, &ControlServer::SetRegistration},
        {Protocol::kSetRefreshStatusCommand, &ControlServer::SetRefreshStatus},
    };
    for (const auto& [command, handler] : kHandlers) {
        if (request.notification.command == command) {
            return (this->*handler)(request);
        }
    }
    return Answer(request, false, kNotSupportedStatus, kNotSupportedText);
}

void ControlServer::OnBusEvent(const VEQNotificationData& data)
{
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        if (!forwarding_) {
            return;
        }
        ++sequence_;
        if (queue_.size() >= kMaxQueuedEvents) {
            ++dropped_;  // the monitors see the gap in the sequence; the log says how many
            return;
        }
        queue_.push_back({sequence_, data});
    }
    queueChanged_.notify_one();
}

// Pushes the queued events one by one, in their order. A push waits only for the endpoint's
// channel thread, which never waits for a client: a monitor that does not read loses pushes there.
void ControlServer::ForwardThread()
{
    const wchar_t* function = L"VEQ::ControlServer::ForwardThread";
    std::unique_lock<std::mutex> lock(queueMutex_);
    while (true) {
        queueChanged_.wait(lock, [this] { return !forwarding_ || !queue_.empty(); });
        if (!forwarding_) {
            break;
        }
        QueuedEvent event = std::move(queue_.front());
        queue_.pop_front();
        const auto now = std::chrono::steady_clock::now();
        uint64_t dropped = 0;
        if (dropped_ > 0 && (queue_.empty() || now - lastDropLog_ >= kDropLogInterval)) {
            dropped = std::exchange(dropped_, 0);
            lastDropLog_ = now;
        }
        lock.unlock();
        if (dropped > 0) {
            g_log.w(L"%s: the monitors fell behind: %u bus events dropped", function, dropped);
        }
        try {
            Notification push;
            push.command = Protocol::kBusEventCommand;
            push.payload = EncodeBusEvent(event.sequence, event.data);
            endpoint_->SendNotification(push);
        } catch (const std::exception& failure) {
            g_log.e(L"%s: Exception: %s", function, failure.what());
        }
        lock.lock();
    }
}

ControlServer::Result ControlServer::PublishEvent(const Message& request)
{
    std::string parseError;
    const auto body = WireCodec::ParseObject(request.notification.payload, parseError);
    if (!body) {
        return BadRequest(request, "The payload of \"Publish-Event\" is not a JSON object: " + parseError);
    }
    const Json::Value& extensionValue = (*body)[Protocol::kExtension];
    if (!extensionValue.isNull() && !extensionValue.isBool()) {
        return BadRequest(request, "\"extension\" must be true or false");
    }
    const bool extension = extensionValue.asBool();
    int numbers[2] = {0, 0};
    const char* numberNames[2] = {Protocol::kTopic, Protocol::kState};
    for (int i = 0; i < 2; ++i) {
        const Json::Value& value = (*body)[numberNames[i]];
        if (value.isNull() && !extension) {
            return BadRequest(request, std::string("\"") + numberNames[i] + "\" is required: an integer");
        }
        if (!value.isNull() && !IsInteger(value)) {
            return BadRequest(request, std::string("\"") + numberNames[i] + "\" must be an integer");
        }
        numbers[i] = value.isNull() ? 0 : value.asInt();
    }
    std::string texts[4];
    const char* textNames[4] = {Protocol::kPayload, Protocol::kMqttTopic, Protocol::kMessageType, Protocol::kActionType};
    for (int i = 0; i < 4; ++i) {
        const Json::Value& value = (*body)[textNames[i]];
        if (!value.isNull() && !value.isString()) {
            return BadRequest(request, std::string("\"") + textNames[i] + "\" must be a string");
        }
        texts[i] = value.isNull() ? std::string() : value.asString();
    }
    const auto& [payload, mqttTopic, messageType, actionType] = texts;
    if (extension && mqttTopic.empty()) {
        return BadRequest(request, "\"mqttTopic\" is required for an extension event: the MQTT topic it came in on");
    }

    VEQNotificationData data(numbers[0], numbers[1], String::UTF8ToUTF16(payload));
    if (!mqttTopic.empty()) {
        data.setTopic(String::UTF8ToUTF16(mqttTopic));
    }
    data.setExtensionNotification(extension);
    data.setMessageType(String::UTF8ToUTF16(messageType));
    data.setActionType(String::UTF8ToUTF16(actionType));
    g_log.i(L"%s: publishing topic %d state %d extension %d", L"VEQ::ControlServer::PublishEvent", numbers[0],
            numbers[1], extension ? 1 : 0);
    VEQPublisherSubscriber::GetInstance()->Notify(data, kPublisherName);
    return Answer(request, true, 0, "");
}

ControlServer::Result ControlServer::ListPlugins(const Message& request)
{
    PluginManager* manager = ExtensionModule::GetInstance()->GetPluginManager();
    if (manager == nullptr) {
        return Answer(request, false, kNotSupportedStatus, "the service runs without plugins");
    }
    Result result = Answer(request, true, 0, "");
    result.message.notification.payload = ReplyJson::Write(manager->Describe());
    return result;
}

// The host's side of diagnostics: which plugins and sides to ask is decided here, and each is
// asked through the module, all at once, so that the whole takes one plugin's wait at most.
ControlServer::Result ControlServer::CollectDiagnostics(const Message& request)
{
    std::string parseError;
    const auto body = WireCodec::ParseObject(request.notification.payload, parseError);
    if (!body) {
        return BadRequest(request, "The payload of \"Collect-Diagnostics\" is not a JSON object: " + parseError);
    }
    const Json::Value& folder = (*body)["folder"];
    const Json::Value& plugin = (*body)["plugin"];
    if (!folder.isString() || folder.asString().empty() || folder.asString().front() != '/') {
        return BadRequest(request, "\"folder\" is required: an absolute path");
    }
    if (!plugin.isNull() && (!plugin.isString() || plugin.asString().empty())) {
        return BadRequest(request, "\"plugin\" must be a plugin id");
    }
    PluginManager* manager = ExtensionModule::GetInstance()->GetPluginManager();
    if (manager == nullptr) {
        return Answer(request, false, kNotSupportedStatus, "the service runs without plugins");
    }
    std::vector<std::wstring> ids;
    if (plugin.isString()) {
        ids.push_back(String::UTF8ToUTF16(plugin.asString()));
    } else {
        // Every running plugin that takes part: one that does not declare the command has nothing to give.
        const Json::Value description = manager->Describe();
        for (const Json::Value& instance : description["instances"]) {
            const std::wstring id = String::UTF8ToUTF16(instance["id"].asString());
            Message probe;
            probe.notification.command = GetDiagnosticsCommandHandler::kCommand;
            probe.notification.targetId = instance["id"].asString();
            PluginInstanceDetails details;
            manager->GetTargetPluginInstanceDetails(probe, details, ElevationType::None);
            if (instance["running"].asBool() && details.isCommandFound &&
                std::find(ids.begin(), ids.end(), id) == ids.end()) {
                ids.push_back(id);
            }
        }
    }
    using Handler = GetDiagnosticsCommandHandler;
    const std::wstring target = String::UTF8ToUTF16(folder.asString());
    std::vector<std::future<Handler::DiagnosticsOperationResult>> asked;
    std::vector<ElevationType> sides;
    Json::Value results(Json::arrayValue);
    for (const std::wstring& id : ids) {
        std::wstring canonical;
        std::vector<ElevationType> elevations;
        if (!Handler::TryResolveGetDiagnosticsElevations(id, canonical, elevations)) {
            Handler::DiagnosticsOperationResult none;
            none.targetId = id;
            none.folder = target;
            results.append(DiagnosticsJson(none, ElevationType::None));
            continue;
        }
        for (ElevationType side : elevations) {
            sides.push_back(side);
            asked.push_back(std::async(std::launch::async, [canonical, target, side] {
                return Handler::SendDiagnosticCommandToTargets(canonical, target, side);
            }));
        }
    }
    for (size_t i = 0; i < asked.size(); ++i) {
        results.append(DiagnosticsJson(asked[i].get(), sides[i]));
    }
    Json::Value answer(Json::objectValue);
    answer["results"] = results;
    Result result = Answer(request, true, 0, "");
    result.message.notification.payload = ReplyJson::Write(answer);
    return result;
}

// The host's registration agent's word: recorded first, so that whoever hears the event reads
// the new state.
ControlServer::Result ControlServer::SetRegistration(const Message& request)
{
    std::string parseError;
    const auto body = WireCodec::ParseObject(request.notification.payload, parseError);
    if (!body || !(*body)[Protocol::kRegistered].isBool()) {
        return BadRequest(request, "The payload of \"Set-Registration\" must be {\"registered\": true or false}");
    }
    const bool registered = (*body)[Protocol::kRegistered].asBool();
    if (!CoreUtility::GetInstance()->SetDeviceRegistered(registered)) {
        return Answer(request, false, Protocol::kFailedStatus, "the registration state cannot be recorded");
    }
    g_log.i(L"%s: the device is now %s", L"VEQ::ControlServer::SetRegistration",
            registered ? L"registered" : L"not registered");
    VEQNotificationData event(kRegistrationTopic, registered ? kRegisteredState : kUnregisteredState, L"");
    VEQPublisherSubscriber::GetInstance()->Notify(event, kPublisherName);
    return Answer(request, true, 0, "");
}

ControlServer::Result ControlServer::SetRefreshStatus(const Message& request)
{
    std::string parseError;
    const auto body = WireCodec::ParseObject(request.notification.payload, parseError);
    if (!body || !IsInteger((*body)[Protocol::kStatus])) {
        return BadRequest(request, "The payload of \"Set-RefreshStatus\" must be {\"status\": an integer}");
    }
    if (!ConfigPolicyAgent::GetInstance()->ReportRefreshStatus((*body)[Protocol::kStatus].asInt())) {
        return Answer(request, false, Protocol::kConflictStatus,
                      "no refresh waits for an answer, or the status is not one a refresh ends with");
    }
    return Answer(request, true, 0, "");
}

}  // namespace VEQ
