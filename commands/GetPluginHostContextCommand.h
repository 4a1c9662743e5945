#pragma once

#include "broker/BaseCommandHandler.h"

#include <string>
#include <vector>

namespace VEQ {

class PluginDetails;

// "Get-PluginHostContext": a plugin's name, id and the folder of its entry file, for the host
// that loads it. Takes no request data; plugins only.
class GetPluginHostContextCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Get-PluginHostContext";
    static constexpr const char* kReplyCommand = "Receive-PluginHostContext";

    // details must outlive the handler (its broker's plugin does).
    GetPluginHostContextCommand(Log& log, const PluginDetails& details);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

private:
    const PluginDetails* pluginDetails_;
    std::vector<std::string> commandNames_;
};

}  // namespace VEQ
