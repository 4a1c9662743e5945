#pragma once
// Who is running: the ids of this process and of the calling thread, as logs and lock files name them.

#include <cstdint>

namespace VEQ {

class CurrentProcess {
public:
    static uint32_t GetCurrentProcessId();
    static unsigned long GetCurrentThreadId();
    static uint32_t GetUserId();
    // The user a process runs as; false when there is no such process.
    static bool GetProcessUserId(uint32_t pid, uint32_t& uid);
    // For a program that leads its own process group: asks everything it started to end
    // (SIGTERM to the group), leaving itself alone.
    static void EndProcessGroup();
};

}  // namespace VEQ
