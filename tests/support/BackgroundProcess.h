#pragma once
// A program that runs beside a test (a broker, an app in a process of its own): started with its
// output collected, stopped or killed on demand, and always ended when the object goes.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace VEQ::Test {

class BackgroundProcess {
public:
    explicit BackgroundProcess(std::vector<std::string> argv);
    ~BackgroundProcess();
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;

    bool Start();
    // Until the output holds marker; false when the deadline passes or the program ends first.
    bool WaitForOutput(const std::string& marker, std::chrono::milliseconds deadline);
    // SIGTERM, then SIGKILL after the deadline; the exit code, -1 when it did not exit by itself.
    int Stop(std::chrono::milliseconds deadline = std::chrono::seconds(10));
    void Kill();
    bool Running();
    pid_t Pid() const { return pid_; }
    std::string Output();

private:
    int Reap(std::chrono::milliseconds deadline);
    void ReadOutput(int fd);

    std::vector<std::string> argv_;
    pid_t pid_ = -1;
    std::thread reader_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string output_;
    bool outputEnded_ = false;
};

}  // namespace VEQ::Test
