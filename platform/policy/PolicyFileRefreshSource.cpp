#include "platform/policy/PolicyFileRefreshSource.h"

#include "platform/log/Log.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/policy/PolicyFile.h"
#include "platform/policy/PolicyRefreshStatus.h"

namespace VEQ {

PolicyFileRefreshSource::PolicyFileRefreshSource(ConfigPolicyAgent& agent, std::wstring path)
    : agent_(agent), path_(std::move(path))
{
}

int32_t PolicyFileRefreshSource::Refresh()
{
    Json::Value document;
    if (!PolicyFile::Read(path_, document)) {
        return PolicyRefreshStatus::kFetchFailed;  // the reason is logged
    }
    if (agent_.ApplyPolicyDocument(document)) {
        g_log.i(L"%s: a new policy from %s is in force", L"VEQ::PolicyFileRefreshSource::Refresh", path_);
    }
    return PolicyRefreshStatus::kSucceeded;
}

}  // namespace VEQ
