#pragma once
// The two privilege sides an app can connect to.

namespace Veq::Sdk {

enum class Side {
    User,      // open to every local user
    Elevated,  // open only to the service's own user
};

// The side's name as users type it and as messages show it.
inline const char* SideName(Side side)
{
    return side == Side::User ? "user" : "elevated";
}

}  // namespace Veq::Sdk
