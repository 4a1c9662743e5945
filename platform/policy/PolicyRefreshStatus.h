#pragma once

#include <cstdint>

namespace VEQ {

// What IConfigAgent::GetRefreshStatus reports: the refresh running, or how the latest one ended.
// The codes from 11 on are those that clients receive as "responseCode" (docs/policy.md).
struct PolicyRefreshStatus {
    static constexpr int32_t kNone = -2;      // none asked for yet, or nothing to refresh from
    static constexpr int32_t kRunning = -1;
    static constexpr int32_t kSucceeded = 0;  // the refreshed policy is in force
    static constexpr int32_t kCertificateExpired = 11;
    static constexpr int32_t kUnregistered = 12;
    static constexpr int32_t kFetchFailed = 13;
    static constexpr int32_t kTooSoon = 14;   // the source refuses to be asked again this soon
};

}  // namespace VEQ
