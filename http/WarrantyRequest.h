#pragma once

#include <string>

namespace VEQ {

// The request of "GetWarrantyInfoAndUpdateTagReg": which warranty service to ask, with which key,
// about which device. The service's address and key arrive with each request; none is kept.
struct WarrantyRequest {
    std::string id;
    std::string warrantyUrl;
    std::string eServicesApiKey;
    std::string serialNumber;
};

}  // namespace VEQ
