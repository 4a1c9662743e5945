// The service writes the registry as root; apps read the socket ids it publishes there as
// ordinary users. These tests run a reader as user nobody against a root-written store.
#include "platform/registry/SqliteRegistryStore.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace VEQ {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSetpriv = "/usr/bin/setpriv";
const std::wstring kBrokerKey = L"Software\\Tavrin\\VEQ\\Broker";
const std::wstring kUserSocketValue = L"afxunix-usersocket";

struct Outcome {
    int exitCode = -1;
    std::string output;
};

Outcome RunAsNobody(std::vector<std::string> args)
{
    std::vector<std::string> command = {kSetpriv, "--reuid=65534", "--regid=65534", "--clear-groups"};
    command.insert(command.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& arg : command) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);

    Outcome outcome;
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0) {
        return outcome;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
    pid_t pid = 0;
    const int spawned = ::posix_spawn(&pid, kSetpriv, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipe[1]);
    if (spawned == 0) {
        char buffer[512];
        ssize_t got = 0;
        while ((got = ::read(pipe[0], buffer, sizeof buffer)) > 0) {
            outcome.output.append(buffer, static_cast<size_t>(got));
        }
        int status = 0;
        if (::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
            outcome.exitCode = WEXITSTATUS(status);
        }
    }
    ::close(pipe[0]);
    return outcome;
}

class RegistryUnprivilegedTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root to run a process as another user";
        }
        if (::access(kSetpriv, X_OK) != 0) {
            GTEST_SKIP() << kSetpriv << " is missing";
        }
        temp_ = std::make_unique<VEQ::Test::TempRoot>();  // mode 0755: nobody must be able to pass through
        dir_ = temp_->PathUtf8();
        // A copy next to the data, so that nobody needn't be able to reach the build tree.
        reader_ = dir_ + "/veq_registry_reader";
        fs::copy_file(std::string(VEQ_TEST_PROGRAM_DIR) + "/veq_registry_reader", reader_);
        ASSERT_EQ(::chmod(reader_.c_str(), 0755), 0);
        root_ = dir_ + "/registry";

        const mode_t previous = ::umask(077);  // the service's umask must not hide the hive
        store_ = std::make_unique<SqliteRegistryStore>(String::UTF8ToUTF16(root_));
        const bool written = store_->SetString(HKEY_LOCAL_MACHINE, kBrokerKey, kUserSocketValue, L"3f2a-socket-id") &&
                             store_->SetString(HKEY_CURRENT_USER, kBrokerKey, kUserSocketValue, L"root's own");
        ::umask(previous);
        ASSERT_TRUE(written);
    }
    void TearDown() override
    {
        store_.reset();
        temp_.reset();
    }

    std::unique_ptr<VEQ::Test::TempRoot> temp_;
    std::string dir_;
    std::string reader_;
    std::string root_;
    std::unique_ptr<SqliteRegistryStore> store_;  // stays open, as in the running service
};

TEST_F(RegistryUnprivilegedTest, NobodyReadsTheValuesTheServicePublishes)
{
    struct Row {
        const char* hive;
        const char* key;
        const char* name;
        int exitCode;
        const char* output;
    };
    const Row rows[] = {
        {"HKLM", "Software\\Tavrin\\VEQ\\Broker", "afxunix-usersocket", 0, "3f2a-socket-id\n"},
        {"HKLM", "SOFTWARE/tavrin/veq/BROKER", "AFXUNIX-USERSOCKET", 0, "3f2a-socket-id\n"},
        {"HKLM", "Software\\Tavrin\\VEQ\\Broker", "afxunix-elevatedsocket", 2, ""},
        {"HKLM", "Software\\Tavrin\\VEQ\\Missing", "afxunix-usersocket", 2, ""},
        {"HKCU", "Software\\Tavrin\\VEQ\\Broker", "afxunix-usersocket", 2, ""},  // root's hive isn't nobody's
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << row.hive << " " << row.key << " " << row.name);
        const Outcome outcome = RunAsNobody({reader_, root_, row.hive, row.key, row.name});
        EXPECT_EQ(outcome.exitCode, row.exitCode);
        EXPECT_EQ(outcome.output, row.output);
    }
}

TEST_F(RegistryUnprivilegedTest, NobodyCannotWriteTheMachineHive)
{
    struct Row {
        const char* key;
        const char* name;
    };
    for (const Row& row : {Row{"Software\\Tavrin\\VEQ\\Broker", "afxunix-usersocket"}, Row{"Software\\Tavrin\\VEQ\\Broker", "new"},
                           Row{"Software\\Intruder", "v"}}) {
        SCOPED_TRACE(testing::Message() << row.key << " " << row.name);
        const Outcome outcome = RunAsNobody({reader_, "--write", root_, "HKLM", row.key, row.name, "forged"});
        EXPECT_EQ(outcome.exitCode, 1);
    }
    EXPECT_EQ(store_->GetString(HKEY_LOCAL_MACHINE, kBrokerKey, kUserSocketValue), L"3f2a-socket-id");
    EXPECT_EQ(store_->ValueNames(HKEY_LOCAL_MACHINE, kBrokerKey), std::vector<std::wstring>{kUserSocketValue});
    EXPECT_FALSE(store_->KeyExists(HKEY_LOCAL_MACHINE, L"Software\\Intruder"));
    // The refused attempts leave no lock or journal behind that would block the service.
    EXPECT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, kBrokerKey, kUserSocketValue, L"next-id"));
    EXPECT_EQ(RunAsNobody({reader_, root_, "HKLM", "Software\\Tavrin\\VEQ\\Broker", "afxunix-usersocket"}).output,
              "next-id\n");
}

}  // namespace
}  // namespace VEQ
