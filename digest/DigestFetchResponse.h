#pragma once

#include <string>

namespace VEQ {

// The reply of "CheckEtagNGetDigestNSaveIfValid": what each of the two HTTP requests answered, and
// whether a new digest arrived and was signed. A step that did not run leaves its code empty.
struct DigestFetchResponse {
    std::string httpResponseCode;
    std::string responseBody;
    std::string httpEtagResponseCode;
    std::string etagResponseBody;
    bool etagChanged = false;
    bool isMessageDigestSigned = false;

    static std::string Serialize(const DigestFetchResponse& response);
};

}  // namespace VEQ
