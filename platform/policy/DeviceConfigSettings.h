#pragma once

#include "platform/policy/ExtensionAppSettings.h"

#include <json/json.h>

#include <optional>

namespace VEQ {

// The "settings" object of one application's entry in the policy.
class DeviceConfigSettings {
public:
    static DeviceConfigSettings FromJson(const Json::Value& settings);

    // Null when the entry has no "extension_apps" object.
    const ExtensionAppSettings* extension_apps() const { return extensionApps_ ? &*extensionApps_ : nullptr; }
    // The whole object, for settings read elsewhere.
    const Json::Value& json() const { return json_; }

private:
    std::optional<ExtensionAppSettings> extensionApps_;
    Json::Value json_;
};

}  // namespace VEQ
