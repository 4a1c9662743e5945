#include "platform/process/ProcessWrap.h"

#include "platform/Platform.h"
#include "platform/fs/PathMapper.h"
#include "platform/log/Log.h"
#include "platform/process/ChildProcesses.h"
#include "platform/process/ProcessHandles.h"
#include "platform/process/ProcessLauncher.h"
#include "platform/session/ISessionSource.h"
#include "platform/string/String.h"

#include <sys/stat.h>
#include <unistd.h>

namespace VEQ {
namespace {

// The words of the command line, the program's path on disk.
std::vector<std::string> Words(const std::wstring& commandLine)
{
    std::vector<std::string> words = ProcessLauncher::SplitCommandLine(String::UTF16ToUTF8(commandLine));
    if (!words.empty()) {
        words.front() = PathMapper::ToNativeUtf8(String::UTF8ToUTF16(words.front()));
    }
    return words;
}

}  // namespace

bool ProcessWrap::LaunchApplication(const std::wstring& commandLine, const std::wstring& workingDirectory,
                                    bool waitForExit, uint32_t waitMs, uint32_t* pid, uint32_t* exitCode)
{
    uint32_t started = 0;
    std::string error;
    if (pid != nullptr) {
        *pid = 0;
    }
    if (!ProcessLauncher::Launch(Words(commandLine), String::UTF16ToUTF8(workingDirectory), std::nullopt, started,
                                 error)) {
        g_log.e(L"%s: %s", L"VEQ::ProcessWrap::LaunchApplication", error);
        return false;
    }
    if (pid != nullptr) {
        *pid = started;
    }
    if (waitForExit) {
        const ProcessHandle handle = ProcessHandles::OpenProcess(started);
        if (ProcessHandles::WaitForSingleObject(handle, waitMs) == WaitResult::Signaled && exitCode != nullptr) {
            ProcessHandles::GetExitCodeProcess(handle, *exitCode);
        }
        ProcessHandles::CloseHandle(handle);
    }
    return true;
}

int ProcessWrap::CreateProcessAsUserMode(const std::wstring& commandLine, const std::wstring& workingDirectory,
                                         bool /*hideWindow*/, uint32_t* pid)
{
    const wchar_t* function = L"VEQ::ProcessWrap::CreateProcessAsUserMode";
    if (pid != nullptr) {
        *pid = 0;
    }
    ActiveSession session;
    const auto sessions = Platform::Sessions();
    if (!sessions || !sessions->GetActiveSession(session)) {
        g_log.e(L"%s: nobody is logged in", function);
        return 0;
    }
    uint32_t started = 0;
    std::string error;
    if (!ProcessLauncher::Launch(Words(commandLine), String::UTF16ToUTF8(workingDirectory), session.uid, started,
                                 error)) {
        g_log.e(L"%s: %s", function, error);
        return 0;
    }
    if (pid != nullptr) {
        *pid = started;
    }
    return 1;
}

uint32_t ProcessWrap::GetCurrentSessionId()
{
    ActiveSession session;
    const auto sessions = Platform::Sessions();
    if (!sessions || !sessions->GetActiveSession(session)) {
        return ISessionSource::kNoSession;
    }
    return session.sessionId;
}

bool ProcessWrap::IsSystemProcess()
{
    if (geteuid() == 0) {
        return true;
    }
    struct stat status {};
    const std::string store = String::UTF16ToUTF8(Platform::Paths().registryRoot);
    return !store.empty() && stat(store.c_str(), &status) == 0 && status.st_uid == geteuid();
}

void ProcessWrap::ForgetProcess(uint32_t pid)
{
    ChildProcesses::Instance().Forget(pid);
}

}  // namespace VEQ
