#include "platform/resources/ResourceLoaderUtility.h"
#include "platform/fs/FileSystem.h"
#include "platform/string/String.h"
#include "tests/support/ElfFixture.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <tuple>

namespace VEQ {
namespace {

void Write(const std::string& path, const std::string& bytes)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

class ResourceLoaderUtilityTest : public ::testing::Test {
protected:
    bool Load(std::wstring& text, int id, const std::wstring& type)
    {
        text = L"stale";
        const bool loaded = ResourceLoaderUtility::GetInstance()->LoadCustomResource(text, id, type);
        EXPECT_EQ(loaded, !text.empty()) << "text is empty exactly when nothing was loaded";
        return loaded;
    }
    bool LoadFromFile(std::wstring& text, const std::wstring& path, int id, const std::wstring& type)
    {
        text = L"stale";
        const bool loaded = ResourceLoaderUtility::LoadCustomResourceFromFile(text, path, id, type);
        EXPECT_EQ(loaded, !text.empty()) << "text is empty exactly when nothing was loaded";
        return loaded;
    }

    VEQ::Test::TempRoot root_;
};

TEST_F(ResourceLoaderUtilityTest, ProductResourcesAreFilesBelowTheSystemRoot)
{
    // The manifests the module asks for, one of them with text beyond ASCII as it is on disk.
    Write(root_.BelowUtf8("system/resources/JSON/104.json"), "{\"a\": \"caf\xC3\xA9\"}");
    Write(root_.BelowUtf8("system/resources/JSON/999.json"), "{\"b\": 999}");
    Write(root_.BelowUtf8("system/resources/JSON/105.json"), "{\"c\": 105}");
    const std::tuple<int, const wchar_t*, const wchar_t*> rows[] = {
        {104, L"JSON", L"{\"a\": \"caf\u00E9\"}"},
        {999, L"JSON", L"{\"b\": 999}"},
        {105, L"JSON", L"{\"c\": 105}"},
    };
    for (const auto& [id, type, expected] : rows) {
        std::wstring text;
        EXPECT_TRUE(Load(text, id, type)) << id;
        EXPECT_EQ(text, expected) << id;
    }
}

TEST_F(ResourceLoaderUtilityTest, MissingUnreadableOrOversizedResourcesAreNone)
{
    Write(root_.BelowUtf8("system/resources/JSON/104.json"), "{}");
    Write(root_.BelowUtf8("system/resources/JSON/7.json"),
          std::string(ResourceLoaderUtility::kMaxResourceBytes + 1, ' '));
    std::filesystem::create_directories(root_.BelowUtf8("system/resources/JSON/8.json"));
    // Files a type that leaves the resources folder would reach.
    Write(root_.BelowUtf8("system/104.json"), "{}");
    Write(root_.BelowUtf8("system/resources/104.json"), "{}");
    Write(root_.BelowUtf8("system/resources/JSON/JSON/104.json"), "{}");
    const std::tuple<int, const wchar_t*, const char*> rows[] = {
        {999, L"JSON", "no such file"},
        {104, L"TEXT", "no such type"},
        {7, L"JSON", "larger than the cap"},
        {8, L"JSON", "a directory"},
        {-104, L"JSON", "a negative id"},
        {104, L"..", "a type that climbs"},
        {104, L"../resources/JSON", "a type that climbs and comes back"},
        {104, L"JSON/JSON", "a type with a separator"},
        {104, L"JSON\\JSON", "a type with the design's separator"},
        {104, L"", "no type"},
        {104, L".", "the resources folder itself"},
    };
    for (const auto& [id, type, why] : rows) {
        std::wstring text;
        EXPECT_FALSE(Load(text, id, type)) << why;
    }
}

TEST_F(ResourceLoaderUtilityTest, AddOnResourcesAreSectionsOfTheFileTheModuleNames)
{
    const std::string manifest = "{\"plugins\": [{\"pluginId\": \"caf\xC3\xA9\"}]}";
    VEQ::Test::MakeElfWithSections(root_.BelowUtf8("system/AddOnPlugins/x/resourceloader.dll"),
                              {{".veq.res.JSON.1001", manifest}, {".veq.res.TEXT.5", "five"}});
    Write(root_.BelowUtf8("system/AddOnPlugins/y/resourceloader.dll"), manifest);
    // As the module builds it: the system folder, the product folders and backslashes.
    const std::wstring addOns = FileSystem::GetSystemFolderPath() + L"\\drivers\\tavrin\\VEQ\\AddOnPlugins\\";
    const std::wstring loader = addOns + L"x\\resourceloader.dll";

    std::wstring text;
    ASSERT_TRUE(LoadFromFile(text, loader, 1001, L"JSON"));
    EXPECT_EQ(text, String::UTF8ToUTF16(manifest));
    ASSERT_TRUE(LoadFromFile(text, loader, 5, L"TEXT"));
    EXPECT_EQ(text, L"five");

    const std::tuple<std::wstring, int, const wchar_t*, const char*> absent[] = {
        {loader, 104, L"JSON", "another id"},
        {loader, 1001, L"TEXT", "another type"},
        {loader, 5, L"JSON", "the id of another type"},
        {loader, 1001, L"JSON.1001", "a type that spells the section's tail"},
        {loader, 1001, L"", "no type"},
        {loader, -1001, L"JSON", "a negative id"},
        {addOns + L"y\\resourceloader.dll", 1001, L"JSON", "the manifest as a plain file, not in an ELF file"},
        {addOns + L"z\\resourceloader.dll", 1001, L"JSON", "no such file"},
    };
    for (const auto& [path, id, type, why] : absent) {
        EXPECT_FALSE(LoadFromFile(text, path, id, type)) << why;
    }
}

}  // namespace
}  // namespace VEQ
