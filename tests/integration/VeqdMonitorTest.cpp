// veqctl monitor against veqd as a process: the bus's events with their fields and in their order,
// the filters, the ways it ends, and a service that restarts under it.

#include "platform/transport/WireCodec.h"
#include "tests/support/BackgroundProcess.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonProcess.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <sys/stat.h>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using Tavrin::Veq::ClientBroker::WireCodec;
using VEQ::Test::BackgroundProcess;
using VEQ::Test::ChildOutcome;
using VEQ::Test::ChildProcess;

constexpr const char* kSubscribed = "veqctl: monitoring the bus";

// The event lines of a monitor's output (stderr is mixed in; only events are JSON objects).
std::vector<Json::Value> Events(const std::string& output)
{
    std::vector<Json::Value> events;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        std::string error;
        if (auto event = WireCodec::ParseObject(line, error); !line.empty() && line.front() == '{' && event) {
            events.push_back(*event);
        }
    }
    return events;
}

// The exit code of a program that ends by itself: its output closes as it exits.
int ExitCodeOnceEnded(BackgroundProcess& process)
{
    process.WaitForOutput(std::string(1, '\0'), 20s);
    return process.Stop(5s);
}

class VeqdMonitorTest : public ::testing::Test {
protected:
    VeqdMonitorTest()
    {
        char rootTemplate[] = "/tmp/veqd-monitor-XXXXXX";
        root_ = ::mkdtemp(rootTemplate);
        ::chmod(root_.c_str(), 0755);
    }

    ~VeqdMonitorTest() override
    {
        monitors_.clear();
        daemon_.reset();
        std::filesystem::remove_all(root_);
    }

    void StartDaemon()
    {
        daemon_ = std::make_unique<VEQ::Test::DaemonProcess>(root_);
        ASSERT_TRUE(daemon_->Start()) << daemon_->Output();
    }

    std::vector<std::string> Veqctl(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {VEQCTL_PROGRAM, "--root", root_});
        return arguments;
    }

    // A monitor that has said it is subscribed; null (with a failure) when it did not.
    BackgroundProcess* Monitor(const std::vector<std::string>& options)
    {
        std::vector<std::string> arguments = {"monitor"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        auto process = std::make_unique<BackgroundProcess>(Veqctl(arguments));
        if (!process->Start() || !process->WaitForOutput(kSubscribed, 20s)) {
            ADD_FAILURE() << "the monitor did not subscribe: " << process->Output();
            return nullptr;
        }
        monitors_.push_back(std::move(process));
        return monitors_.back().get();
    }

    void Publish(std::vector<std::string> options)
    {
        options.insert(options.begin(), "publish");
        const ChildOutcome outcome = ChildProcess::Run(Veqctl(options));
        ASSERT_EQ(outcome.exitCode, 0) << outcome.output;
    }

    std::string root_;
    std::unique_ptr<VEQ::Test::DaemonProcess> daemon_;
    std::vector<std::unique_ptr<BackgroundProcess>> monitors_;
};

