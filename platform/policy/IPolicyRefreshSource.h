#pragma once

#include <cstdint>

namespace VEQ {

// Where a refresh of the policy comes from. ConfigPolicyAgent calls Refresh on a thread of its
// own, one refresh at a time.
class IPolicyRefreshSource {
public:
    virtual ~IPolicyRefreshSource() = default;

    // Brings the policy in force up to date and returns a PolicyRefreshStatus code: kSucceeded only
    // once the refreshed policy is in force.
    virtual int32_t Refresh() = 0;
    // True for refreshes made by another agent, which hears the request on the bus itself and
    // reports the outcome through ConfigPolicyAgent::ReportRefreshStatus; Refresh is not called.
    virtual bool RefreshesElsewhere() const { return false; }
    // The outcome reported for such a refresh; the source may still have work to do before it
    // holds (put the refreshed file in force). Runs on the reporter's thread.
    virtual int32_t Completed(int32_t reported) { return reported; }
    // The service stops: a Refresh that is blocked should return soon.
    virtual void Cancel() {}
};

}  // namespace VEQ
