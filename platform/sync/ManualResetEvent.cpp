#include "platform/sync/ManualResetEvent.h"

#include <algorithm>

namespace VEQ {
namespace {

// Beyond this a deadline would overflow the clock's representation; such waits mean "forever".
constexpr std::chrono::hours kLongestTimedWait{24 * 365 * 100};

// Waiters on several events at once sleep here; every Set wakes them to look again. Taken before
// an event's own mutex, never after it.
std::mutex g_anyMutex;
std::condition_variable g_anyChanged;

}  // namespace

ManualResetEvent::ManualResetEvent(bool initiallySet) : set_(initiallySet) {}

void ManualResetEvent::Set()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        set_ = true;
    }
    signalled_.notify_all();
    {
        std::lock_guard<std::mutex> lock(g_anyMutex);  // a waiter between its look and its sleep sees this
    }
    g_anyChanged.notify_all();
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

int ManualResetEvent::WaitAny(std::initializer_list<const ManualResetEvent*> events, std::chrono::milliseconds timeout)
{
    int found = -1;
    const auto look = [&] {
        int index = 0;
        for (const ManualResetEvent* event : events) {
            if (event != nullptr && event->IsSet()) {
                found = index;
                return true;
            }
            ++index;
        }
        return false;
    };
    std::unique_lock<std::mutex> lock(g_anyMutex);
    if (timeout >= kLongestTimedWait) {
        g_anyChanged.wait(lock, look);
    } else {
        g_anyChanged.wait_for(lock, std::max(timeout, std::chrono::milliseconds::zero()), look);
    }
    return found;
}

}  // namespace VEQ
