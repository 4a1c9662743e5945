#include "apps/AppExtensionManager.h"

#include "apps/GlobalSocketIds.h"
#include "broker/BaseClientBroker.h"
#include "broker/BrokerFolders.h"
#include "platform/agents/AgentFactory.h"
#include "platform/bus/VEQNotificationData.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/utility.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"
#include "platform/util/CGuid.h"

#include <json/json.h>

#include <chrono>
#include <thread>

namespace VEQ {
namespace {

using Tavrin::Veq::ClientBroker::Notification;
using Extensions::AppExtensionsEnablementState;

constexpr int kLogLevel = 4;
constexpr int kConfigChangeTopic = 4;
constexpr int kConfigChangedState = 15;
constexpr int kRegistrationTopic = 2;
constexpr int kRegisteredState = 11;
constexpr int kPackageTopic = 30;
constexpr int kStopWaitRounds = 600;
constexpr auto kStopWaitRound = std::chrono::milliseconds(100);

std::string Write(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

}  // namespace

AppExtensionManager::AppExtensionManager() = default;

AppExtensionManager::~AppExtensionManager()
{
    const wchar_t* function = L"VEQ::AppExtensionManager::~AppExtensionManager";
    log.d(L"%s: Enter", function);
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto* appOperator : operators) {
            delete appOperator;
        }
        operators.clear();
    }
    log.d(L"%s: Exit", function);
}

void AppExtensionManager::Start()
{
    const wchar_t* function = L"VEQ::AppExtensionManager::Start";
    utility::InitLog(log, L"AppExtensionManager.log", kLogLevel);
    log.d(L"%s: Enter", function);
    RemoveGlobalSocketIdFromRegistry(ElevationType::Both);
    RemoveGlobalSocketIdFromFolder(ElevationType::Both);
    AppExtensionsEnablementState newEnablement = AppExtensionsEnablementState::disabled;
    ElevationType newElevation = ElevationType::None;
    GetAppExtensionFieldsFromConfigPolicy(newEnablement, newElevation);
    ApplyAppExtensionsSupport(newEnablement, newElevation);
    subscriptionId = VEQPublisherSubscriber::GetInstance()->Subscribe(
        [this](VEQNotificationData& data) { OnVEQNotification(data); }, true);
    if (!subscriptionId.empty()) {
        log.d(L"%s: Subscribed successfully %s", function, subscriptionId);
    }
}

void AppExtensionManager::Stop()
{
    const wchar_t* function = L"VEQ::AppExtensionManager::Stop";
    log.d(L"%s: Enter", function);
    if (!subscriptionId.empty()) {
        log.d(L"%s: unsubscribe internal notifications %s", function, subscriptionId);
        VEQPublisherSubscriber::GetInstance()->Unsubscribe(subscriptionId);
        subscriptionId.clear();
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto* appOperator : operators) {
            appOperator->Suspend();
        }
    }
    log.d(L"%s: Exit", function);
}

bool AppExtensionManager::IsUserSideEnabled()
{
    std::lock_guard<std::mutex> lock(mutex);
    return userSideEnabled;
}

bool AppExtensionManager::IsElevatedSideEnabled()
{
    std::lock_guard<std::mutex> lock(mutex);
    return elevatedSideEnabled;
}

std::optional<ExtensionAppSettings> AppExtensionManager::GetExtensionAppSettings()
{
    DeviceConfigPolicy policy;
    if (auto agent = AgentFactory::GetInstance()->GetConfigPolicyAgent()) {
        agent->GetDeviceConfigPolicy(policy);
    }
    for (const auto& entry : policy.app_settings()) {
        if (entry.application_id() == kApplicationId) {
            const ExtensionAppSettings* apps = entry.settings().extension_apps();
            return apps != nullptr ? std::optional<ExtensionAppSettings>(*apps) : std::nullopt;
        }
    }
    return std::nullopt;
}

void AppExtensionManager::GetAppExtensionFieldsFromConfigPolicy(AppExtensionsEnablementState& newEnablement,
                                                                ElevationType& newElevation)
{
    const wchar_t* function = L"VEQ::AppExtensionManager::GetAppExtensionFieldsFromConfigPolicy";
    newEnablement = AppExtensionsEnablementState::disabled;
    newElevation = ElevationType::None;
    const std::optional<ExtensionAppSettings> apps = GetExtensionAppSettings();
    if (!apps) {
        log.d(L"%s Unable to find extension apps fields in config policy.", function);
        return;
    }
    newEnablement = Extensions::ConvertAppExtensionsEnablementStringToState(apps->enablement());
    newElevation = Extensions::ConvertElevationStringToType(apps->ipcMethods_afunix());
    log.d(L"%s: App extension fields from config are enablement = %s and elevation = %s", function,
          Extensions::ConvertAppExtensionsEnablementStateToString(newEnablement),
          Extensions::ConvertElevationTypeToString(newElevation));
}

