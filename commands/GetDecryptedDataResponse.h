#pragma once

#include <string>

namespace VEQ {

// The reply of "Get-DecryptedData": the client's data under a fresh key, and the outcome as text.
struct GetDecryptedDataResponse {
    std::string dataBase64;           // empty on failure
    std::string responseCode;         // "0" or "-1"
    std::string responseDescription;  // "Success" or "Failed"

    static std::string Serialize(const GetDecryptedDataResponse& response);
};

}  // namespace VEQ
