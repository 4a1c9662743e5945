#pragma once
// The rule engine: does a list of applicability rules hold on this machine? docs/applicability.md
// says how each field of a rule is compared with this machine's facts. Tests install their own
// evaluator through PlatformServices, or give this one faked facts.

#include "platform/applicability/ApplicabilityFilter.h"
#include "platform/applicability/MachineFacts.h"
#include "platform/policy/KeyValuePair.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace VEQ {

class ApplicabilityEvaluator {
public:
    // Over the real machine: facts are read on first use and again once they are older than
    // kFactsLife, so that a launch pass asking for every plugin reads them once.
    ApplicabilityEvaluator();
    // Over these facts, for good.
    explicit ApplicabilityEvaluator(MachineFacts facts);
    virtual ~ApplicabilityEvaluator() = default;

    static constexpr std::chrono::seconds kFactsLife{10};

    // The installed evaluator.
    static std::shared_ptr<ApplicabilityEvaluator> GetInstance();

    // True when every rule holds (an empty list holds); otherwise reason names the first rule
    // and field that does not, with the wanted and the actual value. tags are the caller's
    // additional name-value pairs, tested by "tag" along with the device's tags; targetVersion
    // is what "target_version" is compared with.
    virtual bool EvaluateFilters(std::vector<ApplicabilityFilter> filters, const std::wstring& targetVersion,
                                 const std::vector<KeyValuePair>& tags, std::wstring& reason);

    // The text that receives the reason of the last refusal, for callers that keep none of their
    // own. Shared by those callers: one that reads it back must be the only one evaluating.
    std::wstring& SetDiscardedReason() { return discardedReason_; }

private:
    std::shared_ptr<const MachineFacts> Facts();

    std::function<MachineFacts()> readFacts_;  // empty: facts_ are fixed
    std::mutex factsMutex_;                    // guards facts_ and factsRead_
    std::shared_ptr<const MachineFacts> facts_;
    std::chrono::steady_clock::time_point factsRead_;
    std::wstring discardedReason_;
};

}  // namespace VEQ
