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

    // The plugin host's signature, and that of its per-plugin copies, is not checked.
    bool IsSkipHostSignatureCheck() const { return skipHostSignatureCheck_.load() != 0; }
    void SetSkipHostSignatureCheck(bool skip) { skipHostSignatureCheck_ = skip ? 1 : 0; }

    // Plugins' signatures are not checked, and repository manifests are taken unverified.
    bool IsSkipPluginSignatureCheck() const { return skipPluginSignatureCheck_.load() != 0; }
    void SetSkipPluginSignatureCheck(bool skip) { skipPluginSignatureCheck_ = skip ? 1 : 0; }

private:
    DeveloperSettings() = default;
    ~DeveloperSettings() = default;

    std::atomic<uint8_t> isCustomSettingEnabled_{0};
    std::atomic<uint8_t> skipSignedContentCheck_{0};
    std::atomic<uint8_t> skipHostSignatureCheck_{0};
    std::atomic<uint8_t> skipPluginSignatureCheck_{0};
};

}  // namespace VEQ
