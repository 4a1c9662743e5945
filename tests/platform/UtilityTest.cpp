#include "platform/fs/utility.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace VEQ {
namespace {

constexpr const wchar_t* kSharedUserArgs =
    L"/inheritance:r /q /c /t /grant *S-1-5-32-545:(OI)(CI)F *S-1-5-32-544:(OI)(CI)F *S-1-5-18:(OI)(CI)F";

// Modes must not depend on the umask of whoever starts the service.
class UtilityTest : public ::testing::Test {
protected:
    void SetUp() override { savedUmask_ = umask(077); }
    void TearDown() override { umask(savedUmask_); }

    std::string At(const std::string& relative) const { return root_.BelowUtf8(relative); }
    std::wstring WideAt(const std::string& relative) const { return String::UTF8ToUTF16(At(relative)); }
    static mode_t ModeOf(const std::string& path)
    {
        struct stat status {};
        return lstat(path.c_str(), &status) == 0 ? (status.st_mode & 07777) : 0;
    }
    void MakeTree()
    {
        fs::create_directories(At("top/sub"));
        std::ofstream(At("top/file")) << "x";
        std::ofstream(At("top/sub/deep")) << "x";
        std::ofstream(At("outside")) << "x";
        fs::create_symlink(At("outside"), At("top/link"));
        for (const char* path : {"top", "top/sub"}) {
            chmod(At(path).c_str(), 0750);
        }
        for (const char* path : {"top/file", "top/sub/deep", "outside"}) {
            chmod(At(path).c_str(), 0640);
        }
    }

    VEQ::Test::TempRoot root_;
    mode_t savedUmask_ = 0;
};

TEST_F(UtilityTest, PermissionArgumentsDecideBetweenSharedAndPrivateModes)
{
    struct Row {
        const char* what;
        const wchar_t* args;
        bool recursive;
        mode_t top, sub, file, deep;
    };
    const Row rows[] = {
        {"broker's shared-user folder", kSharedUserArgs, true, 0755, 0755, 0666, 0666},
        {"users granted by name", L"/grant:r Users:(R)", true, 0755, 0755, 0666, 0666},
        {"administrators and system only", L"/inheritance:r /grant *S-1-5-32-544:F *S-1-5-18:F", true, 0700, 0700, 0600, 0600},
        {"users denied, not granted", L"/deny *S-1-5-32-545:F /grant *S-1-5-18:F", true, 0700, 0700, 0600, 0600},
        {"not recursive", kSharedUserArgs, false, 0755, 0750, 0640, 0640},
    };
    for (const Row& row : rows) {
        fs::remove_all(At("top"));
        fs::remove(At("outside"));
        MakeTree();
        EXPECT_TRUE(utility::ApplyFilePermissions(WideAt("top"), row.args, row.recursive)) << row.what;
        EXPECT_EQ(ModeOf(At("top")), row.top) << row.what;
        EXPECT_EQ(ModeOf(At("top/sub")), row.sub) << row.what;
        EXPECT_EQ(ModeOf(At("top/file")), row.file) << row.what;
        EXPECT_EQ(ModeOf(At("top/sub/deep")), row.deep) << row.what;
        EXPECT_EQ(ModeOf(At("outside")), 0640u) << row.what << ": a link's target outside the tree changed";
    }
    EXPECT_FALSE(utility::ApplyFilePermissions(WideAt("missing"), kSharedUserArgs, true));
}

TEST_F(UtilityTest, CreateFileWithAclGivesTheSideItsModeAndEmptiesOldContent)
{
    for (const bool userSide : {true, false}) {
        const std::string path = At(userSide ? "user-socket" : "elevated-socket");
        std::ofstream(path) << "stale content";
        chmod(path.c_str(), 0644);
        ASSERT_TRUE(utility::createFileWithAcl(String::UTF8ToUTF16(path), userSide)) << path;
        struct stat status {};
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, userSide ? 0666u : 0600u) << path;
        EXPECT_EQ(status.st_size, 0) << path;
        EXPECT_EQ(status.st_uid, geteuid()) << path;
    }
    ASSERT_TRUE(utility::createFileWithAcl(WideAt("fresh"), false));
    EXPECT_EQ(ModeOf(At("fresh")), 0600u);
}

TEST_F(UtilityTest, CreateFileWithAclRefusesWhatIsNotARegularFile)
{
    std::ofstream(At("target")) << "keep";
    chmod(At("target").c_str(), 0600);
    fs::create_symlink(At("target"), At("link"));
    ASSERT_EQ(mkfifo(At("fifo").c_str(), 0600), 0);
    fs::create_directory(At("dir"));
    for (const char* name : {"link", "fifo", "dir"}) {
        EXPECT_FALSE(utility::createFileWithAcl(WideAt(name), true)) << name;
    }
    EXPECT_EQ(fs::file_size(At("target")), 4u);
    EXPECT_EQ(ModeOf(At("target")), 0600u);
}

}  // namespace
}  // namespace VEQ
