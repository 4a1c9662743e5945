#pragma once

#include "platform/policy/IPolicyRefreshSource.h"

#include <string>

namespace VEQ {

class ConfigPolicyAgent;

// The policy file as the source of a refresh: read again, checked as the watcher checks it, and
// put in force (announced when it differs). What refreshes from elsewhere ends with this too, once
// the file has been replaced. A file that is missing or not a policy fails the refresh with
// kFetchFailed and leaves the policy in force.
class PolicyFileRefreshSource : public IPolicyRefreshSource {
public:
    PolicyFileRefreshSource(ConfigPolicyAgent& agent, std::wstring path);

    int32_t Refresh() override;

    const std::wstring& Path() const { return path_; }

private:
    ConfigPolicyAgent& agent_;
    const std::wstring path_;
};

}  // namespace VEQ
