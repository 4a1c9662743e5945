#include "platform/process/SignalWaiter.h"

#include <csignal>
#include <fstream>
#include <dirent.h>
#include <pthread.h>

namespace VEQ {
namespace {

sigset_t& Blocked()
{
    static sigset_t set;
    return set;
}

}  // namespace

void SignalWaiter::Block(std::initializer_list<int> signals)
{
    sigemptyset(&Blocked());
    for (int signal : signals) {
        sigaddset(&Blocked(), signal);
    }
    pthread_sigmask(SIG_BLOCK, &Blocked(), nullptr);
}

int SignalWaiter::Wait()
{
    int received = 0;
    while (sigwait(&Blocked(), &received) != 0) {
    }
    return received;
}

int SignalWaiter::ThreadCount()
{
#if defined(__SANITIZE_THREAD__)
    // ThreadSanitizer runs a thread of its own beside the program's.
    constexpr int kRuntimeThreads = 1;
#else
    constexpr int kRuntimeThreads = 0;
#endif
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return -1;
    }
    int count = 0;
    while (const dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    closedir(tasks);
    return count - kRuntimeThreads;
}

std::vector<std::string> SignalWaiter::ThreadNames()
{
    std::vector<std::string> names;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return names;
    }
    while (const dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        names.push_back(name + "(" + entry->d_name + ")");
    }
    closedir(tasks);
    return names;
}

}  // namespace VEQ
