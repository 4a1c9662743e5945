#include "commands/GetVeqTagsCommand.h"

#include "commands/GetVeqTagsCommandResponse.h"
#include "platform/applicability/AppAndTagCollection.h"

#include <exception>

namespace VEQ {

GetVeqTagsCommand::GetVeqTagsCommand(Log& log, const std::string& extensionId)
    : BaseCommandHandler(log), commandNames_{kCommandName}, extensionId_(extensionId)
{
}

BaseCommandHandler::Result GetVeqTagsCommand::GetResponse(const ClientRequest& request, bool& /*pendingOperation*/)
{
    static constexpr const wchar_t* kFunction = L"VEQ::GetVeqTagsCommand::GetResponse";
    Result result;
    try {
        const Message& message = request.getMessage();
        if (!Supports(message.notification.command)) {
            return NotSupported(result, message, kFunction);
        }
        result = Succeeded(message, kReplyCommand, "");

        GetVeqTagsCommandResponse response;
        AppAndTagCollection* collection = AppAndTagCollection::GetInstance();
        if (collection == nullptr) {
            // Still a success: the client learns that there are no tags to go by.
            if (log_ != nullptr) {
                log_->e(L"%s: Unable to get AppAndTagCollection instance", kFunction);
            }
        } else {
            response.tags = collection->getTagsFromRegistryAndMemory();
        }
        result.message.notification.payload = GetVeqTagsCommandResponse::Serialize(response);
    } catch (const std::exception& error) {
        if (log_ != nullptr) {
            log_->e(L"%s: Exception: %s", kFunction, error.what());
        }
    }
    return result;
}

const std::vector<std::string>& GetVeqTagsCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType GetVeqTagsCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType GetVeqTagsCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}

}  // namespace VEQ
