#pragma once

#include "broker/BaseCommandHandler.h"

#include <string>
#include <vector>

namespace VEQ {

// "GetEncryptedDataCommand": encrypts "textToEncrypt" to the RSA public key "pubKey" (PEM) and
// answers with the base64 text alone. For elevated plugins only. A text that cannot be
// encrypted to that key is answered with an empty payload, still as a success.
class GetEncryptedDataCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "GetEncryptedDataCommand";
    static constexpr const char* kReplyCommand = "Receive-EncryptedData";

    explicit GetEncryptedDataCommand(Log& log);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

private:
    std::vector<std::string> commandNames_;
};

}  // namespace VEQ
