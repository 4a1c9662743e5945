#include "platform/fs/FileSystem.h"
#include "platform/fs/PathMapper.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace VEQ {
namespace {

TEST(PathMapperTest, PutsTheDesignsLiteralsBelowTheRoots)
{
    const std::wstring system = L"/usr/lib/veq";
    const std::wstring common = L"/var/lib/veq/common";
    const std::pair<std::wstring, std::wstring> rows[] = {
        {system + L"\\drivers\\Tavrin\\VEQ\\Service\\Hosts\\x64\\VEQPluginHost.exe",
         system + L"/Service/Hosts/x64/VEQPluginHost.exe"},
        {system + L"\\drivers\\tavrin\\VEQ\\EmbeddedPlugins\\" + L"My.Plugin\\bin\\p.dll",
         system + L"/EmbeddedPlugins/My.Plugin/bin/p.dll"},
        {system + L"\\DRIVERS\\TAVRIN\\veq\\addonplugins\\x", system + L"/AddOnPlugins/x"},
        {system + L"\\drivers\\Tavrin\\VEQ\\Service\\hosts\\arm64", system + L"/Service/Hosts/ARM64"},
        {common + L"\\Tavrin\\Veq\\plugin-repository\\", common + L"/plugin-repository/"},
        {common + L"\\tavrin\\VEQ\\Hosts\\X64\\a.exe", common + L"/Hosts/x64/a.exe"},
        // Names that come from outside keep their spelling, even where they look like fixed ones.
        {common + L"\\Tavrin\\Veq\\plugin-repository\\Hosts\\X64", common + L"/plugin-repository/Hosts/X64"},
        {common + L"\\Tavrin\\Veq\\Other\\tavrin", common + L"/Other/tavrin"},
        // Not the product folder: only the separators change.
        {system + L"\\drivers\\Other\\VEQ", system + L"/drivers/Other/VEQ"},
        {L"C:\\elsewhere\\\\x", L"C:/elsewhere/x"},
        {L"\\relative\\to\\root", L"/relative/to/root"},
        // Paths built on Linux pass untouched.
        {system + L"/drivers/Tavrin/VEQ", system + L"/drivers/Tavrin/VEQ"},
        {L"/a//b/", L"/a//b/"},
    };
    for (const auto& [modulePath, disk] : rows) {
        EXPECT_EQ(PathMapper::ToNative(modulePath, system, common), disk) << String::UTF16ToUTF8(modulePath);
    }
}

TEST(PathMapperTest, TheDeeperRootWinsWhereOneLiesBelowTheOther)
{
    EXPECT_EQ(PathMapper::ToNative(L"/r/common\\Tavrin\\Veq\\Hosts", L"/r", L"/r/common"), L"/r/common/Hosts");
    EXPECT_EQ(PathMapper::ToNative(L"/r/sys\\drivers\\Tavrin\\VEQ\\AddOnPlugins", L"/r/sys", L"/r"),
              L"/r/sys/AddOnPlugins");
}

class RootedFileSystemTest : public ::testing::Test {
protected:
    std::wstring Common() const { return FileSystem::GetCommonApplicationDataPath(); }
    std::wstring System() const { return FileSystem::GetSystemFolderPath(); }

    VEQ::Test::TempRoot root_;
};

TEST_F(RootedFileSystemTest, BothSpellingsOfAFixedFolderMeetInOne)
{
    ASSERT_TRUE(FileSystem::createDirectory(Common() + L"\\Tavrin\\Veq\\Hosts\\x64", true));
    EXPECT_TRUE(FileSystem::directoryExists(Common() + L"\\tavrin\\VEQ\\hosts\\x64"));
    EXPECT_TRUE(FileSystem::directoryExists(root_.CommonDataRoot() + L"/Hosts/x64"));
    ASSERT_TRUE(FileSystem::createDirectory(System() + L"\\drivers\\tavrin\\VEQ\\EmbeddedPlugins\\p", true));
    EXPECT_TRUE(FileSystem::directoryExists(System() + L"\\drivers\\Tavrin\\VEQ\\EmbeddedPlugins\\p"));
    EXPECT_TRUE(FileSystem::directoryExists(root_.SystemRoot() + L"/EmbeddedPlugins/p"));
}

TEST_F(RootedFileSystemTest, AFoundDirectoryComesBackInTheCallersSpelling)
{
    const std::wstring repo = Common() + L"\\Tavrin\\Veq\\plugin-repository\\";
    ASSERT_TRUE(FileSystem::createDirectory(repo + L"Plugin.A\\bin", true));
    std::wstring found;
    ASSERT_TRUE(FileSystem::FindDirectoryInDirectoryTree(repo, L"plugin.a", found));
    EXPECT_EQ(found, repo + L"Plugin.A");
    ASSERT_TRUE(FileSystem::FindDirectoryInDirectoryTree(repo, L"BIN", found));
    EXPECT_EQ(found, repo + L"Plugin.A\\bin");
    const std::wstring native = root_.CommonDataRoot() + L"/plugin-repository";
    ASSERT_TRUE(FileSystem::FindDirectoryInDirectoryTree(native, L"plugin.a", found));
    EXPECT_EQ(found, native + L"/Plugin.A");
}

TEST(FileSystemPathTest, DirectoryNameTakesBackslashesAsSeparators)
{
    const std::pair<std::wstring, std::wstring> rows[] = {
        {L"/r\\EmbeddedPlugins\\p\\bin\\p.dll", L"/r\\EmbeddedPlugins\\p\\bin"},
        {L"/r\\p\\", L"/r"},
        {L"\\c", L"\\"},
    };
    for (const auto& [path, expected] : rows) {
        EXPECT_EQ(FileSystem::getDirectoryName(path), expected) << String::UTF16ToUTF8(path);
    }
}

TEST_F(RootedFileSystemTest, ReadsWholeTextUpToItsLimit)
{
    const std::string path = root_.BelowUtf8("text.json");
    std::ofstream(path) << "{\"caf\xC3\xA9\": 1}";
    std::wstring content;
    ASSERT_TRUE(FileSystem::readAllText(String::UTF8ToUTF16(path), content, 64));
    EXPECT_EQ(content, L"{\"caf\u00E9\": 1}");
    content = L"kept";
    EXPECT_FALSE(FileSystem::readAllText(String::UTF8ToUTF16(path), content, 8)) << "larger than the limit";
    EXPECT_EQ(content, L"kept");
    EXPECT_FALSE(FileSystem::readAllText(root_.Below(L"missing.json"), content, 64));
    EXPECT_FALSE(FileSystem::readAllText(root_.Path(), content, 64)) << "a directory";
    const std::string fifo = root_.BelowUtf8("fifo.json");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(FileSystem::readAllText(String::UTF8ToUTF16(fifo), content, 64)) << "a FIFO neither blocks nor reads";
}

}  // namespace
}  // namespace VEQ
