#pragma once
// The policy fetched from the back end: downloaded from a URL, checked, written over the policy
// file atomically (a temporary file in its directory, renamed over it) and put in force from
// there, so that the file always holds the policy in force and a restart keeps it.
//
// The download itself is the HTTP client's (mutual TLS with the device certificate); this class
// takes it as a function so that it knows nothing of the transport.

#include "platform/policy/IPolicyRefreshSource.h"
#include "platform/policy/PolicyFileRefreshSource.h"

#include <cstdint>
#include <functional>
#include <string>

namespace VEQ {

class ConfigPolicyAgent;

class PolicyDownloadRefreshSource : public IPolicyRefreshSource {
public:
    // What the HTTP client answered.
    struct Download {
        int32_t httpStatus = 0;  // 0: no exchange took place (name lookup, connection, TLS)
        int32_t errorCode = 0;   // the client's own error when there was no exchange
        std::string errorMessage;
        std::string body;
        bool certificateExpired = false;  // the device certificate is out of its validity
    };
    using Downloader = std::function<Download(const std::string& url)>;

    PolicyDownloadRefreshSource(ConfigPolicyAgent& agent, std::wstring path, std::string url, Downloader download);

    // kCertificateExpired, kUnregistered for 401 and 403 (the back end does not know the device),
    // kTooSoon for 429, kFetchFailed for anything else that is not 200 with a JSON object of at
    // most PolicyFile::kMaxSize bytes, or when the file cannot be written.
    int32_t Refresh() override;

private:
    // The body over the policy file, or nothing changed. Mode 0644: the service's readers refuse a
    // policy that anyone may write.
    bool WriteAtomically(const std::string& body);

    PolicyFileRefreshSource file_;
    const std::string url_;
    const Downloader download_;
};

}  // namespace VEQ
