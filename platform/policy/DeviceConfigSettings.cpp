#include "platform/policy/DeviceConfigSettings.h"

namespace VEQ {

DeviceConfigSettings DeviceConfigSettings::FromJson(const Json::Value& settings)
{
    DeviceConfigSettings result;
    if (!settings.isObject()) {
        return result;
    }
    result.json_ = settings;
    const Json::Value& apps = settings["extension_apps"];
    if (apps.isObject()) {
        result.extensionApps_ = ExtensionAppSettings::FromJson(apps, settings["extension_plugins"]);
    }
    return result;
}

}  // namespace VEQ