void AppExtensionManager::HandleConfigChange()
{
    AppExtensionsEnablementState newEnablement = AppExtensionsEnablementState::disabled;
    ElevationType newElevation = ElevationType::None;
    GetAppExtensionFieldsFromConfigPolicy(newEnablement, newElevation);
    ApplyAppExtensionsSupport(newEnablement, newElevation);
}

bool AppExtensionManager::ApplyAppExtensionsSupport(AppExtensionsEnablementState newEnablement,
                                                    ElevationType newElevation)
{
    const wchar_t* function = L"VEQ::AppExtensionManager::ApplyAppExtensionsSupport";
    log.d(L"%s: Applying new app extensions support with enablement = %s and elevation = %s", function,
          Extensions::ConvertAppExtensionsEnablementStateToString(newEnablement),
          Extensions::ConvertElevationTypeToString(newElevation));
    if (newEnablement == enablement && newElevation == elevation) {
        log.d(L"%s New settings are identical to current ones, no change needed", function);
        return true;
    }
    enablement = newEnablement;
    elevation = newElevation;
    if (newEnablement == AppExtensionsEnablementState::disabled || newElevation == ElevationType::None) {
        DisableAppExtensionsSupportForElevation(ElevationType::Both);
        return true;
    }
    if (newEnablement == AppExtensionsEnablementState::manual && !GetManualEnablementFlag()) {
        DisableAppExtensionsSupportForElevation(ElevationType::Both);
        return true;
    }
    bool enabled = false;
    switch (newElevation) {
    case ElevationType::User:
        enabled = EnableAppExtensionsSupportForElevation(ElevationType::User);
        DisableAppExtensionsSupportForElevation(ElevationType::Elevated);
        break;
    case ElevationType::Elevated:
        enabled = EnableAppExtensionsSupportForElevation(ElevationType::Elevated);
        DisableAppExtensionsSupportForElevation(ElevationType::User);
        break;
    default:
        enabled = EnableAppExtensionsSupportForElevation(ElevationType::Both);
        break;
    }
    if (!enabled) {
        log.d(L"%s Failed to enable app extension support with new settings!", function);
    }
    return enabled;
}

bool AppExtensionManager::GetManualEnablementFlag()
{
    uint32_t value = 0;
    bool read = false;
    if (CRegUtil::DoesKeyExists(HKEY_LOCAL_MACHINE, kVeqKey)) {
        read = CRegUtil::GetRegValueOfDwordType(HKEY_LOCAL_MACHINE, kVeqKey, kExtensionSupportValue, value);
        log.d(L"% read registry value from %s result %d value: %d", kVeqKey, read, value);
    }
    return read && value != 0;
}

bool AppExtensionManager::EnableAppExtensionsSupportForElevation(ElevationType requested)
{
    const wchar_t* function = L"VEQ::AppExtensionManager::EnableAppExtensionsSupportForElevation";
    log.d(L"%s: Enabling app extensions support for elevation = %s", function,
          Extensions::ConvertElevationTypeToString(requested));
    const bool wantUser = Extensions::isUserElevation(requested);
    const bool wantElevated = Extensions::isElevatedElevation(requested);
    {
        std::lock_guard<std::mutex> lock(mutex);
        const bool alreadyOn = (!wantUser || userSideEnabled) && (!wantElevated || elevatedSideEnabled);
        if (requested == ElevationType::None || alreadyOn) {
            log.d(L"%s: Elevation already enabled, exiting", function);
            return true;
        }
    }
    if (!CreateBrokerHostDirectory()) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex);
    bool haveUser = false;
    bool haveElevated = false;
    for (auto* appOperator : operators) {
        if (appOperator == nullptr) {
            log.d(L"%s: Skipping null operator", function);
            continue;
        }
        if (appOperator->GetElevation() == ElevationType::User) {
            haveUser = true;
            if (wantUser && !userSideEnabled) {
                log.d(L"%s: Starting user operator", function);
                AddGlobalSocketIdToRegistryAndFolder(ElevationType::User);
                if (!StartOperator(appOperator)) {
                    log.e(L"%s Unable to start user operator!", function);
                    return false;
                }
                userSideEnabled = true;
            }
        } else if (appOperator->GetElevation() == ElevationType::Elevated) {
            haveElevated = true;
            if (wantElevated && !elevatedSideEnabled) {
                log.d(L"%s: Starting elevated operator", function);
                AddGlobalSocketIdToRegistryAndFolder(ElevationType::Elevated);
                if (!StartOperator(appOperator)) {
                    log.e(L"%s Unable to start elevated operator!", function);
                    return false;
                }
                elevatedSideEnabled = true;
            }
        }
    }
    if (wantUser && !haveUser) {
        AppExtensionOperator* created = CreateOperator(ElevationType::User);
        if (created == nullptr) {
            log.e(L"%s Creating user mode operator failed!", function);
            return false;
        }
        created->Start();
        operators.push_back(created);
        userSideEnabled = true;
    }
    if (wantElevated && !haveElevated) {
        AppExtensionOperator* created = CreateOperator(ElevationType::Elevated);
        if (created == nullptr) {
            log.e(L"%s Creating elevated mode operator failed!", function);
            return false;
        }
        created->Start();
        operators.push_back(created);
        elevatedSideEnabled = true;
    }
    return true;
}

