#include "platform/fs/FileSystem.h"
#include "platform/fs/FileUtils.h"
#include "platform/fs/IFileSystem.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace VEQ {
namespace {

class FileSystemTest : public ::testing::Test {
protected:
    std::wstring At(const std::wstring& relative) const { return root_.Below(relative); }
    void MakeFile(const std::wstring& relative, const std::string& content = "x")
    {
        fs::create_directories(fs::path(String::UTF16ToUTF8(At(relative))).parent_path());
        std::ofstream(String::UTF16ToUTF8(At(relative))) << content;
    }
    void MakeDir(const std::wstring& relative) { fs::create_directories(String::UTF16ToUTF8(At(relative))); }
    void MakeLink(const std::wstring& target, const std::wstring& relative)
    {
        fs::create_symlink(String::UTF16ToUTF8(target), String::UTF16ToUTF8(At(relative)));
    }
    std::string Read(const std::wstring& relative) const
    {
        std::ifstream file(String::UTF16ToUTF8(At(relative)));
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

    VEQ::Test::TempRoot root_;
};

TEST_F(FileSystemTest, ExistenceChecksTellFilesFromDirectories)
{
    MakeFile(L"file.txt");
    MakeFile(L"caf\u00E9.json");
    MakeDir(L"folder");
    MakeLink(At(L"file.txt"), L"link-to-file");
    MakeLink(At(L"gone"), L"dangling");
    struct Row {
        const wchar_t* path;
        bool file;
        bool directory;
    };
    for (const Row& row : {Row{L"file.txt", true, false}, Row{L"caf\u00E9.json", true, false},
                           Row{L"folder", false, true}, Row{L"link-to-file", true, false},
                           Row{L"dangling", false, false}, Row{L"missing", false, false}}) {
        const std::string name = String::UTF16ToUTF8(row.path);
        EXPECT_EQ(FileSystem::fileExists(At(row.path)), row.file) << name;
        EXPECT_EQ(FileSystem::directoryExists(At(row.path)), row.directory) << name;
    }
}

TEST_F(FileSystemTest, CreateDirectoryMakesParentsOnlyWhenRecursive)
{
    MakeFile(L"plain");
    struct Row {
        const wchar_t* path;
        bool recursive;
        bool created;
    };
    for (const Row& row : {Row{L"a/b/c", false, false}, Row{L"a/b/c", true, true}, Row{L"a/b/c", false, true},
                           Row{L"a/d", false, true}, Row{L"plain", true, false}, Row{L"plain/sub", true, false}}) {
        EXPECT_EQ(FileSystem::createDirectory(At(row.path), row.recursive), row.created)
            << String::UTF16ToUTF8(row.path) << (row.recursive ? " recursive" : "");
    }
    EXPECT_TRUE(FileSystem::directoryExists(At(L"a/b/c")));
}

TEST_F(FileSystemTest, DeleteLeavesNothingBehindOrRefusesANonEmptyDirectory)
{
    struct Row {
        const char* what;
        const wchar_t* path;
        bool recursive;
        bool result;
        bool gone;
    };
    const Row rows[] = {
        {"missing path", L"never", false, true, true},
        {"file", L"tree/file", false, true, true},
        {"non-empty directory, not recursive", L"tree", false, false, false},
        {"link to a directory", L"link", true, true, true},
        {"non-empty directory, recursive", L"tree", true, true, true},
        {"empty directory", L"empty", false, true, true},
    };
    MakeFile(L"tree/file");
    MakeFile(L"tree/sub/deep");
    MakeFile(L"kept/inside");
    MakeDir(L"empty");
    MakeLink(At(L"kept"), L"link");
    for (const Row& row : rows) {
        EXPECT_EQ(FileSystem::deleteDirectoryOrFile(At(row.path), row.recursive), row.result) << row.what;
        EXPECT_EQ(!fs::exists(fs::symlink_status(String::UTF16ToUTF8(At(row.path)))), row.gone) << row.what;
    }
    EXPECT_EQ(Read(L"kept/inside"), "x") << "deleting a link must not touch its target";
}

TEST_F(FileSystemTest, CopiesReplaceTheDestination)
{
    MakeFile(L"from.txt", "new");
    MakeFile(L"to.txt", "old and longer");
    EXPECT_TRUE(FileSystem::copyFile(At(L"from.txt"), At(L"to.txt")));
    EXPECT_EQ(Read(L"to.txt"), "new");
    EXPECT_FALSE(FileSystem::copyFile(At(L"missing"), At(L"to.txt")));

    MakeFile(L"src/Utilities/a.dll", "a");
    MakeFile(L"src/Utilities/sub/b.dll", "b");
    MakeFile(L"dst/Utilities/a.dll", "stale");
    EXPECT_TRUE(FileSystem::copyDir(At(L"src/Utilities"), At(L"dst/Utilities")));
    EXPECT_EQ(Read(L"dst/Utilities/a.dll"), "a");
    EXPECT_EQ(Read(L"dst/Utilities/sub/b.dll"), "b");
    EXPECT_FALSE(FileSystem::copyDir(At(L"src/missing"), At(L"dst/x")));
}

TEST_F(FileSystemTest, ListsGiveSortedNamesOfOneKind)
{
    for (const wchar_t* name : {L"b.json", L"A.JSON", L"c.json.bak", L"VeqPluginHost.exe", L"p1.exe", L"noext"}) {
        MakeFile(std::wstring(L"repo/") + name);
    }
    MakeDir(L"repo/plugin-two");
    MakeDir(L"repo/plugin-one_");
    MakeDir(L"repo/dir.json");

    struct Row {
        const wchar_t* mask;
        std::vector<std::wstring> names;
    };
    const Row rows[] = {
        {L"repo", {L"A.JSON", L"VeqPluginHost.exe", L"b.json", L"c.json.bak", L"noext", L"p1.exe"}},
        {L"repo/*.*", {L"A.JSON", L"VeqPluginHost.exe", L"b.json", L"c.json.bak", L"noext", L"p1.exe"}},
        {L"repo/*.json", {L"A.JSON", L"b.json"}},
        {L"repo\\*.exe", {L"VeqPluginHost.exe", L"p1.exe"}},
        {L"repo/p?.exe", {L"p1.exe"}},
        {L"repo/*", {L"A.JSON", L"VeqPluginHost.exe", L"b.json", L"c.json.bak", L"noext", L"p1.exe"}},
        {L"missing/*.json", {}},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(FileSystem::GetFileList(At(row.mask)), row.names) << String::UTF16ToUTF8(row.mask);
    }
    EXPECT_EQ(FileSystem::GetDirectoriesForFolder(At(L"repo")),
              (std::vector<std::wstring>{L"dir.json", L"plugin-one_", L"plugin-two"}));

    std::vector<std::wstring> appended{L"earlier"};
    EXPECT_EQ(FileSystem::GetFileList(At(L"repo/*.json"), appended), 2);
    EXPECT_EQ(FileSystem::GetDirectoriesForFolder(At(L"repo"), appended), 3);
    EXPECT_EQ(appended.size(), 6u);
    EXPECT_EQ(appended.front(), L"earlier");
}

TEST_F(FileSystemTest, FindsTheShallowestDirectoryOfANameWithoutFollowingLinks)
{
    MakeDir(L"repo/a/b/Plugin-X");
    MakeDir(L"repo/z/plugin-x");
    MakeLink(At(L"repo"), L"repo/a/loop");
    std::wstring found;
    ASSERT_TRUE(FileSystem::FindDirectoryInDirectoryTree(At(L"repo"), L"PLUGIN-X", found));
    EXPECT_EQ(found, At(L"repo/z/plugin-x"));
    EXPECT_FALSE(FileSystem::FindDirectoryInDirectoryTree(At(L"repo"), L"absent", found));
}

TEST(FileSystemPathTest, DirectoryNameDropsTheLastComponent)
{
    const std::pair<std::wstring, std::wstring> rows[] = {
        {L"/a/b/c.txt", L"/a/b"}, {L"/a/b/c/", L"/a/b"}, {L"/a//b", L"/a"}, {L"/c", L"/"},
        {L"/", L"/"},             {L"name", L""},        {L"", L""},        {L"rel/x", L"rel"},
    };
    for (const auto& [path, expected] : rows) {
        EXPECT_EQ(FileSystem::getDirectoryName(path), expected) << String::UTF16ToUTF8(path);
    }
}

TEST_F(FileSystemTest, RemoveFileTakesUtf8AndRefusesDirectories)
{
    MakeFile(L"caf\u00E9.exe");
    MakeDir(L"folder");
    EXPECT_TRUE(FileUtils::removeFile(String::UTF16ToUTF8(At(L"caf\u00E9.exe"))));
    EXPECT_FALSE(FileSystem::fileExists(At(L"caf\u00E9.exe")));
    EXPECT_TRUE(FileUtils::removeFile(String::UTF16ToUTF8(At(L"never-there"))));
    EXPECT_FALSE(FileUtils::removeFile(String::UTF16ToUTF8(At(L"folder"))));
    EXPECT_TRUE(FileSystem::directoryExists(At(L"folder")));
}

// Module tests put doubles behind the facades; FileUtils' UTF-8 path must arrive intact.
class MockFileSystem : public IFileSystem {
public:
    MOCK_METHOD(bool, fileExists, (const std::wstring&), (override));
    MOCK_METHOD(bool, directoryExists, (const std::wstring&), (override));
    MOCK_METHOD(bool, createDirectory, (const std::wstring&, bool), (override));
    MOCK_METHOD(bool, deleteDirectoryOrFile, (const std::wstring&, bool), (override));
    MOCK_METHOD(bool, copyFile, (const std::wstring&, const std::wstring&), (override));
    MOCK_METHOD(bool, copyDir, (const std::wstring&, const std::wstring&), (override));
    MOCK_METHOD(bool, removeFile, (const std::wstring&), (override));
    MOCK_METHOD(std::vector<std::wstring>, GetFileList, (const std::wstring&), (override));
    MOCK_METHOD(std::vector<std::wstring>, GetDirectoriesForFolder, (const std::wstring&), (override));
    MOCK_METHOD(bool, FindDirectoryInDirectoryTree, (const std::wstring&, const std::wstring&, std::wstring&), (override));
};

TEST(FileSystemFacadeTest, CallsReachTheInstalledFileSystem)
{
    auto mock = std::make_shared<::testing::StrictMock<MockFileSystem>>();
    PlatformServices services;
    services.fileSystem = mock;
    VEQ::Test::TempRoot root(services);
    EXPECT_CALL(*mock, removeFile(std::wstring(L"/x/caf\u00E9"))).WillOnce(::testing::Return(false));
    EXPECT_CALL(*mock, GetFileList(std::wstring(L"/x/*.json")))
        .WillOnce(::testing::Return(std::vector<std::wstring>{L"a.json"}));
    EXPECT_FALSE(FileUtils::removeFile("/x/caf\xC3\xA9"));
    std::vector<std::wstring> names;
    EXPECT_EQ(FileSystem::GetFileList(L"/x/*.json", names), 1);
}

}  // namespace
}  // namespace VEQ
