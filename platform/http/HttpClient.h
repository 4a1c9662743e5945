#pragma once

#include "platform/http/HttpClientSettings.h"
#include "platform/http/HttpMethodCode.h"
#include "platform/http/InvokeHttpResponse.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace VEQ {

// The service's HTTPS client to the back end, on libcurl (docs/http.md). Each request is one
// exchange on a connection of its own; nothing is shared between calls but the settings, so any
// number of threads may send at once.
//
// Only https URLs are fetched, redirects are never followed (a 3xx reaches the caller with its
// "Location"), and every exchange ends inside the settings' timeouts. Anything that keeps an
// exchange from completing - refused arguments, DNS, connection, TLS, a timeout, a body over the
// limit - gives status 0 with libcurl's code and a message, and no headers or body.
class HttpClient {
public:
    static constexpr int32_t kAuthServerOnly = 0;
    static constexpr int32_t kAuthMutualTls = 1;

    // Timeouts out of range are brought into range (the total at most kMaxTotalTimeout, the
    // connect timeout at most the total).
    explicit HttpClient(HttpClientSettings settings);

    // authType: kAuthMutualTls presents the settings' client certificate and checks the server
    // against caFile; kAuthServerOnly checks the server against publicCaFile. flag takes no part:
    // nothing a caller passes loosens the checks. responseFile, when not empty, receives the body
    // of a 2xx reply (then left out of body); the body of any other reply stays in body and the
    // file is left as it was.
    VEQCore::InvokeHttpResponse SendHttpRequest(const std::string& url, const std::map<std::string, std::string>& headers,
                                                VEQCore::HttpMethodCode method, const std::string& payload,
                                                int32_t authType, bool flag, const std::string& responseFile) const;

    // The body's bytes as they are, in a narrow string (no decoding; NUL bytes kept).
    static std::string ConvertBytesToString(const std::vector<uint8_t>& bytes);

    // True when url is base or lies below it: an https URL with the base's scheme, host and port,
    // no user name or password, and a path that is the base's path or continues it after a '/'.
    // For a caller that glues a client's relative URL to the base: ".other.host", "@other.host"
    // or ":8443" must not take the request elsewhere.
    static bool IsWithinBase(const std::string& url, const std::string& base);

    const HttpClientSettings& Settings() const { return settings_; }

private:
    HttpClientSettings settings_;
};

}  // namespace VEQ
