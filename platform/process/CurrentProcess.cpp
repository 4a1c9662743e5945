#include "platform/process/CurrentProcess.h"

#include <unistd.h>

namespace VEQ {

uint32_t CurrentProcess::GetCurrentProcessId()
{
    return static_cast<uint32_t>(::getpid());
}

unsigned long CurrentProcess::GetCurrentThreadId()
{
    return static_cast<unsigned long>(::gettid());
}

}  // namespace VEQ
