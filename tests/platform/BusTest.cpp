#include "platform/bus/VEQPublisherSubscriber.h"

#include "platform/fs/utility.h"
#include "platform/log/Log.h"
#include "platform/string/String.h"
#include "platform/sync/ManualResetEvent.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace VEQ {
namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 30s;

VEQPublisherSubscriber& Bus()
{
    return *VEQPublisherSubscriber::GetInstance();
}

// The bus is process-wide: every subscription a test makes ends with the test.
class Subscriptions {
public:
    ~Subscriptions()
    {
        for (const auto& id : ids_) {
            Bus().Unsubscribe(id);
        }
    }
    std::wstring Add(VEQPublisherSubscriber::Callback callback)
    {
        ids_.push_back(Bus().Subscribe(std::move(callback), true));
        return ids_.back();
    }

private:
    std::vector<std::wstring> ids_;
};

// A deadlock would otherwise hang the whole binary without saying where.
void WithinDeadline(const char* what, const std::function<void()>& body)
{
    auto done = std::make_shared<ManualResetEvent>();
    std::thread runner([body, done] {
        body();
        done->Set();
    });
    if (!done->Wait(kDeadline)) {
        std::cerr << what << ": deadlocked\n";
        std::abort();
    }
    runner.join();
}

void Publish(int topic)
{
    VEQNotificationData data(topic, 0, L"");
    Bus().Notify(data, L"test");
}

// Records which subscribers saw which topic, in order.
class Calls {
public:
    void Add(const std::string& call)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back(call);
    }
    std::vector<std::string> Take()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(calls_, {});
    }

private:
    std::mutex mutex_;
    std::vector<std::string> calls_;
};

TEST(BusTest, SubscribersRunInOrderOnTheSameRecord)
{
    Subscriptions subscriptions;
    std::vector<const VEQNotificationData*> seen;
    std::vector<std::wstring> payloads;
    for (int n = 0; n < 3; ++n) {
        subscriptions.Add([&, n](VEQNotificationData& data) {
            seen.push_back(&data);
            payloads.push_back(data.getPayload());
            data.setPayload(data.getPayload() + std::to_wstring(n));
        });
    }
    VEQNotificationData data(4, 15, L"p");
    Bus().Notify(data, L"test");
    EXPECT_EQ(seen, (std::vector<const VEQNotificationData*>(3, &data)));
    EXPECT_EQ(payloads, (std::vector<std::wstring>{L"p", L"p0", L"p01"}));
}

TEST(BusTest, SubscriptionIdsAreUniqueAndEndOnce)
{
    EXPECT_EQ(Bus().Subscribe(nullptr, true), L"");
    const std::wstring first = Bus().Subscribe([](VEQNotificationData&) {}, false);
    const std::wstring second = Bus().Subscribe([](VEQNotificationData&) {}, true);
    EXPECT_FALSE(first.empty());
    EXPECT_NE(first, second);
    EXPECT_TRUE(Bus().Unsubscribe(first));
    EXPECT_FALSE(Bus().Unsubscribe(first));
    EXPECT_TRUE(Bus().Unsubscribe(second));
    EXPECT_FALSE(Bus().Unsubscribe(L"no-such-id"));
}

TEST(BusTest, UnsubscribingDuringDeliveryStopsThatSubscriberAtOnce)
{
    struct Row {
        const char* what;
        int unsubscriber;  // which of A, B, C unsubscribes during the first event
        int unsubscribed;  // and whom
        std::vector<std::string> first, second;
    };
    const Row rows[] = {
        {"A removes itself", 0, 0, {"A", "B", "C"}, {"B", "C"}},
        {"A removes C, not yet called", 0, 2, {"A", "B"}, {"A", "B"}},
        {"C removes A, already called", 2, 0, {"A", "B", "C"}, {"B", "C"}},
        {"B removes itself in the middle", 1, 1, {"A", "B", "C"}, {"A", "C"}},
    };
    for (const Row& row : rows) {
        WithinDeadline(row.what, [&] {
            Subscriptions subscriptions;
            Calls calls;
            std::vector<std::wstring> ids(3);
            bool removed = false;
            for (int n = 0; n < 3; ++n) {
                ids[n] = subscriptions.Add([&, n](VEQNotificationData&) {
                    calls.Add(std::string(1, static_cast<char>('A' + n)));
                    if (n == row.unsubscriber && !removed) {
                        removed = true;
                        EXPECT_TRUE(Bus().Unsubscribe(ids[row.unsubscribed])) << row.what;
                    }
                });
            }
            Publish(1);
            EXPECT_EQ(calls.Take(), row.first) << row.what;
            Publish(1);
            EXPECT_EQ(calls.Take(), row.second) << row.what;
        });
    }
}

