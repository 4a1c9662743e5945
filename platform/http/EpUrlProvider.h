#pragma once
// The back end's coordinates for this device, as the host learns them at registration.

#include <mutex>
#include <string>

namespace VEQ {

class EpUrlProvider {
public:
    static constexpr int kOk = 0;
    static constexpr int kNotSet = 1;

    static EpUrlProvider* GetInstance();

    EpUrlProvider(const EpUrlProvider&) = delete;
    EpUrlProvider& operator=(const EpUrlProvider&) = delete;

    // The tenant's realm. kNotSet, with an empty realm, before the host has set one.
    int GetRealm(std::wstring& realm);
    void SetRealm(const std::wstring& realm);

private:
    EpUrlProvider() = default;
    ~EpUrlProvider() = default;

    std::mutex mutex_;  // guards realm_
    std::wstring realm_;
};

}  // namespace VEQ
