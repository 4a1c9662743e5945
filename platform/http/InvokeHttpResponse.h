#pragma once

#include "platform/http/HttpHeaders.h"

#include <cstdint>
#include <string>
#include <vector>

namespace VEQCore {

// What one call of CoreUtility::SendHttpRequest gives back (docs/http.md).
struct InvokeHttpResponse {
    // 0 after a complete exchange; otherwise libcurl's CURLcode for what went wrong.
    int32_t errorCode = 0;
    std::string errorMessage;
    // The server's status; 0 when no complete exchange took place, with errorCode saying why.
    int32_t httpStatus = 0;
    HttpHeaders headers;
    // The reply's body, unless it went to the caller's response file.
    std::vector<uint8_t> body;
};

}  // namespace VEQCore
