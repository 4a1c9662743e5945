#pragma once

#include <string>

namespace VEQ {

// The reply of "VerifyCustomSettingsEnabledCommand".
struct VerifyCustomSettingsEnabledResponse {
    bool isCustomSettingEnabled = false;

    static std::string Serialize(const VerifyCustomSettingsEnabledResponse& response);
};

}  // namespace VEQ
