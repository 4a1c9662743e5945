#include "platform/sync/ManualResetEvent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace VEQ {
namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 30s;

TEST(ManualResetEventTest, StaysSignalledUntilReset)
{
    ManualResetEvent event;
    EXPECT_FALSE(event.Wait(1ms));
    EXPECT_FALSE(event.IsSet());
    event.Set();
    EXPECT_TRUE(event.Wait(0ms));
    EXPECT_TRUE(event.Wait(0ms)) << "a second wait must still see the event";
    EXPECT_TRUE(event.IsSet());
    event.Reset();
    EXPECT_FALSE(event.Wait(1ms));
    EXPECT_TRUE(ManualResetEvent(true).Wait(0ms));
}

TEST(ManualResetEventTest, SetReleasesEveryWaiter)
{
    ManualResetEvent event;
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int n = 0; n < 4; ++n) {
        waiters.emplace_back([&] {
            if (event.Wait(kDeadline)) {
                ++released;
            }
        });
    }
    event.Set();
    for (auto& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(released, 4);
}

TEST(ManualResetEventTest, AnUnboundedTimeoutWaitsInsteadOfOverflowing)
{
    ManualResetEvent event;
    bool result = false;
    std::thread waiter([&] { result = event.Wait(std::chrono::milliseconds::max()); });
    event.Set();
    waiter.join();
    EXPECT_TRUE(result);
}

TEST(ManualResetEventTest, WaitAnyWakesForWhicheverEventComesAndPrefersTheFirst)
{
    ManualResetEvent first;
    ManualResetEvent second;
    EXPECT_EQ(ManualResetEvent::WaitAny({&first, &second}, std::chrono::milliseconds(1)), -1);

    int woken = -2;
    std::thread waiter([&] { woken = ManualResetEvent::WaitAny({&first, &second}, kDeadline); });
    second.Set();
    waiter.join();
    EXPECT_EQ(woken, 1);

    first.Set();
    EXPECT_EQ(ManualResetEvent::WaitAny({&first, &second}, kDeadline), 0);
    // A missing event is never the one signalled.
    first.Reset();
    EXPECT_EQ(ManualResetEvent::WaitAny({nullptr, &second}, kDeadline), 1);
}

}  // namespace
}  // namespace VEQ
