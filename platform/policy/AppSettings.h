#pragma once

#include "platform/policy/DeviceConfigSettings.h"

#include <string>

namespace VEQ {

// One entry of the policy's "app_settings" list.
class AppSettings {
public:
    AppSettings(std::wstring applicationId, DeviceConfigSettings settingsIn)
        : applicationId_(std::move(applicationId)), settings_(std::move(settingsIn))
    {
    }

    const std::wstring& application_id() const { return applicationId_; }
    const DeviceConfigSettings& settings() const { return settings_; }

private:
    std::wstring applicationId_;
    DeviceConfigSettings settings_;
};

}  // namespace VEQ
