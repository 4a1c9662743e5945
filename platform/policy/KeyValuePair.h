#pragma once

#include <string>

namespace VEQ {

// A named text: a package's tag, or a tag that a client adds to a request.
struct KeyValuePair {
    std::wstring key;
    std::wstring value;

    bool operator==(const KeyValuePair&) const = default;
};

}  // namespace VEQ
