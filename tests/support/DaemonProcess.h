#pragma once
// veqd as a real process on a test's own root, stopped (and, if need be, killed) at the end.

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

namespace VEQ::Test {

class DaemonProcess {
public:
    // extraArgs follow --root ROOT.
    DaemonProcess(std::string root, std::vector<std::string> extraArgs = {});
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    // Starts veqd and waits for its ready line. False (with Output()) when it did not get there.
    bool Start(std::chrono::milliseconds deadline = std::chrono::seconds(20));
    // Sends SIGTERM and waits; the exit code, or -1 when it had to be killed.
    int Stop(std::chrono::milliseconds deadline = std::chrono::seconds(20));
    bool Running() const { return pid_ > 0; }
    pid_t Pid() const { return pid_; }
    const std::string& Output() const { return output_; }

    static std::string Program();

private:
    bool ReadUntil(const std::string& marker, std::chrono::steady_clock::time_point until);

    std::string root_;
    std::vector<std::string> extraArgs_;
    pid_t pid_ = -1;
    int outputFd_ = -1;
    std::string output_;
};

}  // namespace VEQ::Test
