#pragma once

#include "broker/BaseCommandHandler.h"

#include <string>
#include <vector>

namespace VEQ {

// "Get-DeviceAccessStamp": the device key's signature over "device", the device id and the
// client's "timestamp", one per line, so that a back end can tell that the request comes from
// this device (docs/data-protection.md). Open to every client on both sides.
class GetDeviceAccessStampCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Get-DeviceAccessStamp";
    static constexpr const char* kReplyCommand = "Receive-DeviceAccessStamp";

    explicit GetDeviceAccessStampCommand(Log& log);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

    // The text that the stamp signs. No line feed at the end.
    static std::string SignedText(const std::string& deviceId, const std::string& timestamp);

private:
    std::vector<std::string> commandNames_;
};

}  // namespace VEQ
