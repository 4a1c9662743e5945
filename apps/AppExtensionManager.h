#pragma once

#include "apps/AppExtensionOperator.h"
#include "module/ElevationType.h"
#include "module/Extensions.h"
#include "platform/log/Log.h"
#include "platform/policy/ExtensionAppSettings.h"

#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace VEQ {

class BaseClientBroker;
class VEQNotificationData;

// Decides, from the configuration policy, whether apps may connect and on which side; keeps that
// applied as the policy changes; publishes each enabled side's global socket id; and turns the
// service's events into pushes to the connected apps.
class AppExtensionManager {
public:
    using Message = Tavrin::Veq::ClientBroker::Message;
    using Result = Tavrin::Veq::ClientBroker::Result;
    using AppExtensionsEnablementState = Extensions::AppExtensionsEnablementState;

    static constexpr const wchar_t* kApplicationId = L"Tavrin.veq";
    static constexpr const wchar_t* kVeqKey = L"Software\\Tavrin\\VEQ";
    static constexpr const wchar_t* kExtensionSupportValue = L"extension-support";
    static constexpr const char* kDeviceConfigCommand = "Receive-DeviceConfig";
    static constexpr const char* kRegistrationResultCommand = "Receive-RegistrationResult";
    static constexpr const char* kPackageInstallStatusCommand = "Receive-PackageInstallStatus";

    AppExtensionManager();
    virtual ~AppExtensionManager();
    AppExtensionManager(const AppExtensionManager&) = delete;
    AppExtensionManager& operator=(const AppExtensionManager&) = delete;

    void Start();
    void Stop();
    void OnVEQNotification(VEQNotificationData& data);
    bool RouteTargetedMessageToApp(const std::string& target, Message& message, Result& result,
                                   BaseClientBroker* sender);

    bool IsUserSideEnabled();
    bool IsElevatedSideEnabled();

    // The extension settings of the policy in force (its entry for kApplicationId); nullopt when
    // the policy has none. The plugin side reads its fields from the same record.
    static std::optional<ExtensionAppSettings> GetExtensionAppSettings();

protected:
    virtual bool ApplyAppExtensionsSupport(AppExtensionsEnablementState enablement, ElevationType elevation);
    virtual bool EnableAppExtensionsSupportForElevation(ElevationType elevation);
    virtual void DisableAppExtensionsSupportForElevation(ElevationType elevation);
    virtual void GetAppExtensionFieldsFromConfigPolicy(AppExtensionsEnablementState& enablement,
                                                       ElevationType& elevation);
    virtual void HandleConfigChange();
    virtual bool GetManualEnablementFlag();
    virtual void notifyExtensionAppsAboutConfigChanges();
    virtual void notifyExtensionAppsAboutRegisterStatusChanges(bool isRegistered);
    virtual void notifyExtensionAppsAboutPackageStatusChanges(std::wstring packageId, std::wstring status,
                                                              std::wstring packageVersion,
                                                              std::wstring installationTrigger);

private:
    bool AddGlobalSocketIdToRegistryAndFolder(ElevationType elevation);
    void RemoveGlobalSocketIdFromRegistry(ElevationType elevation);
    void RemoveGlobalSocketIdFromFolder(ElevationType elevation);
    bool CreateBrokerHostDirectory();
    AppExtensionOperator* CreateOperator(ElevationType elevation);
    bool StartOperator(AppExtensionOperator* appOperator);
    void HandlePackageEvent(VEQNotificationData& data);
    std::wstring SideFolder(ElevationType elevation);

    std::vector<AppExtensionOperator*> operators;
    std::unordered_map<std::wstring, std::wstring> packageStatusCache;
    std::wstring subscriptionId;
    AppExtensionsEnablementState enablement = AppExtensionsEnablementState::disabled;
    ElevationType elevation = ElevationType::None;
    bool userSideEnabled = false;
    bool elevatedSideEnabled = false;
    std::wstring userSocketId;
    std::wstring elevatedSocketId;
    std::mutex mutex;
    Log log;
};

}  // namespace VEQ
