// The bus as the control socket forwards it, against a monitor that stops reading: the bus goes on
// at its own pace, and the monitor, once it reads again, is told of what it lost and goes on too.

#include "daemon/ControlServer.h"

#include "platform/bus/VEQPublisherSubscriber.h"
#include "tests/support/BackgroundProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <csignal>
#include <future>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using VEQ::Test::BackgroundProcess;

void PublishOnTheBus(int topic, int state, const std::wstring& payload)
{
    VEQNotificationData data(topic, state, payload);
    VEQPublisherSubscriber::GetInstance()->Notify(data, L"test");
}

TEST(ControlMonitorTest, AMonitorThatStopsReadingNeitherHoldsUpTheBusNorMissesWhatComesAfterItResumes)
{
    VEQ::Test::TempRoot root;
    ControlServer server;
    ASSERT_TRUE(server.Start());
    BackgroundProcess monitor(
        {VEQCTL_PROGRAM, "--root", root.PathUtf8(), "monitor", "--topic", "77", "--count", "1", "--timeout", "60"});
    ASSERT_TRUE(monitor.Start());
    ASSERT_TRUE(monitor.WaitForOutput("veqctl: monitoring the bus", 20s)) << monitor.Output();

    ASSERT_EQ(::kill(monitor.Pid(), SIGSTOP), 0);
    // Far more than the server's queue and the socket's buffers hold for one client.
    constexpr int kFlood = 6000;
    auto flood = std::async(std::launch::async, [] {
        const std::wstring payload(1024, L'x');
        for (int i = 0; i < kFlood; ++i) {
            PublishOnTheBus(76, i, payload);
        }
    });
    const bool flooded = flood.wait_for(60s) == std::future_status::ready;
    ::kill(monitor.Pid(), SIGCONT);
    ASSERT_TRUE(flooded) << "publishing waited for a monitor that does not read";

    // Published until one gets through: right after it resumes, the monitor's share of the
    // transport may still be full of the flood.
    EXPECT_TRUE(VEQ::Test::Eventually(
        [&] {
            PublishOnTheBus(77, 1, L"after");
            return monitor.Output().find("\"payload\":\"after\"") != std::string::npos;
        },
        30s))
        << monitor.Output();
    monitor.WaitForOutput(std::string(1, '\0'), 20s);  // until it ends by itself
    EXPECT_EQ(monitor.Stop(5s), 0) << monitor.Output();
    EXPECT_NE(monitor.Output().find("events were lost"), std::string::npos) << monitor.Output();
}

}  // namespace
}  // namespace VEQ
