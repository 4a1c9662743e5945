#pragma once

#include "platform/policy/AppSettings.h"

#include <json/json.h>

#include <vector>

namespace VEQ {

// The device configuration policy, read from its JSON document. Members of the wrong JSON type
// read as absent, so a policy written by hand can never make a reader throw.
class DeviceConfigPolicy {
public:
    static DeviceConfigPolicy FromJson(const Json::Value& document);

    const std::vector<AppSettings>& app_settings() const { return appSettings_; }

private:
    std::vector<AppSettings> appSettings_;
};

}  // namespace VEQ
