#pragma once

#include <string>

namespace VEQ {

// What a running plugin learns about itself from "Get-PluginHostContext".
struct GetPluginHostContextResponse {
    std::string pluginName;
    std::string pluginId;
    // The folder of the plugin's entry file (a folder, despite the name).
    std::string pluginEntryPath;

    static std::string Serialize(const GetPluginHostContextResponse& response);
};

}  // namespace VEQ
