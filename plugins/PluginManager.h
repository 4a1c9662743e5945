#pragma once
// Decides which plugin runs, on which side and in which version, owns the running instances,
// applies policy changes and session changes to exactly the instances they concern, and passes
// the service's events to plugins (docs/plugins.md, docs/events.md).
//
// Locks, always taken in this order: configChangeMutex_, then installedPluginsMutex_ or
// uninstallMutex_, then stopMutex_, then instancesMutex_, then pinMutex_ or policyMutex_ (leaves).
// The recursive ones are, because a stop inside a launch re-enters them. stopMutex_ is held by
// whatever starts or stops instances, for as long as that takes; instancesMutex_ only while the
// list is read or changed, never while a plugin stops: a stopping broker waits for its worker,
// which may be asking this manager something.

#include "broker/BrokerContext.h"
#include "broker/PluginInstanceDetails.h"
#include "module/Extensions.h"
#include "platform/log/Log.h"
#include "plugins/PluginSourceType.h"
#include "platform/policy/Client.h"
#include "platform/transport/Message.h"
#include "platform/transport/Result.h"

#include <json/json.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace VEQ {

class CVersion;
class IPluginRepository;
class PluginDetails;
class PluginInstance;
class VEQNotificationData;

class PluginManager {
public:
    using Message = Tavrin::Veq::ClientBroker::Message;
    using Result = Tavrin::Veq::ClientBroker::Result;
    using EnabledPluginType = Extensions::EnabledPluginType;
    using ControlType = Extensions::ControlType;

    // The messaging plugin, whose cached digest goes when it stops running.
    static constexpr const wchar_t* kMessagingPluginId = L"46C44A27-EAAD-4593-9AA0-8FA0F87BF955";
    // The plugin that answers "getAppList" for the signed-in user.
    static constexpr const wchar_t* kAppListPluginId = L"fd9955eb-4fa6-4653-82d6-8c9785a95427";
    static constexpr uint32_t kAllSessions = 0xFFFFFFFF;

    static PluginManager* GetInstance();
    // Deletes the manager; the next GetInstance makes a new one, which starts afresh.
    static void ReleaseInstance();

    PluginManager(const PluginManager&) = delete;
    PluginManager& operator=(const PluginManager&) = delete;

    // Subscribes to the service's events (once), reads the policy and launches what may run.
    void Start(bool isUserModeOnly);
    // Final: stops every instance and refuses everything afterwards.
    void Stop();
    void HandleConfigChange();

    // One pass over the discovered plugins; isUserModeOnly leaves the system side alone (a new
    // user session needs only its user side).
    virtual void LaunchPluginsAndLogPluginIdWithElevation(bool isUserModeOnly);
    // Stops instances in parallel: all of them, or with isUserModeOnly the user instances of the
    // session that logs off (isLogOff) or of every session but the active one sessionId.
    virtual void Suspend(bool isUserModeOnly, uint32_t sessionId, bool isLogOff);
    virtual void StopPluginRunningWithUnSupportedElevation();
    virtual void StopDownloadedPluginsIfRunning();
    virtual void GetAppExtensionFieldsFromConfigPolicy(EnabledPluginType& enabledPluginType, ElevationType& elevation,
                                                       ControlType& controlType, std::list<Client>& clients);
    virtual bool IsPluginAllowedToRun(PluginDetails* details);
    virtual bool IsSystemModePluginAllowedToRun(PluginDetails* details, ElevationType elevation);
    virtual bool IsUserModePluginAllowedToRun(PluginDetails* details, ElevationType elevation);
    virtual ~PluginManager();

    bool IsPluginRunning(const std::wstring& pluginId);
    bool IsPluginRunningWithElevation(const std::wstring& pluginId, const ElevationType& elevation);
    bool IsSideLoadedPluginRunning(const std::wstring& pluginId);
    bool isPluginRepositoryNewerVersion(PluginDetails* const embedded, PluginDetails*& repositoryPlugin);
    bool isEmbeddedPluginNewerVersion(const PluginDetails& downloaded);
    // Hands a repository plugin that goes away back to its embedded copy: stops the running
    // instances and launches the embedded one, unless stopEvent (a ManualResetEvent) comes first.
    bool shouldEmbeddedPluginStarted(const std::wstring& pluginId, void* stopEvent);
    void StopPluginsAndSetEvent(const std::wstring& pluginId, void* event);

