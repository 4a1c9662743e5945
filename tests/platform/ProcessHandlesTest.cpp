#include "platform/process/ProcessHandles.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <stdexcept>
#include <utility>
#include <sys/wait.h>
#include <unistd.h>

namespace VEQ {
namespace {

void ReadUntilClosed(int fd)
{
    char byte = 0;
    while (read(fd, &byte, 1) < 0 && errno == EINTR) {
    }
}

// A process that runs until the test lets it go, then exits with a chosen code. With
// asGrandchild it is not our child: its parent exits at once, as a launcher would.
class HeldProcess {
public:
    explicit HeldProcess(int exitCode, bool asGrandchild = false)
    {
        int hold[2];
        int report[2];
        if (pipe2(hold, O_CLOEXEC) != 0 || pipe2(report, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2 failed");
        }
        const pid_t child = fork();
        if (child == 0) {
            close(hold[1]);
            close(report[0]);
            if (asGrandchild && fork() != 0) {
                _exit(0);
            }
            const pid_t self = getpid();
            (void)!write(report[1], &self, sizeof(self));
            close(report[1]);
            ReadUntilClosed(hold[0]);
            _exit(exitCode);
        }
        close(hold[0]);
        close(report[1]);
        holdFd_ = hold[1];
        if (child < 0 || read(report[0], &pid_, sizeof(pid_)) != sizeof(pid_)) {
            close(report[0]);
            throw std::runtime_error("the held process did not start");
        }
        close(report[0]);
        if (asGrandchild) {
            waitpid(child, nullptr, 0);
        } else {
            child_ = child;
        }
    }
    ~HeldProcess()
    {
        Release();
        Reap();
    }
    HeldProcess(const HeldProcess&) = delete;
    HeldProcess& operator=(const HeldProcess&) = delete;

    uint32_t Pid() const { return static_cast<uint32_t>(pid_); }
    void Release()
    {
        if (holdFd_ >= 0) {
            close(holdFd_);
            holdFd_ = -1;
        }
    }
    // Waits for our child's end and collects it, as its owner would. The wait status, or -1
    // when there was nothing to collect.
    int Reap()
    {
        int status = -1;
        if (child_ > 0 && waitpid(child_, &status, 0) != child_) {
            status = -1;
        }
        child_ = -1;
        return status;
    }

private:
    pid_t pid_ = 0;
    pid_t child_ = -1;
    int holdFd_ = -1;
};

// Closes the handle whatever the test's outcome.
struct Handle {
    explicit Handle(uint32_t pid) : value(ProcessHandles::OpenProcess(pid)) {}
    ~Handle() { Close(); }
    bool Close() { return ProcessHandles::CloseHandle(std::exchange(value, nullptr)); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ProcessHandle value;
};

uint32_t AboveTheHighestPid()
{
    uint32_t pidMax = 4194304;
    std::ifstream("/proc/sys/kernel/pid_max") >> pidMax;
    return pidMax + 1;
}

TEST(ProcessHandlesTest, AHandleTellsARunningProcessFromAnEndedOneAndKeepsItsIdAfterTheReap)
{
    HeldProcess process(7);
    Handle handle(process.Pid());
    ASSERT_NE(handle.value, nullptr);
    uint32_t code = 0;

    EXPECT_EQ(ProcessHandles::WaitForSingleObject(handle.value, 0), WaitResult::Timeout);
    EXPECT_EQ(ProcessHandles::WaitForSingleObject(handle.value, 20), WaitResult::Timeout);
    EXPECT_TRUE(ProcessHandles::GetExitCodeProcess(handle.value, code));
    EXPECT_EQ(code, ProcessHandles::kStillActive);

    process.Release();
    EXPECT_EQ(ProcessHandles::WaitForSingleObject(handle.value, ProcessHandles::kInfinite), WaitResult::Signaled);
    EXPECT_EQ(ProcessHandles::WaitForSingleObject(handle.value, 0), WaitResult::Signaled) << "ended stays ended";
    EXPECT_FALSE(ProcessHandles::TerminateProcess(handle.value, 99)) << "an ended process cannot be ended";
    EXPECT_TRUE(ProcessHandles::GetExitCodeProcess(handle.value, code));
    EXPECT_EQ(code, 7u);

    const int status = process.Reap();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << "the handle leaves the child to its owner";
    EXPECT_EQ(ProcessHandles::WaitForSingleObject(handle.value, 0), WaitResult::Signaled) << "after the reap";
    EXPECT_EQ(ProcessHandles::GetProcessId(handle.value), process.Pid()) << "after the reap";
    code = 0;
    EXPECT_TRUE(ProcessHandles::GetExitCodeProcess(handle.value, code)) << "the code outlives the reap";
    EXPECT_EQ(code, 7u);
    EXPECT_TRUE(handle.Close());
}

TEST(ProcessHandlesTest, AnUnlimitedWaitReturnsWhenTheProcessEnds)
{
    HeldProcess process(0);
    Handle handle(process.Pid());
    ASSERT_NE(handle.value, nullptr);
    auto waited = std::async(std::launch::async, [&] {
        return ProcessHandles::WaitForSingleObject(handle.value, ProcessHandles::kInfinite);
    });
    process.Release();
    EXPECT_EQ(waited.get(), WaitResult::Signaled);
}

TEST(ProcessHandlesTest, WaitsOnAProcessThatIsNotOurChild)
{
    HeldProcess process(3, true);
    Handle handle(process.Pid());
    ASSERT_NE(handle.value, nullptr);
    EXPECT_EQ(ProcessHandles::WaitForSingleObject(handle.value, 0), WaitResult::Timeout);
    uint32_t code = 0;
    EXPECT_TRUE(ProcessHandles::GetExitCodeProcess(handle.value, code));
    EXPECT_EQ(code, ProcessHandles::kStillActive);

    process.Release();
    EXPECT_EQ(ProcessHandles::WaitForSingleObject(handle.value, ProcessHandles::kInfinite), WaitResult::Signaled);
    EXPECT_EQ(ProcessHandles::GetProcessId(handle.value), process.Pid());
    EXPECT_FALSE(ProcessHandles::GetExitCodeProcess(handle.value, code))
        << "only a parent learns how another process ended";
}

TEST(ProcessHandlesTest, TerminateEndsTheProcessWithTheGivenCodeOnce)
{
    for (const bool grandchild : {false, true}) {
        SCOPED_TRACE(grandchild ? "not our child" : "our child");
        HeldProcess process(0, grandchild);
        Handle handle(process.Pid());
        ASSERT_NE(handle.value, nullptr);

        ASSERT_TRUE(ProcessHandles::TerminateProcess(handle.value, 42));
        EXPECT_EQ(ProcessHandles::WaitForSingleObject(handle.value, ProcessHandles::kInfinite), WaitResult::Signaled);
        uint32_t code = 0;
        EXPECT_TRUE(ProcessHandles::GetExitCodeProcess(handle.value, code));
        EXPECT_EQ(code, 42u);
        EXPECT_FALSE(ProcessHandles::TerminateProcess(handle.value, 43)) << "an ended process cannot be ended again";
        process.Reap();
        code = 0;
        EXPECT_TRUE(ProcessHandles::GetExitCodeProcess(handle.value, code));
        EXPECT_EQ(code, 42u) << "after the reap";
    }
}

TEST(ProcessHandlesTest, ADeathBySomeoneElsesSignalReadsAsAShellWouldReportIt)
{
    HeldProcess process(0);
    Handle handle(process.Pid());
    ASSERT_NE(handle.value, nullptr);
    ASSERT_EQ(kill(static_cast<pid_t>(process.Pid()), SIGTERM), 0);
    EXPECT_EQ(ProcessHandles::WaitForSingleObject(handle.value, ProcessHandles::kInfinite), WaitResult::Signaled);
    uint32_t code = 0;
    EXPECT_TRUE(ProcessHandles::GetExitCodeProcess(handle.value, code));
    EXPECT_EQ(code, 128u + SIGTERM);
}

TEST(ProcessHandlesTest, OpenFailsForIdsThatNameNoProcess)
{
    // A process that ended and was reaped is gone, although a handle opened before would still answer.
    uint32_t reaped = 0;
    {
        HeldProcess process(0);
        reaped = process.Pid();
    }
    const std::pair<uint32_t, const char*> rows[] = {
        {0, "pid 0"},
        {AboveTheHighestPid(), "above pid_max"},
        {0x80000000u, "above the signed range"},
        {0xFFFFFFFFu, "all bits"},
        {reaped, "reaped child"},
    };
    for (const auto& [pid, what] : rows) {
        ProcessHandle handle = ProcessHandles::OpenProcess(pid);
        EXPECT_EQ(handle, nullptr) << what;
        ProcessHandles::CloseHandle(handle);
    }
}

TEST(ProcessHandlesTest, ANullHandleFailsEveryCall)
{
    uint32_t code = 5;
    EXPECT_EQ(ProcessHandles::WaitForSingleObject(nullptr, 0), WaitResult::Failed);
    EXPECT_EQ(ProcessHandles::WaitForSingleObject(nullptr, ProcessHandles::kInfinite), WaitResult::Failed);
    EXPECT_EQ(ProcessHandles::GetProcessId(nullptr), 0u);
    EXPECT_FALSE(ProcessHandles::GetExitCodeProcess(nullptr, code));
    EXPECT_EQ(code, 5u) << "the code is left alone";
    EXPECT_FALSE(ProcessHandles::TerminateProcess(nullptr, 1));
    EXPECT_FALSE(ProcessHandles::CloseHandle(nullptr));
}

}  // namespace
}  // namespace VEQ
