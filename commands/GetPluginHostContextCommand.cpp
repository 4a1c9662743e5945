#include "commands/GetPluginHostContextCommand.h"

#include "commands/GetPluginHostContextResponse.h"
#include "plugins/PluginDetails.h"
#include "platform/fs/PathMapper.h"
#include "platform/string/String.h"

#include <exception>

namespace VEQ {

GetPluginHostContextCommand::GetPluginHostContextCommand(Log& log, const PluginDetails& details)
    : BaseCommandHandler(log), pluginDetails_(&details), commandNames_{kCommandName}
{
}

BaseCommandHandler::Result GetPluginHostContextCommand::GetResponse(const ClientRequest& request,
                                                                    bool& /*pendingOperation*/)
{
    static constexpr const wchar_t* kFunction = L"VEQ::GetPluginHostContextCommand::GetResponse";
    Result result;
    try {
        const Message& message = request.getMessage();
        if (!Supports(message.notification.command)) {
            return NotSupported(result, message, kFunction);
        }
        result = Succeeded(message, kReplyCommand, "");
        GetPluginHostContextResponse response;
        response.pluginName = pluginDetails_->getPluginManifest().getPluginName();
        response.pluginId = String::UTF16ToUTF8(pluginDetails_->getPluginManifest().getPluginId());
        // A path on disk: the host is another program and cannot map the service's spelling.
        response.pluginEntryPath = PathMapper::ToNativeUtf8(pluginDetails_->getDirectory());
        result.message.notification.payload = GetPluginHostContextResponse::Serialize(response);
    } catch (const std::exception& error) {
        if (log_ != nullptr) {
            log_->e(L"%s: Exception: %s", kFunction, error.what());
        }
    }
    return result;
}

const std::vector<std::string>& GetPluginHostContextCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType GetPluginHostContextCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType GetPluginHostContextCommand::GetSupportedExtensionType()
{
    return ExtensionType::Plugin;
}

}  // namespace VEQ
