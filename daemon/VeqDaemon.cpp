#include "daemon/VeqDaemon.h"

#include "broker/BrokerFolders.h"
#include "daemon/ControlServer.h"
#include "module/ExtensionModule.h"
#include "platform/Platform.h"
#include "platform/crypto/DeviceCrypto.h"
#include "platform/device/DeveloperSettings.h"
#include "platform/device/XMLConfigAgent.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/ProcessDataRoot.h"
#include "platform/fs/utility.h"
#include "platform/http/EpUrlProvider.h"
#include "platform/log/Log.h"
#include "platform/mqtt/MosquittoNotificationAgent.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/policy/ExternalRefreshSource.h"
#include "platform/policy/HttpsPolicyDownloader.h"
#include "platform/policy/PolicyDownloadRefreshSource.h"
#include "platform/policy/PolicyFileRefreshSource.h"
#include "platform/policy/PolicyFileWatcher.h"
#include "platform/process/ChildProcesses.h"
#include "platform/service/ServiceStatus.h"
#include "platform/session/SessionWatcher.h"
#include "platform/string/String.h"
#include "platform/sync/TaskPool.h"
#include "platform/util/ThreadGarbageCollector.h"

#include <csignal>

namespace VEQ {
namespace {

constexpr const wchar_t* kClass = L"VEQ::VeqDaemon";

MqttSettings MqttSettingsOf(const HostConfig::Mqtt& mqtt)
{
    MqttSettings settings;
    settings.host = mqtt.host;
    settings.port = mqtt.port;
    settings.clientId = mqtt.clientId;
    settings.username = mqtt.username;
    settings.password = mqtt.password;
    settings.keepAliveSeconds = mqtt.keepAliveSeconds;
    settings.topicRoot = mqtt.topicRoot;
    settings.caFile = mqtt.caFile;
    settings.certFile = mqtt.certFile;
    settings.keyFile = mqtt.keyFile;
    return settings;
}

}  // namespace

VeqDaemon::VeqDaemon(DaemonOptions options) : options_(std::move(options)) {}

VeqDaemon::~VeqDaemon()
{
    Stop();
}

std::string VeqDaemon::ControlSocketPath() const
{
    return control_ ? control_->SocketPath() : std::string();
}

bool VeqDaemon::PrepareRoot(std::string& error)
{
    root_ = options_.root.empty() ? String::UTF16ToUTF8(Platform::DefaultDataRoot()) : options_.root;
    while (root_.size() > 1 && root_.back() == '/') {
        root_.pop_back();
    }
    const std::wstring root = String::UTF8ToUTF16(root_);
    if (!FileSystem::directoryExists(root) && !FileSystem::createDirectory(root, true)) {
        error = "cannot create the data directory " + root_ + " (choose another with --root)";
        return false;
    }
    // Apps of every user read the registry and reach the user side's sockets below the root.
    utility::ApplyFilePermissions(root, BrokerFolders::kSharedUserAcl, false);
    policyPath_ = options_.policyPath.empty() ? root_ + "/policy.json" : options_.policyPath;
    // Plugin hosts started in the service's context log below its root.
    ProcessDataRoot::ExportForChildren(root_);
    return true;
}

void VeqDaemon::ApplyHostConfig(const HostConfig& config)
{
    DeveloperSettings* developer = DeveloperSettings::GetInstance();
    developer->SetCustomSettingEnabled(config.customSettingsEnabled);
    developer->SetSkipSignedContentCheck(config.skipSignedContentCheck);
    developer->SetSkipHostSignatureCheck(config.skipHostSignatureCheck);
    developer->SetSkipPluginSignatureCheck(config.skipPluginSignatureCheck);
    XMLConfigAgent::GetInstance(0).SetDisableSecurity(config.disableSecurity);
    // Each of these lets unsigned code or content in; nobody should run so without knowing.
    const std::pair<bool, const wchar_t*> switches[] = {
        {config.skipSignedContentCheck, L"skipSignedContentCheck"},
        {config.skipHostSignatureCheck, L"skipHostSignatureCheck"},
        {config.skipPluginSignatureCheck, L"skipPluginSignatureCheck"},
        {config.disableSecurity, L"disableSecurity"},
    };
    for (const auto& [on, name] : switches) {
        if (on) {
            g_log.w(L"%s: developer.%s is on: signatures are not fully checked", kClass, name);
        }
    }
    if (!config.realm.empty()) {
        EpUrlProvider::GetInstance()->SetRealm(config.realm);
    }
    EpUrlProvider::GetInstance()->SetEndpoints({config.apiMtlsBaseUri});
    ServiceStatus::GetInstance()->SetSettings({config.http.serviceGateUnit});
}

bool VeqDaemon::Start(std::string& error)
{
    if (started_) {
        return true;
    }
    if (!PrepareRoot(error)) {
        return false;
    }
    const bool configGiven = !options_.configPath.empty();
    const std::string configPath = configGiven ? options_.configPath : root_ + "/veqd.json";
    auto config = HostConfig::Load(configPath, !configGiven, error);
    if (!config) {
        error = "host configuration " + error;
        return false;
    }
    // The one place where the service's parts are installed; MQTT only when a broker is named.
    PlatformServices services;
    if (!config->mqtt.host.empty()) {
        mqtt_ = std::make_shared<MosquittoNotificationAgent>(MqttSettingsOf(config->mqtt));
        services.notificationAgent = mqtt_;
    }
    PlatformPaths paths;
    paths.dataRoot = String::UTF8ToUTF16(root_);
    paths.systemRoot = String::UTF8ToUTF16(config->systemRoot);
    paths.commonDataRoot = String::UTF8ToUTF16(config->commonDataRoot);
    PlatformSettings settings;
    settings.trustCaFile = String::UTF8ToUTF16(config->trustCaFile);
    settings.hostRuntimeRelease = config->hostRuntimeRelease;
    settings.processorArchitecture = config->processorArchitecture;
    settings.sessionSource = config->sessionSource;
    settings.sessionFile = config->sessionFile;
    settings.http.clientCert = config->http.clientCert;
    settings.http.clientKey = config->http.clientKey;
    settings.http.caFile = config->http.caFile;
    settings.http.publicCaFile = config->http.publicCaFile;
    settings.http.proxy = config->http.proxy;
    Platform::Install(paths, services, settings);
    // The keys exist before a client asks for them, and `veqctl device-key` has a key to print.
    DeviceCrypto::PrepareKeys();
    ApplyHostConfig(*config);
    StartPolicy(config->policy);
    // After the policy, which decides whether the agent connects at once.
    if (!StartMqtt(error)) {
        StopPolicy();
        return false;
    }
    control_ = std::make_unique<ControlServer>(String::UTF8ToUTF16(root_));
    if (!control_->Start()) {
        error = "cannot open the control socket under " + root_;
        control_.reset();
        if (mqtt_) {
            mqtt_->Stop();
        }
        StopPolicy();
        return false;
    }
    void* context = nullptr;
    ExtensionModule::GetInstance()->Init(context);
    ExtensionModule::GetInstance()->FullInit();
    StartSessionFollowing();
    g_log.i(L"%s: started on %s", kClass, root_);
    started_ = true;
    return true;
}

// User-side plugins run in the active session: a log-off ends that session's, a switch ends
// those of every other session and starts the new one's.
void VeqDaemon::StartSessionFollowing()
{
    PluginManager* plugins = ExtensionModule::GetInstance()->GetPluginManager();
    if (plugins == nullptr) {
        return;
    }
    sessions_ = std::make_unique<SessionWatcher>(Platform::Sessions(), [plugins](const SessionChange& change) {
        if (change.kind == SessionChange::Kind::LoggedOff) {
            g_log.i(L"%s: session %d logged off", kClass, change.sessionId);
            plugins->Suspend(true, change.sessionId, true);
        } else {
            g_log.i(L"%s: session %d is now active", kClass, change.sessionId);
            plugins->Suspend(true, change.sessionId, false);
            plugins->LaunchPluginsAndLogPluginIdWithElevation(true);
        }
    });
    if (!sessions_->Start()) {
        g_log.w(L"%s: user sessions cannot be followed; user-side plugins start only with policy changes", kClass);
        sessions_.reset();
    }
}

void VeqDaemon::StartPolicy(const HostConfig::Policy& config)
{
    ConfigPolicyAgent& agent = *ConfigPolicyAgent::GetInstance();
    policy_ = std::make_unique<PolicyFileWatcher>(agent);
    if (!policy_->Start(String::UTF8ToUTF16(policyPath_))) {
        g_log.w(L"%s: changes to %s will not be seen while the service runs", kClass, policyPath_);
    }
    // Where a refresh that a client asks for takes the policy from.
    const std::wstring path = String::UTF8ToUTF16(policyPath_);
    auto file = std::make_shared<PolicyFileRefreshSource>(agent, path);
    if (config.refresh == "external") {
        agent.SetRefreshSource(std::make_shared<ExternalRefreshSource>(file));
    } else if (!config.url.empty()) {
        agent.SetRefreshSource(
            std::make_shared<PolicyDownloadRefreshSource>(agent, path, config.url, &HttpsPolicyDownloader::Download));
    } else {
        agent.SetRefreshSource(file);
    }
}

void VeqDaemon::StopPolicy()
{
    // No refresh runs on, and none is waited for, once the policy is no longer watched.
    ConfigPolicyAgent::GetInstance()->SetRefreshSource(nullptr);
    policy_->Stop();
    policy_.reset();
}

bool VeqDaemon::StartMqtt(std::string& error)
{
    if (!mqtt_) {
        g_log.i(L"%s: no MQTT broker configured; the service runs without MQTT", kClass);
        return true;
    }
    // A broken connection to the broker must not end the service through SIGPIPE.
    std::signal(SIGPIPE, SIG_IGN);
    std::string reason;
    if (!mqtt_->Start(reason)) {
        error = "host configuration: mqtt: " + reason;
        return false;
    }
    return true;
}

void VeqDaemon::Stop()
{
    if (!started_) {
        return;
    }
    started_ = false;
    // No policy change is applied while the module stops.
    ConfigPolicyAgent::GetInstance()->SetRefreshSource(nullptr);
    policy_->Stop();
    // First, so that commands waiting for the connection hear that the service stops and the
    // brokers can end without waiting for them.
    if (mqtt_) {
        mqtt_->Stop();
    }
    if (sessions_) {
        sessions_->Stop();  // no user-side launch may race the module's stop
        sessions_.reset();
    }
    ExtensionModule::GetInstance()->UnInit();
    control_->Stop();
    control_.reset();
    policy_.reset();
    // Handlers that outlived their wait, and endpoints being stopped, end before the process does.
    TaskPool::Shared().Drain();
    ThreadGarbageCollector::GetInstance()->Shutdown();
    ChildProcesses::Instance().Shutdown();
    g_log.i(L"%s: stopped", kClass);
}

}  // namespace VEQ
