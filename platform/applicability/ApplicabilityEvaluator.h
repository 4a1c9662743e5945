#pragma once
// The rule engine: does a list of applicability rules hold on this machine? This one accepts
// every rule set; the real evaluator over this machine's facts replaces it (docs/policy.md says
// which rules are read today). Tests install their own through PlatformServices.

#include "platform/applicability/ApplicabilityFilter.h"
#include "platform/policy/KeyValuePair.h"

#include <memory>
#include <string>
#include <vector>

namespace VEQ {

class ApplicabilityEvaluator {
public:
    virtual ~ApplicabilityEvaluator() = default;

    // The installed evaluator.
    static std::shared_ptr<ApplicabilityEvaluator> GetInstance();

    // True when every rule holds; reason names the first that does not.
    virtual bool EvaluateFilters(std::vector<ApplicabilityFilter> filters, const std::wstring& targetVersion,
                                 const std::vector<KeyValuePair>& tags, std::wstring& reason);

    // The text that receives the reason of the last refusal, for callers that keep none of their
    // own. Shared by those callers: one that reads it back must be the only one evaluating.
    std::wstring& SetDiscardedReason() { return discardedReason_; }

private:
    std::wstring discardedReason_;
};

}  // namespace VEQ
