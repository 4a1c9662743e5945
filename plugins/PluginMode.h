#pragma once

#include <cstdint>

namespace VEQ {

// In which contexts a plugin can run, from which of its launch blocks are valid. Numbered unlike
// ElevationType (there 1 is elevated, here 1 is user): never cast one to the other.
enum class PluginMode : int32_t {
    None = 0,
    User = 1,
    System = 2,
    Both = 3,
};

}  // namespace VEQ
