#include "plugins/PluginManager.h"

#include "apps/AppExtensionManager.h"
#include "broker/ReplyJson.h"
#include "digest/SmartMessageV2Utility.h"
#include "plugins/PluginDetails.h"
#include "plugins/PluginDetailsGenerator.h"
#include "plugins/PluginInstance.h"
#include "plugins/PluginRepository.h"
#include "platform/agents/AgentFactory.h"
#include "platform/applicability/ApplicabilityEvaluator.h"
#include "platform/bus/VEQNotificationData.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/utility.h"
#include "platform/mqtt/NotificationAlertUtility.h"
#include "platform/mqtt/INotificationAgent.h"
#include "platform/policy/IConfigAgent.h"
#include "platform/process/CurrentProcess.h"
#include "platform/process/ProcessWrap.h"
#include "platform/string/String.h"
#include "platform/sync/ManualResetEvent.h"
#include "platform/util/CVersion.h"
#include "platform/util/System.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <map>
#include <thread>

namespace VEQ {
namespace {

using Tavrin::Veq::ClientBroker::Notification;

constexpr int kLogLevel = 4;
constexpr uint32_t kHandOverWaitMs = 30000;
constexpr int kRegistrationTopic = 2;
constexpr int kRegisteredState = 11;
constexpr int kUnregisteredState = 12;
constexpr int kConfigChangeTopic = 4;
constexpr int kConfigChangedState = 15;
constexpr int kNetworkTopic = 6;
constexpr int kNetworkConnectedState = 0;
constexpr int kPackageTopic = 30;
constexpr const char* kRegistrationCommand = "registerVEQStatusUpdate";
constexpr const char* kNetworkCommand = "networkVEQStatusUpdate";
constexpr const char* kPackageStatusCommand = "Receive-PackageInstallStatus";
constexpr const char* kDeviceConfigCommand = "Receive-DeviceConfig";

// The library whose embedded version decides between two copies of a plugin.
std::wstring LibraryPath(const PluginDetails& details)
{
    return details.getDirectory() + L"\\" + String::UTF8ToUTF16(details.getPluginManifest().getPluginName()) + L".dll";
}

std::string ModeText(PluginMode mode)
{
    switch (mode) {
    case PluginMode::System:
        return "system";
    case PluginMode::User:
        return "user";
    case PluginMode::Both:
        return "both";
    default:
        return "none";
    }
}

std::wstring SideText(ElevationType elevation)
{
    return Extensions::ConvertElevationTypeToString(elevation);
}

}  // namespace

std::atomic<bool> PluginManager::isStarted{false};
PluginManager* PluginManager::instance_ = nullptr;
std::mutex PluginManager::instanceMutex_;

PluginManager* PluginManager::GetInstance()
{
    std::lock_guard<std::mutex> lock(instanceMutex_);
    if (instance_ == nullptr) {
        instance_ = new PluginManager();
    }
    return instance_;
}

void PluginManager::ReleaseInstance()
{
    std::lock_guard<std::mutex> lock(instanceMutex_);
    delete instance_;
    instance_ = nullptr;
    isStarted = false;  // a new manager subscribes again
}

PluginManager::PluginManager()
{
    try {
        utility::InitLog(log, L"PluginManager.log", kLogLevel);
        pluginRepository_ = PluginRepository::GetInstance();
    } catch (const std::exception& error) {
        log.e(L"%s: Exception: %s", L"VEQ::PluginManager::PluginManager", String::UTF8ToUTF16(error.what()));
    }
}

PluginManager::~PluginManager()
{
    {
        std::lock_guard<std::recursive_mutex> installedLock(installedPluginsMutex_);
        std::lock_guard<std::recursive_mutex> instancesLock(instancesMutex_);
        for (PluginInstance* instance : pluginInstances_) {
            delete instance;
        }
        pluginInstances_.clear();
        for (PluginDetails* details : installedPlugins_) {
            delete details;
        }
        installedPlugins_.clear();
    }
    if (!subscriptionId_.empty()) {
        VEQPublisherSubscriber::GetInstance()->Unsubscribe(subscriptionId_);
    }
    PluginRepository::ReleaseInstance();
    log.d(L"%s: Exit", L"VEQ::PluginManager::~PluginManager");
}

bool PluginManager::IsStopReceived(const wchar_t* function)
{
    if (serviceStopReceived_) {
        log.d(L"%s: Service stop received", function);
        return true;
    }
    return false;
}

PluginManager::Policy PluginManager::CurrentPolicy()
{
    std::lock_guard<std::mutex> lock(policyMutex_);
    return policy_;
}

bool PluginManager::RunsByPolicy(const Policy& policy)
{
    return policy.elevationType != ElevationType::None && policy.enabledPluginType != EnabledPluginType::none &&
           (policy.controlType != ControlType::DenyByDefault || !policy.clients.empty());
}

BrokerContext PluginManager::getBrokerContext()
{
    std::lock_guard<std::recursive_mutex> lock(installedPluginsMutex_);
    return brokerContext_;
}

// ---- policy ----

void PluginManager::GetAppExtensionFieldsFromConfigPolicy(EnabledPluginType& enabledPluginType,
                                                          ElevationType& elevation, ControlType& controlType,
                                                          std::list<Client>& clients)
{
    const wchar_t* function = L"VEQ::PluginManager::GetAppExtensionFieldsFromConfigPolicy";
    enabledPluginType = EnabledPluginType::none;
    elevation = ElevationType::None;
    controlType = ControlType::DenyByDefault;
    clients.clear();
    const std::optional<ExtensionAppSettings> settings = AppExtensionManager::GetExtensionAppSettings();
    if (!settings) {
        log.d(L"%s Unable to find extension apps fields in config policy.", function);
        return;
    }
    enabledPluginType = Extensions::ConvertPluginEnablementStringToType(settings->enabledPluginType());
    elevation = Extensions::ConvertElevationStringToType(settings->ipcMethods_afunix());
    controlType = Extensions::ConvertControlTypeStringToType(settings->controlType());
    clients.assign(settings->clients().begin(), settings->clients().end());
    log.d(L"%s: Plugin extension fields from config are enabledType = %s controltype = %s and elevation = %s",
          function, Extensions::ConvertPluginEnablementTypeToString(enabledPluginType),
          Extensions::ConvertControlTypeToString(controlType), SideText(elevation));
}

void PluginManager::Start(bool isUserModeOnly)
{
    const wchar_t* function = L"VEQ::PluginManager::Start";
    if (IsStopReceived(function)) {
        return;
    }
    if (!isStarted) {
        subscriptionId_ = VEQPublisherSubscriber::GetInstance()->Subscribe(
            [this](VEQNotificationData& data) { OnVEQNotification(data); }, true);
        if (!subscriptionId_.empty()) {
            log.d(L"%s: Subscribed successfully %s", function, subscriptionId_);
        }
        isStarted = true;
    }
    log.d(L"%s: Init: isUserModeOnly=%d", function, isUserModeOnly ? 1 : 0);
    {
        std::lock_guard<std::recursive_mutex> lock(installedPluginsMutex_);
        brokerContext_.setConnectionMethod(ConnectionMethod::LocalSocket);
        brokerContext_.setExtensionType(Tavrin::Veq::ClientBroker::ExtensionType::Plugin);
    }
    Policy read;
    GetAppExtensionFieldsFromConfigPolicy(read.enabledPluginType, read.elevationType, read.controlType, read.clients);
    {
        std::lock_guard<std::mutex> lock(policyMutex_);
        policy_ = read;
    }
    if (!RunsByPolicy(read)) {
        DeleteDigestAndRegIfMessagingPluginDisabled();
        return;
    }
    LaunchPluginsAndLogPluginIdWithElevation(isUserModeOnly);
    {
        std::lock_guard<std::recursive_mutex> lock(uninstallMutex_);
        for (const std::wstring& pluginId : pendingUninstallPlugins_) {
            StopPluginInstanceForAllElevations(pluginId, false);
        }
    }
    DeleteDigestAndRegIfMessagingPluginDisabled();
}

// ---- the launch pass ----

void PluginManager::LaunchPluginsAndLogPluginIdWithElevation(bool isUserModeOnly)
{
    const wchar_t* function = L"VEQ::PluginManager::LaunchPluginsAndLogPluginIdWithElevation";
    if (IsStopReceived(function)) {
        return;
    }
    std::lock_guard<std::recursive_mutex> installedLock(installedPluginsMutex_);
    std::vector<PluginDetails*> previous;
    previous.swap(installedPlugins_);
    installedPlugins_ = pluginRepository_ != nullptr ? pluginRepository_->GetInstalledPlugins()
                                                     : std::vector<PluginDetails*>{};
    // Running instances hold copies of their details, so the last scan can go.
    for (PluginDetails* details : previous) {
        delete details;
    }
    PluginDetailsGenerator* generator = PluginDetailsGenerator::GetInstance();
    for (PluginDetails* details : installedPlugins_) {
        const std::wstring& pluginId = details->getPluginManifest().getPluginId();
        PluginDetails* repositoryPlugin = nullptr;
        if (generator->IsPluginLocked(pluginId)) {
            log.d(L"%s: Not launching plugin (install lock present): %s", function, pluginId);
        } else if (IsPluginUninstallPending(details)) {
            log.d(L"%s: Not launching plugin because it is under uninstall : %s", function, pluginId);
        } else if (!IsPluginAllowedToRun(details)) {
            log.d(L"%s: Not Launching plugin %s as it is not allowed to run", function, pluginId);
            if (IsPluginRunning(pluginId)) {
                StopPluginInstanceForAllElevations(pluginId, false);
            }
        } else if (details->getSourceType() == PluginSourceType::Downloaded) {
            log.d(L"%s: Launching plugin %s", function, pluginId);
            LaunchPlugin(details, isUserModeOnly);
        } else if (isPluginRepositoryNewerVersion(details, repositoryPlugin)) {
            log.d(L"%s: Launching repository plugin %s", function, pluginId);
            LaunchPlugin(repositoryPlugin, isUserModeOnly);
        } else {
            log.d(L"%s: Launching embedded plugin %s", function, pluginId);
            LaunchPlugin(details, isUserModeOnly);
        }
    }
    log.d(L"%s: All Plugin Instances(count=%d): ", function, installedPlugins_.size());
    std::lock_guard<std::recursive_mutex> instancesLock(instancesMutex_);
    for (PluginInstance* instance : pluginInstances_) {
        log.d(L"%s: pluginId=%s elevation=%s", function, instance->getPluginID(), SideText(instance->getElevationType()));
    }
}

PluginDetails* PluginManager::FindInstalled(const std::wstring& pluginId, PluginSourceType source)
{
    std::lock_guard<std::recursive_mutex> lock(installedPluginsMutex_);
    for (PluginDetails* details : installedPlugins_) {
        if (details->getSourceType() == source &&
            String::CaseInsesitiveEqual(details->getPluginManifest().getPluginId(), pluginId)) {
            return details;
        }
    }
    return nullptr;
}

bool PluginManager::ReadLibraryVersion(const PluginDetails& details, const wchar_t* failure, CVersion& version)
{
    const std::wstring path = LibraryPath(details);
    if (!FileSystem::GetFileVersion(path, version)) {
        log.e(failure, L"VEQ::PluginManager::isPluginRepositoryNewerVersion", path);
        return false;
    }
    return true;
}

bool PluginManager::isPluginRepositoryNewerVersion(PluginDetails* const embedded, PluginDetails*& repositoryPlugin)
{
    PluginDetails* downloaded = FindInstalled(embedded->getPluginManifest().getPluginId(), PluginSourceType::Downloaded);
    if (downloaded == nullptr) {
        return false;
    }
    CVersion embeddedVersion;
    CVersion downloadedVersion;
    if (!ReadLibraryVersion(*embedded, L"%s: embedded plugin version couldn't been extracted from path:%s",
                            embeddedVersion) ||
        !ReadLibraryVersion(*downloaded, L"%s: downloaded plugin version couldn't been extracted from path:%s",
                            downloadedVersion)) {
        return false;
    }
    if (downloadedVersion.CompareTo(embeddedVersion) > 0) {
        repositoryPlugin = downloaded;
        return true;
    }
    return false;
}

bool PluginManager::isEmbeddedPluginNewerVersion(const PluginDetails& downloaded)
{
    PluginDetails* embedded = FindInstalled(downloaded.getPluginManifest().getPluginId(), PluginSourceType::Embedded);
    if (embedded == nullptr) {
        return false;
    }
    CVersion downloadedVersion;
    CVersion embeddedVersion;
    if (!ReadLibraryVersion(downloaded, L"%s: downloaded plugin version couldn't been extracted from path:%s",
                            downloadedVersion) ||
        !ReadLibraryVersion(*embedded, L"%s: embedded plugin version couldn't been extracted from path:%s",
                            embeddedVersion)) {
        return false;
    }
    return embeddedVersion.CompareTo(downloadedVersion) > 0;
}

void PluginManager::LaunchPlugin(PluginDetails* const details, bool isUserModeOnly)
{
    const wchar_t* function = L"VEQ::PluginManager::LaunchPlugin";
    const std::wstring pluginId = details->getPluginManifest().getPluginId();
    log.d(L"%s: Start for pluginId=%s", function, pluginId);
    if (IsStopReceived(function)) {
        return;
    }
    const Policy policy = CurrentPolicy();
    if (!isStarted ||
        (details->getSourceType() == PluginSourceType::Downloaded && policy.enabledPluginType != EnabledPluginType::all)) {
        log.d(L"%s: PluginManager the downloaded plugins are not enabled by config file", function);
        return;
    }
    const uint32_t sessionId = ProcessWrap::GetCurrentSessionId();
    log.d(L"%s: PluginManager: currentUserSessionId=%d", function, sessionId);

    std::lock_guard<std::recursive_mutex> lock(installedPluginsMutex_);  // guards brokerContext_
    // No stop may be half done while this decides whether an instance runs.
    std::lock_guard<std::recursive_mutex> stopLock(stopMutex_);
    if (IsUserModePluginAllowedToRun(details, policy.elevationType)) {
        brokerContext_.setElevationType(ElevationType::User);
        if (!isUserModeInstanceAlreadyRunning(pluginId, sessionId)) {
            AddInstance(StartPluginInstance(*details, brokerContext_));
        }
    } else {
        StopPluginInstanceWithElevation(pluginId, ElevationType::User);
    }
    const bool systemAllowed = IsSystemModePluginAllowedToRun(details, policy.elevationType);
    if (IsStopReceived(function)) {
        return;
    }
    if (!systemAllowed) {
        StopPluginInstanceWithElevation(pluginId, ElevationType::Elevated);
    } else if (!isUserModeOnly) {
        brokerContext_.setElevationType(ElevationType::Elevated);
        if (!IsPluginRunningWithElevation(pluginId, ElevationType::Elevated)) {
            AddInstance(StartPluginInstance(*details, brokerContext_));
        }
    }
}

void PluginManager::AddInstance(PluginInstance* instance)
{
    if (instance == nullptr) {
        return;
    }
    {
        std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
        // A stop that came while the host started has already swept the list: this one must not
        // outlive it.
        if (!serviceStopReceived_) {
            log.d(L"%s: PluginManager: AddPluginId=%s", L"VEQ::PluginManager::LaunchPlugin", instance->getPluginID());
            pluginInstances_.push_back(instance);
            return;
        }
    }
    StopAndDelete(instance, false);
}

std::vector<PluginInstance*> PluginManager::TakeInstances(const std::function<bool(PluginInstance*)>& stops)
{
    std::vector<PluginInstance*> taken;
    std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
    std::erase_if(pluginInstances_, [&](PluginInstance* instance) {
        if (!stops(instance)) {
            return false;
        }
        taken.push_back(instance);
        return true;
    });
    return taken;
}

void PluginManager::StopAndDelete(PluginInstance* instance, bool waitForExit)
{
    instance->Suspend(waitForExit);
    {
        // Someone may still be waiting for this plugin's answer; a stopped broker ends that wait.
        std::unique_lock<std::mutex> lock(pinMutex_);
        unpinned_.wait(lock, [&] { return pins_.count(instance) == 0; });
    }
    delete instance;
}

bool PluginManager::isUserModeInstanceAlreadyRunning(const std::wstring& pluginId, uint32_t sessionId)
{
    std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
    for (PluginInstance* instance : pluginInstances_) {
        IPluginHostProcess* host = instance->getPluginHostProcess();
        if (instance->getElevationType() == ElevationType::User && instance->getPluginID() == pluginId &&
            host != nullptr && host->GetUserSessionId() == sessionId) {
            log.d(L"%s: Plugin instance already running in user mode for pluginID and userId: %s %d",
                  L"VEQ::PluginManager::isUserModeInstanceAlreadyRunning", pluginId, sessionId);
            return true;
        }
    }
    return false;
}

PluginInstance* PluginManager::StartPluginInstance(PluginDetails details, BrokerContext brokerContext)
{
    const wchar_t* function = L"VEQ::PluginManager::StartPluginInstance";
    if (IsStopReceived(function)) {
        return nullptr;
    }
    log.d(L"%s: Init", function);
    auto* instance = new PluginInstance(details, brokerContext);
    instance->Start();
    IPluginHostProcess* host = instance->getPluginHostProcess();
    if (host == nullptr || host->GetProcessID() == 0) {
        log.e(L"%s: pluginInstance returned ProcessID as 0", function);
        instance->Suspend(false);
        delete instance;
        return nullptr;
    }
    return instance;
}

bool PluginManager::IsPluginAllowedToRun(PluginDetails* details)
{
    const std::wstring& pluginId = details->getPluginManifest().getPluginId();
    const Policy policy = CurrentPolicy();
    bool found = false;
    bool allowed = policy.controlType == ControlType::AllowByDefault;
    for (const Client& client : policy.clients) {
        if (!String::CaseInsesitiveEqual(client.clientId(), pluginId)) {
            continue;
        }
        found = true;
        allowed = false;
        if (String::CaseInsesitiveEqual(client.clientOs(), L"windows")) {
            std::vector<ApplicabilityFilter> filters;
            for (const Json::Value& rule : client.clientRules()) {
                filters.push_back(ApplicabilityFilter::FromJson(rule));
            }
            const auto evaluator = ApplicabilityEvaluator::GetInstance();
            // No target version: the rules are about this machine, not about a version of something.
            allowed = evaluator && evaluator->EvaluateFilters(filters, L"", {}, evaluator->SetDiscardedReason());
        }
        break;
    }
    log.d(L"%s: pluginId=%s allowedToRun=%d foundInConfigPolicy=%d", L"VEQ::PluginManager::IsPluginAllowedToRun",
          pluginId, allowed ? 1 : 0, found ? 1 : 0);
    return allowed;
}

bool PluginManager::IsUserModePluginAllowedToRun(PluginDetails* details, ElevationType elevation)
{
    if (!Extensions::isUserElevation(elevation)) {
        return false;
    }
    const Policy policy = CurrentPolicy();
    for (const Client& client : policy.clients) {
        // Exact here, unlike the allow test: an entry in other letters leaves the side to the manifest.
        if (client.clientId() == details->getPluginManifest().getPluginId()) {
            return Extensions::isUserElevation(Extensions::ConvertElevationStringToType(client.clientElevation()));
        }
    }
    return details->getMode() == PluginMode::User || details->getMode() == PluginMode::Both;
}

bool PluginManager::IsSystemModePluginAllowedToRun(PluginDetails* details, ElevationType elevation)
{
    if (!Extensions::isElevatedElevation(elevation)) {
        return false;
    }
    const Policy policy = CurrentPolicy();
    for (const Client& client : policy.clients) {
        if (client.clientId() == details->getPluginManifest().getPluginId()) {
            return Extensions::isElevatedElevation(Extensions::ConvertElevationStringToType(client.clientElevation()));
        }
    }
    return details->getMode() == PluginMode::System || details->getMode() == PluginMode::Both;
}

// ---- what runs ----

bool PluginManager::IsPluginRunning(const std::wstring& pluginId)
{
    std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
    return std::any_of(pluginInstances_.begin(), pluginInstances_.end(), [&](PluginInstance* instance) {
        return String::CaseInsesitiveEqual(instance->getPluginID(), pluginId);
    });
}

bool PluginManager::IsPluginRunningWithElevation(const std::wstring& pluginId, const ElevationType& elevation)
{
    std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
    return std::any_of(pluginInstances_.begin(), pluginInstances_.end(), [&](PluginInstance* instance) {
        return instance->getElevationType() == elevation &&
               String::CaseInsesitiveEqual(instance->getPluginID(), pluginId);
    });
}

bool PluginManager::IsSideLoadedPluginRunning(const std::wstring& pluginId)
{
    std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
    return std::any_of(pluginInstances_.begin(), pluginInstances_.end(), [&](PluginInstance* instance) {
        return instance->getPluginSourceType() == PluginSourceType::Downloaded &&
               String::CaseInsesitiveEqual(instance->getPluginID(), pluginId);
    });
}

// ---- hand-over from a repository plugin to its embedded copy ----

bool PluginManager::shouldEmbeddedPluginStarted(const std::wstring& pluginId, void* stopEvent)
{
    const wchar_t* function = L"VEQ::PluginManager::shouldEmbeddedPluginStarted";
    PluginDetails embedded(PluginSourceType::Embedded, PluginManifest());
    {
        PluginDetails* found = FindInstalled(pluginId, PluginSourceType::Embedded);
        if (found == nullptr) {
            return true;
        }
        embedded = *found;  // a copy: a rescan may delete the entry while the stop runs
    }
    uint32_t allowanceMs = kHandOverWaitMs;
    if (IsPluginRunningWithElevation(pluginId, ElevationType::Elevated) &&
        IsPluginRunningWithElevation(pluginId, ElevationType::User)) {
        allowanceMs *= 2;
    }
    ManualResetEvent stopped;
    std::thread stopper([this, pluginId, &stopped] { StopPluginsAndSetEvent(pluginId, &stopped); });
    const auto* callerStop = static_cast<const ManualResetEvent*>(stopEvent);
    const int signalled =
        ManualResetEvent::WaitAny({callerStop, &stopped}, std::chrono::milliseconds(allowanceMs));
    bool result = true;
    if (signalled == 1) {
        log.d(L"%s: [TID:%lu] Launching plugin. Plugin Id: %s", function, CurrentProcess::GetCurrentThreadId(), pluginId);
        LaunchPlugin(&embedded, false);
    } else if (signalled == 0) {
        result = false;
    } else {
        log.e(L"%s", pluginId);
        result = false;
    }
    stopped.Reset();
    stopper.join();
    return result;
}

void PluginManager::StopPluginsAndSetEvent(const std::wstring& pluginId, void* event)
{
    StopPluginInstanceForAllElevations(pluginId, true);
    if (!IsPluginRunning(pluginId) && event != nullptr) {
        static_cast<ManualResetEvent*>(event)->Set();
    }
}

// ---- policy changes ----

bool PluginManager::SameClients(const std::list<Client>& left, const std::list<Client>& right)
{
    if (left.size() != right.size()) {
        return false;
    }
    for (const Client& entry : right) {
        const auto match = std::find_if(left.begin(), left.end(),
                                        [&](const Client& known) { return known.clientId() == entry.clientId(); });
        // Permissions do not count: they decide who hears of configuration, not what runs.
        if (match == left.end() || match->clientRules() != entry.clientRules() ||
            match->clientElevation() != entry.clientElevation() || match->clientOs() != entry.clientOs()) {
            return false;
        }
    }
    return true;
}

bool PluginManager::IsClientListUpdated(std::list<Client>& newClients)
{
    std::lock_guard<std::mutex> lock(policyMutex_);
    return !SameClients(policy_.clients, newClients);
}

void PluginManager::HandleConfigChange()
{
    const wchar_t* function = L"VEQ::PluginManager::HandleConfigChange";
    if (IsStopReceived(function)) {
        return;
    }
    // Two changes on two threads must not both see the old policy as theirs.
    std::lock_guard<std::mutex> changeLock(configChangeMutex_);
    Policy read;
    GetAppExtensionFieldsFromConfigPolicy(read.enabledPluginType, read.elevationType, read.controlType, read.clients);
    {
        std::lock_guard<std::mutex> lock(policyMutex_);
        if (read.enabledPluginType == policy_.enabledPluginType && read.elevationType == policy_.elevationType &&
            read.controlType == policy_.controlType && SameClients(policy_.clients, read.clients)) {
            log.d(L"%s: Plugin already running with the updated enabledtype, control type and elevation state",
                  function);
            return;
        }
        policy_ = read;
    }
    if (RunsByPolicy(read)) {
        if (read.enabledPluginType == EnabledPluginType::embedded) {
            log.d(L"%s: Enabled Plugin type is embedded.Stopping downloaded plugins if any", function);
            StopDownloadedPluginsIfRunning();
        }
        StopPluginRunningWithUnSupportedElevation();
        StopPluginRunningWithUnsupportedClientContext();
        LaunchPluginsAndLogPluginIdWithElevation(false);
    } else {
        log.d(L"%s: Plugin cannot be run because not allowed by config. Stopping running plugins", function);
        Suspend(false, kAllSessions, false);
    }
    DeleteDigestAndRegIfMessagingPluginDisabled();
}

void PluginManager::StopPluginRunningWithUnSupportedElevation()
{
    const wchar_t* function = L"VEQ::PluginManager::StopPluginRunningWithUnSupportedElevation";
    const ElevationType elevation = CurrentPolicy().elevationType;
    if (elevation == ElevationType::Both) {
        return;
    }
    const ElevationType unsupported = elevation == ElevationType::User ? ElevationType::Elevated : ElevationType::User;
    std::lock_guard<std::recursive_mutex> stopLock(stopMutex_);
    size_t count = 0;
    {
        std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
        count = pluginInstances_.size();
    }
    const auto taken = TakeInstances([&](PluginInstance* instance) {
        log.d(L"%s: Check if the plugin %s is running with elevation %s unsupported elevation = %s, NoOfPlugins %d",
              function, instance->getPluginID(), SideText(instance->getElevationType()), SideText(unsupported), count);
        return instance->getElevationType() == unsupported;
    });
    for (PluginInstance* instance : taken) {
        log.d(L"%s: Stop request received for pluginId=%s running with elevation = %s", function,
              instance->getPluginID(), SideText(instance->getElevationType()));
        StopAndDelete(instance, false);
    }
    log.d(L"%s: %d Plugins remaining in running conditions", function, count - taken.size());
}

void PluginManager::StopDownloadedPluginsIfRunning()
{
    std::lock_guard<std::recursive_mutex> lock(installedPluginsMutex_);
    log.d(L"%s: %d Plugins in installedPlugins", L"VEQ::PluginManager::StopDownloadedPluginsIfRunning",
          installedPlugins_.size());
    for (PluginDetails* details : installedPlugins_) {
        const std::wstring& pluginId = details->getPluginManifest().getPluginId();
        if (details->getSourceType() == PluginSourceType::Downloaded && IsPluginRunning(pluginId)) {
            StopPluginInstanceForAllElevations(pluginId, false);
        }
    }
}

void PluginManager::StopPluginRunningWithUnsupportedClientContext()
{
    const wchar_t* function = L"VEQ::PluginManager::StopPluginRunningWithUnsupportedClientContext";
    for (const Client& client : CurrentPolicy().clients) {
        const ElevationType elevation = Extensions::ConvertElevationStringToType(client.clientElevation());
        if (elevation == ElevationType::None) {
            StopPluginInstanceForAllElevations(client.clientId(), false);
            log.d(L"%s:Stopping plugin instance for all elevation with id=%s", function, client.clientId());
        } else if (elevation != ElevationType::Both) {
            const ElevationType other = elevation == ElevationType::Elevated ? ElevationType::User : ElevationType::Elevated;
            if (IsPluginRunningWithElevation(client.clientId(), other)) {
                StopPluginInstanceWithElevation(client.clientId(), other);
                log.d(L"%s:Stopping plugin instance for one elevation with id=%s", function, client.clientId());
            }
        }
    }
}

void PluginManager::StopPluginInstanceWithElevation(const std::wstring& pluginId, const ElevationType& elevation)
{
    const wchar_t* function = L"VEQ::PluginManager::StopPluginInstanceWithElevation";
    log.d(L"%s: Called: pluginId=%s", function, pluginId);
    std::lock_guard<std::recursive_mutex> stopLock(stopMutex_);
    const auto taken = TakeInstances([&](PluginInstance* instance) {
        return instance->getElevationType() == elevation && String::CaseInsesitiveEqual(instance->getPluginID(), pluginId);
    });
    for (PluginInstance* instance : taken) {
        log.d(L"%s: Stop request received for pluginId=%s and elevation = %s", function, pluginId, SideText(elevation));
        StopAndDelete(instance, false);
    }
    if (!taken.empty()) {
        log.d(L"%s: Exit: pluginId=%s", function, pluginId);
    }
}

void PluginManager::StopPluginInstanceForAllElevations(const std::wstring& pluginId, bool waitForExit)
{
    const wchar_t* function = L"VEQ::PluginManager::StopPluginInstanceForAllElevations";
    std::lock_guard<std::recursive_mutex> stopLock(stopMutex_);
    const auto taken = TakeInstances(
        [&](PluginInstance* instance) { return String::CaseInsesitiveEqual(instance->getPluginID(), pluginId); });
    for (PluginInstance* instance : taken) {
        log.d(L"%s: Stop request received for pluginId=%s", function, pluginId);
        StopAndDelete(instance, waitForExit);
    }
}

void PluginManager::Suspend(bool isUserModeOnly, uint32_t sessionId, bool isLogOff)
{
    const wchar_t* function = L"VEQ::PluginManager::Suspend";
    log.d(L"%s: Init: isUserModeOnly=%d, sessionId=%d", function, isUserModeOnly ? 1 : 0, sessionId);
    std::lock_guard<std::recursive_mutex> stopLock(stopMutex_);
    const auto taken = TakeInstances([&](PluginInstance* instance) {
        if (!isUserModeOnly) {
            return true;
        }
        if (instance->getElevationType() != ElevationType::User) {
            return false;
        }
        IPluginHostProcess* host = instance->getPluginHostProcess();
        const bool sameSession = host != nullptr && host->GetUserSessionId() == sessionId;
        if (isLogOff != sameSession) {
            return false;
        }
        log.d(isLogOff ? L"%s: Suspending user mode plugin for current user because of log off"
                       : L"%s: Suspending user mode plugin for user other than current active user",
              function);
        return true;
    });
    // One thread per instance, so that the grace periods of their stops overlap.
    std::vector<std::future<void>> stops;
    stops.reserve(taken.size());
    for (PluginInstance* instance : taken) {
        stops.push_back(std::async(std::launch::async, [this, instance] { StopAndDelete(instance, false); }));
    }
    for (auto& stop : stops) {
        stop.get();
    }
    log.d(L"%s: Exit: isUserModeOnly=%d", function, isUserModeOnly ? 1 : 0);
}

void PluginManager::Stop()
{
    const wchar_t* function = L"VEQ::PluginManager::Stop";
    log.d(L"%s: Enter, Service Stop received", function);
    serviceStopReceived_ = true;
    if (!subscriptionId_.empty()) {
        log.d(L"%s: unsubscribe internal notifications %s", function, subscriptionId_);
        VEQPublisherSubscriber::GetInstance()->Unsubscribe(subscriptionId_);
        subscriptionId_.clear();
    }
    Suspend(false, kAllSessions, false);
    log.d(L"%s: Exit", function);
}

// ---- uninstalls ----

void PluginManager::setUnInstallInProgress(std::vector<std::wstring> pluginIds)
{
    std::lock_guard<std::recursive_mutex> lock(uninstallMutex_);
    if (pendingUninstallPlugins_.empty()) {
        pendingUninstallPlugins_ = std::move(pluginIds);
        return;
    }
    for (std::wstring& pluginId : pluginIds) {
        if (std::find(pendingUninstallPlugins_.begin(), pendingUninstallPlugins_.end(), pluginId) ==
            pendingUninstallPlugins_.end()) {
            pendingUninstallPlugins_.push_back(std::move(pluginId));
        }
    }
}

void PluginManager::removeInstalledPluginFromPendingUninstallList(std::wstring pluginId)
{
    std::lock_guard<std::recursive_mutex> lock(uninstallMutex_);
    const auto found = std::find(pendingUninstallPlugins_.begin(), pendingUninstallPlugins_.end(), pluginId);
    if (found != pendingUninstallPlugins_.end()) {
        pendingUninstallPlugins_.erase(found);
    }
}

bool PluginManager::IsPluginUninstallPending(PluginDetails* details)
{
    std::lock_guard<std::recursive_mutex> lock(uninstallMutex_);
    return std::find(pendingUninstallPlugins_.begin(), pendingUninstallPlugins_.end(),
                     details->getPluginManifest().getPluginId()) != pendingUninstallPlugins_.end();
}

void PluginManager::DeleteDigestAndRegIfMessagingPluginDisabled()
{
    if (IsPluginRunning(kMessagingPluginId)) {
        return;
    }
    using SmartMessageV2::SmartMessageV2Utility;
    SmartMessageV2Utility::DeleteCachedMessageDigest();
    SmartMessageV2Utility::DeleteEtag();
    SmartMessageV2Utility::DeletePreviousDownloadDigestTimestamp();
    log.d(L"%s: Deleted cached message digest and etag", L"VEQ::PluginManager::DeleteDigestAndRegIfMessagingPluginDisabled");
}

// ---- events ----

void PluginManager::OnVEQNotification(VEQNotificationData& data)
{
    const wchar_t* function = L"VEQ::PluginManager::OnVEQNotification";
    if (IsStopReceived(function)) {
        return;
    }
    const int topic = data.getTopicId();
    const int state = data.getEventState();
    if (topic == kConfigChangeTopic && state == kConfigChangedState) {
        log.d(L"%s: Received configuration change notification", function);
        HandleConfigChange();
        notifyPluginsAboutConfigChanges();
    } else if (topic == kRegistrationTopic) {
        if (state != kRegisteredState && state != kUnregisteredState) {
            return;  // says nothing to plugins, and is no message either
        }
        const bool registered = state == kRegisteredState;
        Broadcast(kRegistrationCommand, registered ? "registered" : "unregistered");
        if (!registered) {
            SmartMessageV2::SmartMessageV2Utility::DeleteCachedMessageDigest();
        }
    } else if (topic == kNetworkTopic) {
        const bool connected = state == kNetworkConnectedState;
        Broadcast(kNetworkCommand, connected ? "connected" : "disconnected");
        log.d(L"%s: Received VEQ network update status %d", function, connected ? 1 : 0);
    } else if (topic == kPackageTopic) {
        HandlePackageEvent(data);
    }
    CheckAppListMessage(data);
    CheckInvokeCommandMessage(data);
    if (data.isExtensionNotification()) {
        log.d(L"%s: Received plugin notification", function);
        std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
        for (PluginInstance* instance : pluginInstances_) {
            instance->OnVEQNotification(data);
        }
    }
}

void PluginManager::Broadcast(const std::string& command, const std::string& payload)
{
    std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
    for (PluginInstance* instance : pluginInstances_) {
        Notification notification{command, payload, "", ""};
        instance->notifyPlugin(notification);
    }
}

void PluginManager::HandlePackageEvent(VEQNotificationData& data)
{
    const std::wstring status = Extensions::ConvertEventStateToPackageStatusAsString(data.getEventState());
    std::wstring packageId, packageType, packageName, packageVersion, installationTrigger;
    data.deserializePayloadForPackageEvent(packageId, packageType, packageName, packageVersion, installationTrigger);
    const std::wstring key = packageId + L"|" + packageVersion + L"|" + installationTrigger;
    {
        std::lock_guard<std::mutex> lock(packageStatusMutex_);
        auto stored = lastPackageStatus_.find(key);
        if (stored != lastPackageStatus_.end() && stored->second == status) {
            return;
        }
        lastPackageStatus_[key] = status;
    }
    log.d(L"%s: Received package notification  for  packageId: %s with packageStatus: %s packageType: %s "
          L"packageName: %s packageVersion: %s installationTrigger : %s",
          L"VEQ::PluginManager::OnVEQNotification", packageId, status, packageType, packageName, packageVersion,
          installationTrigger);
    NotifyPluginsAboutPackageStatusChange(packageId, status, installationTrigger);
}

void PluginManager::NotifyPluginsAboutPackageStatusChange(std::wstring packageId, std::wstring status,
                                                           std::wstring installationTrigger)
{
    Json::Value payload(Json::objectValue);
    payload["packageId"] = String::UTF16ToUTF8(packageId);
    payload["status"] = String::UTF16ToUTF8(status);
    payload["installationTrigger"] = String::UTF16ToUTF8(installationTrigger);
    Notification notification{kPackageStatusCommand, ReplyJson::Write(payload), "", ""};
    std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
    for (PluginInstance* instance : pluginInstances_) {
        if (instance->isPluginRunning() && !instance->notifyPlugin(notification)) {
            log.e(L"%s: Failed to send status change to plugin", L"VEQ::PluginManager::NotifyPluginsAboutPackageStatusChange");
        }
    }
}

void PluginManager::notifyPluginsAboutConfigChanges()
{
    const std::optional<ExtensionAppSettings> settings = AppExtensionManager::GetExtensionAppSettings();
    const std::vector<Client> clients = settings ? settings->clients() : std::vector<Client>{};
    const bool everyone = CurrentPolicy().controlType == ControlType::AllowByDefault && clients.empty();
    std::vector<std::wstring> addressed;
    for (const Client& client : clients) {
        const auto& permissions = client.clientPermissions();
        if (std::find(permissions.begin(), permissions.end(), L"configure") != permissions.end()) {
            addressed.push_back(client.clientId());
        }
    }
    if (!everyone && addressed.empty()) {
        return;
    }
    Json::Value payload(Json::objectValue);
    const auto agent = AgentFactory::GetInstance()->GetConfigPolicyAgent();
    payload["configPolicy"] = agent ? String::UTF16ToUTF8(agent->GetConfigPolicy()) : std::string();
    Notification notification{kDeviceConfigCommand, ReplyJson::Write(payload), "", ""};
    std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
    for (PluginInstance* instance : pluginInstances_) {
        const bool isAddressed =
            everyone || std::find(addressed.begin(), addressed.end(), instance->getPluginID()) != addressed.end();
        if (isAddressed && instance->isPluginRunning()) {
            instance->notifyPlugin(notification);
        }
    }
}

void PluginManager::CheckAppListMessage(VEQNotificationData& data)
{
    const wchar_t* function = L"VEQ::PluginManager::OnVEQNotification";
    if (data.getActionType() != L"run" || !String::CaseInsesitiveEqual(data.getMessageType(), L"getAppList")) {
        return;
    }
    {
        std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
        const auto found = std::find_if(pluginInstances_.begin(), pluginInstances_.end(), [](PluginInstance* instance) {
            return instance->getElevationType() == ElevationType::User &&
                   String::CaseInsesitiveEqual(instance->getPluginID(), kAppListPluginId);
        });
        if (found != pluginInstances_.end() && (*found)->isPluginRunning()) {
            Notification notification{"getAppList", String::UTF16ToUTF8(data.getPayload()), "", ""};
            (*found)->notifyPlugin(notification);
            log.d(L"%s: getAppListNotification was sent to plugin.", function);
            return;
        }
    }
    // Nobody is there to ask: the back end learns why it gets no list.
    VEQNotificationData alert;
    System::GetTime();
    NotificationAlertUtility::ConstructZCPPayloadForDeviceActionState(4, L"getAppList", L"User not logged in", L"",
                                                                      alert);
    if (const auto agent = AgentFactory::GetInstance()->GetNotificationAgent()) {
        agent->Publish(alert, NotificationAlertUtility::kAlertTopic);
    }
    log.d(L"%s: getAppList was not sent to plugin user not logged in.", function);
}

void PluginManager::CheckInvokeCommandMessage(VEQNotificationData& data)
{
    const wchar_t* function = L"VEQ::PluginManager::OnVEQNotification";
    if (data.getActionType() != L"run" || !String::CaseInsesitiveEqual(data.getMessageType(), L"InvokeCommand")) {
        return;
    }
    const std::wstring command = data.getFieldValue(L"command");
    const std::wstring targetId = data.getFieldValue(L"targetId");
    log.d(L"%s: Received InvokeCommand for command: %s | targetPluginId: %s", function, command, targetId);
    const std::map<std::string, std::string> fields = {
        {"isMqttNotification", "true"},
        {"message_id", String::UTF16ToUTF8(data.getFieldValue(L"message_id"))},
        {"requestId", String::UTF16ToUTF8(data.getFieldValue(L"requestId"))},
        {"isAsync", String::CaseInsesitiveEqual(data.getFieldValue(L"isAsync"), L"true") ? "true" : "false"},
    };
    // Held, although the walk needs only a snapshot: a stop must not delete the instance while it is sent to.
    std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
    for (PluginInstance* instance : pluginInstances_) {
        if (instance->getElevationType() == ElevationType::User &&
            String::CaseInsesitiveEqual(instance->getPluginID(), targetId) && instance->isPluginRunning()) {
            Notification notification{String::UTF16ToUTF8(command),
                                      String::UTF16ToUTF8(VEQNotificationData::constructPayloadForInvokeCommand(fields)),
                                      "", ""};
            instance->notifyPlugin(notification);
            log.d(L"%s: command was sent to plugin %s", function, instance->getPluginID());
            return;
        }
    }
}

// ---- routing ----

bool PluginManager::NotifyPluginAndWaitForResponse(std::string pluginId, const ElevationType& elevation,
                                                   Message& request, Result& response)
{
    const std::wstring wanted = String::UTF8ToUTF16(pluginId);
    PluginInstance* target = nullptr;
    {
        std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
        for (PluginInstance* instance : pluginInstances_) {
            if (String::CaseInsesitiveEqual(instance->getPluginID(), wanted) &&
                (elevation == ElevationType::None || instance->getElevationType() == elevation)) {
                target = instance;
                break;
            }
        }
        if (target == nullptr) {
            return false;
        }
        std::lock_guard<std::mutex> pinLock(pinMutex_);
        ++pins_[target];
    }
    // The list is not held while the plugin answers: the plugin may ask another plugin in turn,
    // and a stop may take this one away meanwhile; the pin keeps it until this call is done.
    const bool answered = target->notifyPluginAndWaitForResponse(request, response);
    {
        std::lock_guard<std::mutex> pinLock(pinMutex_);
        if (--pins_[target] == 0) {
            pins_.erase(target);
        }
    }
    unpinned_.notify_all();
    return answered;
}

bool PluginManager::GetTargetPluginInstanceDetails(const Message& message, PluginInstanceDetails& details,
                                                   ElevationType elevation)
{
    const std::wstring targetId = String::UTF8ToUTF16(message.notification.targetId);
    const std::wstring targetName = String::UTF8ToUTF16(message.notification.targetName);
    bool userWanted = false;
    bool systemWanted = false;
    if (elevation != ElevationType::None) {
        userWanted = elevation == ElevationType::User;
        systemWanted = elevation == ElevationType::Elevated;
    } else {
        userWanted = targetName.find(L".User") != std::wstring::npos;
        systemWanted = targetName.find(L".System") != std::wstring::npos;
    }
    const bool sideWanted = userWanted || systemWanted;
    std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
    for (PluginInstance* instance : pluginInstances_) {
        details.pluginId = String::UTF16ToUTF8(instance->getPluginID());
        if (!String::CaseInsesitiveEqual(instance->getPluginID(), targetId)) {
            continue;
        }
        const ElevationType side = instance->getElevationType();
        if (sideWanted && !((userWanted && side == ElevationType::User) || (systemWanted && side == ElevationType::Elevated))) {
            details.isPluginRunning = false;
            continue;
        }
        details.isPluginFound = true;
        if (sideWanted) {
            details.elevationType = side;
        }
        if (!instance->isPluginRunning()) {
            continue;
        }
        details.isPluginRunning = true;
        for (const PluginCommand& command : instance->getCommands()) {
            if (String::CaseInsesitiveEqual(command.getCommand(), String::UTF8ToUTF16(message.notification.command))) {
                details.isCommandFound = true;
                details.pluginName = instance->getPluginName();
                return details.isPluginFound;
            }
        }
    }
    return details.isPluginFound;
}

bool PluginManager::TryGetRunningPluginIdForTarget(const std::wstring& target, std::wstring& pluginId)
{
    std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
    for (PluginInstance* instance : pluginInstances_) {
        if (String::CaseInsesitiveEqual(instance->getPluginID(), target)) {
            if (!instance->isPluginRunning()) {
                return false;
            }
            pluginId = instance->getPluginID();
            return true;
        }
    }
    return false;
}

bool PluginManager::TryResolveGetDiagnosticsElevations(const std::wstring& target, std::wstring& resolvedId,
                                                       std::vector<ElevationType>& elevations)
{
    std::vector<ElevationType> running;
    {
        std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
        for (PluginInstance* instance : pluginInstances_) {
            if (String::CaseInsesitiveEqual(instance->getPluginID(), target) && instance->isPluginRunning()) {
                if (resolvedId.empty()) {
                    resolvedId = instance->getPluginID();
                }
                running.push_back(instance->getElevationType());
            }
        }
    }
    if (resolvedId.empty()) {
        return false;
    }
    const auto holds = [&running](ElevationType side) {
        return std::find(running.begin(), running.end(), side) != running.end();
    };
    bool userOk = holds(ElevationType::User);
    bool systemOk = holds(ElevationType::Elevated);
    {
        std::lock_guard<std::recursive_mutex> lock(installedPluginsMutex_);
        const auto found = std::find_if(installedPlugins_.begin(), installedPlugins_.end(), [&](PluginDetails* details) {
            return String::CaseInsesitiveEqual(details->getPluginManifest().getPluginId(), target);
        });
        if (found != installedPlugins_.end()) {
            const ElevationType policyElevation = CurrentPolicy().elevationType;
            userOk = IsUserModePluginAllowedToRun(*found, policyElevation);
            systemOk = IsSystemModePluginAllowedToRun(*found, policyElevation);
        }
    }
    if (systemOk && holds(ElevationType::Elevated)) {
        elevations.push_back(ElevationType::Elevated);
    }
    if (userOk && holds(ElevationType::User)) {
        elevations.push_back(ElevationType::User);
    }
    return true;
}

// ---- introspection ----

Json::Value PluginManager::Describe()
{
    Json::Value description(Json::objectValue);
    Json::Value plugins(Json::arrayValue);
    {
        std::lock_guard<std::recursive_mutex> lock(installedPluginsMutex_);
        const Policy policy = CurrentPolicy();
        for (PluginDetails* details : installedPlugins_) {
            const PluginManifest& manifest = details->getPluginManifest();
            Json::Value plugin(Json::objectValue);
            plugin["id"] = String::UTF16ToUTF8(manifest.getPluginId());
            plugin["name"] = manifest.getPluginName();
            plugin["source"] = String::UTF16ToUTF8(details->getSourceTypeAsString());
            CVersion version;
            plugin["version"] = FileSystem::GetFileVersion(LibraryPath(*details), version) ? String::UTF16ToUTF8(version.ToString()) : "";
            plugin["mode"] = ModeText(details->getMode());
            std::string whyNot;
            if (PluginDetailsGenerator::GetInstance()->IsPluginLocked(manifest.getPluginId())) {
                whyNot = "an installation holds its lock";
            } else if (IsPluginUninstallPending(details)) {
                whyNot = "it is being uninstalled";
            } else if (!IsPluginAllowedToRun(details)) {
                whyNot = "the policy does not allow it";
            } else if (details->getSourceType() == PluginSourceType::Downloaded &&
                       policy.enabledPluginType != EnabledPluginType::all) {
                whyNot = "the policy enables embedded plugins only";
            } else if (!IsUserModePluginAllowedToRun(details, policy.elevationType) &&
                       !IsSystemModePluginAllowedToRun(details, policy.elevationType)) {
                whyNot = "no side it runs on is enabled";
            }
            plugin["allowed"] = whyNot.empty();
            plugin["whyNot"] = whyNot;
            plugins.append(plugin);
        }
    }
    Json::Value instances(Json::arrayValue);
    {
        std::lock_guard<std::recursive_mutex> lock(instancesMutex_);
        for (PluginInstance* instance : pluginInstances_) {
            IPluginHostProcess* host = instance->getPluginHostProcess();
            Json::Value entry(Json::objectValue);
            entry["id"] = String::UTF16ToUTF8(instance->getPluginID());
            entry["source"] = instance->getPluginSourceType() == PluginSourceType::Downloaded ? "Downloaded" : "Embedded";
            entry["side"] = String::UTF16ToUTF8(SideText(instance->getElevationType()));
            // The system side belongs to no session.
            const bool user = instance->getElevationType() == ElevationType::User;
            entry["session"] = host != nullptr && user ? Json::Value(host->GetUserSessionId()) : Json::Value();
            entry["pid"] = host != nullptr ? host->GetProcessID() : 0;
            entry["running"] = instance->isPluginRunning();
            instances.append(entry);
        }
    }
    description["plugins"] = plugins;
    description["instances"] = instances;
    return description;
}

}  // namespace VEQ
