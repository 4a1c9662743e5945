#pragma once

#include <cstdint>

namespace VEQ {

// Where a plugin came from. Add-on plugins count as Embedded.
enum class PluginSourceType : int32_t {
    Embedded = 0,    // comes with the product
    Downloaded = 1,  // lies in the plugin repository
};

}  // namespace VEQ
