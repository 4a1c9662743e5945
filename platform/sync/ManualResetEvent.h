#pragma once
// An event that stays signalled until Reset, for threads that wait for a state rather than a pulse.

#include <chrono>
#include <condition_variable>
#include <initializer_list>
#include <mutex>

namespace VEQ {

class ManualResetEvent {
public:
    explicit ManualResetEvent(bool initiallySet = false);
    ManualResetEvent(const ManualResetEvent&) = delete;
    ManualResetEvent& operator=(const ManualResetEvent&) = delete;

    // Wakes every waiter, and every later Wait returns at once until Reset.
    void Set();
    void Reset();
    bool IsSet() const;

    // True when the event is signalled within timeout. A timeout too large to add to the clock waits without limit.
    bool Wait(std::chrono::milliseconds timeout) const;
    void Wait() const;

    // Waits for the first of several events: the index of a signalled one (the lowest when several
    // are), or -1 when none is within timeout.
    static int WaitAny(std::initializer_list<const ManualResetEvent*> events, std::chrono::milliseconds timeout);

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable signalled_;
    bool set_;
};

}  // namespace VEQ
