#include "broker/PluginClientBroker.h"

#include "broker/PluginHandlerFactory.h"

namespace VEQ {

PluginClientBroker::PluginClientBroker(const BrokerContext& brokerContext, const ClientContext& clientContext,
                                       PluginDetails& pluginDetailsIn)
    : BaseClientBroker(brokerContext, clientContext),
      handlerFactory(new PluginHandlerFactory()),
      pluginDetails(pluginDetailsIn)
{
}

PluginClientBroker::~PluginClientBroker()
{
    delete handlerFactory;
}

void PluginClientBroker::Start()
{
    StartServer();
    AddPluginCommandHandlers();
}

void PluginClientBroker::AddPluginCommandHandlers()
{
    BrokerContext context = get_brokerContext();
    SetHandlers(handlerFactory->GetHandlers(context, get_clientContext(), pluginDetails, log));
}

void PluginClientBroker::Suspend()
{
    SuspendServer();
}

void PluginClientBroker::OnVEQNotification(VEQNotificationData& data)
{
    RelayMqttMessage(data);
}

}  // namespace VEQ
