#include "platform/session/ISessionSource.h"
#include "platform/session/SessionFileSource.h"
#include "platform/session/SessionWatcher.h"
#include "tests/support/Eventually.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <ostream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace VEQ {

static void PrintTo(const SessionChange& change, std::ostream* out)
{
    *out << (change.kind == SessionChange::Kind::LoggedOff ? "LoggedOff(" : "Activated(") << change.sessionId << ")";
}

namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 20s;

SessionChange LoggedOff(uint32_t id)
{
    return {SessionChange::Kind::LoggedOff, id};
}

SessionChange Activated(uint32_t id)
{
    return {SessionChange::Kind::Activated, id};
}

// A session file with every session of ids logged in (session n as uid 1000 + n) and active
// among them, if any.
std::string SessionsFile(std::optional<uint32_t> active, const std::vector<uint32_t>& ids)
{
    const auto session = [](uint32_t id) {
        return R"("sessionId": )" + std::to_string(id) + R"(, "uid": )" + std::to_string(1000 + id);
    };
    std::string text = "{";
    if (active) {
        text += session(*active) + ", ";
    }
    text += R"("sessions": [)";
    for (size_t i = 0; i < ids.size(); ++i) {
        text += (i == 0 ? "{" : ", {") + session(ids[i]) + "}";
    }
    return text + "]}";
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

// What the watcher reported, in order.
class Reports {
public:
    SessionWatcher::Callback Callback()
    {
        return [this](const SessionChange& change) {
            std::lock_guard<std::mutex> lock(mutex_);
            seen_.push_back(change);
            arrived_.notify_all();
        };
    }
    bool WaitFor(size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return arrived_.wait_for(lock, kDeadline, [&] { return seen_.size() >= count; });
    }
    std::vector<SessionChange> Seen()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return seen_;
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<SessionChange> seen_;
};

class SessionWatcherTest : public ::testing::Test {
protected:
    // A folder of its own for each use, so that what one leaves behind cannot confuse the next.
    void UseFolder(const std::string& name)
    {
        folder_ = root_.BelowUtf8(name);
        ASSERT_EQ(::mkdir(folder_.c_str(), 0755), 0);
    }
    std::string File() const { return folder_ + "/session.json"; }

    VEQ::Test::TempRoot root_;
    std::string folder_ = root_.BelowUtf8("sessions");
};

TEST_F(SessionWatcherTest, ReportsLogOffsThenTheNewActiveSessionHoweverTheFileChanges)
{
    using Change = std::function<void(const std::string& path)>;
    const auto replacedBy = [](std::string text) -> Change {
        return [text](const std::string& path) { ReplaceByRename(path, text); };
    };
    const auto writtenInPlace = [](std::string text) -> Change {
        return [text](const std::string& path) { WriteInPlace(path, text); };
    };
    const Change deleted = [](const std::string& path) { ASSERT_EQ(::unlink(path.c_str()), 0); };
    const Change movedAway = [](const std::string& path) {
        ASSERT_EQ(std::rename(path.c_str(), (path + ".old").c_str()), 0);
    };
    const Change folderRemoved = [](const std::string& path) {
        ASSERT_EQ(::unlink(path.c_str()), 0);
        ASSERT_EQ(::rmdir(path.substr(0, path.rfind('/')).c_str()), 0);
    };
    struct Row {
        const char* what;
        std::optional<std::string> before;  // nullopt: there is no file
        Change change;
        std::vector<SessionChange> expected;
    };
    const Row rows[] = {
        {"a user logs in and the seat is theirs", std::nullopt,
         writtenInPlace(R"({"sessionId": 3, "uid": 1003})"), {Activated(3)}},
        {"a second user logs in and the seat switches to them", SessionsFile(3, {3}),
         replacedBy(SessionsFile(4, {3, 4})), {Activated(4)}},
        {"the seat switches back", SessionsFile(4, {3, 4}), replacedBy(SessionsFile(3, {3, 4})), {Activated(3)}},
        {"a user who is not at the seat logs off", SessionsFile(3, {3, 4}), replacedBy(SessionsFile(3, {3})),
         {LoggedOff(4)}},
        {"the user at the seat logs off and it goes to another", SessionsFile(3, {3, 4}),
         replacedBy(SessionsFile(4, {4})), {LoggedOff(3), Activated(4)}},
        {"one user follows another, the list left out", R"({"sessionId": 3, "uid": 1003})",
         replacedBy(R"({"sessionId": 4, "uid": 1004})"), {LoggedOff(3), Activated(4)}},
        {"an id now names another user's session", R"({"sessionId": 3, "uid": 1003})",
         replacedBy(R"({"sessionId": 3, "uid": 2000})"), {LoggedOff(3), Activated(3)}},
        {"the seat goes from nobody to a logged-in user", SessionsFile(std::nullopt, {3}),
         replacedBy(SessionsFile(3, {3})), {Activated(3)}},
        {"a user logs in beside the seat's", SessionsFile(3, {3}), replacedBy(SessionsFile(3, {3, 4})), {}},
        {"the seat goes to nobody while its user stays", SessionsFile(3, {3}),
         replacedBy(SessionsFile(std::nullopt, {3})), {}},
        {"the file is rewritten unchanged", SessionsFile(3, {3, 4}), replacedBy(SessionsFile(3, {3, 4})), {}},
        {"the file is deleted", SessionsFile(3, {3, 4}), deleted, {LoggedOff(3), LoggedOff(4)}},
        {"the file is moved away", SessionsFile(3, {3, 4}), movedAway, {LoggedOff(3), LoggedOff(4)}},
        {"the file is overwritten with half of a file", SessionsFile(3, {3, 4}),
         writtenInPlace(R"({"sessionId": 3, "uid": 1003, "sessi)"), {LoggedOff(3), LoggedOff(4)}},
        {"the file is replaced by one whose active session is not listed", SessionsFile(3, {3, 4}),
         replacedBy(SessionsFile(5, {3, 4})), {LoggedOff(3), LoggedOff(4)}},
        {"the file's folder is removed", SessionsFile(3, {3}), folderRemoved, {LoggedOff(3)}},
    };
    int rowNumber = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_NO_FATAL_FAILURE(UseFolder("row" + std::to_string(++rowNumber)));
        if (row.before) {
            WriteInPlace(File(), *row.before);
        }
        Reports reports;
        SessionWatcher watcher(std::make_shared<SessionFileSource>(File()), reports.Callback());
        ASSERT_TRUE(watcher.Start());
        const auto reads = watcher.ReadCount();

        row.change(File());

        // Every change above is seen in one read once it is complete; what a read reports is
        // reported before the read is counted, so nothing of this change can come later.
        ASSERT_TRUE(reports.WaitFor(row.expected.size()));
        ASSERT_TRUE(VEQ::Test::Eventually([&] { return watcher.ReadCount() > reads; }, kDeadline));
        EXPECT_EQ(reports.Seen(), row.expected);
    }
}

TEST_F(SessionWatcherTest, FollowsOneFileThroughLogInSwitchAndLogOff)
{
    ASSERT_NO_FATAL_FAILURE(UseFolder("sessions"));
    Reports reports;
    SessionWatcher watcher(std::make_shared<SessionFileSource>(File()), reports.Callback());
    ASSERT_TRUE(watcher.Start());

    ReplaceByRename(File(), SessionsFile(3, {3}));
    ASSERT_TRUE(reports.WaitFor(1));
    ReplaceByRename(File(), SessionsFile(4, {3, 4}));
    ASSERT_TRUE(reports.WaitFor(2));
    ReplaceByRename(File(), SessionsFile(4, {4}));
    ASSERT_TRUE(reports.WaitFor(3));
    ASSERT_EQ(::unlink(File().c_str()), 0);
    ASSERT_TRUE(reports.WaitFor(4));

    EXPECT_EQ(reports.Seen(), (std::vector<SessionChange>{Activated(3), Activated(4), LoggedOff(3), LoggedOff(4)}));
}

TEST_F(SessionWatcherTest, StopEndsAnIdleWatchAtOnceAndMayBeRepeated)
{
    ASSERT_NO_FATAL_FAILURE(UseFolder("sessions"));
    WriteInPlace(File(), SessionsFile(3, {3}));
    Reports reports;
    SessionWatcher watcher(std::make_shared<SessionFileSource>(File()), reports.Callback());
    ASSERT_TRUE(watcher.Start());
    EXPECT_FALSE(watcher.Start()) << "a second start while it runs";

    watcher.Stop();
    watcher.Stop();

    // Started again, it takes the sessions afresh and unreported.
    ReplaceByRename(File(), SessionsFile(4, {4}));
    ASSERT_TRUE(watcher.Start());
    ReplaceByRename(File(), SessionsFile(4, {4, 5}));
    ReplaceByRename(File(), SessionsFile(5, {5}));
    ASSERT_TRUE(reports.WaitFor(2));
    EXPECT_EQ(reports.Seen(), (std::vector<SessionChange>{LoggedOff(4), Activated(5)}));
}

TEST_F(SessionWatcherTest, WithoutAFolderToWatchItDoesNotStart)
{
    Reports reports;
    SessionWatcher watcher(std::make_shared<SessionFileSource>(File()), reports.Callback());
    EXPECT_FALSE(watcher.Start());
    SessionWatcher withoutSource(nullptr, reports.Callback());
    EXPECT_FALSE(withoutSource.Start());
}

}  // namespace
}  // namespace VEQ
