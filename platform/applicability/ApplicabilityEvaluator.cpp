#include "platform/applicability/ApplicabilityEvaluator.h"

#include "platform/Platform.h"

namespace VEQ {

std::shared_ptr<ApplicabilityEvaluator> ApplicabilityEvaluator::GetInstance()
{
    return Platform::Evaluator();
}

bool ApplicabilityEvaluator::EvaluateFilters(std::vector<ApplicabilityFilter> /*filters*/,
                                             const std::wstring& /*targetVersion*/,
                                             const std::vector<KeyValuePair>& /*tags*/, std::wstring& reason)
{
    reason.clear();
    return true;
}

}  // namespace VEQ
