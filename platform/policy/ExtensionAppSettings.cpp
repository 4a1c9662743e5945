#include "platform/policy/ExtensionAppSettings.h"

#include "platform/policy/PolicyText.h"

namespace VEQ {

ExtensionAppSettings ExtensionAppSettings::FromJson(const Json::Value& apps, const Json::Value& plugins)
{
    ExtensionAppSettings settings(PolicyText::Member(apps, "enablement"), PolicyText::Member(apps, "ipcMethods_afunix"));
    settings.enabledPluginType_ = PolicyText::Member(plugins, "enabledPluginType");
    settings.controlType_ = PolicyText::Member(plugins, "controlType");
    for (const auto& entry : PolicyText::Objects(plugins, "clients")) {
        settings.clients_.push_back(Client::FromJson(entry));
    }
    return settings;
}

}  // namespace VEQ
