#include "plugins/PluginHostProcess.h"

#include "platform/crypto/CertificateValidationWrapper.h"
#include "platform/device/DeveloperSettings.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/utility.h"
#include "platform/process/CurrentProcess.h"
#include "platform/process/ProcessHandles.h"
#include "platform/process/ProcessWrap.h"
#include "platform/string/String.h"

#include <cerrno>
#include <exception>

namespace VEQ {
namespace {

constexpr uint32_t kRequiredRuntimeRelease = 528040;
constexpr uint32_t kKillGraceMs = 2000;
constexpr const wchar_t* kSourceHosts = L"\\drivers\\Tavrin\\VEQ\\Service\\Hosts\\";
constexpr const wchar_t* kDestinationHosts = L"\\Tavrin\\Veq\\Hosts\\";
constexpr const wchar_t* kHostExecutable = L"\\VEQPluginHost.exe";
constexpr const wchar_t* kUtilities = L"Utilities";

}  // namespace

PluginHostProcess::PluginHostProcess(const PluginDetails& pluginDetails, std::wstring* socketId,
                                     ElevationType elevationType)
    : pluginDetails_(pluginDetails), socketId_(socketId), elevationType_(elevationType)
{
    if (utility::InitLog(log, L"PluginInstance.log", 4)) {
        log.d(L"%s: Init", L"VEQ::PluginHostProcess::PluginHostProcess");
    }
}

PluginHostProcess::PluginHostProcess(const PluginHostProcess& other)
    : processId_(other.processId_),
      pluginDetails_(other.pluginDetails_),
      socketId_(other.socketId_),
      elevationType_(other.elevationType_),
      hostExePath_(other.hostExePath_),
      hostConfigPath_(other.hostConfigPath_),
      userSessionId_(other.userSessionId_)
{
    utility::InitLog(log, L"PluginInstance.log", 4);
}

PluginHostProcess::~PluginHostProcess()
{
    if (!hostExePath_.empty()) {
        FileSystem::deleteDirectoryOrFile(hostExePath_, false);
    }
    if (!hostConfigPath_.empty()) {
        FileSystem::deleteDirectoryOrFile(hostConfigPath_, false);
    }
    // Nobody asks after this process by its id any more.
    if (processId_ != 0) {
        ProcessWrap::ForgetProcess(static_cast<uint32_t>(processId_));
    }
}

void PluginHostProcess::Start()
{
    const wchar_t* function = L"VEQ::PluginHostProcess::Start";
    try {
        if (utility::CheckDotNetFrameworkVersion() < kRequiredRuntimeRelease) {
            log.e(L"%s: Required .net framework is not installed. Not launching pluginhost process", function);
            return;
        }
        const std::wstring& platform = pluginDetails_.getPlatform();
        const std::wstring sourceFolder = FileSystem::GetSystemFolderPath() + kSourceHosts + platform;
        const std::wstring destinationFolder = FileSystem::GetCommonApplicationDataPath() + kDestinationHosts + platform;
        const std::wstring hostSource = sourceFolder + kHostExecutable;
        const std::wstring name = String::UTF8ToUTF16(pluginDetails_.getPluginManifest().getPluginName());
        hostExePath_ = destinationFolder + L"\\" + name + L".exe";
        hostConfigPath_ = destinationFolder + L"\\" + name + L".exe.config";

        if (!FileSystem::directoryExists(destinationFolder) && !FileSystem::createDirectory(destinationFolder, true)) {
            log.e(L"%s: failed to create plugin host directory", function);
        }
        if (!FileSystem::directoryExists(sourceFolder)) {
            log.e(L"%s: service/Hosts directory is missing", function);
            return;
        }
        CopyPluginConfiguration(name);
        CopyRuntimeFiles(sourceFolder, destinationFolder, name);
        log.e(L"%s:copying utilities", function);
        FileSystem::copyDir(sourceFolder + L"\\" + kUtilities, destinationFolder + L"\\" + kUtilities);
        if (!FileSystem::fileExists(hostExePath_) && !FileSystem::copyFile(hostSource, hostExePath_)) {
            log.e(L"%s: failed to create duplicate copy of pluginhost", function);
            return;
        }
        if (!IsPluginExeValid(hostExePath_)) {
            log.e(L"%s:  exits. Invalid plugin host file for pluignid %s", function,
                  pluginDetails_.getPluginManifest().getPluginId());
        } else {
            const std::wstring commandLine = hostExePath_ + L" " + *socketId_ + L" " +
                                             std::to_wstring(CurrentProcess::GetCurrentProcessId()) + L" " + name;
            Launch(commandLine);
        }
        log.d(L"%s: exits. ProcessId = %d", function, processId_);
    } catch (const std::exception& error) {
        log.e(L"%s: exception. %s", function, error.what());
    }
}

void PluginHostProcess::CopyPluginConfiguration(const std::wstring& name)
{
    const std::wstring pluginFolder = pluginDetails_.getDirectory();
    const bool copies = pluginDetails_.getSourceType() == PluginSourceType::Downloaded ||
                        (pluginDetails_.getSourceType() == PluginSourceType::Embedded &&
                         String::CaseInsesitiveFind(pluginFolder, L"AddOnPlugins") != std::wstring::npos);
    if (!copies) {
        return;
    }
    const wchar_t* function = L"VEQ::PluginHostProcess::Start";
    const std::wstring exeConfig = pluginFolder + L"\\" + name + L".exe.config";
    const std::wstring dllConfig = pluginFolder + L"\\" + name + L".dll.config";
    if (FileSystem::fileExists(exeConfig)) {
        log.e(L"%s: Copying exe.config ", function);
        FileSystem::copyFile(exeConfig, hostConfigPath_);
    } else if (FileSystem::fileExists(dllConfig)) {
        log.e(L"%s: Copying exe.config ", function);
        FileSystem::copyFile(dllConfig, hostConfigPath_);
    }
}

void PluginHostProcess::CopyRuntimeFiles(const std::wstring& sourceFolder, const std::wstring& destinationFolder,
                                         const std::wstring& name)
{
    std::vector<std::wstring> files;
    FileSystem::GetFileList(sourceFolder + L"\\*.*", files);
    const std::wstring ownConfig = name + L".exe.config";
    for (const std::wstring& file : files) {
        // The generic host configuration stays out of the shared folder.
        if (file.find(L"exe.config") != std::wstring::npos && file != ownConfig) {
            continue;
        }
        if (!FileSystem::fileExists(destinationFolder + L"\\" + file)) {
            FileSystem::copyFile(sourceFolder + L"\\" + file, destinationFolder + L"\\" + file);
        }
    }
}

void PluginHostProcess::Launch(const std::wstring& commandLine)
{
    const wchar_t* function = L"VEQ::PluginHostProcess::Start";
    const std::wstring version = String::UTF8ToUTF16(pluginDetails_.getPluginManifest().getPluginVersion());
    uint32_t pid = 0;
    if (elevationType_ == ElevationType::User) {
        log.d(L"%s: Creating process in user mode: (%s) for plugin version:%s", function, commandLine, version);
        if (ProcessWrap::CreateProcessAsUserMode(commandLine, L"", true, &pid) != 0) {
            userSessionId_ = ProcessWrap::GetCurrentSessionId();
        } else {
            log.e(L"%s: ProcessWrap::CreateProcessAsUserMode returns false", function);
        }
        log.d(L"%s: User Mode process ID and UserID %d %d", function, pid, userSessionId_);
    } else {
        log.d(L"%s: Creating process in system mode: (%s) for plugin version:%s", function, commandLine, version);
        ProcessWrap::LaunchApplication(commandLine, L"", false, 0, &pid, nullptr);
        log.d(L"%s: System Mode process ID %d", function, pid);
    }
    if (pid == 0) {
        log.e(L"%s: exits. processId is 0", function);
        return;
    }
    processId_ = static_cast<int32_t>(pid);
}

bool PluginHostProcess::IsPluginExeValid(std::wstring path)
{
    const wchar_t* function = L"VEQ::PluginHostProcess::IsPluginExeValid";
    log.d(L"%s: init", function);
    const bool valid =
        DeveloperSettings::GetInstance()->IsSkipHostSignatureCheck() || CertificateValidationWrapper::IsFileValid(path);
    log.d(L"%s: exits with %d", function, valid ? 1 : 0);
    return valid;
}

bool PluginHostProcess::IsRunning()
{
    const ProcessHandle handle = ProcessHandles::OpenProcess(static_cast<uint32_t>(processId_));
    const bool running = ProcessHandles::WaitForSingleObject(handle, 0) == WaitResult::Timeout;
    ProcessHandles::CloseHandle(handle);
    return running;
}

void PluginHostProcess::Kill()
{
    const wchar_t* function = L"VEQ::PluginHostProcess::Kill";
    log.d(L"%s: init", function);
    if (processId_ == 0) {
        log.e(L"%s: processId_ is 0", function);
        return;
    }
    const ProcessHandle handle = ProcessHandles::OpenProcess(static_cast<uint32_t>(processId_));
    if (handle != nullptr) {
        switch (ProcessHandles::WaitForSingleObject(handle, kKillGraceMs)) {
        case WaitResult::Timeout:
            log.e(L"%s: WaitForSingleObject() returned WAIT_TIMEOUT for processID = %d", function, processId_);
            if (ProcessHandles::TerminateProcess(handle, 0)) {
                log.d(L"%s: TerminateProcess succeeded for processID = %d", function, processId_);
            } else {
                log.e(L"%s: TerminateProcess failed for processID = %d with error code %d", function, processId_, errno);
            }
            break;
        case WaitResult::Signaled: {
            uint32_t exitCode = 0xFFFFFFFF;
            ProcessHandles::GetExitCodeProcess(handle, exitCode);
            if (exitCode != 0) {
                log.e(L"%s: WaitForSingleObject() returned WAIT_OBJECT_0 for processID = %d but GetExitCodeProcess "
                      L"returned %d exitcode.",
                      function, processId_, exitCode);
                ProcessHandles::TerminateProcess(handle, 0);  // fails on a process that has ended
            }
            break;
        }
        case WaitResult::Failed:
            log.e(L"%s: ERROR: WaitForSingleObject() for processID = %d", function, processId_);
            ProcessHandles::TerminateProcess(handle, 0);
            break;
        }
        ProcessHandles::CloseHandle(handle);
    }
    log.d(L"%s: Exit", function);
}

}  // namespace VEQ
