#include "tests/support/BackgroundProcess.h"

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace VEQ::Test {

BackgroundProcess::BackgroundProcess(std::vector<std::string> argv) : argv_(std::move(argv)) {}

BackgroundProcess::~BackgroundProcess()
{
    Kill();
}

bool BackgroundProcess::Start()
{
    if (pid_ > 0) {
        return false;
    }
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
    std::vector<char*> args;
    for (auto& arg : argv_) {
        args.push_back(arg.data());
    }
    args.push_back(nullptr);
    const int rc = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    if (rc != 0) {
        pid_ = -1;
        ::close(pipeFds[0]);
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        output_.clear();
        outputEnded_ = false;
    }
    reader_ = std::thread(&BackgroundProcess::ReadOutput, this, pipeFds[0]);
    return true;
}

void BackgroundProcess::ReadOutput(int fd)
{
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::read(fd, buffer, sizeof(buffer))) > 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        output_.append(buffer, static_cast<size_t>(count));
        changed_.notify_all();
    }
    ::close(fd);
    std::lock_guard<std::mutex> lock(mutex_);
    outputEnded_ = true;
    changed_.notify_all();
}

bool BackgroundProcess::WaitForOutput(const std::string& marker, std::chrono::milliseconds deadline)
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, deadline,
                      [&] { return output_.find(marker) != std::string::npos || outputEnded_; });
    return output_.find(marker) != std::string::npos;
}

std::string BackgroundProcess::Output()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return output_;
}

bool BackgroundProcess::Running()
{
    return pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0;
}

int BackgroundProcess::Stop(std::chrono::milliseconds deadline)
{
    if (pid_ <= 0) {
        return -1;
    }
    ::kill(pid_, SIGTERM);
    return Reap(deadline);
}

void BackgroundProcess::Kill()
{
    if (pid_ <= 0) {
        return;
    }
    ::kill(pid_, SIGKILL);
    Reap(std::chrono::seconds(10));
}

int BackgroundProcess::Reap(std::chrono::milliseconds deadline)
{
    const auto until = std::chrono::steady_clock::now() + deadline;
    // The output pipe closes as the program ends, unless a child of its own holds it.
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_until(lock, until, [&] { return outputEnded_; });
    }
    int status = 0;
    pid_t ended = 0;
    while ((ended = ::waitpid(pid_, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    int code = -1;
    if (ended == pid_) {
        code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    } else {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
    if (reader_.joinable()) {
        reader_.join();
    }
    return code;
}

}  // namespace VEQ::Test
