#include "broker/AppClientBroker.h"

#include "broker/AppHandlerFactory.h"
#include "mqtt/ExtensionMqttBroker.h"

namespace VEQ {

AppClientBroker::AppClientBroker(const BrokerContext& brokerContext, const ClientContext& clientContext)
    : BaseClientBroker(brokerContext, clientContext), handlerFactory(new AppHandlerFactory())
{
}

AppClientBroker::~AppClientBroker()
{
    ReleaseMqttClaim();
    delete handlerFactory;
}

// An app that leaves gives up its claim on an on-demand connection, so that the connection
// goes when the last app that wanted it has gone.
void AppClientBroker::ReleaseMqttClaim()
{
    if (ExtensionMqttBroker::IsMqttConnectingOnDemand()) {
        ExtensionMqttBroker::DisableMqttConnection(get_clientContext().extensionId,
                                                   get_brokerContext().getElevationType());
    }
}

void AppClientBroker::Start()
{
    StartServer();
    BrokerContext context = get_brokerContext();
    SetHandlers(handlerFactory->GetHandlers(context, get_clientContext(), log));
}

void AppClientBroker::Suspend()
{
    ReleaseMqttClaim();
    SuspendServer();
}

void AppClientBroker::OnVEQNotification(VEQNotificationData& data)
{
    RelayMqttMessage(data);
}

}  // namespace VEQ
