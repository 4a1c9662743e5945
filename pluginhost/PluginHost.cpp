#include "pluginhost/PluginHost.h"

#include "platform/log/Log.h"
#include "platform/process/CurrentProcess.h"
#include "platform/process/ProcessHandles.h"
#include "platform/process/SharedLibrary.h"
#include "platform/transport/WireCodec.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using Tavrin::Veq::ClientBroker::Message;
using Tavrin::Veq::ClientBroker::Notification;
using Tavrin::Veq::ClientBroker::Result;
using Tavrin::Veq::ClientBroker::WireCodec;

constexpr const wchar_t* kClass = L"VEQ::PluginHost";
constexpr auto kConnectTimeout = 10s;
constexpr auto kAskTimeout = 60s;
constexpr const char* kStopCommand = "StopPlugin";

// Set while the host runs one of the plugin's callbacks on this thread: a send from there would
// wait for the very thread that must deliver its result.
thread_local bool inCallback = false;

struct CallbackScope {
    CallbackScope() { inCallback = true; }
    ~CallbackScope() { inCallback = false; }
};

char* CopyText(const std::string& text)
{
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy != nullptr) {
        std::memcpy(copy, text.c_str(), text.size() + 1);
    }
    return copy;
}

// The last component of an entry path, which the manifest writes with backslashes.
std::string LastComponent(const std::string& path)
{
    const size_t separator = path.find_last_of("/\\");
    return separator == std::string::npos ? path : path.substr(separator + 1);
}

bool IsPlainName(const std::string& name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

}  // namespace

PluginHost::PluginHost(PluginHostOptions options, Log& log) : options_(std::move(options)), log_(log) {}

PluginHost::~PluginHost()
{
    connection_.Close();
}

bool PluginHost::ParseCommandLine(int argc, char** argv, PluginHostOptions& options, std::string& error)
{
    // The host path is the program's own (the first word of its command line).
    if (argc != 4) {
        error = "usage: <host copy> SOCKET_PATH SERVICE_PID PLUGIN_NAME";
        return false;
    }
    options.hostPath = argv[0];
    options.socketPath = argv[1];
    options.pluginName = argv[3];
    char* end = nullptr;
    errno = 0;
    const unsigned long pid = std::strtoul(argv[2], &end, 10);
    if (*argv[2] == '\0' || *end != '\0' || errno != 0 || pid == 0 || pid > 0x7FFFFFFF) {
        error = std::string("not a process id: ") + argv[2];
        return false;
    }
    options.servicePid = static_cast<uint32_t>(pid);
    return true;
}

int PluginHost::Run()
{
    log_.i(L"%s: hosting %s for service %d on %s", kClass, options_.pluginName, options_.servicePid,
           options_.socketPath);
    // Watched first: a service that is already gone leaves nothing to serve.
    std::thread(&PluginHost::WatchService, this).detach();
    if (!connection_.Connect(options_.socketPath, kConnectTimeout)) {
        log_.e(L"%s: cannot reach the broker: %s", kClass, connection_.LastError());
        return kNoBroker;
    }
    if (!Learn(identity_)) {
        return kNoContext;
    }
    const int started = LoadAndStart(identity_);
    if (started != kStopped) {
        return started;
    }
    WaitForStop();
    if (callbacks_.on_stop != nullptr) {
        CallbackScope scope;
        callbacks_.on_stop(callbacks_.state);
    }
    log_.i(L"%s: stopped", kClass);
    return kStopped;
}

bool PluginHost::Ask(const std::string& command, const std::string& payload, Json::Value& reply)
{
    Message request;
    request.guid = command + "-" + std::to_string(CurrentProcess::GetCurrentProcessId());
    request.notification.command = command;
    request.notification.payload = payload;
    const std::optional<Result> result = connection_.Send(request, kAskTimeout);
    if (!result || !result->isSuccess) {
        log_.e(L"%s: %s was not answered (%s)", kClass, command,
               result ? result->message.statusText : std::string("no reply"));
        return false;
    }
    std::string error;
    const std::optional<Json::Value> parsed = WireCodec::ParseObject(result->message.notification.payload, error);
    if (!parsed) {
        log_.e(L"%s: the answer to %s is unreadable: %s", kClass, command, error);
        return false;
    }
    reply = *parsed;
    return true;
}

