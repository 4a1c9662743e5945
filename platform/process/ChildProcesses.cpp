#include "platform/process/ChildProcesses.h"

#include <cerrno>
#include <fcntl.h>
#include <csignal>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace VEQ {
namespace {

// Ended children kept for their exit code once nobody forgot them; a service that starts
// plugins all day must not grow without end.
constexpr size_t kEndedKept = 1024;

uint32_t ExitCodeOf(const siginfo_t& info)
{
    if (info.si_code == CLD_EXITED) {
        return static_cast<uint32_t>(info.si_status);
    }
    return 128u + static_cast<uint32_t>(info.si_status);
}

}  // namespace

ChildProcesses& ChildProcesses::Instance()
{
    static ChildProcesses* instance = new ChildProcesses();  // lives as long as its children may
    return *instance;
}

void ChildProcesses::Adopt(uint32_t pid, int pidfd)
{
    std::lock_guard<std::mutex> lock(mutex_);
    EnsureThread();
    auto& child = children_[pid];
    if (child.pidfd >= 0) {
        close(child.pidfd);  // a forgotten record of an earlier child under this pid
    }
    child = Child{pidfd, std::nullopt, 0, false};
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = pid;
    if (epoll_ >= 0) {
        epoll_ctl(epoll_, EPOLL_CTL_ADD, pidfd, &event);
    }
}

void ChildProcesses::EnsureThread()
{
    if (reaper_.joinable() || stopping_) {
        return;
    }
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (epoll_ < 0 || wake_ < 0) {
        return;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = 0;  // no child has pid 0
    epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &event);
    // Children started before a Shutdown are watched again.
    for (const auto& [pid, child] : children_) {
        if (!child.exitCode) {
            epoll_event watch{};
            watch.events = EPOLLIN;
            watch.data.u64 = pid;
            epoll_ctl(epoll_, EPOLL_CTL_ADD, child.pidfd, &watch);
        }
    }
    reaper_ = std::thread([this] { Reap(); });
}

void ChildProcesses::Reap()
{
    pthread_setname_np(pthread_self(), "veq-reaper");
    // No signal of the service's is for this thread.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    std::vector<epoll_event> events(16);
    for (;;) {
        const int ready = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), -1);
        if (ready < 0 && errno != EINTR) {
            return;
        }
        for (int n = 0; n < ready; ++n) {
            if (events[n].data.u64 == 0) {
                std::lock_guard<std::mutex> lock(mutex_);
                if (stopping_) {
                    return;
                }
                continue;
            }
            Collect(static_cast<uint32_t>(events[n].data.u64));
        }
    }
}

void ChildProcesses::Collect(uint32_t pid)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = children_.find(pid);
    if (found == children_.end() || found->second.exitCode) {
        return;
    }
    siginfo_t info{};
    if (waitid(P_PIDFD, static_cast<id_t>(found->second.pidfd), &info, WEXITED | WNOHANG) != 0 || info.si_pid == 0) {
        if (errno != ECHILD) {
            return;  // not ended after all
        }
        info.si_code = CLD_KILLED;  // reaped elsewhere: the code is lost
        info.si_status = SIGKILL;
    }
    epoll_ctl(epoll_, EPOLL_CTL_DEL, found->second.pidfd, nullptr);
    if (found->second.forgotten) {
        close(found->second.pidfd);
        children_.erase(found);
        return;
    }
    found->second.exitCode = ExitCodeOf(info);
    found->second.endedOrder = ++ended_;
    EvictOldEnded();
}

void ChildProcesses::EvictOldEnded()
{
    size_t endedCount = 0;
    for (const auto& [pid, child] : children_) {
        endedCount += child.exitCode ? 1 : 0;
    }
    while (endedCount > kEndedKept) {
        auto oldest = children_.end();
        for (auto it = children_.begin(); it != children_.end(); ++it) {
            const bool older = oldest == children_.end() || it->second.endedOrder < oldest->second.endedOrder;
            if (it->second.exitCode && older) {
                oldest = it;
            }
        }
        close(oldest->second.pidfd);
        children_.erase(oldest);
        --endedCount;
    }
}

int ChildProcesses::Duplicate(uint32_t pid, std::optional<uint32_t>& exitCode)
{
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = children_.find(pid);
    if (found == children_.end()) {
        return -1;
    }
    exitCode = found->second.exitCode;
    return fcntl(found->second.pidfd, F_DUPFD_CLOEXEC, 0);
}

std::optional<uint32_t> ChildProcesses::ExitCode(uint32_t pid)
{
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = children_.find(pid);
    return found != children_.end() ? found->second.exitCode : std::nullopt;
}

bool ChildProcesses::IsGroupLeader(uint32_t pid)
{
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = children_.find(pid);
    return found != children_.end() && !found->second.exitCode &&
           getpgid(static_cast<pid_t>(pid)) == static_cast<pid_t>(pid);
}

void ChildProcesses::Forget(uint32_t pid)
{
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = children_.find(pid);
    if (found == children_.end()) {
        return;
    }
    if (!found->second.exitCode) {
        found->second.forgotten = true;  // still reaped when it ends, then dropped
        return;
    }
    close(found->second.pidfd);
    children_.erase(found);
}

size_t ChildProcesses::Running()
{
    std::lock_guard<std::mutex> lock(mutex_);
    size_t running = 0;
    for (const auto& [pid, child] : children_) {
        running += child.exitCode ? 0 : 1;
    }
    return running;
}

void ChildProcesses::Shutdown()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            return;
        }
        stopping_ = true;
        if (wake_ >= 0) {
            const uint64_t one = 1;
            (void)!write(wake_, &one, sizeof one);
        }
    }
    if (reaper_.joinable()) {
        reaper_.join();
    }
    // The next child started brings the thread back.
    std::lock_guard<std::mutex> lock(mutex_);
    for (int* fd : {&epoll_, &wake_}) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    }
    stopping_ = false;
}

}  // namespace VEQ
