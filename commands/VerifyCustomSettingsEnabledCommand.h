#pragma once

#include "broker/BaseCommandHandler.h"

#include <string>
#include <vector>

namespace VEQ {

// "VerifyCustomSettingsEnabledCommand" (the command is named like the class): whether this
// device runs with custom developer settings. Takes no request data. Unlike the other commands it
// answers a name it does not own with a default Result, not with "Command not Supported".
class VerifyCustomSettingsEnabledCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "VerifyCustomSettingsEnabledCommand";
    static constexpr const char* kReplyCommand = "Receive-VerifyCustomSettingsEnabled";

    explicit VerifyCustomSettingsEnabledCommand(Log& log);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

private:
    std::vector<std::string> commandNames_;
};

}  // namespace VEQ
