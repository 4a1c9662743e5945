#pragma once
// Whether extensions may run, and on which side: the policy's "extension_apps" object, with the
// plugin fields of its sibling "extension_plugins" object. Plugins take their side from
// "ipcMethods_afunix" too, so without "extension_apps" there is no record at all.

#include "platform/policy/Client.h"

#include <json/json.h>

#include <string>
#include <vector>

namespace VEQ {

class ExtensionAppSettings {
public:
    ExtensionAppSettings() = default;
    ExtensionAppSettings(std::wstring enablementText, std::wstring ipcMethodsAfunix)
        : enablement_(std::move(enablementText)), ipcMethodsAfunix_(std::move(ipcMethodsAfunix))
    {
    }

    // apps is the "extension_apps" object, plugins the "extension_plugins" object (or anything,
    // which reads as an empty one). Members of the wrong type read as absent.
    static ExtensionAppSettings FromJson(const Json::Value& apps, const Json::Value& plugins);

    // "disabled", "manual" or "enabled".
    const std::wstring& enablement() const { return enablement_; }
    // "user", "elevated" or "both".
    const std::wstring& ipcMethods_afunix() const { return ipcMethodsAfunix_; }
    // "all", "embedded" or "none".
    const std::wstring& enabledPluginType() const { return enabledPluginType_; }
    // "AllowByDefault" or "DenyByDefault": whether a plugin without a client entry may run.
    const std::wstring& controlType() const { return controlType_; }
    const std::vector<Client>& clients() const { return clients_; }

private:
    std::wstring enablement_;
    std::wstring ipcMethodsAfunix_;
    std::wstring enabledPluginType_;
    std::wstring controlType_;
    std::vector<Client> clients_;
};

}  // namespace VEQ
