#include "commands/GetDeviceAccessStampCommand.h"

#include "commands/GetDeviceAccessStampResponse.h"
#include "platform/crypto/BinaryText.h"
#include "platform/crypto/DeviceCrypto.h"
#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"

#include <json/json.h>

#include <exception>
#include <memory>

namespace VEQ {
namespace {

constexpr const wchar_t* kFunction = L"VEQ::GetDeviceAccessStampCommand::GetResponse";

}  // namespace

GetDeviceAccessStampCommand::GetDeviceAccessStampCommand(Log& log)
    : BaseCommandHandler(log), commandNames_{kCommandName}
{
}

std::string GetDeviceAccessStampCommand::SignedText(const std::string& deviceId, const std::string& timestamp)
{
    return "device\n" + deviceId + "\n" + timestamp;
}

BaseCommandHandler::Result GetDeviceAccessStampCommand::GetResponse(const ClientRequest& request,
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
        result = Succeeded(message, kReplyCommand, "");

        GetDeviceAccessStampResponse response;
        DeviceIdentity identity;
        CoreUtility::GetInstance()->GetDeviceIdentity(identity);
        response.deviceId = String::UTF16ToUTF8(identity.deviceId);

        // Without a timestamp the stamp still proves the device; it just proves no moment.
        const std::string& payload = message.notification.payload;
        Json::CharReaderBuilder builder;
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value parsed;
        std::string errors;
        bool parsedOk = false;
        try {
            parsedOk = reader->parse(payload.data(), payload.data() + payload.size(), &parsed, &errors);
        } catch (const Json::Exception& error) {
            errors = error.what();  // nested deeper than the reader takes
        }
        if (!parsedOk) {
            if (log_ != nullptr) {
                log_->e(L"%s: ProcessMessageData error, errs = %s", kFunction, errors);
            }
        } else if (parsed.isObject() && parsed["timestamp"].isString()) {
            response.timestamp = parsed["timestamp"].asString();
        }

        const std::string signature = DeviceCrypto::SignDeviceText(SignedText(response.deviceId, response.timestamp));
        response.stamp = BinaryText::Base64ToHexString(String::UTF8ToUTF16(signature));
        result.message.notification.payload = GetDeviceAccessStampResponse::Serialize(response);
    } catch (const std::exception& error) {
        if (log_ != nullptr) {
            log_->e(L"%s: catch exception:%s", kFunction, error.what());
        }
    }
    return result;
}

const std::vector<std::string>& GetDeviceAccessStampCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType GetDeviceAccessStampCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType GetDeviceAccessStampCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}

}  // namespace VEQ
