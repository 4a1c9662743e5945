#include "tests/support/DaemonProcess.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace VEQ::Test {
namespace {

constexpr const char* kReadyMarker = "veqd: serving";

}  // namespace

DaemonProcess::DaemonProcess(std::string root, std::vector<std::string> extraArgs)
    : root_(std::move(root)), extraArgs_(std::move(extraArgs))
{
}

DaemonProcess::~DaemonProcess()
{
    if (pid_ > 0) {
        Stop(std::chrono::seconds(10));
    }
}

std::string DaemonProcess::Program()
{
    return VEQD_PROGRAM;
}

bool DaemonProcess::Start(std::chrono::milliseconds deadline)
{
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        return false;
    }
    std::vector<std::string> args = {Program(), "--root", root_};
    args.insert(args.end(), extraArgs_.begin(), extraArgs_.end());
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
    const int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    outputFd_ = pipeFds[0];
    output_.clear();
    if (rc != 0) {
        pid_ = -1;
        output_ = "cannot start " + Program();
        return false;
    }
    return ReadUntil(kReadyMarker, std::chrono::steady_clock::now() + deadline);
}

bool DaemonProcess::ReadUntil(const std::string& marker, std::chrono::steady_clock::time_point until)
{
    while (output_.find(marker) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd item{outputFd_, POLLIN, 0};
        if (::poll(&item, 1, static_cast<int>(left.count())) <= 0) {
            continue;
        }
        char buffer[4096];
        const ssize_t count = ::read(outputFd_, buffer, sizeof(buffer));
        if (count <= 0) {
            return false;  // veqd ended
        }
        output_.append(buffer, static_cast<size_t>(count));
    }
    return true;
}

int DaemonProcess::Stop(std::chrono::milliseconds deadline)
{
    if (pid_ <= 0) {
        return -1;
    }
    ::kill(pid_, SIGTERM);
    const auto until = std::chrono::steady_clock::now() + deadline;
    ReadUntil("veqd: stopped", until);  // also drains what it printed meanwhile
    int status = 0;
    pid_t ended = 0;
    while ((ended = ::waitpid(pid_, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < until) {
        pollfd item{outputFd_, POLLIN, 0};
        ::poll(&item, 1, 20);
    }
    int code = -1;
    if (ended == pid_) {
        code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    } else {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    ::close(outputFd_);
    outputFd_ = -1;
    pid_ = -1;
    return code;
}

}  // namespace VEQ::Test
