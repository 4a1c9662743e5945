#pragma once

#include <string>

namespace VEQ {

// The reply of "Get-DeviceAccessStamp": the device key's signature over
// "device\n<deviceId>\n<timestamp>", in hexadecimal (docs/data-protection.md).
struct GetDeviceAccessStampResponse {
    std::string deviceId;
    std::string timestamp;  // as the client sent it
    std::string stamp;

    static std::string Serialize(const GetDeviceAccessStampResponse& response);
};

}  // namespace VEQ
