#include "platform/process/OpenFileLimit.h"

#include <sys/resource.h>

namespace VEQ {
namespace {

// Written once before threads exist, read by children after fork.
rlimit g_original{};
bool g_raised = false;

}  // namespace

void OpenFileLimit::RaiseToHard()
{
    rlimit limit{};
    if (g_raised || ::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    g_original = limit;
    limit.rlim_cur = limit.rlim_max;
    g_raised = ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

uint64_t OpenFileLimit::Current()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return UINT64_MAX;
    }
    return limit.rlim_cur;
}

void OpenFileLimit::RestoreInChild()
{
    if (g_raised) {
        ::setrlimit(RLIMIT_NOFILE, &g_original);
    }
}

}  // namespace VEQ
