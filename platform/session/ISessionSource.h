#pragma once
// Who is logged in at the machine: the active session of the seat, whose user the user side's
// plugins run as. From logind where it runs; from a session file elsewhere (docs/plugins.md).

#include <cstdint>

namespace VEQ {

struct ActiveSession {
    uint32_t sessionId = 0;
    uint32_t uid = 0;
};

class ISessionSource {
public:
    static constexpr uint32_t kNoSession = 0xFFFFFFFF;

    virtual ~ISessionSource() = default;
    // False when nobody is logged in (or it cannot be told).
    virtual bool GetActiveSession(ActiveSession& session) = 0;
};

}  // namespace VEQ
