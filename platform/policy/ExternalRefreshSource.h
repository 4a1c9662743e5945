#pragma once

#include "platform/policy/IPolicyRefreshSource.h"

#include <memory>

namespace VEQ {

// A refresh made by another agent of the host, which hears the request on the bus (veqd passes it
// on to its control socket's listeners) and reports the outcome through
// ConfigPolicyAgent::ReportRefreshStatus. Until then the status stays kRunning. A success is
// completed by reload, when given: the other agent has replaced the policy file, and the reply to
// the requester must carry what it wrote, not wait for the file watcher.
class ExternalRefreshSource : public IPolicyRefreshSource {
public:
    explicit ExternalRefreshSource(std::shared_ptr<IPolicyRefreshSource> reload = nullptr);

    int32_t Refresh() override;
    bool RefreshesElsewhere() const override { return true; }
    int32_t Completed(int32_t reported) override;

private:
    const std::shared_ptr<IPolicyRefreshSource> reload_;
};

}  // namespace VEQ
