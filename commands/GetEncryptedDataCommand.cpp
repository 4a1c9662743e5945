#include "commands/GetEncryptedDataCommand.h"

#include "broker/ReplyJson.h"
#include "commands/GetEncryptedDataResponse.h"
#include "platform/crypto/DeviceCrypto.h"

#include <exception>

namespace VEQ {
namespace {

constexpr const wchar_t* kFunction = L"VEQ::GetEncryptedDataCommand::GetResponse";

std::string StringMember(const Json::Value& request, const char* name)
{
    const Json::Value& value = request.isObject() ? request[name] : Json::Value::null;
    return value.isString() ? value.asString() : std::string();
}

}  // namespace

GetEncryptedDataCommand::GetEncryptedDataCommand(Log& log) : BaseCommandHandler(log), commandNames_{kCommandName} {}

BaseCommandHandler::Result GetEncryptedDataCommand::GetResponse(const ClientRequest& request,
                                                                bool& /*pendingOperation*/)
{
    Result result;
    try {
        const Message& message = request.getMessage();
        if (!Supports(message.notification.command)) {
            return NotSupported(result, message, kFunction);
        }
        if (message.notification.command != kCommandName) {
            return result;
        }
        // A payload that is no JSON leaves both empty, and the empty key refuses the empty text.
        Json::Value parsed;
        try {
            ReplyJson::Parse(message.notification.payload, parsed);
        } catch (const Json::Exception&) {
            parsed = Json::Value();  // nested deeper than the reader takes
        }
        GetEncryptedDataResponse response;
        response.encryptedText =
            DeviceCrypto::EncryptValueWithKey(StringMember(parsed, "textToEncrypt"), StringMember(parsed, "pubKey"));
        result = Succeeded(message, kReplyCommand, GetEncryptedDataResponse::Serialize(response));
    } catch (const std::exception& error) {
        result.isSuccess = false;
        result.message.statusText = std::string("Exception caught:") + error.what();
        if (log_ != nullptr) {
            log_->e(L"%s: Exception caught:%s", kFunction, error.what());
        }
    }
    return result;
}

const std::vector<std::string>& GetEncryptedDataCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType GetEncryptedDataCommand::GetSupportedContext()
{
    return ElevationType::Elevated;
}

BaseCommandHandler::ExtensionType GetEncryptedDataCommand::GetSupportedExtensionType()
{
    return ExtensionType::Plugin;
}

}  // namespace VEQ
