#include "platform/util/ThreadGarbageCollector.h"

#include <system_error>

namespace VEQ {

// The collector itself is never destroyed, so a Dump from another object's destructor late in
// process exit still finds it. What must happen at exit (joining the reaper and every dumped
// thread, so none is cut off half way) is done by this guard, a function-local static created
// right after the collector and therefore destroyed before anything the dumped threads may use.
class ThreadGarbageCollector::ExitGuard {
public:
    explicit ExitGuard(ThreadGarbageCollector* collector) : collector_(collector) {}
    ~ExitGuard() { collector_->Shutdown(); }
    ExitGuard(const ExitGuard&) = delete;
    ExitGuard& operator=(const ExitGuard&) = delete;

private:
    ThreadGarbageCollector* collector_;
};

ThreadGarbageCollector* ThreadGarbageCollector::GetInstance()
{
    static ThreadGarbageCollector* const instance = new ThreadGarbageCollector();
    static ExitGuard guard(instance);
    return instance;
}

ThreadGarbageCollector::~ThreadGarbageCollector()
{
    Shutdown();
}

void ThreadGarbageCollector::Dump(std::thread* thread)
{
    if (thread == nullptr) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!stopping_) {
            try {
                if (!reaper_.joinable()) {
                    reaper_ = std::thread(&ThreadGarbageCollector::Reap, this);
                }
                pending_.push_back(thread);
                ++dumped_;
                changed_.notify_all();
                return;
            } catch (const std::exception&) {
                // No reaper and no room to queue: joining here is slower but still correct.
            }
        }
    }
    JoinAndDelete(thread);
}

void ThreadGarbageCollector::JoinAll()
{
    std::unique_lock<std::mutex> lock(mutex_);
    const uint64_t target = dumped_;
    changed_.wait(lock, [&] { return joined_ >= target; });
}

void ThreadGarbageCollector::Shutdown()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (reaper_.joinable() && reaper_.get_id() != std::this_thread::get_id()) {
        reaper_.join();
    }
}

void ThreadGarbageCollector::Reap()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || !pending_.empty(); });
        if (pending_.empty()) {
            return;  // stopping, and nothing left to join
        }
        std::thread* thread = pending_.front();
        pending_.pop_front();
        lock.unlock();
        JoinAndDelete(thread);
        lock.lock();
        ++joined_;
        changed_.notify_all();
    }
}

void ThreadGarbageCollector::JoinAndDelete(std::thread* thread)
{
    if (thread->joinable()) {
        if (thread->get_id() == std::this_thread::get_id()) {
            thread->detach();  // a thread that hands itself in late at exit cannot wait for itself
        } else {
            try {
                thread->join();
            } catch (const std::system_error&) {
                thread->detach();
            }
        }
    }
    delete thread;
}

}  // namespace VEQ
