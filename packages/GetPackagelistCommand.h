#pragma once

#include "broker/BaseCommandHandler.h"
#include "platform/policy/KeyValuePair.h"

#include <string>
#include <vector>

namespace VEQ {

// "Get-PackageList": the packages the configuration assigns to this device, narrowed to those
// carrying every tag the client names in "additionalTags" (docs/policy.md).
class GetPackagelistCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Get-PackageList";
    static constexpr const char* kReplyCommand = "Receive-PackageList";

    explicit GetPackagelistCommand(Log& log);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

    // The members of the payload's "additionalTags" object, in name order, each value as text.
    // No tags for a payload that is no JSON or has no such object; a value that is no scalar
    // ends the list there. log may be null.
    static std::vector<KeyValuePair> ParseAdditionalTags(const std::string& payload, Log* log);
    // The same, logging under the caller's function name.
    static std::vector<KeyValuePair> ParseAdditionalTags(const std::string& payload, Log* log, const wchar_t* function);

private:
    std::vector<std::string> commandNames_;
};

}  // namespace VEQ
