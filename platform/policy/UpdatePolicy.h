#pragma once
// Which packages the policy assigns to this device, and how far updates may go: the policy's
// "update_policy" object.

#include "platform/policy/Package.h"

#include <json/json.h>

#include <string>
#include <vector>

namespace VEQ {

class UpdatePolicy {
public:
    // From an "update_policy" object; anything else gives an empty policy.
    static UpdatePolicy FromJson(const Json::Value& updatePolicy);

    // The "packages" list; elements that are not objects are skipped.
    const std::vector<Package>& GetPackages() const { return packages_; }
    // "updateScope": "none" forbids every package operation; empty when absent.
    const std::wstring& GetUpdateScope() const { return updateScope_; }

private:
    std::vector<Package> packages_;
    std::wstring updateScope_;
};

}  // namespace VEQ
