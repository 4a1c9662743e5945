#pragma once

#include "broker/BaseCommandHandler.h"
#include "platform/applicability/ApplicabilityFilter.h"
#include "platform/policy/KeyValuePair.h"

#include <json/json.h>

#include <string>
#include <vector>

namespace VEQ {

// "Test-Applicability": whether a set of rules holds on this device, as the rule engine says,
// with its reason (docs/applicability.md).
class TestApplicabilityCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Test-Applicability";
    static constexpr const char* kReplyCommand = "Receive-Test-Applicability";

    explicit TestApplicabilityCommand(Log& log);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

    // "filter": each element of a non-empty array, in order.
    static std::vector<ApplicabilityFilter> ReadFilters(const Json::Value& request);
    // "additionalTags": each member of an object, its value as text.
    static std::vector<KeyValuePair> ReadAdditionalTags(const Json::Value& request);

private:
    std::vector<std::string> commandNames_;
};

}  // namespace VEQ
