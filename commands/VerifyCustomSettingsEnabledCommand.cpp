#include "commands/VerifyCustomSettingsEnabledCommand.h"

#include "commands/VerifyCustomSettingsEnabledResponse.h"
#include "platform/device/DeveloperSettings.h"

#include <exception>

namespace VEQ {

VerifyCustomSettingsEnabledCommand::VerifyCustomSettingsEnabledCommand(Log& log)
    : BaseCommandHandler(log), commandNames_{kCommandName}
{
}

BaseCommandHandler::Result VerifyCustomSettingsEnabledCommand::GetResponse(const ClientRequest& request,
                                                                           bool& /*pendingOperation*/)
{
    static constexpr const wchar_t* kFunction = L"VEQ::VerifyCustomSettingsEnabledCommand::GetResponse";
    Result result;
    try {
        const Message& message = request.getMessage();
        if (!Supports(message.notification.command) || message.notification.command != kCommandName) {
            return result;
        }
        if (log_ != nullptr) {
            log_->d(L"%s: Received Command (%s). Data: (%s)", kFunction, message.notification.command,
                    message.notification.payload);
        }
        result = Succeeded(message, kReplyCommand, "");

        VerifyCustomSettingsEnabledResponse response;
        response.isCustomSettingEnabled = DeveloperSettings::GetInstance()->IsCustomSettingEnabled();
        result.message.notification.payload = VerifyCustomSettingsEnabledResponse::Serialize(response);
    } catch (const std::exception& error) {
        if (log_ != nullptr) {
            log_->d(L"%s: Exception occured (%s)", kFunction, error.what());
        }
    }
    return result;
}

const std::vector<std::string>& VerifyCustomSettingsEnabledCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType VerifyCustomSettingsEnabledCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType VerifyCustomSettingsEnabledCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}

}  // namespace VEQ
