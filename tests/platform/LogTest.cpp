#include "platform/fs/utility.h"
#include "platform/log/Log.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace VEQ {
namespace {

std::vector<std::string> ReadLines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool Exists(const std::string& path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0;
}

class LogTest : public ::testing::Test {
protected:
    VEQ::Test::TempRoot root_;
};

TEST_F(LogTest, WritesStampedLinesIntoAPublicDirectoryUnderTheLogRoot)
{
    const mode_t saved = umask(077);
    Log log;
    const bool opened = utility::InitLog(log, L"Unit.log", Log::kDebug);
    umask(saved);
    ASSERT_TRUE(opened);

    log.i(L"%s: Init, m_ExtensionId = %s", L"VEQ::Unit::Run", std::string("ext-1"));

    EXPECT_EQ(log.FilePath(), root_.BelowUtf8("log/Unit.log"));
    const auto lines = ReadLines(root_.BelowUtf8("log/Unit.log"));
    ASSERT_EQ(lines.size(), 1u);
    const std::regex stamped(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] \[info\] \[\d+\] VEQ::Unit::Run: Init, m_ExtensionId = ext-1)");
    EXPECT_TRUE(std::regex_match(lines[0], stamped)) << lines[0];
    struct stat status {};
    ASSERT_EQ(stat(root_.BelowUtf8("log").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
}

TEST_F(LogTest, TheLevelDecidesWhichLinesAreWritten)
{
    const std::vector<std::string> expected[] = {
        {},
        {"[error] e"},
        {"[warning] w", "[error] e"},
        {"[info] i", "[warning] w", "[error] e"},
        {"[debug] d", "[info] i", "[warning] w", "[error] e"},
    };
    for (int level = 0; level <= 4; ++level) {
        Log log;
        const std::wstring name = L"Level" + std::to_wstring(level) + L".log";
        ASSERT_TRUE(log.Init(name, level)) << "level " << level;
        log.d(L"d");
        log.i(std::wstring(L"i"));
        log.w(L"w");
        log.e(L"e");
        std::vector<std::string> written;
        const std::regex levelAndText(R"(\[[^\]]+\] (\[\w+\]) \[\d+\] (.*))");
        for (const std::string& line : ReadLines(log.FilePath())) {
            std::smatch match;
            ASSERT_TRUE(std::regex_match(line, match, levelAndText)) << line;
            written.push_back(match[1].str() + " " + match[2].str());
        }
        EXPECT_EQ(written, expected[level]) << "level " << level;
    }
}

TEST_F(LogTest, LogsOpenedOnOneNameShareItsFileAcrossThreads)
{
    Log first;
    Log second;
    ASSERT_TRUE(first.Init(L"Shared.log", Log::kDebug));
    ASSERT_TRUE(second.Init(L"Shared.log", Log::kDebug));
    constexpr int kThreads = 4;
    constexpr int kLines = 250;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int n = 0; n < kLines; ++n) {
                (n % 2 == 0 ? first : second).i(L"writer %d line %d end", t, n);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    const std::regex whole(R"(\[[^\]]+\] \[info\] \[\d+\] writer (\d) line (\d+) end)");
    std::vector<int> nextLine(kThreads, 0);
    const auto lines = ReadLines(root_.BelowUtf8("log/Shared.log"));
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    for (const std::string& line : lines) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, whole)) << line;
        const int writer = std::stoi(match[1]);
        EXPECT_EQ(std::stoi(match[2]), nextLine[writer]++) << line;  // each writer's lines stay in order
    }
}

TEST_F(LogTest, ALogThatCannotOpenDropsLinesQuietly)
{
    Log neverOpened;
    neverOpened.e(L"%s", "dropped");
    EXPECT_FALSE(Exists(root_.BelowUtf8("log"))) << "a log that was never opened created its directory";

    for (const wchar_t* name : {L"", L".", L"..", L"../Escape.log", L"sub/Name.log"}) {
        Log log;
        EXPECT_FALSE(log.Init(name, Log::kDebug)) << String::UTF16ToUTF8(name);
        log.e(L"%s", "dropped");
        EXPECT_EQ(log.FilePath(), "") << String::UTF16ToUTF8(name);
    }
    EXPECT_FALSE(Exists(root_.BelowUtf8("Escape.log")));

    std::ofstream(root_.BelowUtf8("log")) << "a file where the log directory belongs";
    Log blocked;
    EXPECT_FALSE(blocked.Init(L"Blocked.log", Log::kDebug));
    blocked.e(L"%s", "dropped");
}

TEST_F(LogTest, InitAgainMovesTheLogToTheNewFile)
{
    Log log;
    ASSERT_TRUE(log.Init(L"Before.log", Log::kDebug));
    ASSERT_TRUE(log.Init(L"After.log", Log::kError));
    log.e(L"moved");
    log.i(L"filtered");
    EXPECT_TRUE(ReadLines(root_.BelowUtf8("log/Before.log")).empty());
    EXPECT_EQ(ReadLines(root_.BelowUtf8("log/After.log")).size(), 1u);
}

// The checks below need a process whose g_log was never touched; the threadsafe style re-runs
// only this test in a fresh process. Each child removes its temporary root before it exits.
TEST(LogProcessTest, TheServiceLogOpensOnItsFirstLine)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            bool written = false;
            {
                VEQ::Test::TempRoot root;
                g_log.w(L"%s: first line", L"VEQ::Test");
                const auto lines = ReadLines(root.BelowUtf8("log/VEQService.log"));
                written = lines.size() == 1 && lines[0].find("[warning]") != std::string::npos &&
                          lines[0].ends_with("VEQ::Test: first line");
            }
            std::exit(written ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(LogProcessTest, LoggingWhileTheProcessExitsDoesNotCrash)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            static Log lateLog;
            {
                VEQ::Test::TempRoot root;
                utility::InitLog(g_log, L"VEQService.log", Log::kDebug);
                lateLog.Init(L"Late.log", Log::kDebug);
            }
            for (int t = 0; t < 2; ++t) {
                std::thread([] {
                    for (;;) {
                        g_log.i(L"%s: still here %d", L"VEQ::Test", 1);
                        lateLog.i(L"%s", std::wstring(L"late"));
                    }
                }).detach();
            }
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace VEQ
