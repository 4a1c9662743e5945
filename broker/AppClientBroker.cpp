#include "broker/AppClientBroker.h"

#include "broker/AppHandlerFactory.h"

namespace VEQ {

AppClientBroker::AppClientBroker(const BrokerContext& brokerContext, const ClientContext& clientContext)
    : BaseClientBroker(brokerContext, clientContext), handlerFactory(new AppHandlerFactory())
{
}

AppClientBroker::~AppClientBroker()
{
    delete handlerFactory;
}

void AppClientBroker::Start()
{
    StartServer();
    BrokerContext context = get_brokerContext();
    SetHandlers(handlerFactory->GetHandlers(context, get_clientContext(), log));
}

void AppClientBroker::Suspend()
{
    SuspendServer();
}

void AppClientBroker::OnVEQNotification(VEQNotificationData& data)
{
    RelayMqttMessage(data);
}

}  // namespace VEQ
