#pragma once
// A watch on the sessions of an ISessionSource, for a thread that waits in poll() alongside
// descriptors of its own. It says only that something may have changed: what changed is read
// from the source afresh.

namespace VEQ {

class ISessionMonitor {
public:
    enum class Wake {
        Nothing,  // the descriptor woke for something that cannot touch the sessions
        Changed,  // the sessions may have changed
        Ended,    // they may have changed, and no further change will be seen
    };

    virtual ~ISessionMonitor() = default;
    // Readable (POLLIN) when the sessions may have changed; owned by the monitor.
    virtual int Fd() const = 0;
    // Once Fd() was readable: consumes what woke it, so that the next poll waits for the next change.
    virtual Wake Consume() = 0;
};

}  // namespace VEQ
