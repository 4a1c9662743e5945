#pragma once
// Fetches the policy from the back end for PolicyDownloadRefreshSource: a GET over mutual TLS with
// the device certificate of the host's HTTP settings (docs/http.md).

#include "platform/policy/PolicyDownloadRefreshSource.h"

#include <string>

namespace VEQ {

class HttpsPolicyDownloader {
public:
    static PolicyDownloadRefreshSource::Download Download(const std::string& url);
    // True when the PEM certificate in path has passed its end of validity; false when it is
    // valid or cannot be read (the exchange then says what is wrong).
    static bool CertificateExpired(const std::string& path);
};

}  // namespace VEQ
