#pragma once

#include <string>

namespace VEQ {

// The reply of "Get-VeqStatus": who the device is and where its back end lives. UTF-8.
struct GetVeqStatusResponse {
    std::string deviceId;
    std::string version;
    std::string tenantName;  // the tenant's realm
    std::string enterpriseAuthBaseUri;
    std::string consumerAuthBaseUri;
    std::string apiBaseUri;

    // One line of JSON; JsonCpp writes the members sorted by name.
    static std::string Serialize(const GetVeqStatusResponse& response);
};

}  // namespace VEQ