void AppExtensionManager::DisableAppExtensionsSupportForElevation(ElevationType requested)
{
    const wchar_t* function = L"VEQ::AppExtensionManager::DisableAppExtensionsSupportForElevation";
    log.d(L"%s: Disabling app extensions support for elevation = %s", function,
          Extensions::ConvertElevationTypeToString(requested));
    std::lock_guard<std::mutex> lock(mutex);
    const bool user = Extensions::isUserElevation(requested);
    const bool elevated = Extensions::isElevatedElevation(requested);
    for (auto* appOperator : operators) {
        if (appOperator == nullptr) {
            continue;
        }
        if (appOperator->GetElevation() == ElevationType::User && user && userSideEnabled) {
            log.d(L"%s: Stopping user operator", function);
            appOperator->Suspend();
        } else if (appOperator->GetElevation() == ElevationType::Elevated && elevated && elevatedSideEnabled) {
            log.d(L"%s: Stopping elevated operator", function);
            appOperator->Suspend();
        }
    }
    if (user) {
        userSideEnabled = false;
    }
    if (elevated) {
        elevatedSideEnabled = false;
    }
    RemoveGlobalSocketIdFromRegistry(requested);
    RemoveGlobalSocketIdFromFolder(requested);
}

std::wstring AppExtensionManager::SideFolder(ElevationType side)
{
    std::wstring root;
    utility::GetVeqAppDataRootPath(root);
    return root + BrokerFolders::kBroker +
           (side == ElevationType::User ? BrokerFolders::kSharedUser : BrokerFolders::kElevated);
}

bool AppExtensionManager::AddGlobalSocketIdToRegistryAndFolder(ElevationType side)
{
    const wchar_t* function = L"VEQ::AppExtensionManager::AddGlobalSocketIdToRegistryAndFolder";
    if (CRegUtil::CreateKey(HKEY_LOCAL_MACHINE, GlobalSocketIds::kBrokerKey) == 0) {
        return false;
    }
    const std::wstring id = Utility::CGuid::NewGuid(true);
    const wchar_t* valueName = GlobalSocketIds::ValueNameFor(side);
    const bool written = CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, GlobalSocketIds::kBrokerKey, valueName, id);
    log.d(L"%s set registry key: %s with value: %s result %d", function, valueName, id, written);
    std::wstring folder = SideFolder(side);
    folder.pop_back();  // without the trailing separator
    const bool created = FileSystem::createDirectory(folder, true);
    log.d(L"%s Create Directory result: %d", function, created);
    if (!created) {
        return false;
    }
    if (side == ElevationType::User) {
        utility::ApplyFilePermissions(folder, BrokerFolders::kSharedUserAcl, true);
    }
    utility::createFileWithAcl(SideFolder(side) + id, side == ElevationType::User);
    (side == ElevationType::User ? userSocketId : elevatedSocketId) = id;
    return true;
}