TEST(BusTest, UnsubscribeFromAnotherThreadWaitsForTheRunningCall)
{
    Subscriptions subscriptions;
    ManualResetEvent entered;
    ManualResetEvent release;
    std::atomic<bool> running{false};
    std::atomic<int> calls{0};
    const std::wstring id = subscriptions.Add([&](VEQNotificationData&) {
        ++calls;
        running = true;
        entered.Set();
        release.Wait();
        running = false;
    });
    std::thread publisher([] { Publish(1); });
    ASSERT_TRUE(entered.Wait(kDeadline));

    auto unsubscribed = std::async(std::launch::async, [&] {
        const bool result = Bus().Unsubscribe(id);
        return result && !running;
    });
    // Returning while the callback is still inside would let its owner be destroyed under it.
    EXPECT_EQ(unsubscribed.wait_for(200ms), std::future_status::timeout) << "Unsubscribe did not wait";
    release.Set();
    EXPECT_TRUE(unsubscribed.get()) << "Unsubscribe returned while the callback was running";
    publisher.join();
    Publish(1);
    EXPECT_EQ(calls, 1);
}

TEST(BusTest, NoCallbackStartsOrRunsAfterUnsubscribeReturns)
{
    std::atomic<bool> stop{false};
    std::atomic<int> violations{0};
    std::vector<std::thread> publishers;
    for (int t = 0; t < 3; ++t) {
        publishers.emplace_back([&] {
            while (!stop) {
                Publish(2);
            }
        });
    }
    for (int round = 0; round < 300; ++round) {
        auto gone = std::make_shared<std::atomic<bool>>(false);
        const std::wstring id = Bus().Subscribe(
            [gone, &violations](VEQNotificationData&) {
                if (*gone) {
                    ++violations;
                }
                std::this_thread::yield();
                if (*gone) {
                    ++violations;
                }
            },
            true);
        std::this_thread::yield();
        ASSERT_TRUE(Bus().Unsubscribe(id));
        *gone = true;
    }
    stop = true;
    for (auto& publisher : publishers) {
        publisher.join();
    }
    EXPECT_EQ(violations, 0);
}

TEST(BusTest, CallbacksMaySubscribeAndPublishDuringADelivery)
{
    WithinDeadline("subscribe and publish from a callback", [] {
        Subscriptions subscriptions;
        Calls calls;
        subscriptions.Add([&](VEQNotificationData& data) {
            calls.Add("first " + std::to_string(data.getTopicId()));
            if (data.getTopicId() == 1) {
                // The newcomer misses the event being delivered, not the nested one.
                subscriptions.Add([&](VEQNotificationData& later) {
                    calls.Add("newcomer " + std::to_string(later.getTopicId()));
                });
                Publish(2);
            }
        });
        Publish(1);
        EXPECT_EQ(calls.Take(), (std::vector<std::string>{"first 1", "first 2", "newcomer 2"}));
    });
}

TEST(BusTest, EveryConcurrentEventReachesEverySubscriber)
{
    constexpr int kPublishers = 4;
    constexpr int kEvents = 500;
    Subscriptions subscriptions;
    std::atomic<int> counts[3] = {0, 0, 0};
    for (auto& count : counts) {
        subscriptions.Add([&count](VEQNotificationData&) { ++count; });
    }
    std::vector<std::thread> publishers;
    for (int t = 0; t < kPublishers; ++t) {
        publishers.emplace_back([] {
            for (int n = 0; n < kEvents; ++n) {
                Publish(3);
            }
        });
    }
    for (auto& publisher : publishers) {
        publisher.join();
    }
    for (int s = 0; s < 3; ++s) {
        EXPECT_EQ(counts[s], kPublishers * kEvents) << "subscriber " << s;
    }
}

TEST(BusTest, AFailingSubscriberIsLoggedAndTheNextStillRuns)
{
    VEQ::Test::TempRoot root;
    ASSERT_TRUE(utility::InitLog(g_log, L"VEQService.log", Log::kDebug));
    struct Row {
        const char* what;
        std::function<void()> fail;
        const char* logged;
    };
    const Row rows[] = {
        {"std::exception", [] { throw std::runtime_error("disk on fire"); }, "disk on fire"},
        {"anything else", [] { throw 42; }, "unknown exception"},
    };
    for (const Row& row : rows) {
        Subscriptions subscriptions;
        int later = 0;
        const std::wstring id = subscriptions.Add([&](VEQNotificationData&) { row.fail(); });
        subscriptions.Add([&](VEQNotificationData&) { ++later; });
        EXPECT_NO_THROW(Publish(5)) << row.what;
        EXPECT_EQ(later, 1) << row.what;

        bool found = false;
        std::ifstream log(g_log.FilePath());
        for (std::string line; std::getline(log, line);) {
            found = found || (line.find("[error]") != std::string::npos &&
                              line.find(String::UTF16ToUTF8(id)) != std::string::npos &&
                              line.find(row.logged) != std::string::npos);
        }
        EXPECT_TRUE(found) << row.what << ": no error line with the subscription id";
    }
}

}  // namespace
}  // namespace VEQ
