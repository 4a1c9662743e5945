#include "broker/AppHandlerFactory.h"

#include "broker/HandlerList.h"
#include "commands/GetDeviceAccessStampCommand.h"
#include "commands/GetDeviceConfigCommand.h"
#include "commands/GetVeqStatusCommand.h"
#include "commands/GetVeqTagsCommand.h"
#include "commands/TestApplicabilityCommand.h"
#include "digest/VerifySignatureOfDigestCommand.h"
#include "http/InvokeHttpRequestCommand.h"
#include "mqtt/DisableMqttConnectionCommand.h"
#include "mqtt/EnableMqttConnectionCommand.h"
#include "mqtt/PublishMqttMessageCommand.h"
#include "packages/GetPackagelistCommand.h"
#include "packages/StartPackageOperationCommand.h"

namespace VEQ {

std::vector<BaseCommandHandler*> AppHandlerFactory::GetHandlers(BrokerContext context,
                                                                const ClientContext& clientContext, Log& log)
{
    return HandlerList::Build(
        context,
        [&](std::vector<BaseCommandHandler*>& created) {
            created.push_back(new GetVeqStatusCommand(log));
            created.push_back(new GetDeviceAccessStampCommand(log));
            // Rows 3 and 4: the two registration commands.
            created.push_back(new GetDeviceConfigCommand(log));
            created.push_back(new EnableMqttConnectionCommand(log, clientContext.extensionId));
            created.push_back(new DisableMqttConnectionCommand(log, clientContext.extensionId));
            created.push_back(new PublishMqttMessageCommand(log, clientContext.extensionId));
            created.push_back(new VerifySignatureOfDigestCommand(log));
            created.push_back(new TestApplicabilityCommand(log));
            created.push_back(new GetVeqTagsCommand(log, clientContext.extensionId));
            created.push_back(new GetPackagelistCommand(log));
            created.push_back(new InvokeHttpRequestCommand(log, context.getElevationType(), context.getExtensionType()));
            created.push_back(new StartPackageOperationCommand(log, clientContext.extensionId));
        },
        log, L"VEQ::AppHandlerFactory::GetHandlers");
}

}  // namespace VEQ
