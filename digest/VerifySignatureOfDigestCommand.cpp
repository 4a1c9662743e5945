#include "digest/VerifySignatureOfDigestCommand.h"

#include "digest/VerifySignatureResponse.h"
#include "platform/agents/AgentFactory.h"
#include "platform/device/DeveloperSettings.h"
#include "platform/util/CoreUtility.h"

#include <algorithm>
#include <exception>

namespace VEQ {
namespace {

constexpr const wchar_t* kFunction = L"VEQ::VerifySignatureOfDigestCommand::GetResponse";

}  // namespace

VerifySignatureOfDigestCommand::VerifySignatureOfDigestCommand(Log& log)
    : BaseCommandHandler(log), commandNames_{kCommandName}
{
}

std::string VerifySignatureOfDigestCommand::getResponseDescription(unsigned code)
{
    return code != 0 ? "Success" : "Failure";
}

BaseCommandHandler::Result VerifySignatureOfDigestCommand::GetResponse(const ClientRequest& request,
                                                                      bool& /*pendingOperation*/)
{
    Result result;
    try {
        const Message& message = request.getMessage();
        const auto found = std::find(commandNames_.begin(), commandNames_.end(), message.notification.command);
        if (found == commandNames_.end()) {
            log_->d(L"%s:Exit", kFunction);
            return result;
        }
        if (*found != kCommandName) {
            result.isSuccess = false;
            result.message.statusCode = kNotSupportedCode;
            result.message.statusText = kNotSupportedText;
            log_->e(L"%s: Command(%s) not supported for the request", kFunction, message.notification.command);
            log_->d(L"%s:Exit", kFunction);
            return result;
        }
        const std::shared_ptr<IConfigAgent> agent = AgentFactory::GetInstance()->GetConfigPolicyAgent();
        const bool enforce = !DeveloperSettings::GetInstance()->IsSkipSignedContentCheck();
        const SignatureCheckResult check =
            CoreUtility::GetInstance()->VerifyContentWithAgent(message.notification.payload, agent, enforce);
        result.isSuccess = true;
        result.message.statusCode = 0;
        result.message.guid = message.guid;
        result.message.notification.command = kReplyCommand;
        VerifySignatureResponse response;
        response.isSigned = check.isValid ? "true" : "false";
        response.responseCode = check.isValid ? "0" : std::to_string(kNotSignedCode);
        response.responseDescription = check.isValid ? "Success" : "Failure";
        result.message.notification.payload = VerifySignatureResponse::Serialize(response);
    } catch (const std::exception& error) {
        log_->e(L"%s: Exception: %s", kFunction, error.what());
    }
    log_->d(L"%s:Exit", kFunction);
    return result;
}

const std::vector<std::string>& VerifySignatureOfDigestCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType VerifySignatureOfDigestCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType VerifySignatureOfDigestCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}

}  // namespace VEQ
