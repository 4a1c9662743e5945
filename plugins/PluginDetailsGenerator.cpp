#include "plugins/PluginDetailsGenerator.h"

#include "apps/AppExtensionManager.h"
#include "plugins/PluginDetails.h"
#include "plugins/PluginManifest.h"
#include "platform/agents/AgentFactory.h"
#include "platform/crypto/CertificateValidationWrapper.h"
#include "platform/device/DeveloperSettings.h"
#include "platform/device/XMLConfigAgent.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/FileUtils.h"
#include "platform/fs/utility.h"
#include "platform/policy/IConfigAgent.h"
#include "platform/process/CurrentProcess.h"
#include "platform/resources/ResourceLoaderUtility.h"
#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"

#include <json/json.h>

#include <exception>
#include <memory>

namespace VEQ {
namespace {

constexpr int kEmbeddedResourceIds[] = {104, 999, 105};
constexpr int kAddOnResourceId = 1001;
constexpr const wchar_t* kResourceType = L"JSON";
constexpr const wchar_t* kAddOnRoot = L"\\drivers\\tavrin\\VEQ\\AddOnPlugins";
constexpr const wchar_t* kHostsFolder = L"\\Tavrin\\Veq\\Hosts\\";
constexpr const wchar_t* kProtectedHostName = L"VeqPluginHost.exe";

// A path component that would leave the folder it is appended to.
bool ClimbsOut(const std::wstring& path)
{
    size_t start = 0;
    while (start <= path.size()) {
        const size_t end = std::min(path.find_first_of(L"/\\", start), path.size());
        if (path.compare(start, end - start, L"..") == 0) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

}  // namespace

std::atomic<PluginDetailsGenerator*> PluginDetailsGenerator::instance_{nullptr};
std::mutex PluginDetailsGenerator::instanceMutex_;

PluginDetailsGenerator* PluginDetailsGenerator::GetInstance()
{
    if (instance_.load() == nullptr) {
        std::lock_guard<std::mutex> lock(instanceMutex_);
        if (instance_.load() == nullptr) {
            instance_ = new PluginDetailsGenerator();
        }
    }
    return instance_.load();
}

void PluginDetailsGenerator::ReleaseInstance()
{
    if (instance_.load() != nullptr) {
        std::lock_guard<std::mutex> lock(instanceMutex_);
        delete instance_.exchange(nullptr);
    }
}

PluginDetailsGenerator::PluginDetailsGenerator()
{
    if (utility::InitLog(log_, L"PluginDetailsGenerator.log", 4)) {
        log_.d(L"%s: Init", L"VEQ::PluginDetailsGenerator::PluginDetailsGenerator");
    }
}

std::wstring PluginDetailsGenerator::RepositoryPath()
{
    return FileSystem::GetCommonApplicationDataPath() + PluginDetails::pluginRepositoryPath_;
}

std::vector<PluginDetails*> PluginDetailsGenerator::GetInstalledPlugins()
{
    const wchar_t* function = L"VEQ::PluginDetailsGenerator::GetInstalledPlugins";
    std::vector<PluginDetails*> plugins;
    try {
        std::wstring enabledPluginType;
        if (const auto settings = AppExtensionManager::GetExtensionAppSettings()) {
            enabledPluginType = settings->enabledPluginType();
        }
        if (enabledPluginType == L"all") {
            GetEmbeddedPlugins(plugins);
            GetDownloadedPlugins(plugins);
            cleanUpPluginHostFolder(plugins);
        } else if (enabledPluginType == L"none") {
            log_.d(L"%s: Cannot load plugin because enabledPluginType does not permit.", function);
        } else {
            log_.d(L"%s: enabledPluginType is Embedded, hence VEQ does not attempt to load downloaded plugins",
                   function);
            GetEmbeddedPlugins(plugins);
        }
    } catch (const std::exception& exception) {
        log_.e(L"%s:Exception occured : %s", function, exception.what());
    }
    return plugins;
}

void PluginDetailsGenerator::GetEmbeddedPlugins(std::vector<PluginDetails*>& plugins)
{
    for (int id : kEmbeddedResourceIds) {
        std::wstring text;
        ResourceLoaderUtility::GetInstance()->LoadCustomResource(text, id, kResourceType);
        FillPluginDetailsFromManifest(text, PluginSourceType::Embedded, plugins);
    }
    const std::wstring addOnRoot = FileSystem::GetSystemFolderPath() + kAddOnRoot;
    std::vector<std::wstring> folders;
    FileSystem::GetDirectoriesForFolder(addOnRoot, folders);
    for (const std::wstring& folder : folders) {
        const std::wstring path = addOnRoot + L"\\" + folder + L"\\resourceloader.dll";
        std::wstring text;
        if (ResourceLoaderUtility::LoadCustomResourceFromFile(text, path, kAddOnResourceId, kResourceType)) {
            FillPluginDetailsFromManifest(text, PluginSourceType::Embedded, plugins);
        }
    }
}

void PluginDetailsGenerator::GetDownloadedPlugins(std::vector<PluginDetails*>& plugins)
{
    const wchar_t* function = L"VEQ::PluginDetailsGenerator::GetDownloadedPlugins";
    const std::wstring repository = RepositoryPath();
    std::vector<std::wstring> manifestFiles;
    std::vector<std::wstring> matchedFolders;
    if (GetManifestFileList(manifestFiles, repository) < 1) {
        log_.d(L"Plugin manifest file does not exists");
    } else {
        for (const std::wstring& fileName : manifestFiles) {
            const std::wstring pluginId = fileName.substr(0, fileName.find(L".json"));
            std::wstring found;
            if (!FileSystem::FindDirectoryInDirectoryTree(repository, pluginId, found)) {
                if (!IsPluginLocked(pluginId)) {
                    log_.e(L"Deleting manifest file of plugin %s since corresponding plugin is not found", pluginId);
                    FileSystem::deleteDirectoryOrFile(repository + fileName, false);
                }
                continue;
            }
            matchedFolders.push_back(String::Replace(found, L"\\\\", L"\\"));
            std::wstring encoded;
            if (!LoadManifest(repository + fileName, encoded)) {
                continue;
            }
            std::wstring decoded;
            if (getDecodedManifest(encoded, decoded)) {
                FillPluginDetailsFromManifest(decoded, PluginSourceType::Downloaded, plugins);
            } else {
                log_.e(L"%s: Not a valid Manifest json : %s ", function, repository + fileName);
            }
        }
    }
    std::vector<std::wstring> folders;
    if (FileSystem::GetDirectoriesForFolder(repository, folders) == 0) {
        return;
    }
    for (const std::wstring& folder : folders) {
        if (String::EndsWith(folder, L"_")) {
            continue;
        }
        const std::wstring path = repository + folder;
        bool matched = false;
        for (const std::wstring& known : matchedFolders) {
            if (known.size() == path.size() && known == path) {
                matched = true;
                break;
            }
        }
        if (!matched && !IsPluginLocked(folder)) {
            log_.e(L"Deleting plugin folder of plugin %s since corresponding manifest file is not found", folder);
            FileSystem::deleteDirectoryOrFile(path, true);
        }
    }
}

int32_t PluginDetailsGenerator::GetManifestFileList(std::vector<std::wstring>& files, const std::wstring& folder)
{
    return FileSystem::GetFileList(folder + L"\\*.json", files);
}

bool PluginDetailsGenerator::IsPluginLocked(const std::wstring& pluginId)
{
    const std::wstring lockFile =
        RepositoryPath() + pluginId + L"-" + std::to_wstring(CurrentProcess::GetCurrentProcessId()) + L".lock";
    if (!FileSystem::fileExists(lockFile)) {
        return false;
    }
    log_.d(L"%s : Plugin installation is in progress", L"VEQ::PluginDetailsGenerator::IsPluginLocked");
    return true;
}

bool PluginDetailsGenerator::LoadManifest(const std::wstring& path, std::wstring& content)
{
    try {
        return FileSystem::readAllText(path, content, kMaxManifestBytes);
    } catch (const std::exception& exception) {
        log_.e(L"%s:Exception occured : %s", L"VEQ::PluginDetailsGenerator::LoadManifest", exception.what());
        return false;
    }
}

bool PluginDetailsGenerator::getDecodedManifest(const std::wstring& encoded, std::wstring& decoded)
{
    const wchar_t* function = L"VEQ::PluginDetailsGenerator::getDecodedManifest";
    try {
        const std::string text = String::UTF16ToUTF8(encoded);
        DeveloperSettings* developer = DeveloperSettings::GetInstance();
        const bool strict = !developer->IsSkipSignedContentCheck() && !developer->IsSkipPluginSignatureCheck();
        std::string content;
        const std::shared_ptr<IConfigAgent> agent = AgentFactory::GetInstance()->GetConfigPolicyAgent();
        if (!CoreUtility::GetInstance()->decodeSignedContent(text, content, agent.get(), strict)) {
            log_.e(L"%s: Failed to decode Manifest json", function);
            return false;
        }
        decoded = String::UTF8ToUTF16(content);
        return true;
    } catch (const std::exception& exception) {
        log_.e(L"%s:Exception occured : %s", function, exception.what());
        return false;
    }
}

void PluginDetailsGenerator::FillPluginDetailsFromManifest(const std::wstring& document, PluginSourceType source,
                                                           std::vector<PluginDetails*>& plugins)
{
    const wchar_t* function = L"VEQ::PluginDetailsGenerator::FillPluginDetailsFromManifest";
    log_.d(L"%s : Enter", function);
    try {
        const std::string text = String::UTF16ToUTF8(document);
        Json::CharReaderBuilder builder;
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value root;
        std::string errors;
        if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
            log_.d(L"%s : Exit", function);
            return;
        }
        const Json::Value& list = root["plugins"];
        if (!list.isArray() || list.empty()) {
            log_.d(L"%s : Exit", function);
            return;
        }
        for (Json::ArrayIndex index = 0; index < list.size(); ++index) {
            const PluginManifest manifest = PluginManifest::JsonDeSerialize(list[index]);
            auto details = std::make_unique<PluginDetails>(source, manifest);
            if (!StaysInsideItsRoot(*details)) {
                continue;
            }
            if (!ValidatePlugin(details.get())) {
                log_.e(L"%s : Invalid Plugin, not signed by tavrin, path: %s", function,
                       details->getPluginFullPath());
                continue;
            }
            log_.d(L"%s : Found plugin with path=%s", function, details->getPluginFullPath());
            if (!IsDuplicate(*details, plugins)) {
                plugins.push_back(details.release());
            }
        }
    } catch (const std::exception& exception) {
        log_.d(L"%s:Exception occured : %s", function, exception.what());
    }
    log_.d(L"%s : Exit", function);
}

bool PluginDetailsGenerator::StaysInsideItsRoot(const PluginDetails& details)
{
    const PluginManifest& manifest = details.getPluginManifest();
    const std::wstring& id = manifest.getPluginId();
    const bool idIsAName = id != L"." && id.find_first_of(L"/\\") == std::wstring::npos && !ClimbsOut(id);
    const bool entryStaysIn = !ClimbsOut(details.getPluginFullPath());
    if (idIsAName && entryStaysIn) {
        return true;
    }
    log_.e(L"%s : Invalid Plugin, its id or entry leads outside the plugin folder: id=%s, path: %s",
           L"VEQ::PluginDetailsGenerator::StaysInsideItsRoot", id, details.getPluginFullPath());
    return false;
}

bool PluginDetailsGenerator::IsDuplicate(const PluginDetails& details, const std::vector<PluginDetails*>& plugins)
{
    for (const PluginDetails* known : plugins) {
        if (known->getSourceType() == details.getSourceType() &&
            String::CaseInsesitiveEqual(known->getPluginManifest().getPluginId(),
                                        details.getPluginManifest().getPluginId())) {
            return true;
        }
    }
    return false;
}

bool PluginDetailsGenerator::ValidatePlugin(PluginDetails* details)
{
    try {
        const XMLConfigAgent config = XMLConfigAgent::GetInstance(0);
        if (config.GetDisableSecurity() != 0 || DeveloperSettings::GetInstance()->IsSkipPluginSignatureCheck()) {
            return true;
        }
        if (!FileSystem::fileExists(details->getPluginFullPath())) {
            log_.d(L"%s does not exists", details->getPluginManifest().getPluginName());
            return false;
        }
        return CertificateValidationWrapper::IsFileValid(details->getPluginFullPath());
    } catch (const std::exception& exception) {
        log_.e(L"%s: [TID:%lu]  Exception caught while validating plugin. %s",
               L"VEQ::PluginDetailsGenerator::ValidatePlugin", CurrentProcess::GetCurrentThreadId(),
               exception.what());
        return false;
    }
}

void PluginDetailsGenerator::cleanUpPluginHostFolder(std::vector<PluginDetails*> plugins)
{
    const wchar_t* function = L"VEQ::PluginDetailsGenerator::cleanUpPluginHostFolder";
    const std::wstring base = FileSystem::GetCommonApplicationDataPath() + kHostsFolder;
    const std::wstring folder = FileSystem::directoryExists(base + L"ARM64") ? base + L"ARM64" : base + L"x64";
    std::vector<std::wstring> files;
    const int32_t count = FileSystem::GetFileList(folder + L"\\*.exe", files);
    log_.d(L"%s: plugins size from host folder is %d", function, count);
    const std::wstring protectedName = kProtectedHostName;
    for (const std::wstring& fileName : files) {
        if (fileName.find(protectedName) != std::wstring::npos) {
            continue;
        }
        const std::wstring stem = fileName.size() < 4 ? fileName : fileName.substr(0, fileName.size() - 4);
        const std::string stemUtf8 = String::UTF16ToUTF8(stem);
        bool kept = false;
        for (const PluginDetails* plugin : plugins) {
            if (plugin->getPluginManifest().getPluginName().find(stemUtf8) != std::string::npos) {
                kept = true;
                break;
            }
        }
        if (!kept) {
            const bool removed = FileUtils::removeFile(String::UTF16ToUTF8(folder + L"\\" + fileName));
            log_.d(L"%s: the plugin file:%s was deleted because is no longer in the repository folder with result:%d",
                   function, folder + L"\\" + fileName, removed ? 1 : 0);
        }
    }
}

}  // namespace VEQ
