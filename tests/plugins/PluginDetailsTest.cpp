#include "plugins/PluginDetails.h"
#include "platform/fs/FileSystem.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace VEQ {
namespace {

PluginManifest Manifest(const std::wstring& id, PluginExecutionDetails user, PluginExecutionDetails system)
{
    return PluginManifest("Name", id, RuntimeType::Unmanaged, "1.0", {}, std::move(user), std::move(system), L"");
}

PluginExecutionDetails Block(std::string entry64, std::string entryArm64 = {})
{
    return PluginExecutionDetails(StartupType::Auto, {}, "\\x86.dll", std::move(entry64), std::move(entryArm64));
}

class PluginDetailsTest : public ::testing::Test {
protected:
    std::wstring System() const { return FileSystem::GetSystemFolderPath(); }
    std::wstring Embedded(const std::wstring& id) const { return System() + L"\\drivers\\tavrin\\VEQ\\EmbeddedPlugins\\" + id; }
    std::wstring AddOn(const std::wstring& id) const { return System() + L"\\drivers\\tavrin\\VEQ\\AddOnPlugins\\" + id; }
    std::wstring Repository(const std::wstring& id) const
    {
        return FileSystem::GetCommonApplicationDataPath() + L"\\Tavrin\\Veq\\plugin-repository\\" + id;
    }
    void MakeDirectory(const std::wstring& relativeToSystemRoot) const
    {
        std::filesystem::create_directories(String::UTF16ToUTF8(root_.SystemRoot() + L"/" + relativeToSystemRoot));
    }

