#pragma once
// Asks one plugin, on one side, for its contribution to the service's diagnostics: the command
// "Get-Diagnostics" with the folder its files go to, routed as any targeted command, and waited
// for 30 s at most. The host calls it once per plugin and side; nothing here keeps state but the log.

#include "module/ElevationType.h"

#include <cstdint>
#include <string>
#include <vector>

namespace VEQ {

class GetDiagnosticsCommandHandler {
public:
    // Milliseconds, whatever the name says.
    static constexpr uint32_t kDefaultGetDiagnosticsTimeoutSeconds = 30000;
    static constexpr const char* kCommand = "Get-Diagnostics";

    struct DiagnosticsOperationResult {
        bool success = false;
        bool deleteFilesOnUpload = true;
        bool timeout = false;
        bool delivered = false;
        std::wstring targetId;
        std::wstring folder;
    };

    static DiagnosticsOperationResult SendDiagnosticCommandToTargets(const std::wstring pluginId,
                                                                     const std::wstring folder,
                                                                     ElevationType elevation);
    // Reads "status" and "deleteFilesOnUpload" from a plugin's reply payload; false when there is
    // nothing to read.
    static bool TryPopulateFromPluginResponseJson(const std::string payload, DiagnosticsOperationResult& result);
    // The sides on which pluginId runs and may be asked, and its id as the service spells it.
    static bool TryResolveGetDiagnosticsElevations(const std::wstring pluginId, std::wstring& canonicalId,
                                                   std::vector<ElevationType>& elevations);
};

}  // namespace VEQ
