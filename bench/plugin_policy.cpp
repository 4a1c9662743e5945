// What an administrator waits for after changing the plugin policy, with veqd as a process on a
// root of its own:
//  - policy write to plugin running: plugins were off; a policy that lets the embedded plugins run
//    on the elevated side is renamed into place, until the one plugin has had its first command
//    answered (target: median <= 500 ms). The policy watcher, discovery with its signature checks,
//    the plugin's broker, the host copy's check and start, the host's questions, loading the plugin
//    and its own first command;
//  - policy write to plugin stopped: from there, a policy that turns plugins off again, until the
//    plugin's host process has ended (target: median <= 2.5 s).
// The service, the host and the plugin are the real programs, signed by a CA made here. Only
// enabledPluginType differs between the two policies, so each write is a change.

#include "platform/transport/FolderWatch.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/PluginWorld.h"
#include "tests/support/ScratchRoot.h"

#include <json/json.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using namespace std::chrono;
using namespace std::chrono_literals;
using VEQ::Test::PluginWorld;

namespace {

constexpr int kDefaultRounds = 20;
constexpr const char* kPluginId = "Bench.Policy";
constexpr const char* kPluginName = "PolicyBenchPlugin";  // the test plugin answers fast by its name
// Far beyond the targets: a step that takes this long is broken, not slow.
constexpr auto kStepDeadline = 15s;
const std::string kStepDeadlineText = std::to_string(seconds(kStepDeadline).count()) + " s";

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class PidFd {
public:
    explicit PidFd(pid_t pid) : fd_(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)))
    {
        if (fd_ < 0) {
            throw Failure("pidfd_open(" + std::to_string(pid) + "): " + std::strerror(errno));
        }
    }
    ~PidFd() { ::close(fd_); }
    PidFd(const PidFd&) = delete;
    PidFd& operator=(const PidFd&) = delete;

    // True when the process ended before the deadline.
    bool WaitForExit(steady_clock::time_point until) const
    {
        pollfd item{fd_, POLLIN, 0};
        while (true) {
            const auto left = ceil<milliseconds>(until - steady_clock::now()).count();
            const int ready = ::poll(&item, 1, static_cast<int>(std::max<int64_t>(left, 0)));
            if (ready > 0) {
                return true;
            }
            if (ready == 0 || errno != EINTR) {
                return false;
            }
        }
    }

private:
    int fd_;
};

std::string Text(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

bool Parse(const std::string& text, Json::Value& value)
{
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &value, &errors);
}

void WriteByRename(const std::string& path, const std::string& text)
{
    {
        std::ofstream file(path + ".new", std::ios::binary);
        file << text;
    }
    fs::rename(path + ".new", path);
}

std::string Policy(bool pluginsOn)
{
    VEQ::Test::PluginPolicy policy;
    policy.enabledPluginType = pluginsOn ? "embedded" : "none";
    policy.sides = "elevated";
    return Text(PluginWorld::PolicyDocument(policy));
}

// The host pid of the plugin's running elevated instance, as the service lists it; 0 when none.
pid_t RunningHostPid(const std::string& root)
{
    const auto outcome = VEQ::Test::ChildProcess::Run({VEQCTL_PROGRAM, "--root", root, "plugins"});
    Json::Value listing;
    if (outcome.exitCode != 0 || !Parse(outcome.output, listing)) {
        throw Failure("veqctl plugins failed: " + outcome.output);
    }
    for (const Json::Value& instance : listing["instances"]) {
        if (instance["id"].asString() == kPluginId && instance["side"].asString() == "elevated" &&
            instance["running"].asBool()) {
            return static_cast<pid_t>(instance["pid"].asInt());
        }
    }
    return 0;
}

// The service tidies up after a host has ended (its broker, its instance); the next round starts
// from a service that runs no instance at all.
void WaitUntilNoInstance(const std::string& root)
{
    const auto until = steady_clock::now() + kStepDeadline;
    while (true) {
        const auto outcome = VEQ::Test::ChildProcess::Run({VEQCTL_PROGRAM, "--root", root, "plugins"});
        Json::Value listing;
        if (outcome.exitCode == 0 && Parse(outcome.output, listing) && listing["instances"].empty()) {
            return;
        }
        if (steady_clock::now() >= until) {
            throw Failure("the service still lists an instance: " + outcome.output);
        }
        std::this_thread::sleep_for(20ms);
    }
}

