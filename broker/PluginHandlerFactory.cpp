#include "broker/PluginHandlerFactory.h"

#include "broker/HandlerList.h"
#include "commands/GetDecryptedDataCommand.h"
#include "commands/GetDeviceConfigCommand.h"
#include "commands/GetEncryptedDataCommand.h"
#include "commands/GetPluginDetailsCommand.h"
#include "commands/GetPluginHostContextCommand.h"
#include "commands/GetVeqStatusCommand.h"
#include "commands/GetVeqTagsCommand.h"
#include "commands/TestApplicabilityCommand.h"
#include "commands/VerifyCustomSettingsEnabledCommand.h"
#include "digest/CheckEtagNGetDigestNSaveIfValidCommand.h"
#include "digest/RegistryAndDigestManagerCommand.h"
#include "digest/VerifySignatureOfDigestCommand.h"
#include "http/GetWarrantyInfoAndUpdateTagRegCommand.h"
#include "http/InvokeHttpRequestCommand.h"
#include "mqtt/DisableMqttConnectionCommand.h"
#include "mqtt/EnableMqttConnectionCommand.h"
#include "mqtt/NotifyZCPCommand.h"
#include "mqtt/PublishMqttMessageCommand.h"
#include "packages/GetPackagelistCommand.h"
#include "packages/StartPackageOperationCommand.h"

namespace VEQ {

std::vector<BaseCommandHandler*> PluginHandlerFactory::GetHandlers(BrokerContext context,
                                                                   const ClientContext& clientContext,
                                                                   PluginDetails& pluginDetails, Log& log)
{
    return HandlerList::Build(
        context,
        [&](std::vector<BaseCommandHandler*>& created) {
            created.push_back(new GetPluginDetailsCommand(log, pluginDetails));
            created.push_back(new GetPluginHostContextCommand(log, pluginDetails));
            created.push_back(new GetVeqStatusCommand(log));
            created.push_back(new GetDeviceConfigCommand(log));
            created.push_back(new InvokeHttpRequestCommand(log, context.getElevationType(), context.getExtensionType()));
            created.push_back(new NotifyZCPCommand(log));
            created.push_back(new EnableMqttConnectionCommand(log, clientContext.extensionId));
            created.push_back(new DisableMqttConnectionCommand(log, clientContext.extensionId));
            created.push_back(new PublishMqttMessageCommand(log, clientContext.extensionId));
            created.push_back(new VerifySignatureOfDigestCommand(log));
            created.push_back(new GetDecryptedDataCommand(log, clientContext.extensionId));
            created.push_back(new TestApplicabilityCommand(log));
            created.push_back(new VerifyCustomSettingsEnabledCommand(log));
            created.push_back(new GetVeqTagsCommand(log, clientContext.extensionId));
            created.push_back(new GetPackagelistCommand(log));
            created.push_back(new GetEncryptedDataCommand(log));
            created.push_back(new CheckEtagNGetDigestNSaveIfValidCommand(log));
            created.push_back(new GetWarrantyInfoAndUpdateTagRegCommand(log));
            created.push_back(new RegistryAndDigestManagerCommand(log));
            // A second time, as the table always had it; the first answers.
            created.push_back(new GetEncryptedDataCommand(log));
            created.push_back(new StartPackageOperationCommand(log, clientContext.extensionId));
        },
        log, L"VEQ::PluginHandlerFactory::GetHandlers");
}

}  // namespace VEQ
