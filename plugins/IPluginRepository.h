#pragma once

#include <vector>

namespace VEQ {

class PluginDetails;

// Which plugins exist on this machine and may be trusted.
class IPluginRepository {
public:
    virtual ~IPluginRepository() = default;
    // A fresh scan each time; the caller owns the entries.
    virtual std::vector<PluginDetails*> GetInstalledPlugins() = 0;
};

}  // namespace VEQ
