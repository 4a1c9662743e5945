#pragma once

#include "broker/BaseCommandHandler.h"
#include "mqtt/ExtensionMqttBrokerResult.h"

#include <cstdint>
#include <string>
#include <vector>

namespace VEQ {

// "Publish-MqttMessage": sends a client's message on the service's MQTT connection, below the
// client's own topic prefix "app/<extensionId>/". Request data: {"relativeTopic": "...",
// "message": "...", "skipNotificationSuffix": "true"|"false"}, all strings; unless the suffix is
// skipped, the topic ends in "/notification". The outcome is in the reply's payload.
class PublishMqttMessageCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Publish-MqttMessage";
    static constexpr const char* kReplyCommand = "Receive-PublishMqttMessageResult";
    static constexpr const char* kUnparsablePayloadText = "Unable to parse MQTT payload/data";
    static constexpr const char* kBadPayloadText = "Error in parsing MQTT payload/data";
    // What the status holds when nothing was published at all.
    static constexpr uint32_t kNoStatus = 3999;

    PublishMqttMessageCommand(Log& log, const std::string& extensionId);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;
    virtual ExtensionMqttBrokerResult PublishMsgToBroker(std::string extensionId, ElevationType elevation,
                                                         const std::string& topic, const std::string& payload,
                                                         uint32_t& status);
    // The text for a publish status of the notification agent.
    virtual std::string getResponseDescription(uint32_t status);

private:
    std::vector<std::string> commandNames_;
    std::string extensionId_;  // the client the broker serves
};

}  // namespace VEQ
