#pragma once

#include <cstdint>
#include <string>

namespace VEQ {

// The reply of "GetWarrantyInfoAndUpdateTagReg". warrantyCommandResponseCode: 0 dates parsed,
// 1 request refused, 2 HTTP 200 without a warranty date, 4 any other HTTP status.
struct WarrantyResponse {
    static constexpr int32_t kParsed = 0;
    static constexpr int32_t kInvalidRequest = 1;
    static constexpr int32_t kNoDate = 2;
    static constexpr int32_t kHttpFailed = 4;

    std::string id;  // not written: the reply is about the request that asked
    std::string httpResponseCode;
    std::string httpResponseBody;
    int32_t warrantyCommandResponseCode = kHttpFailed;
    std::string expirationDate;
    std::string swiftTuneExpirationDate;
    std::string guardLatchExpirationDate;

    static std::string Serialize(const WarrantyResponse& response);
};

}  // namespace VEQ
