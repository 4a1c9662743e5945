#pragma once

#include "broker/BaseClientBroker.h"
#include "broker/IAppHandlerFactory.h"

namespace VEQ {

class VEQNotificationData;

// The broker of one connected app.
class AppClientBroker : public BaseClientBroker {
public:
    AppClientBroker(const BrokerContext& brokerContext, const ClientContext& clientContext);
    ~AppClientBroker() override;

    // Starts the server, then builds the handlers; a request in between finds none (17001).
    void Start();
    void Suspend();
    // Relays an inbound MQTT message whose topic names this app.
    void OnVEQNotification(VEQNotificationData& data);

private:
    void ReleaseMqttClaim();

    IAppHandlerFactory* handlerFactory;
};

}  // namespace VEQ
