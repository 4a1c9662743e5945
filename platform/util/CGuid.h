#pragma once
// Random identifiers for socket files, subscriptions and the like.

#include <string>

namespace VEQ::Utility {

class CGuid {
public:
    // A random (version 4) GUID, "XXXXXXXX-XXXX-4XXX-YXXX-XXXXXXXXXXXX" without braces, so it can be
    // used as a file name as it is. Hex digits are upper case when upperCase is true.
    static std::wstring NewGuid(bool upperCase);
};

}  // namespace VEQ::Utility
