#pragma once

#include "broker/BaseCommandHandler.h"

#include <string>
#include <vector>

namespace VEQ {

// "Get-VeqStatus": the device id, the service's version, the tenant and the back end's base
// addresses. Takes no request data. A value that is not available is sent as an empty string.
class GetVeqStatusCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Get-VeqStatus";
    static constexpr const char* kReplyCommand = "Receive-VeqStatus";

    explicit GetVeqStatusCommand(Log& log);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

private:
    std::vector<std::string> commandNames_;
};

}  // namespace VEQ
