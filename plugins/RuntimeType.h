#pragma once

#include <cstdint>

namespace VEQ {

// The runtime a plugin declares it needs.
enum class RuntimeType : int32_t {
    Unmanaged = 0,
    Dotnet5 = 1,
};

}  // namespace VEQ
