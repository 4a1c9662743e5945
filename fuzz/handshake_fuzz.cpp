// Feeds bytes to the reader of an app's "ConnectTo-Veq" payload, which arrives from any local
// process before the service knows who it is. A member that JsonCpp cannot convert throws
// Json::LogicError, which the caller handles; anything else that escapes, crashes, leaks or hangs
// is a finding.

#include "apps/Handshake.h"

#include <json/json.h>

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    try {
        VEQ::Handshake::Read(std::string(reinterpret_cast<const char*>(data), size));
    } catch (const Json::LogicError&) {
        // An unconvertible member: the documented way a payload is refused.
    }
    return 0;
}
