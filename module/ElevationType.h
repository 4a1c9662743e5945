#pragma once

#include <cstdint>

namespace VEQ {

// The privilege side of a client: the service's own rights, or a logged-in user's.
enum class ElevationType : int32_t {
    None = 0,
    Elevated = 1,
    User = 2,
    Both = 3,
};

}  // namespace VEQ
