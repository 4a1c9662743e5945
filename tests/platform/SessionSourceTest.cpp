#include "platform/session/LogindSessionSource.h"
#include "platform/session/SessionFileSource.h"
#include "platform/session/SessionWatcher.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <optional>
#include <ostream>
#include <unistd.h>
#include <vector>

namespace VEQ {

static void PrintTo(const ActiveSession& session, std::ostream* out)
{
    *out << "{" << session.sessionId << ", uid " << session.uid << "}";
}

namespace {

TEST(SessionFileSourceTest, ReadsTheActiveSessionAndTheListOrNobodyWhenTheFileIsUnsound)
{
    struct Row {
        const char* what;
        std::optional<std::string> content;  // nullopt: there is no file
        std::optional<ActiveSession> active;
        std::vector<ActiveSession> sessions;
    };
    const Row rows[] = {
        {"the active session alone", R"({"sessionId": 3, "uid": 1000})", ActiveSession{3, 1000}, {{3, 1000}}},
        {"the active session among others",
         R"({"sessionId": 4, "uid": 1001, "sessions": [{"sessionId": 3, "uid": 1000}, {"sessionId": 4, "uid": 1001}]})",
         ActiveSession{4, 1001}, {{3, 1000}, {4, 1001}}},
        {"sessions of which none is active", R"({"sessions": [{"sessionId": 3, "uid": 1000}]})", std::nullopt,
         {{3, 1000}}},
        {"an empty list", R"({"sessions": []})", std::nullopt, {}},
        {"uid 0 and the largest session id", R"({"sessionId": 4294967294, "uid": 0})", ActiveSession{4294967294u, 0},
         {{4294967294u, 0}}},

        {"no file", std::nullopt, std::nullopt, {}},
        {"an empty file", "", std::nullopt, {}},
        {"an empty object", "{}", std::nullopt, {}},
        {"no uid", R"({"sessionId": 3})", std::nullopt, {}},
        {"the active session not in the list",
         R"({"sessionId": 3, "uid": 1000, "sessions": [{"sessionId": 4, "uid": 1001}]})", std::nullopt, {}},
        {"the active session's id in the list with another uid",
         R"({"sessionId": 3, "uid": 1000, "sessions": [{"sessionId": 3, "uid": 1001}]})", std::nullopt, {}},
        {"the active session and an empty list", R"({"sessionId": 3, "uid": 1000, "sessions": []})", std::nullopt, {}},
        {"half an active session beside a list", R"({"sessionId": 3, "sessions": [{"sessionId": 3, "uid": 1000}]})",
         std::nullopt, {}},
        {"a half-written file", R"({"sessionId": 3, "uid": 10)", std::nullopt, {}},
        {"a half-written list", R"({"sessionId": 3, "uid": 1000, "sessions": [{"sessionId": 3, "uid": 1000}, {"sess)",
         std::nullopt, {}},
        {"a negative id", R"({"sessionId": -3, "uid": 1000})", std::nullopt, {}},
        {"a negative id in the list",
         R"({"sessions": [{"sessionId": 3, "uid": 1000}, {"sessionId": -4, "uid": 1001}]})", std::nullopt, {}},
        {"the id that means no session", R"({"sessionId": 4294967295, "uid": 1000})", std::nullopt, {}},
        {"an id past 32 bits", R"({"sessions": [{"sessionId": 4294967296, "uid": 1000}]})", std::nullopt, {}},
        {"a huge id", R"({"sessionId": 1e30, "uid": 1000})", std::nullopt, {}},
        {"a fractional id", R"({"sessionId": 3.5, "uid": 1000})", std::nullopt, {}},
        {"an id written as a real", R"({"sessions": [{"sessionId": 3.0, "uid": 1000}]})", std::nullopt, {}},
        {"the uid that means no user", R"({"sessionId": 3, "uid": 4294967295})", std::nullopt, {}},
        {"an id as a string", R"({"sessionId": "3", "uid": 1000})", std::nullopt, {}},
        {"a uid as a boolean", R"({"sessions": [{"sessionId": 3, "uid": true}]})", std::nullopt, {}},
        {"sessions as an object", R"({"sessionId": 3, "uid": 1000, "sessions": {"sessionId": 3, "uid": 1000}})",
         std::nullopt, {}},
        {"sessions as null", R"({"sessions": null})", std::nullopt, {}},
        {"a bare number in the list", R"({"sessions": [3]})", std::nullopt, {}},
        {"one id twice in the list", R"({"sessions": [{"sessionId": 3, "uid": 1000}, {"sessionId": 3, "uid": 1001}]})",
         std::nullopt, {}},
        {"an array at the top", R"([{"sessionId": 3, "uid": 1000}])", std::nullopt, {}},
    };
    VEQ::Test::TempRoot root;
    const std::string path = root.BelowUtf8("session.json");
    for (const Row& row : rows) {
        ::unlink(path.c_str());
        if (row.content) {
            std::ofstream(path, std::ios::binary | std::ios::trunc) << *row.content;
        }
        SessionFileSource source(path);

        ActiveSession active{77, 77};
        const bool hasActive = source.GetActiveSession(active);
        EXPECT_EQ(hasActive, row.active.has_value()) << row.what;
        if (hasActive && row.active) {
            EXPECT_EQ(active, *row.active) << row.what;
        }
        std::vector<ActiveSession> sessions{{77, 77}};
        EXPECT_EQ(source.GetSessions(sessions), !row.sessions.empty()) << row.what;
        EXPECT_EQ(sessions, row.sessions) << row.what;
    }
}

// Where logind runs, what it says depends on who sits at the machine; this is about its absence.
TEST(LogindSessionSourceTest, WithoutLogindThereIsNobodyAndAWatchStaysQuiet)
{
    if (::access("/run/systemd/seats/seat0", F_OK) == 0) {
        GTEST_SKIP() << "logind runs here";
    }
    const auto source = std::make_shared<LogindSessionSource>();
    ActiveSession active;
    EXPECT_FALSE(source->GetActiveSession(active));
    std::vector<ActiveSession> sessions{{3, 1000}};
    EXPECT_FALSE(source->GetSessions(sessions));
    EXPECT_TRUE(sessions.empty());

    // Whether logind's folders are there to be watched depends on the machine; either way the
    // watch starts or refuses cleanly, and reports nobody.
    std::vector<SessionChange> seen;
    SessionWatcher watcher(source, [&](const SessionChange& change) { seen.push_back(change); });
    watcher.Start();
    watcher.Stop();
    EXPECT_TRUE(seen.empty());
}

}  // namespace
}  // namespace VEQ
