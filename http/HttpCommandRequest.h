#pragma once

#include "platform/http/HttpMethodCode.h"

#include <map>
#include <string>

namespace VEQ {

// The request of "Invoke-HttpRequest", as validated: what goes to the back end, or why nothing does.
struct HttpCommandRequest {
    std::string relativeUrl;
    std::string httpMethod;  // as the client wrote it
    VEQCore::HttpMethodCode methodCode = VEQCore::HttpPost;
    std::string responseType;  // kept, not used
    std::map<std::string, std::string> headers;
    std::string payload;
    std::string error;  // the failure text when validation refused the request
};

}  // namespace VEQ
