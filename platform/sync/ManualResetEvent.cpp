#include "platform/sync/ManualResetEvent.h"

namespace VEQ {
namespace {

// Beyond this a deadline would overflow the clock's representation; such waits mean "forever".
constexpr std::chrono::hours kLongestTimedWait{24 * 365 * 100};

}  // namespace

ManualResetEvent::ManualResetEvent(bool initiallySet) : set_(initiallySet) {}

void ManualResetEvent::Set()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        set_ = true;
    }
    signalled_.notify_all();
}

void ManualResetEvent::Reset()
{
    std::lock_guard<std::mutex> lock(mutex_);
    set_ = false;
}

bool ManualResetEvent::IsSet() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return set_;
}

bool ManualResetEvent::Wait(std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (timeout >= kLongestTimedWait) {
        signalled_.wait(lock, [this] { return set_; });
        return true;
    }
    if (timeout < std::chrono::milliseconds::zero()) {
        timeout = std::chrono::milliseconds::zero();
    }
    return signalled_.wait_for(lock, timeout, [this] { return set_; });
}

void ManualResetEvent::Wait() const
{
    std::unique_lock<std::mutex> lock(mutex_);
    signalled_.wait(lock, [this] { return set_; });
}

}  // namespace VEQ
