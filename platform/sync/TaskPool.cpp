#include "platform/sync/TaskPool.h"

#include <algorithm>

namespace VEQ {

TaskPool& TaskPool::Shared()
{
    static TaskPool* pool = new TaskPool();  // left to the OS at exit: tasks may still run then
    return *pool;
}

TaskPool::TaskPool(std::chrono::milliseconds idleLifetime) : idleLifetime_(idleLifetime) {}

TaskPool::~TaskPool()
{
    Drain();
}

void TaskPool::Post(std::function<void()> job)
{
    std::unique_lock<std::mutex> lock(mutex_);
    ReapFinished();
    jobs_.push_back(std::move(job));
    if (idle_ >= jobs_.size()) {
        // Woken after the unlock, the idle thread does not have to wait for the mutex again.
        lock.unlock();
        jobReady_.notify_one();
        return;
    }
    ++live_;
    threads_.emplace_back(&TaskPool::Run, this);
}

void TaskPool::Run()
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        if (jobs_.empty()) {
            ++idle_;
            const bool woken = jobReady_.wait_for(lock, idleLifetime_, [this] { return !jobs_.empty() || draining_; });
            --idle_;
            if (!woken || jobs_.empty()) {
                break;
            }
        }
        auto job = std::move(jobs_.front());
        jobs_.pop_front();
        lock.unlock();
        job();
        lock.lock();
    }
    finished_.push_back(std::this_thread::get_id());
    --live_;
    threadEnded_.notify_all();
}

// Joins threads that have left Run; called with mutex_ held, so it never waits long.
void TaskPool::ReapFinished()
{
    for (auto id : finished_) {
        auto it = std::find_if(threads_.begin(), threads_.end(), [id](const std::thread& t) { return t.get_id() == id; });
        if (it != threads_.end()) {
            it->join();
            threads_.erase(it);
        }
    }
    finished_.clear();
}

void TaskPool::Drain()
{
    std::unique_lock<std::mutex> lock(mutex_);
    draining_ = true;
    jobReady_.notify_all();
    threadEnded_.wait(lock, [this] { return live_ == 0; });
    ReapFinished();
    draining_ = false;
}

size_t TaskPool::ThreadCount()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return live_;
}

}  // namespace VEQ
