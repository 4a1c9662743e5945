#pragma once
// Threads for asynchronous tasks that must start at once: a task never waits for another to
// finish, so a pool thread is reused when one is idle and a new one is made when none is.
// Idle threads end after a while, so a burst leaves nothing behind.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>
#include <vector>

namespace VEQ {

class TaskPool {
public:
    static TaskPool& Shared();

    explicit TaskPool(std::chrono::milliseconds idleLifetime = std::chrono::seconds(30));
    ~TaskPool();
    TaskPool(const TaskPool&) = delete;
    TaskPool& operator=(const TaskPool&) = delete;

    // Runs task on a pool thread. An exception escaping the task is stored in the future.
    template <typename Task>
    auto Submit(Task task) -> std::future<std::invoke_result_t<Task>>
    {
        using Value = std::invoke_result_t<Task>;
        auto packaged = std::make_shared<std::packaged_task<Value()>>(std::move(task));
        auto future = packaged->get_future();
        Post([packaged] { (*packaged)(); });
        return future;
    }

    // Waits for the running tasks and ends every thread. Tasks submitted later run on new threads.
    void Drain();
    size_t ThreadCount();

private:
    void Post(std::function<void()> job);
    void Run();
    void ReapFinished();

    const std::chrono::milliseconds idleLifetime_;
    std::mutex mutex_;
    std::condition_variable jobReady_;
    std::condition_variable threadEnded_;
    std::deque<std::function<void()>> jobs_;
    std::vector<std::thread> threads_;
    std::vector<std::thread::id> finished_;
    size_t idle_ = 0;
    size_t live_ = 0;
    bool draining_ = false;
};

}  // namespace VEQ
