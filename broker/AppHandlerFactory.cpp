#include "broker/AppHandlerFactory.h"

#include "commands/GetVeqStatusCommand.h"
#include "commands/GetVeqTagsCommand.h"
#include "mqtt/DisableMqttConnectionCommand.h"
#include "mqtt/EnableMqttConnectionCommand.h"
#include "mqtt/PublishMqttMessageCommand.h"

namespace VEQ {

std::vector<BaseCommandHandler*> AppHandlerFactory::GetHandlers(BrokerContext context,
                                                                const ClientContext& clientContext, Log& log)
{
    std::vector<BaseCommandHandler*> created;
    std::vector<BaseCommandHandler*> kept;
    try {
        created.push_back(new GetVeqStatusCommand(log));
        created.push_back(new EnableMqttConnectionCommand(log, clientContext.extensionId));
        created.push_back(new DisableMqttConnectionCommand(log, clientContext.extensionId));
        created.push_back(new PublishMqttMessageCommand(log, clientContext.extensionId));
        created.push_back(new GetVeqTagsCommand(log, clientContext.extensionId));
    } catch (const std::exception& error) {
        log.e(L"%s Exception: %s", L"VEQ::AppHandlerFactory::GetHandlers", error.what());
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
