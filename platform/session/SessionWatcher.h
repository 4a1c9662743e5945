#pragma once
// Follows the sessions at the machine and tells when one ends and when the seat switches to
// another. It waits on the source's own change watch, so it costs nothing while nothing happens,
// and compares what the source says after each change with what it said before:
//   1. every session that is gone is reported LoggedOff;
//   2. then, if the seat's active session is now another one (not nobody), it is reported Activated.
// A session that comes without becoming active is not reported, nor is the seat going to nobody:
// both are told by what follows. A read that says what the last one said reports nothing.
//
// Start and Stop are meant for one controlling thread; the callback runs on the watcher's own.

#include "platform/session/ISessionSource.h"
#include "platform/session/SessionChange.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace VEQ {

class SessionWatcher {
public:
    using Callback = std::function<void(const SessionChange&)>;

    SessionWatcher(std::shared_ptr<ISessionSource> source, Callback callback);
    ~SessionWatcher();
    SessionWatcher(const SessionWatcher&) = delete;
    SessionWatcher& operator=(const SessionWatcher&) = delete;

    // Takes the sessions as they are now without reporting them, then follows their changes on a
    // thread of its own. False when the source's changes cannot be watched (no logind, no folder
    // for the session file) or the watcher runs already.
    bool Start();
    // Ends the watch and waits for the watcher's thread: no callback runs once it returns.
    // Harmless when not started or stopped already. Not to be called from the callback.
    void Stop();

    // Reads of the sessions since construction, the one at Start included; each read's changes
    // have been reported by the time it is counted.
    std::uint64_t ReadCount() const { return readCount_.load(); }

private:
    struct Snapshot {
        std::vector<ActiveSession> sessions;  // by id
        std::optional<ActiveSession> active;

        friend bool operator==(const Snapshot&, const Snapshot&) = default;
    };

    Snapshot Take() const;
    void Run();
    // Reads the sessions afresh and reports how they differ from the last read.
    void Update();
    void Report(SessionChange::Kind kind, uint32_t sessionId);
    void CloseDescriptors();

    std::shared_ptr<ISessionSource> source_;
    Callback callback_;
    std::mutex lifecycleMutex_;  // serialises Start and Stop
    std::unique_ptr<ISessionMonitor> monitor_;
    int stopFd_ = -1;            // an eventfd that Stop signals
    std::thread thread_;
    Snapshot last_;              // the watcher's thread's alone while it runs
    std::atomic<std::uint64_t> readCount_{0};
};

}  // namespace VEQ
