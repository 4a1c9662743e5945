#include "platform/process/CurrentProcess.h"

#include <csignal>
#include <string>
#include <sys/stat.h>
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

uint32_t CurrentProcess::GetUserId()
{
    return static_cast<uint32_t>(::geteuid());
}

void CurrentProcess::EndProcessGroup()
{
    if (::getpgrp() != ::getpid()) {
        return;  // not a group of its own: the others in it are not ours to end
    }
    std::signal(SIGTERM, SIG_IGN);
    ::kill(0, SIGTERM);
}

bool CurrentProcess::GetProcessUserId(uint32_t pid, uint32_t& uid)
{
    struct stat status {};
    if (pid == 0 || ::stat(("/proc/" + std::to_string(pid)).c_str(), &status) != 0) {
        return false;
    }
    uid = static_cast<uint32_t>(status.st_uid);
    return true;
}

}  // namespace VEQ
