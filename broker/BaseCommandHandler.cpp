#include "broker/BaseCommandHandler.h"

#include <algorithm>

namespace VEQ {

bool BaseCommandHandler::IsApplicable(const BrokerContext& context)
{
    const ElevationType supportedContext = GetSupportedContext();
    const bool elevationFits = supportedContext == ElevationType::Both
                                   ? context.getElevationType() != ElevationType::None
                                   : context.getElevationType() == supportedContext;
    if (!elevationFits) {
        return false;
    }
    const ExtensionType supportedType = GetSupportedExtensionType();
    return supportedType == ExtensionType::Both ? context.getExtensionType() != ExtensionType::None
                                                : context.getExtensionType() == supportedType;
}

ElevationType BaseCommandHandler::GetSupportedContext()
{
    return ElevationType::Elevated;
}

BaseCommandHandler::ExtensionType BaseCommandHandler::GetSupportedExtensionType()
{
    return ExtensionType::App;
}

bool BaseCommandHandler::Supports(const std::string& command)
{
    const auto& names = GetSupportedCommandNames();
    return std::find(names.begin(), names.end(), command) != names.end();
}

BaseCommandHandler::Result& BaseCommandHandler::NotSupported(Result& result, const Message& request,
                                                             const wchar_t* function)
{
    result.isSuccess = false;
    result.message.guid = request.guid;
    result.message.statusCode = kNotSupportedCode;
    result.message.statusText = kNotSupportedText;
    if (log_ != nullptr) {
        log_->e(L"%s: Command(%s) not supported for the request", function, request.notification.command);
    }
    return result;
}

BaseCommandHandler::Result BaseCommandHandler::Succeeded(const Message& request, const std::string& replyCommand,
                                                         const std::string& payload)
{
    Result result;
    result.isSuccess = true;
    result.message.statusCode = 0;
    result.message.guid = request.guid;
    result.message.notification.command = replyCommand;
    result.message.notification.payload = payload;
    return result;
}

}  // namespace VEQ
