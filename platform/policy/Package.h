#pragma once
// One package that the policy assigns to this device: an element of "update_policy"."packages".

#include "platform/policy/KeyValuePair.h"

#include <json/json.h>

#include <string>
#include <vector>

namespace VEQ {

class Package {
public:
    // Members of the wrong type read as absent.
    static Package FromJson(const Json::Value& entry);

    const std::wstring& packageId() const { return packageId_; }
    const std::wstring& packageName() const { return packageName_; }
    const std::wstring& packageVersion() const { return packageVersion_; }
    const std::wstring& packageType() const { return packageType_; }
    // The "tags" object's string members, in the order of their names.
    const std::vector<KeyValuePair>& tags() const { return tags_; }
    // The "filter" list: applicability rules, each an object as written, for the rule engine.
    const std::vector<Json::Value>& filter() const { return filter_; }
    // The entry as written, for the package list that clients read.
    const Json::Value& json() const { return json_; }

    // True when every one of wanted is among tags(): names compared ignoring ASCII case, values
    // exactly. No wanted tags: true.
    bool HasTags(const std::vector<KeyValuePair>& wanted) const;

private:
    std::wstring packageId_;
    std::wstring packageName_;
    std::wstring packageVersion_;
    std::wstring packageType_;
    std::vector<KeyValuePair> tags_;
    std::vector<Json::Value> filter_;
    Json::Value json_;
};

}  // namespace VEQ
