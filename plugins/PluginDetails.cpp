#include "plugins/PluginDetails.h"

#include "platform/device/DeviceInfoProvider.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/utility.h"
#include "platform/log/Log.h"
#include "platform/string/String.h"

namespace VEQ {
namespace {

// The decisions here are part of discovery and are logged with it.
Log log(L"PluginDetailsGenerator.log", Log::kDebug);

constexpr const wchar_t* kX64 = L"x64";
constexpr const wchar_t* kArm64 = L"ARM64";
constexpr uint32_t kArm64RuntimeRelease = 533320;
constexpr const wchar_t* kHostsFolder = L"\\drivers\\Tavrin\\VEQ\\Service\\Hosts\\";
constexpr const wchar_t* kEmbeddedFolder = L"\\drivers\\tavrin\\VEQ\\EmbeddedPlugins\\";
constexpr const wchar_t* kAddOnFolder = L"\\drivers\\tavrin\\VEQ\\AddOnPlugins\\";

}  // namespace

const std::wstring PluginDetails::pluginRepositoryPath_ = L"\\Tavrin\\Veq\\plugin-repository\\";

PluginDetails::PluginDetails(PluginSourceType sourceTypeIn, const PluginManifest& manifestIn)
    : sourceType(sourceTypeIn), manifest(manifestIn), platform(kX64)
{
    // In this order: the platform depends on the mode, the entry path on both.
    setMode();
    setPlatform();
    setDirectory();
}

std::wstring PluginDetails::getSourceTypeAsString() const
{
    switch (sourceType) {
    case PluginSourceType::Embedded:
        return L"Embedded";
    case PluginSourceType::Downloaded:
        return L"Downloaded";
    }
    return L"";
}

PluginSourceType PluginDetails::getSourceTypeAsEnum(const std::string& text)
{
    if (String::CaseInsesitiveEqual(text, std::string("Embedded"))) {
        return PluginSourceType::Embedded;
    }
    if (String::CaseInsesitiveEqual(text, std::string("Downloaded"))) {
        return PluginSourceType::Downloaded;
    }
    return PluginSourceType::Embedded;
}

std::wstring PluginDetails::getDirectory() const
{
    return FileSystem::getDirectoryName(pluginFullPath);
}

void PluginDetails::setMode()
{
    bool user = false;
    bool system = false;
    manifest.GetPluginMode(user, system);
    if (user && system) {
        mode = PluginMode::Both;
    } else if (user) {
        mode = PluginMode::User;
    } else if (system) {
        mode = PluginMode::System;
    } else {
        mode = PluginMode::None;
    }
}

void PluginDetails::setPlatform()
{
    const wchar_t* function = L"VEQ::PluginDetails::setPlatform";
    if (DeviceInfoProvider::GetInstance()->GetProcessorArchitecture() != DeviceInfoProvider::kArchitectureArm64) {
        return;
    }
    if (utility::CheckDotNetFrameworkVersion() < kArm64RuntimeRelease) {
        log.d(L"%s: Dotnet framework is not >= 4.8.1. ARM plugins will not run", function);
        return;
    }
    if (!isPluginHostsPathPresent(kArm64) || !IsARM64PluginPathPresent(mode)) {
        return;
    }
    platform = kArm64;
    log.d(L"%s: Platform is ARM64", function);
}

bool PluginDetails::isPluginHostsPathPresent(const std::wstring& platformName) const
{
    const bool present = FileSystem::directoryExists(FileSystem::GetSystemFolderPath() + kHostsFolder + platformName);
    log.d(L"%s: Host directory present for arm %d", L"VEQ::PluginDetails::isPluginHostsPathPresent", present ? 1 : 0);
    return present;
}

bool PluginDetails::IsARM64PluginPathPresent(const PluginMode& pluginMode) const
{
    bool present = false;
    if (pluginMode == PluginMode::Both) {
        present = !manifest.getUser().getEntryPointPathARM64().empty() ||
                  !manifest.getSystem().getEntryPointPathARM64().empty();
    } else if (pluginMode == PluginMode::System) {
        present = !manifest.getSystem().getEntryPointPathARM64().empty();
    } else {
        present = !manifest.getUser().getEntryPointPathARM64().empty();
    }
    log.d(L"%s: Does path exist %d", L"VEQ::PluginDetails::IsARM64PluginPathPresent", present ? 1 : 0);
    return present;
}

void PluginDetails::setDirectory()
{
    const wchar_t* function = L"VEQ::PluginDetails::setDirectory";
    std::wstring root;
    switch (sourceType) {
    case PluginSourceType::Embedded:
        root = FileSystem::GetSystemFolderPath() + kEmbeddedFolder + manifest.getPluginId();
        if (!FileSystem::directoryExists(root)) {
            root = FileSystem::GetSystemFolderPath() + kAddOnFolder + manifest.getPluginId();
        }
        break;
    case PluginSourceType::Downloaded:
        root = FileSystem::GetCommonApplicationDataPath() + pluginRepositoryPath_ + manifest.getPluginId();
        break;
    }
    // Both and None run the system block.
    const bool userBlock = mode == PluginMode::User;
    const PluginExecutionDetails block = userBlock ? manifest.getUser() : manifest.getSystem();
    std::string entry;
    if (platform == kArm64) {
        entry = block.getEntryPointPathARM64();
        log.d(userBlock ? L"%s: User mode arm plugin" : L"%s: System mode arm plugin", function);
    } else {
        entry = block.getEntryPointPath64();
    }
    pluginFullPath = root + String::UTF8ToUTF16(entry);
}

}  // namespace VEQ
