#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/policy/PolicyFile.h"
#include "platform/policy/PolicyFileWatcher.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <functional>
#include <mutex>
#include <sys/stat.h>
#include <vector>

namespace VEQ {
namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 20s;

const char* const kPolicyA = R"({"mqtt":{"mqttFeatures":"all","mqttConnectType":"NRT"}})";
const char* const kPolicyB = R"({"mqtt":{"mqttFeatures":"all","mqttConnectType":"OnDemand"}})";

class PrivateAgent : public ConfigPolicyAgent {
public:
    PrivateAgent() = default;
};

Json::Value Parse(const std::string& text)
{
    Json::Value value;
    std::string error;
    EXPECT_TRUE(PolicyFile::Parse(text, value, error)) << text << ": " << error;
    return value;
}

void WriteInPlace(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

void ReplaceByRename(const std::string& path, const std::string& text)
{
    WriteInPlace(path + ".new", text);
    ASSERT_EQ(std::rename((path + ".new").c_str(), path.c_str()), 0);
}

// The policy announcements on the bus, each with the policy in force when it was made.
class Announcements {
public:
    explicit Announcements(ConfigPolicyAgent& agent)
    {
        id_ = VEQPublisherSubscriber::GetInstance()->Subscribe(
            [this, &agent](VEQNotificationData& data) {
                if (data.getTopicId() == 4 && data.getEventState() == 15) {
                    std::lock_guard<std::mutex> lock(mutex_);
                    seen_.push_back(agent.GetPolicyDocument());
                    arrived_.notify_all();
                }
            },
            true);
    }
    ~Announcements() { VEQPublisherSubscriber::GetInstance()->Unsubscribe(id_); }

    bool WaitFor(size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return arrived_.wait_for(lock, kDeadline, [&] { return seen_.size() >= count; });
    }
    std::vector<Json::Value> Seen()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return seen_;
    }

private:
    std::wstring id_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<Json::Value> seen_;
};

class PolicyFileWatcherTest : public ::testing::Test {
protected:
    std::string File() const { return root_.BelowUtf8("policy.json"); }
    std::wstring WideFile() const { return root_.Below(L"policy.json"); }

    // Runs change and waits until the watcher has read the file after it.
    void AndWaitForARead(PolicyFileWatcher& watcher, const std::function<void()>& change)
    {
        const auto before = watcher.ReadCount();
        change();
        const auto until = std::chrono::steady_clock::now() + kDeadline;
        while (watcher.ReadCount() == before && std::chrono::steady_clock::now() < until) {
            std::this_thread::sleep_for(5ms);
        }
        ASSERT_GT(watcher.ReadCount(), before) << "the watcher never read the file";
    }

