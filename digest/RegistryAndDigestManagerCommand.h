#pragma once

#include "broker/BaseCommandHandler.h"

#include <string>
#include <vector>

// "RegistryAndDigestCleanup": the messaging plugin says which address its digest comes from; when
// that changed (or is gone) the cached digest, its ETag and its timestamp go, so the next fetch
// starts afresh. Stands outside the VEQ namespace, as it always has.
class RegistryAndDigestManagerCommand : public VEQ::BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "RegistryAndDigestCleanup";
    static constexpr const char* kReplyCommand = "Receive-RegistryAndDigestCleanup";

    explicit RegistryAndDigestManagerCommand(VEQ::Log& log);

    Result GetResponse(const VEQ::ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    VEQ::ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

private:
    // The three deletions, all run; true when each succeeded.
    static bool DeleteAll();

    std::vector<std::string> commandNames_;
};
