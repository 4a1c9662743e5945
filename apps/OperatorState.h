#pragma once

#include <cstdint>

namespace VEQ {

enum class OperatorState : int32_t {
    Started = 0,
    Stopping = 1,
    Stopped = 2,
};

}  // namespace VEQ
