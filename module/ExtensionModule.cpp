#include "module/ExtensionModule.h"

#include "mqtt/ExtensionMqttBroker.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/utility.h"
#include "platform/string/String.h"

namespace VEQ {
namespace {

constexpr int kLogLevel = 4;
// Spelt as the folders were first named; they meet the brokers' "SharedUser" and "Elevated"
// folders whatever the letter case (see DeleteDirectoryRecursive).
constexpr const wchar_t* kStaleUserFolder = L"/Broker/shareduser";
constexpr const wchar_t* kStaleElevatedFolder = L"/Broker/elevated";

}  // namespace

ExtensionModule* ExtensionModule::GetInstance()
{
    static ExtensionModule* instance = new ExtensionModule();  // never deleted: the host holds it to the end
    return instance;
}

ExtensionModule::ExtensionModule() : IVEQAgent(L"ExtensionModuleAgent")
{
    fullInitDone = false;
    utility::InitLog(log, L"ExtensionModule.log", kLogLevel);
    pluginManager = PluginManager::GetInstance();
}

ExtensionModule::~ExtensionModule()
{
    PluginManager::ReleaseInstance();
}

void ExtensionModule::Init(void*& /*context*/)
{
    log.d(L"%s", L"VEQ::ExtensionModule::Init");
}

void ExtensionModule::FullInit()
{
    const wchar_t* function = L"VEQ::ExtensionModule::FullInit";
    log.d(L"%s: Enter", function);
    StartAgents();
    fullInitDone = true;
    log.d(L"%s: Exit", function);
}

void ExtensionModule::StartAgents()
{
    CleanUpExtensionFiles();
    appExtensionManager.Start();
    if (pluginManager != nullptr) {
        pluginManager->Start(false);
    }
    ExtensionMqttBroker::InitLog();
}

void ExtensionModule::UnInit()
{
    const wchar_t* function = L"VEQ::ExtensionModule::UnInit";
    log.d(L"%s: Enter", function);
    log.d(L"%s: Stopping AppExtensionManager", function);
    appExtensionManager.Stop();
    if (pluginManager != nullptr) {
        log.d(L"%s: Stopping PluginManager", function);
        pluginManager->Stop();
    }
    log.d(L"%s: Cleaning up ExtensionMqttBroker", function);
    ExtensionMqttBroker::UnInit();
    log.d(L"%s: Exit", function);
}

void ExtensionModule::CleanUpExtensionFiles()
{
    const wchar_t* function = L"VEQ::ExtensionModule::CleanUpExtensionFiles";
    std::wstring root;
    utility::GetVeqAppDataRootPath(root);
    for (const wchar_t* folder : {kStaleUserFolder, kStaleElevatedFolder}) {
        const std::wstring path = root + folder;
        const bool deleted = DeleteDirectoryRecursive(path);
        log.d(L"%s delete Broker folder: %s result: %d", function, path, deleted);
    }
}

// Deletes, silently and for good, every directory whose name equals the last element of path
// ignoring letter case, so that names written in either case meet as they do on the service's
// original platform. False when there was none or one could not be deleted.
bool ExtensionModule::DeleteDirectoryRecursive(const std::wstring& path)
{
    const std::wstring parent = FileSystem::getDirectoryName(path);
    const std::wstring name = path.substr(path.find_last_of(L'/') + 1);
    bool found = false;
    bool deleted = true;
    for (const auto& entry : FileSystem::GetDirectoriesForFolder(parent)) {
        if (String::CaseInsesitiveEqual(entry, name)) {
            found = true;
            deleted = FileSystem::deleteDirectoryOrFile(parent + L"/" + entry, true) && deleted;
        }
    }
    if (!found || !deleted) {
        g_log.e(L"%s: Error deleting folder, %s", L"VEQ::ExtensionModule::DeleteDirectoryRecursive", path);
        return false;
    }
    return true;
}

}  // namespace VEQ
