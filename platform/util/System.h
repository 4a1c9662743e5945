#pragma once
// Facts about the machine that the module asks by name: who is signed in, and the time.

#include <string>

namespace VEQ {

class System {
public:
    // The signed-in user of the active session as the registry store names per-user hives: the
    // decimal uid. Empty when nobody is logged in.
    static std::wstring GetLoggedInUserSID();
    // The current UTC time, RFC 3339 with seconds ("2026-11-23T11:34:34Z").
    static std::wstring GetTime();
};

}  // namespace VEQ
