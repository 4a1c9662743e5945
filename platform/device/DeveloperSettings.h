#pragma once
// Switches for development machines. All are off unless the host turns them on.

#include <atomic>
#include <cstdint>

namespace VEQ {

class DeveloperSettings {
public:
    static DeveloperSettings* GetInstance();

    DeveloperSettings(const DeveloperSettings&) = delete;
    DeveloperSettings& operator=(const DeveloperSettings&) = delete;

    // Custom settings replace the shipped ones; clients ask so that they can warn.
    bool IsCustomSettingEnabled() const { return isCustomSettingEnabled_.load() != 0; }
    void SetCustomSettingEnabled(bool enabled) { isCustomSettingEnabled_ = enabled ? 1 : 0; }

    // Signed content (such as the message digest) is accepted also when its signature does not check.
    bool IsSkipSignedContentCheck() const { return skipSignedContentCheck_.load() != 0; }
    void SetSkipSignedContentCheck(bool skip) { skipSignedContentCheck_ = skip ? 1 : 0; }

private:
    DeveloperSettings() = default;
    ~DeveloperSettings() = default;

    std::atomic<uint8_t> isCustomSettingEnabled_{0};
    std::atomic<uint8_t> skipSignedContentCheck_{0};
};

}  // namespace VEQ
