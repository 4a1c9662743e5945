#pragma once
// Manual-reset events that one thread can wait on together, the first signalled in index order
// winning when several are.

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace VEQ {

template <size_t Count>
class EventSet {
public:
    static constexpr int kTimeout = -1;

    void Set(size_t index)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        signalled_.at(index) = true;
        changed_.notify_all();
    }

    void Reset(size_t index)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        signalled_.at(index) = false;
    }

    bool IsSet(size_t index) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return signalled_.at(index);
    }

    // Index of a signalled event, or kTimeout.
    int WaitAny(std::chrono::milliseconds timeout) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        int found = kTimeout;
        changed_.wait_for(lock, timeout, [&] {
            for (size_t i = 0; i < Count; ++i) {
                if (signalled_[i]) {
                    found = static_cast<int>(i);
                    return true;
                }
            }
            return false;
        });
        return found;
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::array<bool, Count> signalled_{};
};

}  // namespace VEQ
