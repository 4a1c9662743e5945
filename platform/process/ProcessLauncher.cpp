#include "platform/process/ProcessLauncher.h"

#include "platform/process/ChildProcesses.h"
#include "platform/process/OpenFileLimit.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>

namespace VEQ {
namespace {

// What the child needs, prepared before fork: between fork and exec only async-signal-safe
// calls may run, since the service has other threads.
struct ChildPlan {
    std::vector<std::string> argv;
    std::vector<std::string> environment;
    std::string directory;
    bool switchUser = false;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
};

std::vector<char*> Pointers(std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (std::string& text : strings) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

bool PlanUser(uint32_t uid, ChildPlan& plan, std::string& error)
{
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
        error = "no user has uid " + std::to_string(uid);
        return false;
    }
    plan.switchUser = true;
    plan.uid = entry.pw_uid;
    plan.gid = entry.pw_gid;
    int count = 32;
    plan.groups.resize(static_cast<size_t>(count));
    while (getgrouplist(entry.pw_name, entry.pw_gid, plan.groups.data(), &count) < 0) {
        plan.groups.resize(static_cast<size_t>(count));
    }
    plan.groups.resize(static_cast<size_t>(count));
    const std::string home = entry.pw_dir != nullptr && *entry.pw_dir == '/' ? entry.pw_dir : "/";
    plan.environment = {"HOME=" + home, std::string("USER=") + entry.pw_name, std::string("LOGNAME=") + entry.pw_name,
                        "PATH=/usr/local/bin:/usr/bin:/bin",
                        "XDG_RUNTIME_DIR=/run/user/" + std::to_string(entry.pw_uid)};
    if (const char* lang = std::getenv("LANG")) {
        plan.environment.push_back(std::string("LANG=") + lang);
    }
    struct stat status {};
    if (plan.directory.empty()) {
        // Service accounts such as nobody have a home that does not exist.
        plan.directory = stat(home.c_str(), &status) == 0 && S_ISDIR(status.st_mode) ? home : "/";
    }
    return true;
}

// In the child: never returns. Reports errno through report when the program cannot start.
[[noreturn]] void RunChild(ChildPlan& plan, char* const* argv, char* const* environment, int report)
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);  // the service blocks its stop signals
    for (int signal = 1; signal < NSIG; ++signal) {
        std::signal(signal, SIG_DFL);  // ignored signals (SIGPIPE) would stay ignored across exec
    }
    setsid();
    OpenFileLimit::RestoreInChild();
    const int devNull = open("/dev/null", O_RDONLY);
    if (devNull >= 0) {
        dup2(devNull, STDIN_FILENO);
    }
    bool ready = true;
    if (plan.switchUser) {
        ready = setgroups(plan.groups.size(), plan.groups.data()) == 0 && setresgid(plan.gid, plan.gid, plan.gid) == 0 &&
                setresuid(plan.uid, plan.uid, plan.uid) == 0;
    }
    ready = ready && chdir(plan.directory.c_str()) == 0;
    if (ready) {
        // Nothing of the service's but the standard streams reaches the program.
        syscall(SYS_close_range, 3u, ~0u, 4u /* CLOSE_RANGE_CLOEXEC */);
        execve(argv[0], argv, environment);
    }
    const int failure = errno;
    (void)!write(report, &failure, sizeof failure);
    _exit(127);
}

}  // namespace

std::vector<std::string> ProcessLauncher::SplitCommandLine(const std::string& commandLine)
{
    std::vector<std::string> words;
    size_t start = 0;
    while (start < commandLine.size()) {
        const size_t end = std::min(commandLine.find(' ', start), commandLine.size());
        if (end > start) {
            words.push_back(commandLine.substr(start, end - start));
        }
        start = end + 1;
    }
    return words;
}

bool ProcessLauncher::Launch(const std::vector<std::string>& argv, const std::string& workingDirectory,
                             std::optional<uint32_t> asUser, uint32_t& pid, std::string& error)
{
    if (argv.empty() || argv.front().empty() || argv.front().front() != '/') {
        error = "the program must be given by its absolute path";
        return false;
    }
    ChildPlan plan;
    plan.argv = argv;
    plan.directory = workingDirectory;
    if (asUser && !PlanUser(*asUser, plan, error)) {
        return false;
    }
    if (!asUser) {
        for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
            plan.environment.emplace_back(*entry);
        }
        if (plan.directory.empty()) {
            plan.directory = "/";
        }
    }
    std::vector<char*> arguments = Pointers(plan.argv);
    std::vector<char*> environment = Pointers(plan.environment);
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        error = std::string("pipe2: ") + std::strerror(errno);
        return false;
    }
    const pid_t child = fork();
    if (child == 0) {
        close(report[0]);
        RunChild(plan, arguments.data(), environment.data(), report[1]);
    }
    close(report[1]);
    if (child < 0) {
        error = std::string("fork: ") + std::strerror(errno);
        close(report[0]);
        return false;
    }
    // Held before anyone can reap it, so the pid cannot name another process while we hold it.
    const long pidfd = syscall(SYS_pidfd_open, child, 0);
    if (pidfd >= 0) {
        ChildProcesses::Instance().Adopt(static_cast<uint32_t>(child), static_cast<int>(pidfd));
    }
    int failure = 0;
    ssize_t got = 0;
    while ((got = read(report[0], &failure, sizeof failure)) < 0 && errno == EINTR) {
    }
    close(report[0]);
    if (got == static_cast<ssize_t>(sizeof failure)) {
        error = argv.front() + ": " + std::strerror(failure);
        return false;  // the child has exited with 127 and is reaped as any other
    }
    pid = static_cast<uint32_t>(child);
    return true;
}

}  // namespace VEQ
