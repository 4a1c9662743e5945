#include "platform/process/ProcessHandles.h"

#include "platform/Platform.h"

namespace VEQ {

ProcessHandle ProcessHandles::OpenProcess(uint32_t pid)
{
    const auto api = Platform::Process();
    return api ? api->OpenProcess(pid) : nullptr;
}

WaitResult ProcessHandles::WaitForSingleObject(ProcessHandle handle, uint32_t timeoutMs)
{
    const auto api = Platform::Process();
    return api ? api->WaitForSingleObject(handle, timeoutMs) : WaitResult::Failed;
}

uint32_t ProcessHandles::GetProcessId(ProcessHandle handle)
{
    const auto api = Platform::Process();
    return api ? api->GetProcessId(handle) : 0;
}

bool ProcessHandles::CloseHandle(ProcessHandle handle)
{
    const auto api = Platform::Process();
    return api && api->CloseHandle(handle);
}

bool ProcessHandles::TerminateProcess(ProcessHandle handle, uint32_t exitCode)
{
    const auto api = Platform::Process();
    return api && api->TerminateProcess(handle, exitCode);
}

bool ProcessHandles::GetExitCodeProcess(ProcessHandle handle, uint32_t& code)
{
    const auto api = Platform::Process();
    return api && api->GetExitCodeProcess(handle, code);
}

}  // namespace VEQ
