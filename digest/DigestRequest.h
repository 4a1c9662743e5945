#pragma once

#include "platform/http/HttpMethodCode.h"

#include <map>
#include <string>
#include <vector>

namespace VEQ {

// The request of "CheckEtagNGetDigestNSaveIfValid" once read: the digest's address with its query
// already built, what goes with both HTTP requests, and the keys the digest may be signed with.
struct DigestRequest {
    std::string fullUrl;
    std::string lang;
    std::string region;
    std::string format;
    std::string payload;
    // Why the request was refused, or the last default that was taken.
    std::string error;
    VEQCore::HttpMethodCode httpMethod = VEQCore::HttpHead;
    std::map<std::string, std::string> headers;
    std::vector<std::wstring> contentPublicKeys;
};

}  // namespace VEQ
