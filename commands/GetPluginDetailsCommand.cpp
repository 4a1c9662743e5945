#include "commands/GetPluginDetailsCommand.h"

#include "broker/ReplyJson.h"
#include "platform/string/String.h"

#include <exception>

namespace VEQ {
namespace {

Json::Value BlockJson(const PluginExecutionDetails& block)
{
    Json::Value value(Json::objectValue);
    value["startup"] = String::UTF16ToUTF8(block.getStartupTypeAsString());
    value["entry32"] = block.getEntryPointPath32();
    value["entry64"] = block.getEntryPointPath64();
    value["entryARM64"] = block.getEntryPointPathARM64();
    return value;
}

}  // namespace

GetPluginDetailsCommand::GetPluginDetailsCommand(Log& log, const PluginDetails& details)
    : BaseCommandHandler(log), commandNames_{kCommandName}, pluginDetails_(details)
{
}

std::string GetPluginDetailsCommand::Serialize(const PluginDetails& details)
{
    const PluginManifest& manifest = details.getPluginManifest();
    Json::Value root(Json::objectValue);
    root["pluginSource"] = String::UTF16ToUTF8(details.getSourceTypeAsString());
    Json::Value& written = root["pluginManifest"];
    written["pluginName"] = manifest.getPluginName();
    written["pluginId"] = String::UTF16ToUTF8(manifest.getPluginId());
    written["runtime"] = String::UTF16ToUTF8(manifest.getRuntimeTypeAsString());
    written["user"] = BlockJson(manifest.getUser());
    written["system"] = BlockJson(manifest.getSystem());
    return ReplyJson::Write(root);
}

BaseCommandHandler::Result GetPluginDetailsCommand::GetResponse(const ClientRequest& request,
                                                                bool& /*pendingOperation*/)
{
    static constexpr const wchar_t* kFunction = L"VEQ::GetPluginDetailsCommand::GetResponse";
    Result result;
    try {
        const Message& message = request.getMessage();
        if (!Supports(message.notification.command)) {
            return NotSupported(result, message, kFunction);
        }
        if (message.notification.command != kCommandName) {
            return result;
        }
        Json::Value payload;
        if (!ReplyJson::Parse(message.notification.payload, payload)) {
            result.message.notification.payload.clear();
            return result;
        }
        const std::wstring id = String::UTF8ToUTF16(payload["id"].asString());
        if (id != pluginDetails_.getPluginManifest().getPluginId()) {
            result.message.notification.payload.clear();
            return result;
        }
        result = Succeeded(message, kReplyCommand, Serialize(pluginDetails_));
    } catch (const std::exception& error) {
        if (log_ != nullptr) {
            log_->e(L"%s: Exception: %s", kFunction, error.what());
        }
    } catch (...) {
        if (log_ != nullptr) {
            log_->e(L"%s: Unknown exception", kFunction);
        }
    }
    return result;
}

const std::vector<std::string>& GetPluginDetailsCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType GetPluginDetailsCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType GetPluginDetailsCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}

}  // namespace VEQ
