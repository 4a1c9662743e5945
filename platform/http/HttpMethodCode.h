#pragma once

#include <cstdint>

namespace VEQCore {

// The method codes that callers of CoreUtility::SendHttpRequest pass (docs/http.md).
enum HttpMethodCode : int32_t {
    HttpGet = 2,
    // The digest's ETag step: a HEAD, since that step reads only the status and the "Etag" field,
    // and a HEAD answers them without the body that the download then fetches.
    HttpHead = 3,
    HttpPost = 4,
    HttpPut = 5,
    // Not used by the service's commands; there for callers of the platform that need it.
    HttpDelete = 6,
};

}  // namespace VEQCore
