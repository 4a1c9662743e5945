#pragma once
// One entry of the policy's plugin client list: what the policy says about one plugin.

#include <json/json.h>

#include <string>
#include <vector>

namespace VEQ {

class Client {
public:
    // From one element of "clients". Members of the wrong type read as absent.
    static Client FromJson(const Json::Value& entry);

    // The plugin id that the entry applies to.
    const std::wstring& clientId() const { return clientId_; }
    // Who receives configuration: a plugin holding "configure" gets "Receive-DeviceConfig".
    // Written as an array of strings; a lone string counts as a list of one.
    const std::vector<std::wstring>& clientPermissions() const { return clientPermissions_; }
    // Applicability rules, each an object as written in the policy, for the rule engine.
    const std::vector<Json::Value>& clientRules() const { return clientRules_; }
    // The operating system the entry is for.
    const std::wstring& clientOs() const { return clientOs_; }
    // "user", "elevated" or "both": the sides the plugin may run on.
    const std::wstring& clientElevation() const { return clientElevation_; }

private:
    std::wstring clientId_;
    std::vector<std::wstring> clientPermissions_;
    std::vector<Json::Value> clientRules_;
    std::wstring clientOs_;
    std::wstring clientElevation_;
};

}  // namespace VEQ
