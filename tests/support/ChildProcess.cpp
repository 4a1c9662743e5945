#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace VEQ::Test {

ChildOutcome ChildProcess::Run(const std::vector<std::string>& argv)
{
    ChildOutcome outcome;
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        return outcome;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
    std::vector<char*> args;
    for (const auto& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    pid_t pid = 0;
    const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    if (rc == 0) {
        char buffer[4096];
        ssize_t count = 0;
        while ((count = ::read(pipeFds[0], buffer, sizeof(buffer))) > 0) {
            outcome.output.append(buffer, static_cast<size_t>(count));
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    ::close(pipeFds[0]);
    return outcome;
}

ChildOutcome ChildProcess::RunAsNobody(const std::vector<std::string>& argv)
{
    std::vector<std::string> wrapped = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"};
    wrapped.insert(wrapped.end(), argv.begin(), argv.end());
    return Run(wrapped);
}

std::string ChildProcess::TestProgram(const std::string& name)
{
    return std::string(VEQ_TEST_PROGRAM_DIR) + "/" + name;
}

bool ChildProcess::IsRoot()
{
    return ::geteuid() == 0;
}

}  // namespace VEQ::Test