    VEQ::Test::TempRoot root_;
    PrivateAgent agent_;
};

TEST_F(PolicyFileWatcherTest, AChangedPolicyIsPutInForceAndAnnouncedHoweverTheFileIsWritten)
{
    struct Row {
        const char* how;
        bool presentAtStart;
        void (*write)(const std::string& path, const std::string& text);
    };
    const Row rows[] = {
        {"written in place", true, WriteInPlace},
        {"replaced by rename", true, ReplaceByRename},
        {"created after the start", false, WriteInPlace},
        {"moved in after the start", false, ReplaceByRename},
    };
    for (const Row& row : rows) {
        ::unlink(File().c_str());
        agent_.SetPolicyDocument(Json::Value());
        if (row.presentAtStart) {
            WriteInPlace(File(), kPolicyA);
        }
        PolicyFileWatcher watcher(agent_);
        ASSERT_TRUE(watcher.Start(WideFile())) << row.how;
        Announcements announcements(agent_);

        row.write(File(), kPolicyB);

        if (!announcements.WaitFor(1)) {
            ADD_FAILURE() << row.how << ": no announcement";
            continue;
        }
        EXPECT_EQ(announcements.Seen().front(), Parse(kPolicyB)) << row.how;
        EXPECT_EQ(agent_.GetPolicyDocument(), Parse(kPolicyB)) << row.how;
    }
}

TEST_F(PolicyFileWatcherTest, AFileThatChangesNothingIsNotAnnounced)
{
    // Each change is read before the next: if any of them were announced, a second announcement
    // would be there by the time the last, real change is.
    struct Row {
        const char* what;
        std::function<void(const std::string& path)> change;
    };
    const Row rows[] = {
        {"the same text rewritten", [](const std::string& p) { WriteInPlace(p, kPolicyA); }},
        {"the same policy laid out otherwise",
         [](const std::string& p) {
             WriteInPlace(p, "{\n  \"mqtt\": { \"mqttConnectType\": \"NRT\",\n \"mqttFeatures\": \"all\" }\n}\n");
         }},
        {"the same policy renamed over the file", [](const std::string& p) { ReplaceByRename(p, kPolicyA); }},
        {"text that is not JSON", [](const std::string& p) { WriteInPlace(p, "{\"mqtt\": {"); }},
        {"an array", [](const std::string& p) { WriteInPlace(p, "[{\"mqtt\":{}}]"); }},
        {"an empty file", [](const std::string& p) { WriteInPlace(p, ""); }},
        {"the file deleted", [](const std::string& p) { ::unlink(p.c_str()); }},
        {"the file renamed away", [](const std::string& p) { std::rename(p.c_str(), (p + ".old").c_str()); }},
    };
    for (const Row& row : rows) {
        WriteInPlace(File(), kPolicyA);
        agent_.SetPolicyDocument(Json::Value());
        PolicyFileWatcher watcher(agent_);
        ASSERT_TRUE(watcher.Start(WideFile())) << row.what;
        ASSERT_EQ(agent_.GetPolicyDocument(), Parse(kPolicyA)) << row.what;
        Announcements announcements(agent_);

        AndWaitForARead(watcher, [&] { row.change(File()); });
        EXPECT_EQ(agent_.GetPolicyDocument(), Parse(kPolicyA)) << row.what << ": the policy in force changed";

        WriteInPlace(File(), kPolicyB);
        ASSERT_TRUE(announcements.WaitFor(1)) << row.what;
        const auto seen = announcements.Seen();
        EXPECT_EQ(seen.size(), 1u) << row.what;
        EXPECT_EQ(seen.front(), Parse(kPolicyB)) << row.what;
    }
}

TEST_F(PolicyFileWatcherTest, StartPutsTheFileOrTheDefaultInForce)
{
    struct Row {
        const char* what;
        const char* file;  // null: no file
        Json::Value expected;
    };
    const Json::Value before = Parse(R"({"before":true})");
    const Row rows[] = {
        {"a good file", kPolicyA, Parse(kPolicyA)},
        {"no file", nullptr, ConfigPolicyAgent::DefaultPolicy()},
        {"a broken file", "{\"mqtt\"", before},
    };
    for (const Row& row : rows) {
        ::unlink(File().c_str());
        if (row.file != nullptr) {
            WriteInPlace(File(), row.file);
        }
        agent_.SetPolicyDocument(before);
        PolicyFileWatcher watcher(agent_);
        EXPECT_TRUE(watcher.Start(WideFile())) << row.what;
        EXPECT_EQ(agent_.GetPolicyDocument(), row.expected) << row.what;
    }
}

TEST_F(PolicyFileWatcherTest, StartFailsWhenTheDirectoryCannotBeWatchedYetThePolicyIsSet)
{
    agent_.SetPolicyDocument(Json::Value());
    PolicyFileWatcher watcher(agent_);
    EXPECT_FALSE(watcher.Start(root_.Below(L"missing/policy.json")));
    EXPECT_EQ(agent_.GetPolicyDocument(), ConfigPolicyAgent::DefaultPolicy());
    watcher.Stop();
    watcher.Stop();
}

TEST_F(PolicyFileWatcherTest, StopIsHarmlessTwiceAndBeforeStartAndAllowsAStartAgain)
{
    WriteInPlace(File(), kPolicyA);
    PolicyFileWatcher watcher(agent_);
    watcher.Stop();
    ASSERT_TRUE(watcher.Start(WideFile()));
    EXPECT_FALSE(watcher.Start(WideFile())) << "a second Start while running";
    watcher.Stop();
    watcher.Stop();

    ASSERT_TRUE(watcher.Start(WideFile()));
    Announcements announcements(agent_);
    WriteInPlace(File(), kPolicyB);
    ASSERT_TRUE(announcements.WaitFor(1)) << "a restarted watcher sees changes";
    EXPECT_EQ(announcements.Seen().front(), Parse(kPolicyB));
}

}  // namespace
}  // namespace VEQ
