#pragma once

#include <condition_variable>
#include <mutex>

namespace VEQ {

// Counts the callers that use a broker's endpoint outside the broker's lock (a request to the
// client can take long). Whoever deletes the endpoint stops it first, which makes those calls
// return, and then waits here until they have.
class EndpointUsers {
public:
    void Enter()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++count_;
    }

    void Leave()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        --count_;
        idle_.notify_all();
    }

    void WaitUntilIdle()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        idle_.wait(lock, [this] { return count_ == 0; });
    }

private:
    std::mutex mutex_;
    std::condition_variable idle_;
    int count_ = 0;
};

}  // namespace VEQ
