#pragma once
// Handles on other processes, for waiting on them and asking after them. A handle stays bound
// to the process it was opened for, even after that process ended and its id was reused, and it
// answers for that process until it is closed. Every handle that OpenProcess gives out must be
// closed with CloseHandle of the same implementation.

#include <cstdint>

namespace VEQ {

// What an implementation keeps for one open handle. Callers only pass the pointer around.
struct ProcessHandleData {
    virtual ~ProcessHandleData() = default;
};
using ProcessHandle = ProcessHandleData*;  // null: no handle

enum class WaitResult {
    Signaled,  // the process has ended
    Timeout,   // it still runs after the timeout
    Failed,    // no valid handle, or the wait itself failed
};

class IProcessApi {
public:
    // Waits without a time limit.
    static constexpr uint32_t kInfinite = 0xFFFFFFFF;
    // GetExitCodeProcess's answer for a process that still runs.
    static constexpr uint32_t kStillActive = 259;

    virtual ~IProcessApi() = default;

    // Null when pid is 0 or names no process.
    virtual ProcessHandle OpenProcess(uint32_t pid) = 0;
    // A timeout of 0 only looks.
    virtual WaitResult WaitForSingleObject(ProcessHandle handle, uint32_t timeoutMs) = 0;
    // The id the handle was opened for; 0 for a null handle.
    virtual uint32_t GetProcessId(ProcessHandle handle) = 0;
    virtual bool CloseHandle(ProcessHandle handle) = 0;
    // Ends the process; its exit code is then reported as exitCode.
    virtual bool TerminateProcess(ProcessHandle handle, uint32_t exitCode) = 0;
    // kStillActive while the process runs. False when the process ended and its exit code cannot be
    // known, which is the case for a process that is neither our child nor ended by TerminateProcess.
    virtual bool GetExitCodeProcess(ProcessHandle handle, uint32_t& code) = 0;
};

}  // namespace VEQ
