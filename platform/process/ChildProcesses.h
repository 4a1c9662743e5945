#pragma once
// The children the service started, and their reaping. Each child is held by its pidfd from its
// start; one thread waits on all of them and reaps each as it ends, so no zombie stays and no
// recycled pid is ever taken for one of ours: until the child is forgotten, handles opened on
// its pid are bound to it, and its exit code stays known after it was reaped.

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

namespace VEQ {

class ChildProcesses {
public:
    static ChildProcesses& Instance();

    // Takes a child just started into care; the pidfd is ours from now on.
    void Adopt(uint32_t pid, int pidfd);
    // A new pidfd on our child pid (the caller closes it), or -1 when pid is no child of ours.
    // exitCode is set once the child has ended and been reaped.
    int Duplicate(uint32_t pid, std::optional<uint32_t>& exitCode);
    std::optional<uint32_t> ExitCode(uint32_t pid);
    // Whether pid is a child of ours that still runs: it leads the session and process group
    // the launcher gave it.
    bool IsGroupLeader(uint32_t pid);
    // The child's pid may be given to another process after this: handles opened on it then
    // reach whatever runs under it.
    void Forget(uint32_t pid);
    // How many children run still (started and not yet reaped).
    size_t Running();

    // Stops the reaping thread, for a process that ends with no thread left. Children that end
    // after this stay zombies until the next child is started, which brings the thread back.
    void Shutdown();

    ChildProcesses(const ChildProcesses&) = delete;
    ChildProcesses& operator=(const ChildProcesses&) = delete;

private:
    struct Child {
        int pidfd = -1;
        std::optional<uint32_t> exitCode;
        uint64_t endedOrder = 0;
        bool forgotten = false;
    };

    ChildProcesses() = default;
    ~ChildProcesses() = default;

    void EnsureThread();  // with mutex_ held
    void Reap();
    void Collect(uint32_t pid);
    void EvictOldEnded();  // with mutex_ held

    std::mutex mutex_;  // guards everything below
    std::map<uint32_t, Child> children_;
    uint64_t ended_ = 0;
    int epoll_ = -1;
    int wake_ = -1;
    bool stopping_ = false;
    std::thread reaper_;
};

}  // namespace VEQ
