#pragma once

#include "broker/BaseCommandHandler.h"
#include "plugins/PluginDetails.h"

#include <string>
#include <vector>

namespace VEQ {

// "Get-PluginDetails": the manifest of this broker's plugin as the service knows it. Request
// {"id": "<pluginId>"}; it answers only for its own plugin, compared exactly: any other id gets
// the Result as constructed with an empty payload, which is no error reply.
class GetPluginDetailsCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Get-PluginDetails";
    static constexpr const char* kReplyCommand = "Receive-PluginDetails";

    GetPluginDetailsCommand(Log& log, const PluginDetails& details);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

    static std::string Serialize(const PluginDetails& details);

private:
    std::vector<std::string> commandNames_;
    PluginDetails pluginDetails_;
};

}  // namespace VEQ
