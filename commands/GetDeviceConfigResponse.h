#pragma once

#include <string>

namespace VEQ {

// The reply of "Get-DeviceConfig": the policy text and, when a refresh was asked for and came to
// an outcome, that outcome. UTF-8.
struct GetDeviceConfigResponse {
    std::string configPolicy;
    std::string responseCode;         // decimal text; empty when there is no refresh outcome
    std::string responseDescription;  // the outcome's word; empty when there is no refresh outcome

    // One line of JSON: "configPolicy" always, "refreshConfig" only when both outcome texts are set.
    static std::string Serialize(const GetDeviceConfigResponse& response);
};

}  // namespace VEQ
