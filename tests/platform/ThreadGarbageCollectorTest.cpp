#include "platform/util/ThreadGarbageCollector.h"

#include "platform/sync/ManualResetEvent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <unistd.h>

namespace VEQ {
namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 30s;

TEST(ThreadGarbageCollectorTest, DumpReturnsWhileTheThreadStillRuns)
{
    ManualResetEvent release;
    ManualResetEvent dumped;
    std::thread dumper([&] {
        ThreadGarbageCollector::GetInstance()->Dump(new std::thread([&] { release.Wait(); }));
        dumped.Set();
    });
    EXPECT_TRUE(dumped.Wait(kDeadline)) << "Dump waited for the thread it was given";
    release.Set();
    dumper.join();
    ThreadGarbageCollector::GetInstance()->JoinAll();
}

TEST(ThreadGarbageCollectorTest, JoinAllReturnsOnlyAfterEveryDumpedThreadEnded)
{
    constexpr int kThreads = 16;
    ManualResetEvent release;
    std::atomic<int> finished{0};
    std::vector<std::thread> dumpers;
    for (int d = 0; d < 4; ++d) {
        dumpers.emplace_back([&] {
            for (int n = 0; n < kThreads / 4; ++n) {
                ThreadGarbageCollector::GetInstance()->Dump(new std::thread([&] {
                    release.Wait();
                    std::this_thread::yield();
                    ++finished;
                }));
            }
        });
    }
    for (auto& dumper : dumpers) {
        dumper.join();
    }
    ThreadGarbageCollector::GetInstance()->Dump(nullptr);
    ThreadGarbageCollector::GetInstance()->Dump(new std::thread());  // never started: just freed
    release.Set();
    ThreadGarbageCollector::GetInstance()->JoinAll();
    EXPECT_EQ(finished, kThreads);
}

// A dumped thread still running when the process exits is joined, not cut off. Exit handlers
// run in reverse order of registration: "release" lets the thread go, the collector's own exit
// step must then join it, and "check", registered before the collector existed, runs last.
TEST(ThreadGarbageCollectorProcessTest, ExitJoinsThreadsStillRunning)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static ManualResetEvent* const exiting = new ManualResetEvent();  // alive through exit
    static std::atomic<bool> finished{false};
    EXPECT_EXIT(
        {
            std::atexit([] { _exit(finished ? 0 : 3); });
            ThreadGarbageCollector::GetInstance()->Dump(new std::thread([] {
                exiting->Wait();
                std::this_thread::yield();
                finished = true;
            }));
            std::atexit([] { exiting->Set(); });
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace VEQ
