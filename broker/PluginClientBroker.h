#pragma once

#include "broker/BaseClientBroker.h"
#include "broker/IPluginHandlerFactory.h"

namespace VEQ {

class PluginDetails;
class VEQNotificationData;

// The broker of one running plugin.
class PluginClientBroker : public BaseClientBroker {
public:
    // pluginDetails must outlive the broker (its instance holds both).
    PluginClientBroker(const BrokerContext& brokerContext, const ClientContext& clientContext,
                       PluginDetails& pluginDetails);
    ~PluginClientBroker() override;

    // Starts the server, then builds the handlers; a request in between finds none (17001).
    void Start();
    void Suspend();
    // Relays an inbound MQTT message whose topic names this plugin.
    void OnVEQNotification(VEQNotificationData& data);

private:
    void AddPluginCommandHandlers();

    IPluginHandlerFactory* handlerFactory;
    PluginDetails& pluginDetails;
};

}  // namespace VEQ