bool PluginHost::Learn(Identity& identity)
{
    Json::Value context;
    if (!Ask("Get-PluginHostContext", "{}", context)) {
        return false;
    }
    identity.pluginName = context["pluginName"].isString() ? context["pluginName"].asString() : "";
    identity.pluginId = context["pluginId"].isString() ? context["pluginId"].asString() : "";
    identity.directory = context["pluginEntryPath"].isString() ? context["pluginEntryPath"].asString() : "";
    if (identity.pluginId.empty() || identity.directory.empty() || identity.directory.front() != '/') {
        log_.e(L"%s: the host context names no plugin or no folder", kClass);
        return false;
    }
    Json::Value request(Json::objectValue);
    request["id"] = identity.pluginId;
    Json::Value details;
    if (!Ask("Get-PluginDetails", WireCodec::Write(request), details)) {
        return false;
    }
    // The service's user runs the elevated side; everyone else is a user's session.
    uint32_t serviceUid = 0;
    const bool knownService = CurrentProcess::GetProcessUserId(options_.servicePid, serviceUid);
    identity.side = knownService && serviceUid == CurrentProcess::GetUserId() ? "elevated" : "user";
    identity.entryFile = EntryFileName(details, identity.side);
    if (!IsPlainName(identity.entryFile)) {
        log_.e(L"%s: the manifest names no entry for the %s side", kClass, identity.side);
        return false;
    }
    return true;
}

std::string PluginHost::EntryFileName(const Json::Value& details, const std::string& side) const
{
    const Json::Value& manifest = details["pluginManifest"];
    if (!manifest.isObject()) {
        return "";
    }
#if defined(__aarch64__)
    const char* entryMember = "entryARM64";
#else
    const char* entryMember = "entry64";
#endif
    // The policy may run a plugin on a side its manifest has no block for; it then runs the
    // entry of the other block.
    const bool elevated = side == "elevated";
    for (const char* blockName : {elevated ? "system" : "user", elevated ? "user" : "system"}) {
        const Json::Value& block = manifest[blockName];
        const Json::Value& entry = block.isObject() ? block[entryMember] : Json::Value();
        if (entry.isString() && !entry.asString().empty()) {
            return LastComponent(entry.asString());
        }
    }
    return "";
}

int PluginHost::LoadAndStart(const Identity& identity)
{
    const std::string path = identity.directory + "/" + identity.entryFile;
    static SharedLibrary library;  // stays loaded until the process ends
    if (!library.Open(path)) {
        log_.e(L"%s: cannot load %s: %s", kClass, path, library.Error());
        return kPluginUnloadable;
    }
    auto start = reinterpret_cast<veq_plugin_start_fn>(library.Find(VEQ_PLUGIN_START_SYMBOL));
    if (start == nullptr) {
        log_.e(L"%s: %s exports no %s: %s", kClass, path, VEQ_PLUGIN_START_SYMBOL, library.Error());
        return kPluginUnloadable;
    }
    api_.size = sizeof(api_);
    api_.abi_version = VEQ_PLUGIN_ABI_VERSION;
    api_.host = reinterpret_cast<veq_host*>(this);
    api_.send = &PluginHost::Send;
    api_.free_text = &PluginHost::FreeText;
    api_.log = &PluginHost::WriteLog;
    api_.plugin_id = identity.pluginId.c_str();
    api_.plugin_name = identity.pluginName.c_str();
    api_.plugin_directory = identity.directory.c_str();
    api_.side = identity.side.c_str();
    callbacks_ = veq_plugin_callbacks{};
    callbacks_.size = sizeof(callbacks_);
    // Not a callback: it runs on this thread while the connection thread takes the replies, so
    // the plugin may ask the service from here.
    const int refused = start(&api_, &callbacks_);
    if (refused != 0) {
        log_.e(L"%s: %s refused to start (%d)", kClass, path, refused);
        return kPluginRefused;
    }
    connection_.SetPushHandler([this](const Notification& push) {
        if (push.command == kStopCommand) {
            RequestStop("the service asked the plugin to stop");
            return;
        }
        if (callbacks_.on_push != nullptr) {
            CallbackScope scope;
            callbacks_.on_push(callbacks_.state, WireCodec::Write(WireCodec::ToJson(push)).c_str());
        }
    });
    connection_.SetRequestHandler([this](const Message& request) {
        Result refusal;
        refusal.message = request;
        refusal.message.statusCode = -1;
        refusal.message.statusText = "The plugin does not answer requests";
        if (callbacks_.on_request == nullptr) {
            return refusal;
        }
        char* answer = nullptr;
        {
            CallbackScope scope;
            answer = callbacks_.on_request(callbacks_.state, WireCodec::EncodeMessage(request).c_str());
        }
        Result result;
        std::string error;
        const bool read = answer != nullptr && WireCodec::DecodeResult(answer, result, error);
        std::free(answer);
        return read ? result : refusal;
    });
    log_.i(L"%s: %s started from %s", kClass, identity.pluginId, path);
    return kStopped;
}

