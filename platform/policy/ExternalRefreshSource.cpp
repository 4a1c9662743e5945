#include "platform/policy/ExternalRefreshSource.h"

#include "platform/policy/PolicyRefreshStatus.h"

namespace VEQ {

ExternalRefreshSource::ExternalRefreshSource(std::shared_ptr<IPolicyRefreshSource> reload) : reload_(std::move(reload))
{
}

// Not called: the refresh is made elsewhere.
int32_t ExternalRefreshSource::Refresh()
{
    return PolicyRefreshStatus::kRunning;
}

int32_t ExternalRefreshSource::Completed(int32_t reported)
{
    if (reported == PolicyRefreshStatus::kSucceeded && reload_) {
        return reload_->Refresh();
    }
    return reported;
}

}  // namespace VEQ
