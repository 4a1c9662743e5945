#pragma once
// Takes threads that their creator cannot join where it stands (for instance a thread that stops
// an endpoint on behalf of the worker that is itself ending) and joins and frees them later.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

namespace VEQ {

class ThreadGarbageCollector {
public:
    static ThreadGarbageCollector* GetInstance();

    // Takes ownership of thread (allocated with new) and returns at once. The thread is joined and
    // deleted on the collector's own thread, in the order dumped. A null pointer is ignored.
    void Dump(std::thread* thread);

    // Blocks until every thread dumped before the call has been joined. Not for dumped threads themselves.
    void JoinAll();
    // Joins the reaper after it has joined everything dumped, for a process that ends with no
    // thread left. Later dumps are joined on the caller.
    void Shutdown();

    ThreadGarbageCollector(const ThreadGarbageCollector&) = delete;
    ThreadGarbageCollector& operator=(const ThreadGarbageCollector&) = delete;

private:
    class ExitGuard;

    ThreadGarbageCollector() = default;
    ~ThreadGarbageCollector();

    void Reap();
    static void JoinAndDelete(std::thread* thread);

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::thread*> pending_;
    uint64_t dumped_ = 0;
    uint64_t joined_ = 0;
    bool stopping_ = false;
    std::thread reaper_;
};

}  // namespace VEQ
