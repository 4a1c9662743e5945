#include "platform/policy/DeviceConfigPolicy.h"

#include "platform/policy/PolicyText.h"

namespace VEQ {

DeviceConfigPolicy DeviceConfigPolicy::FromJson(const Json::Value& document)
{
    DeviceConfigPolicy policy;
    if (!document.isObject() || !document["app_settings"].isArray()) {
        return policy;
    }
    for (const auto& entry : document["app_settings"]) {
        if (entry.isObject()) {
            policy.appSettings_.emplace_back(PolicyText::Member(entry, "application_id"),
                                             DeviceConfigSettings::FromJson(entry["settings"]));
        }
    }
    return policy;
}

}  // namespace VEQ