TEST_F(VeqdMonitorTest, MonitorsPrintThePublishedEventsTheirFiltersKeepInOrderAndEndAfterTheirCount)
{
    StartDaemon();
    struct Row {
        std::vector<std::string> options;
        std::vector<int> expected;  // indexes of the published events below
    };
    const std::vector<Row> rows = {
        {{"--count", "3"}, {0, 1, 2}},
        {{"--topic", "5", "--count", "1"}, {1}},
        {{"--topic", "4", "--topic", "5", "--state", "24", "--count", "1"}, {2}},
    };
    std::vector<BackgroundProcess*> monitors;
    for (const Row& row : rows) {
        monitors.push_back(Monitor(row.options));
        ASSERT_NE(monitors.back(), nullptr);
    }
    Publish({"--extension", "--mqtt-topic", "app/com.example.app/notify", "--field", "text=hi"});
    Publish({"--topic", "5", "--state", "49", "--payload", "Get-Something caf\xc3\xa9", "--message-type",
             "InvokeCommand", "--action-type", "run"});
    Publish({"--topic", "4", "--state", "24"});

    struct Published {
        int topic;
        int state;
        std::string payload;
        bool extension;
        std::string mqttTopic;
        std::string messageType;
        std::string actionType;
    };
    const Published published[] = {
        {0, 0, R"({"text":"hi"})", true, "app/com.example.app/notify", "", ""},
        {5, 49, "Get-Something caf\xc3\xa9", false, "", "InvokeCommand", "run"},
        {4, 24, "", false, "", "", ""},
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE("monitor " + std::to_string(i));
        EXPECT_EQ(ExitCodeOnceEnded(*monitors[i]), 0) << monitors[i]->Output();
        const auto events = Events(monitors[i]->Output());
        ASSERT_EQ(events.size(), rows[i].expected.size()) << monitors[i]->Output();
        for (size_t j = 0; j < events.size(); ++j) {
            const Json::Value& event = events[j];
            const Published& want = published[rows[i].expected[j]];
            EXPECT_EQ(event["topic"], want.topic) << event;
            EXPECT_EQ(event["state"], want.state) << event;
            EXPECT_EQ(event["payload"], want.payload) << event;
            EXPECT_EQ(event["extension"], want.extension) << event;
            EXPECT_EQ(event["mqttTopic"], want.mqttTopic) << event;
            EXPECT_EQ(event["messageType"], want.messageType) << event;
            EXPECT_EQ(event["actionType"], want.actionType) << event;
            EXPECT_EQ(event["publishFlag"], 0) << event;
            if (j > 0) {
                EXPECT_EQ(event["sequence"].asUInt64(), events[j - 1]["sequence"].asUInt64() + 1)
                    << "not in publication order, or an event is missing";
            }
        }
    }
}

TEST_F(VeqdMonitorTest, EndsWithTheExitCodeOfWhatHappened)
{
    StartDaemon();
    struct Row {
        const char* name;
        std::vector<std::string> arguments;
        bool asNobody;
        int exitCode;
        const char* says;
    };
    const std::vector<Row> rows = {
        {"count not reached in time", Veqctl({"monitor", "--count", "1", "--timeout", "0.3"}), false, 5,
         "0 of 1 events arrived"},
        {"time up without a count", Veqctl({"monitor", "--timeout", "0.3"}), false, 0, kSubscribed},
        {"no service there", {VEQCTL_PROGRAM, "--root", root_ + "/elsewhere", "monitor"}, false, 3,
         "the service is not running"},
        {"another user", Veqctl({"monitor", "--timeout", "0.3"}), true, 3, "permission denied"},
    };
    for (const Row& row : rows) {
        if (row.asNobody && !ChildProcess::IsRoot()) {
            continue;  // needs root to run as another user
        }
        const ChildOutcome outcome = row.asNobody ? ChildProcess::RunAsNobody(row.arguments) : ChildProcess::Run(row.arguments);
        EXPECT_EQ(outcome.exitCode, row.exitCode) << row.name << ": " << outcome.output;
        EXPECT_NE(outcome.output.find(row.says), std::string::npos) << row.name << ": " << outcome.output;
        EXPECT_TRUE(Events(outcome.output).empty()) << row.name << ": " << outcome.output;
    }
}

TEST_F(VeqdMonitorTest, FollowsTheServiceThroughARestart)
{
    StartDaemon();
    BackgroundProcess* monitor = Monitor({"--topic", "5", "--count", "1"});
    ASSERT_NE(monitor, nullptr);
    ASSERT_EQ(daemon_->Stop(), 0) << daemon_->Output();
    StartDaemon();
    ASSERT_TRUE(monitor->WaitForOutput("veqctl: monitoring again", 30s)) << monitor->Output();
    Publish({"--topic", "5", "--state", "49", "--payload", "after the restart"});
    EXPECT_EQ(ExitCodeOnceEnded(*monitor), 0) << monitor->Output();
    const auto events = Events(monitor->Output());
    ASSERT_EQ(events.size(), 1u) << monitor->Output();
    EXPECT_EQ(events[0]["payload"], "after the restart");
}

}  // namespace
}  // namespace VEQ
