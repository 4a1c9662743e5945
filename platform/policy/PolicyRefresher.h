#pragma once
// Refreshes the policy when the bus asks for it (topic 4, state 24) and keeps the status that
// GetRefreshStatus reports: kRunning from the request until the refresh ends, then its outcome.
//
// One refresh runs at a time, on the refresher's own thread, so that the requester (a command
// handler, on the publisher's thread) only waits by polling. A request that arrives while a
// refresh runs may come too late for what that refresh fetched: it is served by one more pass,
// and the status stays kRunning until that pass ends. Any number of such requests share the pass.
//
// A source that refreshes elsewhere gets no thread: the request itself starts the wait for a
// Report, and requests until then join that refresh, as whoever makes it hears them on the bus.

#include "platform/policy/IPolicyRefreshSource.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace VEQ {

class PolicyRefresher {
public:
    explicit PolicyRefresher(std::shared_ptr<IPolicyRefreshSource> source);
    ~PolicyRefresher();
    PolicyRefresher(const PolicyRefresher&) = delete;
    PolicyRefresher& operator=(const PolicyRefresher&) = delete;

    // Subscribes to the bus (and starts the thread). False when that failed or it runs already.
    bool Start();
    // Unsubscribes, cancels a running refresh and waits for the thread. A status of kRunning
    // becomes kNone: no outcome will come. Harmless when not started.
    void Stop();

    // What a request on the bus does; the status is kRunning when it returns.
    void Request();
    int32_t Status() const;
    // The outcome of a refresh made elsewhere. False, and nothing changes, when none is running or
    // status is kRunning or kNone.
    bool Report(int32_t status);

private:
    void Run();

    const std::shared_ptr<IPolicyRefreshSource> source_;
    const bool elsewhere_;
    mutable std::mutex mutex_;        // guards what follows
    std::condition_variable wake_;
    int32_t status_;
    uint64_t requests_ = 0;           // requests so far
    uint64_t covered_ = 0;            // requests served by the latest refresh started
    bool completing_ = false;         // a reported outcome is being completed
    bool stopping_ = false;
    std::wstring subscription_;
    std::thread thread_;
    std::mutex lifecycleMutex_;       // serialises Start and Stop
};

}  // namespace VEQ
