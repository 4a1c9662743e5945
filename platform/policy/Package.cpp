#include "platform/policy/Package.h"

#include "platform/policy/PolicyText.h"
#include "platform/string/String.h"

#include <algorithm>

namespace VEQ {

Package Package::FromJson(const Json::Value& entry)
{
    Package package;
    if (!entry.isObject()) {
        return package;
    }
    package.json_ = entry;
    package.packageId_ = PolicyText::Member(entry, "packageId");
    package.packageName_ = PolicyText::Member(entry, "packageName");
    package.packageVersion_ = PolicyText::Member(entry, "packageVersion");
    package.packageType_ = PolicyText::Member(entry, "packageType");
    const Json::Value tags = PolicyText::Object(entry, "tags");
    for (const auto& name : tags.getMemberNames()) {  // sorted
        if (tags[name].isString()) {
            package.tags_.push_back({String::UTF8ToUTF16(name), String::UTF8ToUTF16(tags[name].asString())});
        }
    }
    package.filter_ = PolicyText::Objects(entry, "filter");
    return package;
}

bool Package::HasTags(const std::vector<KeyValuePair>& wanted) const
{
    return std::all_of(wanted.begin(), wanted.end(), [this](const KeyValuePair& tag) {
        return std::any_of(tags_.begin(), tags_.end(), [&tag](const KeyValuePair& own) {
            return String::CaseInsesitiveEqual(own.key, tag.key) && own.value == tag.value;
        });
    });
}

}  // namespace VEQ
