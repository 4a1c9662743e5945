#pragma once

#include "module/ElevationType.h"

#include <string>

namespace VEQ {

// What a lookup of a routing target found among the plugins.
struct PluginInstanceDetails {
    std::string pluginId;
    std::string pluginName;
    ElevationType elevationType = ElevationType::None;
    bool isPluginFound = false;
    bool isPluginRunning = false;
    bool isCommandFound = false;
};

}  // namespace VEQ