void PluginHost::WatchService()
{
    const ProcessHandle service = ProcessHandles::OpenProcess(options_.servicePid);
    if (service != nullptr) {
        ProcessHandles::WaitForSingleObject(service, ProcessHandles::kInfinite);
        ProcessHandles::CloseHandle(service);
    }
    RequestStop("the service went away");
}

void PluginHost::RequestStop(const char* why)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopReason_.empty()) {
        stopReason_ = why;
        stopRequested_.notify_all();
    }
}

void PluginHost::WaitForStop()
{
    std::unique_lock<std::mutex> lock(mutex_);
    stopRequested_.wait(lock, [this] { return !stopReason_.empty(); });
    log_.i(L"%s: stopping: %s", kClass, stopReason_);
}

int PluginHost::Send(veq_host* host, const char* command, const char* payload, const char* targetId,
                     uint32_t timeoutMs, char** resultJson)
{
    if (host == nullptr || command == nullptr || resultJson == nullptr) {
        return VEQ_ERROR_INVALID_ARGUMENT;
    }
    *resultJson = nullptr;
    if (inCallback) {
        return VEQ_ERROR_IN_CALLBACK;
    }
    auto* self = reinterpret_cast<PluginHost*>(host);
    Message request;
    static std::atomic<uint64_t> sequence{0};
    request.guid = "plugin-" + std::to_string(CurrentProcess::GetCurrentProcessId()) + "-" + std::to_string(++sequence);
    request.notification.command = command;
    request.notification.payload = payload != nullptr ? payload : "";
    request.notification.targetId = targetId != nullptr ? targetId : "";
    const std::optional<Result> result = self->connection_.Send(request, std::chrono::milliseconds(timeoutMs));
    if (!result) {
        return self->connection_.IsConnected() ? VEQ_ERROR_NO_REPLY : VEQ_ERROR_DISCONNECTED;
    }
    *resultJson = CopyText(WireCodec::EncodeResult(*result));
    return *resultJson != nullptr ? VEQ_OK : VEQ_ERROR_NO_REPLY;
}

void PluginHost::FreeText(char* text)
{
    std::free(text);
}

void PluginHost::WriteLog(veq_host* host, int level, const char* text)
{
    if (host == nullptr || text == nullptr) {
        return;
    }
    Log& log = reinterpret_cast<PluginHost*>(host)->log_;
    const std::string line(text);
    switch (level) {
    case VEQ_LOG_ERROR:
        log.e(L"%s: plugin: %s", kClass, line);
        break;
    case VEQ_LOG_WARNING:
        log.w(L"%s: plugin: %s", kClass, line);
        break;
    case VEQ_LOG_INFO:
        log.i(L"%s: plugin: %s", kClass, line);
        break;
    default:
        log.d(L"%s: plugin: %s", kClass, line);
        break;
    }
}

}  // namespace VEQ
