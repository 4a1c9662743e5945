#pragma once
// The back end's coordinates for this device, as the host learns them at registration.

#include <mutex>
#include <string>

namespace VEQ {

class EpUrlProvider {
public:
    static constexpr int kOk = 0;
    static constexpr int kNotSet = 1;

    // The member of the policy's "platform_policy" object that names the mutual-TLS base.
    static constexpr const char* kPolicyApiMtlsBaseUri = "api_mtls_baseuri";

    // What the host configuration says ("endpoints" in veqd.json, docs/veqd.md). The policy's
    // value, when it has one, comes first: the back end may move a device without the host.
    struct Endpoints {
        std::wstring apiMtlsBaseUri;  // endpoints.apiMtlsBaseUri
    };

    static EpUrlProvider* GetInstance();

    EpUrlProvider(const EpUrlProvider&) = delete;
    EpUrlProvider& operator=(const EpUrlProvider&) = delete;

    // The tenant's realm. kNotSet, with an empty realm, before the host has set one.
    int GetRealm(std::wstring& realm);
    void SetRealm(const std::wstring& realm);

    // The base of the back end's mutual-TLS API: the policy's "platform_policy" member
    // kPolicyApiMtlsBaseUri when it is a string that is not empty, else the host's
    // Endpoints::apiMtlsBaseUri. kNotSet, with an empty uri, when neither names one.
    int GetApiMtlsBaseUri(std::wstring& uri);
    void SetEndpoints(const Endpoints& endpoints);

private:
    EpUrlProvider() = default;
    ~EpUrlProvider() = default;

    std::mutex mutex_;  // guards realm_ and endpoints_
    std::wstring realm_;
    Endpoints endpoints_;
};

}  // namespace VEQ
