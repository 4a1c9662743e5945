#pragma once

#include <string>

namespace VEQ {

// The reply of "Test-Applicability": whether the rules hold here, as the texts "true"/"false".
struct TestApplicabilityResponse {
    std::string isApplicable;
    std::string id;
    std::string reason;

    static std::string Serialize(const TestApplicabilityResponse& response);
};

}  // namespace VEQ
