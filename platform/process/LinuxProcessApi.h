#pragma once
// Process handles on pidfds. A pidfd stays bound to its process after that process has ended and
// been reaped, and it becomes readable when the process ends, so a wait is a poll on it.

#include "platform/process/IProcessApi.h"

namespace VEQ {

class LinuxProcessApi : public IProcessApi {
public:
    ProcessHandle OpenProcess(uint32_t pid) override;
    WaitResult WaitForSingleObject(ProcessHandle handle, uint32_t timeoutMs) override;
    uint32_t GetProcessId(ProcessHandle handle) override;
    bool CloseHandle(ProcessHandle handle) override;
    // Sends SIGKILL. Linux has no exit code to give a killed process, so the handle remembers
    // exitCode and reports it once the process is gone.
    bool TerminateProcess(ProcessHandle handle, uint32_t exitCode) override;
    // A child's exit status is read without reaping it (the owner reaps), and remembered by the
    // handle for after the owner has reaped. A death by a signal other than our own
    // TerminateProcess reads as 128 + the signal number, as a shell reports it.
    bool GetExitCodeProcess(ProcessHandle handle, uint32_t& code) override;
};

}  // namespace VEQ
