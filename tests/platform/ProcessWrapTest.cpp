#include "platform/process/ChildProcesses.h"
#include "platform/process/ProcessHandles.h"
#include "platform/process/ProcessLauncher.h"
#include "platform/process/ProcessWrap.h"
#include "platform/session/SessionFileSource.h"
#include "platform/string/String.h"
#include "tests/support/Eventually.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace VEQ {
namespace {

const std::string kWhoami = std::string(VEQ_TEST_PROGRAM_DIR) + "/veq_whoami";
constexpr uint32_t kNobody = 65534;

std::map<std::string, std::string> ReadFacts(const std::string& path)
{
    std::map<std::string, std::string> facts;
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        const size_t equals = line.find('=');
        if (equals != std::string::npos) {
            facts[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    return facts;
}

// Whether a zombie, or any process, still stands under pid: a reaped child has no /proc entry
// (unless the pid was given again, which a test cannot cause in this short time).
bool Zombie(uint32_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) {
        return false;
    }
    const size_t close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'Z';
}

uint32_t ExitCodeOf(uint32_t pid)
{
    const ProcessHandle handle = ProcessHandles::OpenProcess(pid);
    EXPECT_EQ(ProcessHandles::WaitForSingleObject(handle, 10000), WaitResult::Signaled);
    uint32_t code = 0xFFFFFFFF;
    EXPECT_TRUE(ProcessHandles::GetExitCodeProcess(handle, code));
    ProcessHandles::CloseHandle(handle);
    return code;
}

class ProcessWrapTest : public ::testing::Test {
protected:
    void UseSessionFile(const std::string& content)
    {
        const std::string path = root_.BelowUtf8("session.json");
        std::ofstream(path) << content;
        PlatformSettings settings;
        settings.sessionSource = "file";
        settings.sessionFile = path;
        root_.Reinstall({}, settings);
    }

    VEQ::Test::TempRoot root_;
};

TEST(ProcessLauncherTest, SplitsACommandLineAtBlanksOnly)
{
    const std::pair<std::string, std::vector<std::string>> rows[] = {
        {"/a/host.exe sock-1 42 Name", {"/a/host.exe", "sock-1", "42", "Name"}},
        {"/a/my host.exe  x", {"/a/my", "host.exe", "x"}},
        {"  \"quoted words\"\tstay ", {"\"quoted", "words\"\tstay"}},
        {"", {}},
    };
    for (const auto& [line, words] : rows) {
        EXPECT_EQ(ProcessLauncher::SplitCommandLine(line), words) << line;
    }
}

TEST_F(ProcessWrapTest, AStartedProgramIsReapedAndItsExitCodeStaysKnown)
{
    uint32_t pid = 0;
    uint32_t code = 0xFFFFFFFF;
    ASSERT_TRUE(ProcessWrap::LaunchApplication(L"/bin/false", L"", true, 10000, &pid, &code));
    EXPECT_NE(pid, 0u);
    EXPECT_EQ(code, 1u);
    EXPECT_TRUE(VEQ::Test::Eventually([&] { return !Zombie(pid); })) << "the child is reaped";
    EXPECT_EQ(ExitCodeOf(pid), 1u) << "a reaped child still answers for its pid";
    ChildProcesses::Instance().Forget(pid);
}

TEST_F(ProcessWrapTest, AProgramThatCannotStartIsReportedAndLeavesNothing)
{
    const size_t running = ChildProcesses::Instance().Running();
    for (const wchar_t* line : {L"/no/such/program", L"relative/program", L"", L"/etc/hostname"}) {
        uint32_t pid = 7;
        EXPECT_FALSE(ProcessWrap::LaunchApplication(line, L"", false, 0, &pid, nullptr)) << String::UTF16ToUTF8(line);
        EXPECT_EQ(pid, 0u) << String::UTF16ToUTF8(line);
    }
    EXPECT_TRUE(VEQ::Test::Eventually([&] { return ChildProcesses::Instance().Running() == running; }))
        << "failed starts are reaped";
}

TEST_F(ProcessWrapTest, TheServicesContextRunsWithoutItsBlockedAndIgnoredSignals)
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &stop, &before);
    const auto previousPipe = std::signal(SIGPIPE, SIG_IGN);
    const std::string out = root_.BelowUtf8("system.txt");
    uint32_t pid = 0;
    const bool started = ProcessWrap::LaunchApplication(String::UTF8ToUTF16(kWhoami + " " + out), L"", true, 10000,
                                                        &pid, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    std::signal(SIGPIPE, previousPipe);
    ASSERT_TRUE(started);
    auto facts = ReadFacts(out);
    EXPECT_EQ(facts["uid"], std::to_string(getuid()));
    EXPECT_EQ(facts["cwd"], "/");
    EXPECT_EQ(facts["sigterm_blocked"], "0");
    EXPECT_EQ(facts["sigpipe_ignored"], "0");
    ChildProcesses::Instance().Forget(pid);
}

TEST_F(ProcessWrapTest, TheUserSideRunsAsTheActiveSessionsUser)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can start programs as another user";
    }
    UseSessionFile(R"({"sessionId": 7, "uid": 65534})");
    EXPECT_EQ(ProcessWrap::GetCurrentSessionId(), 7u);
    const std::string folder = root_.BelowUtf8("shared");
    mkdir(folder.c_str(), 0777);
    chmod(folder.c_str(), 0777);
    const std::string out = folder + "/user.txt";
    uint32_t pid = 0;
    ASSERT_NE(ProcessWrap::CreateProcessAsUserMode(String::UTF8ToUTF16(kWhoami + " " + out), L"", true, &pid), 0);
    EXPECT_EQ(ExitCodeOf(pid), 0u);
    auto facts = ReadFacts(out);
    EXPECT_EQ(facts["uid"], std::to_string(kNobody));
    EXPECT_NE(facts["gid"], "0");
    EXPECT_EQ(facts["groups"].find("0,"), std::string::npos) << "root's groups are dropped: " << facts["groups"];
    EXPECT_NE(facts["groups"], "0");
    EXPECT_EQ(facts["USER"], "nobody");
    ChildProcesses::Instance().Forget(pid);
}

TEST_F(ProcessWrapTest, WithoutASessionNoUserProgramStarts)
{
    const std::pair<const char*, const char*> rows[] = {
        {"{}", "an empty object"},
        {R"({"sessionId": 3})", "no uid"},
        {R"({"sessionId": -1, "uid": 1000})", "a negative id"},
        {R"({"sessionId": 4294967295, "uid": 1000})", "the id that means no session"},
        {"not json", "garbage"},
    };
    for (const auto& [content, why] : rows) {
        UseSessionFile(content);
        EXPECT_EQ(ProcessWrap::GetCurrentSessionId(), 0xFFFFFFFFu) << why;
        uint32_t pid = 9;
        EXPECT_EQ(ProcessWrap::CreateProcessAsUserMode(L"/bin/true", L"", true, &pid), 0) << why;
        EXPECT_EQ(pid, 0u) << why;
    }
}

}  // namespace
}  // namespace VEQ