void AppExtensionManager::RemoveGlobalSocketIdFromRegistry(ElevationType side)
{
    const wchar_t* function = L"VEQ::AppExtensionManager::RemoveGlobalSocketIdFromRegistry";
    if (!CRegUtil::DoesKeyExists(HKEY_LOCAL_MACHINE, GlobalSocketIds::kBrokerKey)) {
        log.d(L"%s registry path doesn't exist", function);
        return;
    }
    for (ElevationType each : {ElevationType::User, ElevationType::Elevated}) {
        const bool named = each == ElevationType::User ? Extensions::isUserElevation(side)
                                                       : Extensions::isElevatedElevation(side);
        if (named) {
            const wchar_t* valueName = GlobalSocketIds::ValueNameFor(each);
            const bool deleted = CRegUtil::DeleteRegValue(HKEY_LOCAL_MACHINE, GlobalSocketIds::kBrokerKey, valueName);
            log.d(L"%s delete registry for %s result %d", function, valueName, deleted);
        }
    }
}

void AppExtensionManager::RemoveGlobalSocketIdFromFolder(ElevationType side)
{
    const wchar_t* function = L"VEQ::AppExtensionManager::RemoveGlobalSocketIdFromFolder";
    if (Extensions::isUserElevation(side) && !userSocketId.empty()) {
        log.d(L"%s: Deleting global user socket file: %s", function, userSocketId);
        FileSystem::deleteDirectoryOrFile(SideFolder(ElevationType::User) + userSocketId, false);
        FileSystem::deleteDirectoryOrFile(SideFolder(ElevationType::User) + userSocketId + BrokerFolders::kNotifySuffix,
                                          false);
    }
    if (Extensions::isElevatedElevation(side) && !elevatedSocketId.empty()) {
        log.d(L"%s: Deleting global elevated socket file: %s", function, elevatedSocketId);
        FileSystem::deleteDirectoryOrFile(SideFolder(ElevationType::Elevated) + elevatedSocketId, false);
        FileSystem::deleteDirectoryOrFile(
            SideFolder(ElevationType::Elevated) + elevatedSocketId + BrokerFolders::kNotifySuffix, false);
    }
}

bool AppExtensionManager::CreateBrokerHostDirectory()
{
    std::wstring root;
    utility::GetVeqAppDataRootPath(root);
    std::wstring folder = root + BrokerFolders::kBroker;
    folder.pop_back();
    if (FileSystem::directoryExists(folder)) {
        return true;
    }
    if (!FileSystem::createDirectory(folder, true)) {
        log.d(L"%s: failed to create broker host directory", L"VEQ::AppExtensionManager::CreateBrokerHostDirectory");
        return false;
    }
    return true;
}

AppExtensionOperator* AppExtensionManager::CreateOperator(ElevationType side)
{
    log.d(L"%s: Creating operator for elevation = %s", L"VEQ::AppExtensionManager::CreateOperator",
          Extensions::ConvertElevationTypeToString(side));
    if (side != ElevationType::User && side != ElevationType::Elevated) {
        return nullptr;
    }
    AddGlobalSocketIdToRegistryAndFolder(side);
    BrokerContext context;
    context.setConnectionMethod(ConnectionMethod::LocalSocket);
    context.setElevationType(side);
    context.setExtensionType(Tavrin::Veq::ClientBroker::ExtensionType::App);
    return new AppExtensionOperator(context);
}

bool AppExtensionManager::StartOperator(AppExtensionOperator* appOperator)
{
    const wchar_t* function = L"VEQ::AppExtensionManager::StartOperator";
    if (appOperator == nullptr) {
        return false;
    }
    log.d(L"%s: Starting operator with elevation = %s", function,
          Extensions::ConvertElevationTypeToString(appOperator->GetElevation()));
    switch (appOperator->GetState()) {
    case OperatorState::Started:
        log.d(L"%s: Operator was already started", function);
        return true;
    case OperatorState::Stopped:
        appOperator->Start();
        log.d(L"%s: Operator started", function);
        return true;
    case OperatorState::Stopping:
        break;
    default:
        log.e(L"%s: Operator was not started because it's current state is unknown.", function);
        return false;
    }
    log.d(L"%s: Operator is currently stopping... waiting for it to stop.", function);
    for (int round = 0; round < kStopWaitRounds; ++round) {
        std::this_thread::sleep_for(kStopWaitRound);
        const OperatorState state = appOperator->GetState();
        if (state == OperatorState::Stopped) {
            appOperator->Start();
            log.d(L"%s: Operator has stopped and was started again.", function);
            return true;
        }
        if (state != OperatorState::Stopping) {
            return false;
        }
    }
    log.e(L"%s: Operator failed to stop and was NOT started", function);
    return false;
}

