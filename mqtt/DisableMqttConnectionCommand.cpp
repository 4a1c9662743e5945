#include "mqtt/DisableMqttConnectionCommand.h"

#include "mqtt/DisableMqttConnectionCommandResponse.h"
#include "mqtt/ExtensionMqttBroker.h"
#include "mqtt/MqttResponseTexts.h"

#include <exception>

namespace VEQ {

DisableMqttConnectionCommand::DisableMqttConnectionCommand(Log& log, const std::string& extensionId)
    : BaseCommandHandler(log), commandNames_{kCommandName}, extensionId_(extensionId)
{
}

BaseCommandHandler::Result DisableMqttConnectionCommand::GetResponse(const ClientRequest& request,
                                                                    bool& /*pendingOperation*/)
{
    static constexpr const wchar_t* kFunction = L"VEQ::DisableMqttConnectionCommand::GetResponse";
    Result result;
    try {
        const Message& message = request.getMessage();
        if (!Supports(message.notification.command)) {
            return NotSupported(result, message, kFunction);
        }
        result = Succeeded(message, kReplyCommand, "");
        const ExtensionMqttBrokerResult outcome =
            DisableMqttConnectionToBroker(extensionId_, request.getBrokerContext().getElevationType());
        const auto reply = MqttResponseTexts::ForConnectionOutcome(outcome, false);
        result.message.notification.payload =
            DisableMqttConnectionCommandResponse::Serialize({reply.flag, reply.code, reply.description});
    } catch (const std::exception& error) {
        if (log_ != nullptr) {
            log_->e(L"%s: Exception: %s", kFunction, error.what());
        }
    }
    return result;
}

ExtensionMqttBrokerResult DisableMqttConnectionCommand::DisableMqttConnectionToBroker(std::string extensionId,
                                                                                    ElevationType elevation)
{
    return ExtensionMqttBroker::DisableMqttConnection(extensionId, elevation);
}

const std::vector<std::string>& DisableMqttConnectionCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType DisableMqttConnectionCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType DisableMqttConnectionCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}

}  // namespace VEQ
