#pragma once

#include "platform/log/Log.h"

#include <string>

namespace VEQ {

// The reply of "Verify-Signature": three texts, "true"/"false", "0"/"51", "Success"/"Failure".
struct VerifySignatureResponse {
    std::string isSigned;
    std::string responseCode;
    std::string responseDescription;

    static std::string Serialize(const VerifySignatureResponse& response);
    // Reads the three keys back; a text that is not such an object leaves what was not read empty.
    static VerifySignatureResponse Deserialize(const std::string& text, Log* log = nullptr);
};

}  // namespace VEQ
