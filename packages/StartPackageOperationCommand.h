#pragma once

#include "broker/BaseCommandHandler.h"
#include "platform/policy/KeyValuePair.h"
#include "platform/policy/Package.h"
#include "platform/policy/UpdatePolicy.h"

#include <string>
#include <vector>

namespace VEQ {

class StartPackageOperationCommandResponse;

// "Start-PackageOperation": decides whether a client may install, force-install or cancel a
// package of the configuration, and hands the request to the update engine (bus topic 5, state
// 49, the request's text as payload). The reply says why not, or "OTA_pending"; in that case the
// engine's final word comes later as a push (docs/packages.md). Installs nothing itself.
class StartPackageOperationCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Start-PackageOperation";
    static constexpr const char* kReplyCommand = "Receive-PackageOperationResult";
    static constexpr int32_t kHandOverTopic = 5;
    static constexpr int32_t kHandOverState = 49;

    StartPackageOperationCommand(Log& log, const std::string& extensionId);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

    std::vector<Package> GetPackagesFromConfig(UpdatePolicy& policy);
    static bool ValidOperationType(const std::wstring& operationType);
    // As GetPackagelistCommand::ParseAdditionalTags, logging under this class's name.
    static std::vector<KeyValuePair> ParseAdditionalTags(const std::string& payload, Log* log);

private:
    struct Request {
        std::string requestId;
        std::string packageId;
        std::string operationType;
        std::vector<KeyValuePair> tags;
    };

    // Steps from the package lookup on; fills response.result and says whether the outcome is
    // still to come.
    void Decide(const Request& request, const std::string& payload, const UpdatePolicy& policy,
                const std::vector<Package>& packages, StartPackageOperationCommandResponse& response,
                Result& result, bool& pendingOperation);
    // The words that depend on the package's recorded and current state; empty when the request
    // may go ahead.
    std::string DecideByState(const Request& request, const Package& package, const std::wstring& recordedState,
                              const std::wstring& trigger);
    static void HandOver(const std::string& payload);

    std::vector<std::string> commandNames_;
    std::string extensionId_;  // the client the broker serves
};

}  // namespace VEQ
