#pragma once

#include "platform/applicability/VEQTag.h"

#include <string>
#include <vector>

namespace VEQ {

// The reply of "Get-VeqTags": one flat JSON object, a string member per tag. A key that repeats
// keeps its last value, and no tags at all is the JSON text null.
class GetVeqTagsCommandResponse {
public:
    std::vector<VEQTag> tags;

    static std::string Serialize(const GetVeqTagsCommandResponse& response);
    // For clients of the reply. Text that is not JSON gives no tags; members come back sorted by
    // name, whatever order they were written in.
    static GetVeqTagsCommandResponse Deserialize(const std::string& text);
};

}  // namespace VEQ