    void setUnInstallInProgress(std::vector<std::wstring> pluginIds);
    void removeInstalledPluginFromPendingUninstallList(std::wstring pluginId);
    bool IsPluginUninstallPending(PluginDetails* details);
    bool IsClientListUpdated(std::list<Client>& newClients);
    void DeleteDigestAndRegIfMessagingPluginDisabled();

    void OnVEQNotification(VEQNotificationData& data);
    bool NotifyPluginAndWaitForResponse(std::string pluginId, const ElevationType& elevation, Message& request,
                                        Result& response);
    bool GetTargetPluginInstanceDetails(const Message& message, PluginInstanceDetails& details, ElevationType elevation);
    bool TryGetRunningPluginIdForTarget(const std::wstring& target, std::wstring& pluginId);
    bool TryResolveGetDiagnosticsElevations(const std::wstring& target, std::wstring& resolvedId,
                                            std::vector<ElevationType>& elevations);
    BrokerContext getBrokerContext();

    // What `veqctl plugins` shows: every discovered plugin and every instance, as JSON.
    Json::Value Describe();

protected:
    PluginManager();
    virtual void LaunchPlugin(PluginDetails* const details, bool isUserModeOnly);

private:
    struct Policy {
        EnabledPluginType enabledPluginType = EnabledPluginType::none;
        ElevationType elevationType = ElevationType::None;
        ControlType controlType = ControlType::DenyByDefault;
        std::list<Client> clients;
    };

    PluginInstance* StartPluginInstance(PluginDetails details, BrokerContext brokerContext);
    void AddInstance(PluginInstance* instance);
    // Takes the instances for which stops is true out of the list.
    std::vector<PluginInstance*> TakeInstances(const std::function<bool(PluginInstance*)>& stops);
    void StopAndDelete(PluginInstance* instance, bool waitForExit);
    bool isUserModeInstanceAlreadyRunning(const std::wstring& pluginId, uint32_t sessionId);
    void StopPluginRunningWithUnsupportedClientContext();
    void StopPluginInstanceForAllElevations(const std::wstring& pluginId, bool waitForExit);
    void StopPluginInstanceWithElevation(const std::wstring& pluginId, const ElevationType& elevation);
    bool IsStopReceived(const wchar_t* function);
    Policy CurrentPolicy();
    static bool RunsByPolicy(const Policy& policy);
    static bool SameClients(const std::list<Client>& left, const std::list<Client>& right);
    bool ReadLibraryVersion(const PluginDetails& details, const wchar_t* failure, CVersion& version);
    PluginDetails* FindInstalled(const std::wstring& pluginId, PluginSourceType source);

    void notifyPluginsAboutConfigChanges();
    void NotifyPluginsAboutPackageStatusChange(std::wstring packageId, std::wstring status,
                                               std::wstring installationTrigger);
    void HandlePackageEvent(VEQNotificationData& data);
    void Broadcast(const std::string& command, const std::string& payload);
    void CheckAppListMessage(VEQNotificationData& data);
    void CheckInvokeCommandMessage(VEQNotificationData& data);

    std::vector<PluginInstance*> pluginInstances_;
    IPluginRepository* pluginRepository_ = nullptr;
    BrokerContext brokerContext_;
    std::recursive_mutex instancesMutex_;
    std::recursive_mutex uninstallMutex_;
    std::recursive_mutex installedPluginsMutex_;
    std::recursive_mutex stopMutex_;
    // Instances someone waits on for an answer, and how many wait; they are deleted only when none does.
    std::mutex pinMutex_;
    std::condition_variable unpinned_;
    std::unordered_map<PluginInstance*, int> pins_;
    std::mutex configChangeMutex_;
    std::mutex policyMutex_;
    Policy policy_;
    std::unordered_map<std::wstring, std::wstring> lastPackageStatus_;
    std::mutex packageStatusMutex_;
    std::atomic<bool> serviceStopReceived_{false};
    std::vector<std::wstring> pendingUninstallPlugins_;
    std::vector<PluginDetails*> installedPlugins_;
    std::wstring subscriptionId_;
    Log log;

    static std::atomic<bool> isStarted;
    static PluginManager* instance_;
    static std::mutex instanceMutex_;
};

}  // namespace VEQ
