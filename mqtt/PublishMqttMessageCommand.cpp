#include "mqtt/PublishMqttMessageCommand.h"

#include "mqtt/ExtensionMqttBroker.h"
#include "mqtt/MqttResponseTexts.h"
#include "mqtt/PublishMqttMessageResponse.h"
#include "platform/string/String.h"

#include <json/json.h>

#include <exception>
#include <memory>

namespace VEQ {
namespace {

constexpr uint32_t kPublishedStatus = 0;
constexpr uint32_t kQueuedStatus = 3002;
constexpr uint32_t kNotConnectedStatus = 3003;
constexpr uint32_t kDisabledByConfigStatus = 0xFFFFFFFF;

}  // namespace

PublishMqttMessageCommand::PublishMqttMessageCommand(Log& log, const std::string& extensionId)
    : BaseCommandHandler(log), commandNames_{kCommandName}, extensionId_(extensionId)
{
}

BaseCommandHandler::Result PublishMqttMessageCommand::GetResponse(const ClientRequest& request,
                                                                  bool& /*pendingOperation*/)
{
    static constexpr const wchar_t* kFunction = L"VEQ::PublishMqttMessageCommand::GetResponse";
    using namespace MqttResponseTexts;
    Result result;
    try {
        const Message& message = request.getMessage();
        if (!Supports(message.notification.command)) {
            return NotSupported(result, message, kFunction);
        }
        result = Succeeded(message, kReplyCommand, "");
        if (log_ != nullptr) {
            log_->d(L"%s: Received Command (%s). Data: (%s)", kFunction, message.notification.command,
                    message.notification.payload);
        }
        try {
            const std::string& text = message.notification.payload;
            Json::CharReaderBuilder builder;
            const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
            Json::Value root;
            std::string errors;
            if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
                result.isSuccess = false;
                result.message.statusText = kUnparsablePayloadText;
                return result;
            }
            // A payload that is JSON but not an object, or a member that is no text, throws here.
            const std::string relativeTopic = root["relativeTopic"].asString();
            const std::string body = root["message"].asString();
            const std::string skipSuffix = root["skipNotificationSuffix"].asString();

            // The prefix comes from the broker, not from the client: a client publishes below its own.
            std::string topic = "app/" + request.getClientContext().extensionId + "/" + relativeTopic;
            if (!String::CaseInsesitiveEqual(skipSuffix, std::string(kTrue))) {
                topic += "/notification";
            }
            uint32_t status = kNoStatus;
            const ExtensionMqttBrokerResult outcome = PublishMsgToBroker(
                extensionId_, request.getBrokerContext().getElevationType(), topic, body, status);
            PublishMqttMessageResponse response;
            switch (outcome) {
            case ExtensionMqttBrokerResult::Success:
                response = {status == kPublishedStatus ? kTrue : kFalse, std::to_string(status),
                            getResponseDescription(status)};
                break;
            case ExtensionMqttBrokerResult::NotAllowed:
                response = {kFalse, "1", kNotAllowed};
                break;
            case ExtensionMqttBrokerResult::UnableToAccess:
                response = {kFalse, "2", kUnableToAccess};
                break;
            case ExtensionMqttBrokerResult::NotConnected:
                response = {kFalse, "3", kNotConnected};
                break;
            }
            result.message.notification.payload = PublishMqttMessageResponse::Serialize(response);
        } catch (...) {
            result.isSuccess = false;
            result.message.statusCode = kNotSupportedCode;
            result.message.statusText = kBadPayloadText;
        }
    } catch (const std::exception& error) {
        if (log_ != nullptr) {
            log_->e(L"%s: Exception: %s", kFunction, error.what());
        }
    }
    return result;
}

ExtensionMqttBrokerResult PublishMqttMessageCommand::PublishMsgToBroker(std::string extensionId,
                                                                        ElevationType elevation,
                                                                        const std::string& topic,
                                                                        const std::string& payload, uint32_t& status)
{
    return ExtensionMqttBroker::PublishMqttMessage(extensionId, elevation, String::UTF8ToUTF16(topic),
                                                   String::UTF8ToUTF16(payload), status);
}

std::string PublishMqttMessageCommand::getResponseDescription(uint32_t status)
{
    switch (status) {
    case kPublishedStatus:
        return "Published mqtt message successfully";
    case kQueuedStatus:
        return "Mqtt Broker currently not in a state to accept publish messages. The message has been queued and "
               "will be sent as soon as possible.";
    case kNotConnectedStatus:
        return "Mqtt Broker not connected";
    case kDisabledByConfigStatus:
        return "Mqtt Broker is disable from config file";
    default:
        return "Unknown error";
    }
}

const std::vector<std::string>& PublishMqttMessageCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType PublishMqttMessageCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType PublishMqttMessageCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}

}  // namespace VEQ
