#pragma once

#include "broker/BaseCommandHandler.h"

#include <string>
#include <vector>

namespace VEQ {

// "Verify-Signature": is the request's payload, as it stands, content signed by the back end with
// one of the keys the policy lists (docs/digest.md)? An invalid signature is a successful
// command whose reply says "false".
class VerifySignatureOfDigestCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Verify-Signature";
    static constexpr const char* kReplyCommand = "Receive-VerifySignature";
    static constexpr unsigned kNotSignedCode = 51;

    explicit VerifySignatureOfDigestCommand(Log& log);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

    // "Success" for a non-zero code, "Failure" for 0, as it always was; the reply does not use it.
    static std::string getResponseDescription(unsigned code);

private:
    std::vector<std::string> commandNames_;
};

}  // namespace VEQ
