#include "platform/policy/UpdatePolicy.h"

#include "platform/policy/PolicyText.h"

namespace VEQ {

UpdatePolicy UpdatePolicy::FromJson(const Json::Value& updatePolicy)
{
    UpdatePolicy policy;
    policy.updateScope_ = PolicyText::Member(updatePolicy, "updateScope");
    for (const auto& entry : PolicyText::Objects(updatePolicy, "packages")) {
        policy.packages_.push_back(Package::FromJson(entry));
    }
    return policy;
}

}  // namespace VEQ
