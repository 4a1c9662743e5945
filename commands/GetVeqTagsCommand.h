#pragma once

#include "broker/BaseCommandHandler.h"

#include <string>
#include <vector>

namespace VEQ {

// "Get-VeqTags": the device's applicability tags, from the registry and from memory. Takes no
// request data. A device without tags answers success with the payload null.
class GetVeqTagsCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Get-VeqTags";
    static constexpr const char* kReplyCommand = "Receive-VeqTags";

    GetVeqTagsCommand(Log& log, const std::string& extensionId);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

private:
    std::vector<std::string> commandNames_;
    std::string extensionId_;  // the client the broker serves
};

}  // namespace VEQ
