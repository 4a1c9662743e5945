#pragma once

#include <string>

namespace VEQ {

// The reply of "GetEncryptedDataCommand": the encrypted text itself, base64, not JSON.
// Empty when the text could not be encrypted to the key given.
struct GetEncryptedDataResponse {
    std::string encryptedText;

    static std::string Serialize(const GetEncryptedDataResponse& response);
};

}  // namespace VEQ
