#pragma once
// The process handle calls the module makes by name. Each forwards to the IProcessApi installed
// by Platform, so tests can put a double behind them. See IProcessApi for the meaning of each.
//
//     ProcessHandle handle = ProcessHandles::OpenProcess(pid);
//     if (handle != nullptr && ProcessHandles::WaitForSingleObject(handle, 0) != WaitResult::Timeout) { ... }
//     ProcessHandles::CloseHandle(handle);

#include "platform/process/IProcessApi.h"

#include <cstdint>

namespace VEQ {

class ProcessHandles {
public:
    static constexpr uint32_t kInfinite = IProcessApi::kInfinite;
    static constexpr uint32_t kStillActive = IProcessApi::kStillActive;

    static ProcessHandle OpenProcess(uint32_t pid);
    static WaitResult WaitForSingleObject(ProcessHandle handle, uint32_t timeoutMs);
    static uint32_t GetProcessId(ProcessHandle handle);
    static bool CloseHandle(ProcessHandle handle);
    static bool TerminateProcess(ProcessHandle handle, uint32_t exitCode);
    static bool GetExitCodeProcess(ProcessHandle handle, uint32_t& code);
};

}  // namespace VEQ
