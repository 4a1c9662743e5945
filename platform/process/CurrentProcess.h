#pragma once
// Who is running: the ids of this process and of the calling thread, as logs and lock files name them.

#include <cstdint>

namespace VEQ {

class CurrentProcess {
public:
    static uint32_t GetCurrentProcessId();
    static unsigned long GetCurrentThreadId();
};

}  // namespace VEQ
