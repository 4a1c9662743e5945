#pragma once
// Who is logged in at the machine: the active session of the seat, whose user the user side's
// plugins run as, and every other session logged in beside it. From logind where it runs; from a
// session file elsewhere (docs/plugins.md).

#include "platform/session/ISessionMonitor.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace VEQ {

struct ActiveSession {
    uint32_t sessionId = 0;
    uint32_t uid = 0;

    friend bool operator==(const ActiveSession&, const ActiveSession&) = default;
};

class ISessionSource {
public:
    static constexpr uint32_t kNoSession = 0xFFFFFFFF;

    virtual ~ISessionSource() = default;
    // False when nobody is logged in (or it cannot be told).
    virtual bool GetActiveSession(ActiveSession& session) = 0;
    // Every session logged in now, the active one among them, each once. False, with sessions
    // empty, when there is none (or it cannot be told).
    virtual bool GetSessions(std::vector<ActiveSession>& sessions) = 0;
    // A watch that wakes when the answers above may have changed; null when changes cannot be
    // watched here. Each call makes a watch of its own.
    virtual std::unique_ptr<ISessionMonitor> WatchChanges() = 0;
};

}  // namespace VEQ
