#include "platform/process/LinuxProcessApi.h"

#include "platform/process/ChildProcesses.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <mutex>
#include <optional>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace VEQ {
namespace {

struct PidfdHandle : ProcessHandleData {
    PidfdHandle(int fd, uint32_t id) : pidfd(fd), pid(id) {}
    ~PidfdHandle() override { close(pidfd); }

    const int pidfd;
    const uint32_t pid;
    std::mutex mutex;                      // guards the two codes
    std::optional<uint32_t> exitCode;      // known once the process has ended
    std::optional<uint32_t> terminateCode;  // asked for by TerminateProcess
};

PidfdHandle* Own(ProcessHandle handle)
{
    return dynamic_cast<PidfdHandle*>(handle);
}

WaitResult Poll(int pidfd, uint32_t timeoutMs)
{
    using Clock = std::chrono::steady_clock;
    const bool infinite = timeoutMs == IProcessApi::kInfinite;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int pollMs = -1;
        if (!infinite) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            pollMs = static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
        }
        pollfd entry{pidfd, POLLIN, 0};
        const int ready = poll(&entry, 1, pollMs);
        if (ready > 0) {
            return (entry.revents & POLLIN) != 0 ? WaitResult::Signaled : WaitResult::Failed;
        }
        if (ready == 0 && pollMs == 0) {
            return WaitResult::Timeout;
        }
        if (ready < 0 && errno != EINTR) {
            return WaitResult::Failed;
        }
        // Interrupted, or woken a little early: wait for what is left.
    }
}

}  // namespace

ProcessHandle LinuxProcessApi::OpenProcess(uint32_t pid)
{
    if (pid == 0 || pid > static_cast<uint32_t>(INT_MAX)) {
        return nullptr;
    }
    // A child of ours is reached through the pidfd held since its start, even once reaped.
    std::optional<uint32_t> childExit;
    const int childFd = ChildProcesses::Instance().Duplicate(pid, childExit);
    if (childFd >= 0) {
        auto* handle = new PidfdHandle(childFd, pid);
        handle->exitCode = childExit;
        return handle;
    }
    const long fd = syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0);
    if (fd < 0) {
        return nullptr;
    }
    return new PidfdHandle(static_cast<int>(fd), pid);
}

WaitResult LinuxProcessApi::WaitForSingleObject(ProcessHandle handle, uint32_t timeoutMs)
{
    PidfdHandle* own = Own(handle);
    return own != nullptr ? Poll(own->pidfd, timeoutMs) : WaitResult::Failed;
}

uint32_t LinuxProcessApi::GetProcessId(ProcessHandle handle)
{
    const PidfdHandle* own = Own(handle);
    return own != nullptr ? own->pid : 0;
}

bool LinuxProcessApi::CloseHandle(ProcessHandle handle)
{
    PidfdHandle* own = Own(handle);
    if (own == nullptr) {
        return false;
    }
    delete own;
    return true;
}

bool LinuxProcessApi::TerminateProcess(ProcessHandle handle, uint32_t exitCode)
{
    PidfdHandle* own = Own(handle);
    if (own == nullptr) {
        return false;
    }
    std::lock_guard<std::mutex> lock(own->mutex);
    // A process that has already ended keeps the exit code it ended with.
    if (own->exitCode || Poll(own->pidfd, 0) != WaitResult::Timeout) {
        return false;
    }
    // A program the service started leads a process group of its own (ProcessLauncher); what
    // it started goes with it. Its group cannot be anyone else's while it still runs.
    if (ChildProcesses::Instance().IsGroupLeader(own->pid)) {
        kill(-static_cast<pid_t>(own->pid), SIGKILL);
    }
    if (syscall(SYS_pidfd_send_signal, own->pidfd, SIGKILL, nullptr, 0) != 0) {
        return false;
    }
    own->terminateCode = exitCode;
    return true;
}

bool LinuxProcessApi::GetExitCodeProcess(ProcessHandle handle, uint32_t& code)
{
    PidfdHandle* own = Own(handle);
    if (own == nullptr) {
        return false;
    }
    std::lock_guard<std::mutex> lock(own->mutex);
    if (!own->exitCode) {
        const WaitResult state = Poll(own->pidfd, 0);
        if (state == WaitResult::Timeout) {
            code = kStillActive;
            return true;
        }
        if (state != WaitResult::Signaled) {
            return false;
        }
        siginfo_t info{};
        // WNOWAIT leaves the child for its owner to reap.
        if (waitid(P_PIDFD, static_cast<id_t>(own->pidfd), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
            info.si_pid != 0) {
            if (info.si_code == CLD_EXITED) {
                own->exitCode = static_cast<uint32_t>(info.si_status);
            } else if (info.si_status == SIGKILL && own->terminateCode) {
                own->exitCode = own->terminateCode;
            } else {
                own->exitCode = 128u + static_cast<uint32_t>(info.si_status);
            }
        } else if (own->terminateCode) {
            own->exitCode = own->terminateCode;
        } else if (const auto reaped = ChildProcesses::Instance().ExitCode(own->pid)) {
            own->exitCode = reaped;  // our child, reaped since the handle was opened
        } else {
            return false;
        }
    }
    code = *own->exitCode;
    return true;
}

}  // namespace VEQ
