#pragma once

#include "broker/ClientContext.h"

#include <cstdint>
#include <optional>
#include <string>

namespace VEQ {

// An app's "ConnectTo-Veq" payload: who it says it is and which process it says it runs in.
class Handshake {
public:
    // Reads the payload as JsonCpp converts it: absent members are empty or 0. Nullopt when the
    // text is not JSON (or nests past the reader's limit). A member that cannot be converted
    // throws Json::LogicError, as it always has; the caller decides what that ends.
    static std::optional<Handshake> Read(const std::string& data);

    ClientContext clientContext;
    uint32_t processId = 0;
};

}  // namespace VEQ
