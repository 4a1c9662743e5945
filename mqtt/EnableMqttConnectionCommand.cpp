#include "mqtt/EnableMqttConnectionCommand.h"

#include "mqtt/EnableMqttConnectionCommandResponse.h"
#include "mqtt/ExtensionMqttBroker.h"
#include "mqtt/MqttResponseTexts.h"

#include <exception>

namespace VEQ {

EnableMqttConnectionCommand::EnableMqttConnectionCommand(Log& log, const std::string& extensionId)
    : BaseCommandHandler(log), commandNames_{kCommandName}, extensionId_(extensionId)
{
}

BaseCommandHandler::Result EnableMqttConnectionCommand::GetResponse(const ClientRequest& request,
                                                                    bool& /*pendingOperation*/)
{
    static constexpr const wchar_t* kFunction = L"VEQ::EnableMqttConnectionCommand::GetResponse";
    Result result;
    try {
        const Message& message = request.getMessage();
        if (!Supports(message.notification.command)) {
            return NotSupported(result, message, kFunction);
        }
        result = Succeeded(message, kReplyCommand, "");
        const ExtensionMqttBrokerResult outcome =
            EnableMqttConnectionToBroker(extensionId_, request.getBrokerContext().getElevationType());
        const auto reply = MqttResponseTexts::ForConnectionOutcome(outcome, true);
        result.message.notification.payload =
            EnableMqttConnectionCommandResponse::Serialize({reply.flag, reply.code, reply.description});
    } catch (const std::exception& error) {
        if (log_ != nullptr) {
            log_->e(L"%s: Exception: %s", kFunction, error.what());
        }
    }
    return result;
}

ExtensionMqttBrokerResult EnableMqttConnectionCommand::EnableMqttConnectionToBroker(std::string extensionId,
                                                                                    ElevationType elevation)
{
    return ExtensionMqttBroker::EnableMqttConnection(extensionId, elevation);
}

const std::vector<std::string>& EnableMqttConnectionCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType EnableMqttConnectionCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType EnableMqttConnectionCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}

}  // namespace VEQ