void AppExtensionManager::OnVEQNotification(VEQNotificationData& data)
{
    const wchar_t* function = L"VEQ::AppExtensionManager::OnVEQNotification";
    const int topic = data.getTopicId();
    const int state = data.getEventState();
    if (topic == kConfigChangeTopic && state == kConfigChangedState) {
        log.d(L"%s: Received configuration change notification", function);
        HandleConfigChange();
        notifyExtensionAppsAboutConfigChanges();
    } else if (topic == kRegistrationTopic) {
        log.d(L"%s: Received device registration change notification isRegister: %d", function,
              state == kRegisteredState);
        notifyExtensionAppsAboutRegisterStatusChanges(state == kRegisteredState);
    } else if (topic == kPackageTopic) {
        HandlePackageEvent(data);
    }
    if (data.isExtensionNotification()) {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto* appOperator : operators) {
            appOperator->OnVEQNotification(data);
        }
    }
}

void AppExtensionManager::HandlePackageEvent(VEQNotificationData& data)
{
    const std::wstring status = Extensions::ConvertEventStateToPackageStatusAsString(data.getEventState());
    std::wstring packageId, packageType, packageName, packageVersion, installationTrigger;
    data.deserializePayloadForPackageEvent(packageId, packageType, packageName, packageVersion, installationTrigger);
    const std::wstring key = packageId + L"|" + packageVersion + L"|" + installationTrigger;
    auto cached = packageStatusCache.find(key);
    if (cached != packageStatusCache.end() && cached->second == status) {
        return;  // a repeated status is not pushed again
    }
    packageStatusCache[key] = status;
    log.d(L"%s: Received package notification  for  packageId: %s with packageStatus: %s installationTrigger: %s",
          L"VEQ::AppExtensionManager::OnVEQNotification", packageId, status, installationTrigger);
    if (!status.empty()) {
        notifyExtensionAppsAboutPackageStatusChanges(packageId, status, packageVersion, installationTrigger);
    }
}

void AppExtensionManager::notifyExtensionAppsAboutConfigChanges()
{
    Json::Value payload;
    payload["configPolicy"] = String::UTF16ToUTF8(ConfigPolicyAgent::GetInstance()->GetConfigPolicy());
    const Notification notification{kDeviceConfigCommand, Write(payload), "", ""};
    std::lock_guard<std::mutex> lock(mutex);
    for (auto* appOperator : operators) {
        if (appOperator != nullptr && appOperator->GetElevation() == ElevationType::Elevated) {
            appOperator->notifyExtensionAppsAboutConfigChanges(notification);
        }
    }
}

void AppExtensionManager::notifyExtensionAppsAboutRegisterStatusChanges(bool isRegistered)
{
    Json::Value payload;
    payload["isRegistered"] = isRegistered;
    const Notification notification{kRegistrationResultCommand, Write(payload), "", ""};
    std::lock_guard<std::mutex> lock(mutex);
    for (auto* appOperator : operators) {
        if (appOperator != nullptr && appOperator->GetElevation() == ElevationType::Elevated) {
            appOperator->notifyExtensionAppsAboutRegisterStatusChanges(notification);
        }
    }
}

void AppExtensionManager::notifyExtensionAppsAboutPackageStatusChanges(std::wstring packageId, std::wstring status,
                                                                       std::wstring /*packageVersion*/,
                                                                       std::wstring installationTrigger)
{
    Json::Value payload;
    payload["packageId"] = String::UTF16ToUTF8(packageId);
    payload["status"] = String::UTF16ToUTF8(status);
    payload["installationTrigger"] = String::UTF16ToUTF8(installationTrigger);
    const Notification notification{kPackageInstallStatusCommand, Write(payload), "", ""};
    std::lock_guard<std::mutex> lock(mutex);
    for (auto* appOperator : operators) {
        if (appOperator != nullptr) {
            appOperator->notifyExtensionAppsAboutPackageStatusChanges(notification);
        }
    }
}

bool AppExtensionManager::RouteTargetedMessageToApp(const std::string& target, Message& message, Result& result,
                                                    BaseClientBroker* sender)
{
    const wchar_t* function = L"VEQ::AppExtensionManager::RouteTargetedMessageToApp";
    std::lock_guard<std::mutex> lock(mutex);
    for (auto* appOperator : operators) {
        if (appOperator == nullptr || appOperator->GetState() != OperatorState::Started) {
            continue;
        }
        if (appOperator->RouteToOldestConnection(target, message, result, sender)) {
            log.d(L"%s: Routed target %s via %s operator", function, target,
                  Extensions::ConvertElevationTypeToString(appOperator->GetElevation()));
            return true;
        }
    }
    log.d(L"%s: No operator found a route for target %s", function, target);
    return false;
}

}  // namespace VEQ
