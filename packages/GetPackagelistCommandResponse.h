#pragma once

#include <json/json.h>

#include <string>

namespace VEQ {

// The reply of "Get-PackageList": the package details as the configuration gives them.
class GetPackagelistCommandResponse {
public:
    // One line; non-ASCII text stays UTF-8 rather than being escaped.
    static std::string Serialize(const Json::Value& details);
};

}  // namespace VEQ
