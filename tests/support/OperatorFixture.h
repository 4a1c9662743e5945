#pragma once
// Publishes a global socket id for a side the way the service does, so that an operator can be
// started on it without the manager.

#include "module/ElevationType.h"

#include <string>

namespace VEQ::Test {

// Writes the side's registry value and socket placeholder; returns the global socket path.
std::string PublishGlobalSocket(ElevationType side);

}  // namespace VEQ::Test
