#pragma once

#include <string>

namespace VEQ {

// The reply of "RegistryAndDigestCleanup": whether the cached digest and its registry values were
// all deleted, and whether the digest address's hash was written.
struct RegistryAndDigestResponse {
    bool cachedDigestAndRegDeleted = false;
    bool hashUpdated = false;

    static std::string Serialize(const RegistryAndDigestResponse& response);
};

}  // namespace VEQ
