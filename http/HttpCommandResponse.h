#pragma once

#include <string>

namespace VEQ {

// The reply of "Invoke-HttpRequest": what was asked of the back end and what it answered.
// resultType and responseFile are always empty: the body comes back in the reply itself.
struct HttpCommandResponse {
    std::string fullUrl;
    std::string resultType;
    std::string httpMethod;
    std::string httpResponseCode;
    std::string responseFile;
    std::string responseBody;

    static std::string Serialize(const HttpCommandResponse& response);
};

}  // namespace VEQ
