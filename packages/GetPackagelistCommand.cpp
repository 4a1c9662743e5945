#include "packages/GetPackagelistCommand.h"

#include "packages/GetPackagelistCommandResponse.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/string/String.h"

#include <json/json.h>

#include <exception>
#include <sstream>

namespace VEQ {

GetPackagelistCommand::GetPackagelistCommand(Log& log) : BaseCommandHandler(log), commandNames_{kCommandName} {}

std::vector<KeyValuePair> GetPackagelistCommand::ParseAdditionalTags(const std::string& payload, Log* log)
{
    return ParseAdditionalTags(payload, log, L"VEQ::GetPackagelistCommand::ParseAdditionalTags");
}

std::vector<KeyValuePair> GetPackagelistCommand::ParseAdditionalTags(const std::string& payload, Log* log,
                                                                     const wchar_t* function)
{
    std::vector<KeyValuePair> tags;
    try {
        Json::Value root;
        Json::CharReaderBuilder builder;
        std::istringstream stream(payload);
        std::string errors;
        if (!Json::parseFromStream(builder, stream, &root, &errors)) {
            return tags;
        }
        if (!root.isObject() || !root.isMember("additionalTags") || !root["additionalTags"].isObject()) {
            return tags;
        }
        if (log != nullptr) {
            log->d(L"%s: Parsing additionalTags from request payload", function);
        }
        const Json::Value& additional = root["additionalTags"];
        for (const std::string& name : additional.getMemberNames()) {
            if (log != nullptr) {
                log->d(L"%s: tags present %s", function, name);
            }
            // An array or object here throws, and the tags read so far are kept.
            const std::string value = additional[name].asString();
            tags.push_back({String::UTF8ToUTF16(name), String::UTF8ToUTF16(value)});
        }
    } catch (const std::exception& error) {
        if (log != nullptr) {
            log->e(L"%s: Exception  : %s", function, error.what());
        }
    } catch (...) {
        if (log != nullptr) {
            log->e(L"%s: Unknown Exception:", function);
        }
    }
    return tags;
}

BaseCommandHandler::Result GetPackagelistCommand::GetResponse(const ClientRequest& request, bool& /*pendingOperation*/)
{
    const wchar_t* function = L"VEQ::GetPackagelistCommand::GetResponse";
    Result result;
    const Message& message = request.getMessage();
    if (message.notification.command != kCommandName) {
        result.isSuccess = false;
        result.message.statusText = kNotSupportedText;
        log_->e(L"%s: Command(%s) not supported for the request", function, message.notification.command);
        return result;
    }
    try {
        result.isSuccess = true;
        result.message.statusCode = 0;
        result.message.guid = message.guid;
        const std::vector<KeyValuePair> tags = ParseAdditionalTags(message.notification.payload, log_);
        result.message.notification.command = kReplyCommand;
        result.message.notification.payload =
            GetPackagelistCommandResponse::Serialize(ConfigPolicyAgent::GetInstance()->GetPackageDetailsInConfig(&tags));
    } catch (const std::exception& error) {
        log_->e(L"%s: Exception: %s", function, error.what());
    }
    return result;
}

const std::vector<std::string>& GetPackagelistCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType GetPackagelistCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType GetPackagelistCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}

}  // namespace VEQ
