#pragma once

#include "broker/BaseCommandHandler.h"
#include "mqtt/ExtensionMqttBrokerResult.h"

#include <string>
#include <vector>

namespace VEQ {

// "Disable-MqttConnection": the client no longer needs the service's MQTT connection. Takes no
// request data. The reply is a success whatever happens to the connection; its payload tells the
// outcome. On demand, the connection goes when the last client that enabled it has disabled it.
class DisableMqttConnectionCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Disable-MqttConnection";
    static constexpr const char* kReplyCommand = "Receive-Disable-MqttConnection";

    DisableMqttConnectionCommand(Log& log, const std::string& extensionId);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;
    virtual ExtensionMqttBrokerResult DisableMqttConnectionToBroker(std::string extensionId, ElevationType elevation);

private:
    std::vector<std::string> commandNames_;
    std::string extensionId_;  // the client the broker serves
};

}  // namespace VEQ