    VEQ::Test::TempRoot root_{{}, [] {
        PlatformSettings settings;
        settings.processorArchitecture = 9;
        return settings;
    }()};
};

TEST_F(PluginDetailsTest, TheModeChoosesTheBlockWhoseEntryIsRun)
{
    MakeDirectory(L"EmbeddedPlugins/P");
    struct Row {
        const char* name;
        PluginExecutionDetails user;
        PluginExecutionDetails system;
        PluginMode mode;
        std::wstring entry;
    };
    const Row rows[] = {
        {"user only", Block("\\u.dll"), PluginExecutionDetails(), PluginMode::User, L"\\u.dll"},
        {"system only", PluginExecutionDetails(), Block("\\s.dll"), PluginMode::System, L"\\s.dll"},
        {"both take the system entry", Block("\\u.dll"), Block("\\s.dll"), PluginMode::Both, L"\\s.dll"},
        {"neither: the root alone", PluginExecutionDetails(), PluginExecutionDetails(), PluginMode::None, L""},
        {"a 32-bit entry only: valid, nothing to run", PluginExecutionDetails(StartupType::Auto, {}, "\\x86.dll"),
         PluginExecutionDetails(), PluginMode::User, L""},
    };
    for (const Row& row : rows) {
        const PluginDetails details(PluginSourceType::Embedded, Manifest(L"P", row.user, row.system));
        EXPECT_EQ(details.getMode(), row.mode) << row.name;
        EXPECT_EQ(details.getPlatform(), L"x64") << row.name;
        EXPECT_EQ(details.getPluginFullPath(), Embedded(L"P") + row.entry) << row.name;
    }
}

TEST_F(PluginDetailsTest, TheRootDependsOnWhereThePluginCameFrom)
{
    MakeDirectory(L"EmbeddedPlugins/InEmbedded");
    MakeDirectory(L"AddOnPlugins/InAddOn");
    const auto fullPath = [](PluginSourceType source, const std::wstring& id) {
        return PluginDetails(source, Manifest(id, {}, Block("\\bin\\p.dll"))).getPluginFullPath();
    };
    EXPECT_EQ(fullPath(PluginSourceType::Embedded, L"InEmbedded"), Embedded(L"InEmbedded") + L"\\bin\\p.dll");
    EXPECT_EQ(fullPath(PluginSourceType::Embedded, L"InAddOn"), AddOn(L"InAddOn") + L"\\bin\\p.dll");
    EXPECT_EQ(fullPath(PluginSourceType::Embedded, L"Nowhere"), AddOn(L"Nowhere") + L"\\bin\\p.dll");
    EXPECT_EQ(fullPath(PluginSourceType::Downloaded, L"InEmbedded"), Repository(L"InEmbedded") + L"\\bin\\p.dll");
    EXPECT_EQ(fullPath(static_cast<PluginSourceType>(5), L"InEmbedded"), L"\\bin\\p.dll");
    // The directory is the entry file's folder, which the file layer finds on disk.
    const PluginDetails details(PluginSourceType::Embedded, Manifest(L"InEmbedded", {}, Block("\\bin\\p.dll")));
    EXPECT_EQ(details.getDirectory(), Embedded(L"InEmbedded") + L"\\bin");
    EXPECT_TRUE(FileSystem::createDirectory(details.getDirectory(), true));
    EXPECT_TRUE(std::filesystem::is_directory(String::UTF16ToUTF8(root_.SystemRoot() + L"/EmbeddedPlugins/InEmbedded/bin")));
}

TEST_F(PluginDetailsTest, Arm64IsChosenOnlyWhenEverythingForItIsThere)
{
    MakeDirectory(L"EmbeddedPlugins/P");
    struct Row {
        const char* name;
        int32_t architecture;
        uint32_t runtimeRelease;
        bool arm64Hosts;
        PluginExecutionDetails user;
        PluginExecutionDetails system;
        std::wstring platform;
        std::wstring entry;
    };
    const Row rows[] = {
        {"everything there", 12, 533320, true, {}, Block("\\s.dll", "\\sarm.dll"), L"ARM64", L"\\sarm.dll"},
        {"not an ARM64 machine", 9, 533320, true, {}, Block("\\s.dll", "\\sarm.dll"), L"x64", L"\\s.dll"},
        {"runtime just too old", 12, 533319, true, {}, Block("\\s.dll", "\\sarm.dll"), L"x64", L"\\s.dll"},
        {"no ARM64 hosts", 12, 533320, false, {}, Block("\\s.dll", "\\sarm.dll"), L"x64", L"\\s.dll"},
        {"no ARM64 entry", 12, 533320, true, {}, Block("\\s.dll"), L"x64", L"\\s.dll"},
        {"user-only plugin", 12, 533320, true, Block("\\u.dll", "\\uarm.dll"), {}, L"ARM64", L"\\uarm.dll"},
        // Both runs the system block, even when only the user block names an ARM64 entry.
        {"both, ARM64 entry for users only", 12, 533320, true, Block("\\u.dll", "\\uarm.dll"), Block("\\s.dll"),
         L"ARM64", L""},
    };
    for (const Row& row : rows) {
        PlatformSettings settings;
        settings.processorArchitecture = row.architecture;
        settings.hostRuntimeRelease = row.runtimeRelease;
        root_.Reinstall({}, settings);
        std::error_code error;
        std::filesystem::remove_all(String::UTF16ToUTF8(root_.SystemRoot() + L"/Service"), error);
        if (row.arm64Hosts) {
            MakeDirectory(L"Service/Hosts/ARM64");
        }
        const PluginDetails details(PluginSourceType::Embedded, Manifest(L"P", row.user, row.system));
        EXPECT_EQ(details.getPlatform(), row.platform) << row.name;
        EXPECT_EQ(details.getPluginFullPath(), Embedded(L"P") + row.entry) << row.name;
    }
}

TEST_F(PluginDetailsTest, SourceTypeTexts)
{
    PluginDetails details(PluginSourceType::Downloaded, PluginManifest());
    EXPECT_EQ(details.getSourceTypeAsString(), L"Downloaded");
    details.setSourceType(PluginSourceType::Embedded);
    EXPECT_EQ(details.getSourceTypeAsString(), L"Embedded");
    details.setSourceType(static_cast<PluginSourceType>(2));
    EXPECT_EQ(details.getSourceTypeAsString(), L"");
    const std::pair<std::string, PluginSourceType> rows[] = {
        {"downloaded", PluginSourceType::Downloaded}, {"EMBEDDED", PluginSourceType::Embedded},
        {"repository", PluginSourceType::Embedded}, {"", PluginSourceType::Embedded},
    };
    for (const auto& [text, value] : rows) {
        EXPECT_EQ(PluginDetails::getSourceTypeAsEnum(text), value) << text;
    }
}

}  // namespace
}  // namespace VEQ
