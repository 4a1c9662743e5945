#include "platform/applicability/ApplicabilityFilter.h"

#include "platform/string/String.h"

#include <utility>

namespace VEQ {
namespace {

std::wstring Text(const Json::Value& value)
{
    if (value.isString() || value.isNumeric() || value.isBool()) {
        return String::UTF8ToUTF16(value.asString());
    }
    return L"";
}

}  // namespace

ApplicabilityFilter ApplicabilityFilter::FromJson(const Json::Value& rule)
{
    ApplicabilityFilter filter;
    if (!rule.isObject()) {
        filter.defaultValue = Text(rule);
        return filter;
    }
    const std::pair<const char*, std::wstring ApplicabilityFilter::*> fields[] = {
        {"default", &ApplicabilityFilter::defaultValue},
        {"value", &ApplicabilityFilter::value},
        {"mfr", &ApplicabilityFilter::mfr},
        {"family", &ApplicabilityFilter::family},
        {"model", &ApplicabilityFilter::model},
        {"sku", &ApplicabilityFilter::sku},
        {"tag", &ApplicabilityFilter::tag},
        {"country", &ApplicabilityFilter::country},
        {"language", &ApplicabilityFilter::language},
        {"os", &ApplicabilityFilter::os},
        {"os_bitness", &ApplicabilityFilter::os_bitness},
        {"enclosure", &ApplicabilityFilter::enclosure},
        {"os_description", &ApplicabilityFilter::os_description},
        {"device_subscription", &ApplicabilityFilter::device_subscription},
        {"version", &ApplicabilityFilter::version},
        {"os_version", &ApplicabilityFilter::os_version},
        {"target_version", &ApplicabilityFilter::target_version},
        {"sn_hash", &ApplicabilityFilter::sn_hash},
        {"org_hash", &ApplicabilityFilter::org_hash},
        {"date_range", &ApplicabilityFilter::date_range},
        {"date_function", &ApplicabilityFilter::date_function},
        {"installed_items", &ApplicabilityFilter::installed_items},
        {"registry", &ApplicabilityFilter::registry},
        {"hardware_id", &ApplicabilityFilter::hardware_id},
    };
    for (const auto& [name, member] : fields) {
        filter.*member = Text(rule[name]);
    }
    return filter;
}

}  // namespace VEQ
