#pragma once

#include <cstdint>

namespace VEQ {

// When a plugin asks to start; reported to clients, never acted on.
enum class StartupType : int32_t {
    Auto = 0,
    Event = 1,
};

}  // namespace VEQ
