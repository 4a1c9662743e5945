#pragma once
// A change to the sessions at the machine, as SessionWatcher reports it.

#include <cstdint>

namespace VEQ {

struct SessionChange {
    enum class Kind {
        LoggedOff,  // the session has ended
        Activated,  // the session is now the seat's active one
    };
    Kind kind;
    uint32_t sessionId;

    friend bool operator==(const SessionChange&, const SessionChange&) = default;
};

}  // namespace VEQ
