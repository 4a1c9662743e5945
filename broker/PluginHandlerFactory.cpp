#include "broker/PluginHandlerFactory.h"

#include "commands/GetPluginDetailsCommand.h"
#include "commands/GetPluginHostContextCommand.h"
#include "commands/GetVeqStatusCommand.h"
#include "commands/GetVeqTagsCommand.h"
#include "commands/VerifyCustomSettingsEnabledCommand.h"
#include "mqtt/DisableMqttConnectionCommand.h"
#include "mqtt/EnableMqttConnectionCommand.h"
#include "mqtt/NotifyZCPCommand.h"
#include "mqtt/PublishMqttMessageCommand.h"

namespace VEQ {

std::vector<BaseCommandHandler*> PluginHandlerFactory::GetHandlers(BrokerContext context,
                                                                   const ClientContext& clientContext,
                                                                   PluginDetails& pluginDetails, Log& log)
{
    std::vector<BaseCommandHandler*> created;
    std::vector<BaseCommandHandler*> kept;
    try {
        created.push_back(new GetPluginDetailsCommand(log, pluginDetails));
        created.push_back(new GetPluginHostContextCommand(log, pluginDetails));
        created.push_back(new GetVeqStatusCommand(log));
        // Row 4 "Get-DeviceConfig" and row 5 "Invoke-HttpRequest" come with their commands.
        created.push_back(new NotifyZCPCommand(log));
        created.push_back(new EnableMqttConnectionCommand(log, clientContext.extensionId));
        created.push_back(new DisableMqttConnectionCommand(log, clientContext.extensionId));
        created.push_back(new PublishMqttMessageCommand(log, clientContext.extensionId));
        // Rows 10 to 12: "Verify-Signature", "Get-DecryptedData", "Test-Applicability".
        created.push_back(new VerifyCustomSettingsEnabledCommand(log));
        created.push_back(new GetVeqTagsCommand(log, clientContext.extensionId));
        // Rows 15 to 21: the package list, the data protection, digest and warranty commands,
        // and "Start-PackageOperation".
    } catch (const std::exception& error) {
        log.e(L"%s Exception: %s", L"VEQ::PluginHandlerFactory::GetHandlers", error.what());
        for (auto* handler : created) {
            delete handler;
        }
        return kept;
    }
    for (auto* handler : created) {
        if (handler->IsApplicable(context)) {
            kept.push_back(handler);
        } else {
            delete handler;
        }
    }
    return kept;
}

}  // namespace VEQ
