#pragma once
// One applicability rule as the rule engine receives it: 24 texts, each from the member of the
// same name of a rule object, empty when absent.

#include <json/json.h>

#include <string>

namespace VEQ {

struct ApplicabilityFilter {
    std::wstring defaultValue;  // "default"
    std::wstring value;
    std::wstring mfr;
    std::wstring family;
    std::wstring model;
    std::wstring sku;
    std::wstring tag;
    std::wstring country;
    std::wstring language;
    std::wstring os;
    std::wstring os_bitness;
    std::wstring enclosure;
    std::wstring os_description;
    std::wstring device_subscription;
    std::wstring version;
    std::wstring os_version;
    std::wstring target_version;
    std::wstring sn_hash;
    std::wstring org_hash;
    std::wstring date_range;
    std::wstring date_function;
    std::wstring installed_items;
    std::wstring registry;
    std::wstring hardware_id;

    // An object gives its members (strings, numbers and bools as text; other members read as
    // absent); anything else is taken as text into "default" alone.
    static ApplicabilityFilter FromJson(const Json::Value& rule);

    bool operator==(const ApplicabilityFilter&) const = default;
};

}  // namespace VEQ