struct Samples {
    std::vector<double> running;
    std::vector<double> stopped;
};

void Round(const std::string& root, const std::string& policyFile, const std::string& marker, int round,
           Samples& samples)
{
    fs::remove(marker);
    Tavrin::Veq::ClientBroker::FolderWatch watch(marker);
    if (!watch.Active()) {
        throw Failure("cannot watch the folder of " + marker);
    }
    const auto writing = steady_clock::now();
    WriteByRename(policyFile, Policy(true));
    const auto until = writing + kStepDeadline;
    while (!fs::exists(marker)) {
        if (steady_clock::now() >= until) {
            throw Failure("round " + std::to_string(round) + ": the plugin did not answer within " + kStepDeadlineText);
        }
        watch.WaitForChange(duration_cast<microseconds>(until - steady_clock::now()));
    }
    samples.running.push_back(duration<double, std::milli>(steady_clock::now() - writing).count());

    const pid_t host = RunningHostPid(root);
    if (host <= 0) {
        throw Failure("round " + std::to_string(round) + ": the plugin answered but the service lists no running host");
    }
    const PidFd hostProcess(host);
    const auto disabling = steady_clock::now();
    WriteByRename(policyFile, Policy(false));
    if (!hostProcess.WaitForExit(disabling + kStepDeadline)) {
        throw Failure("round " + std::to_string(round) + ": the host did not end within " + kStepDeadlineText);
    }
    samples.stopped.push_back(duration<double, std::milli>(steady_clock::now() - disabling).count());
    WaitUntilNoInstance(root);
}

void Report(const char* name, std::vector<double> samples, const char* target)
{
    std::sort(samples.begin(), samples.end());
    std::printf("%-32s median %7.1f ms   min %7.1f ms   p90 %7.1f ms   max %7.1f ms   (%zu rounds, target: %s)\n",
                name, samples[samples.size() / 2], samples.front(), samples[samples.size() * 9 / 10], samples.back(),
                samples.size(), target);
}

int Run(int rounds)
{
    // Made before the service, so that the service has stopped before its files go.
    const VEQ::Test::ScratchRoot scratch("veq-policy-bench");
    const std::string& root = scratch.Path();
    PluginWorld world(root);
    world.AddEmbedded({kPluginId, kPluginName, "1.0.0.0"});
    const std::string sessionFile = root + "/session.json";
    PluginWorld::WriteSessions(sessionFile, -1, 0, {});  // nobody logged in: the elevated side only

    Json::Value config;
    config["paths"]["systemRoot"] = root + "/system";
    config["paths"]["commonDataRoot"] = root + "/common";
    config["trust"]["caFile"] = world.Ca().CaFile();
    config["sessions"]["source"] = "file";
    config["sessions"]["file"] = sessionFile;
    const std::string configFile = root + "/veqd.json";
    WriteByRename(configFile, Text(config));
    const std::string policyFile = root + "/policy.json";
    WriteByRename(policyFile, Policy(false));

    VEQ::Test::DaemonProcess veqd(root, {"--config", configFile, "--policy", policyFile});
    if (!veqd.Start()) {
        throw Failure("veqd did not start: " + veqd.Output());
    }
    const std::string marker = world.EmbeddedFolder(kPluginId) + "/elevated.first";
    Samples samples;
    for (int round = 0; round < rounds; ++round) {
        Round(root, policyFile, marker, round, samples);
    }
    if (veqd.Stop() != 0) {
        std::fprintf(stderr, "veqd did not stop cleanly:\n%s\n", veqd.Output().c_str());
    }
    Report("policy write to plugin running", samples.running, "median <= 500 ms");
    Report("policy write to plugin stopped", samples.stopped, "median <= 2.5 s");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    int rounds = kDefaultRounds;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--rounds" && i + 1 < argc) {
            rounds = std::atoi(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: %s [--rounds N]   (N >= 1, default %d)\n", argv[0], kDefaultRounds);
            return 2;
        }
    }
    if (rounds < 1) {
        std::fprintf(stderr, "--rounds wants a number >= 1\n");
        return 2;
    }
    try {
        return Run(rounds);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "plugin_policy: %s\n", error.what());
        return 1;
    }
}
