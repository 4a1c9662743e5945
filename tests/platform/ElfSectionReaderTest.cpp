#include "platform/elf/ElfSectionReader.h"
#include "platform/fs/FileSystem.h"
#include "platform/resources/ResourceLoaderUtility.h"
#include "platform/string/String.h"
#include "platform/util/CVersion.h"
#include "tests/support/ElfFixture.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <elf.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace VEQ {
namespace {

std::string Read(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

void Write(const std::string& path, const std::string& bytes)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

class ElfSectionReaderTest : public ::testing::Test {
protected:
    ElfSectionReaderTest()
    {
        VEQ::Test::MakeElfWithSections(Elf(), {{".veq.version", "1.2.3.4"}, {".veq.res.JSON.1001", manifest_}});
    }
    std::string Elf() const { return root_.BelowUtf8("lib.dll"); }
    bool ReadSection(const std::string& path, const std::string& name, std::string& content, size_t cap = 1 << 20)
    {
        std::string error;
        const bool read = ElfSectionReader::ReadSection(path, name, cap, content, error);
        EXPECT_EQ(read, error.empty()) << "an error says why, and only on failure: " << error;
        return read;
    }
    // The file with bytes at offset replaced.
    std::string Patched(size_t offset, const void* bytes, size_t size)
    {
        std::string image = Read(Elf());
        std::memcpy(image.data() + offset, bytes, size);
        const std::string path = root_.BelowUtf8("patched-" + std::to_string(patches_++));
        Write(path, image);
        return path;
    }

    VEQ::Test::TempRoot root_;
    const std::string manifest_ = R"({"plugins": [{"pluginId": "caf\u00e9"}]})";
    int patches_ = 0;
};

TEST_F(ElfSectionReaderTest, ReadsNamedSectionsExactly)
{
    std::string content;
    ASSERT_TRUE(ReadSection(Elf(), ".veq.version", content));
    EXPECT_EQ(content, "1.2.3.4");
    ASSERT_TRUE(ReadSection(Elf(), ".veq.res.JSON.1001", content));
    EXPECT_EQ(content, manifest_);
    EXPECT_FALSE(ReadSection(Elf(), ".veq.res.JSON.104", content));
    EXPECT_FALSE(ReadSection(Elf(), ".veq.res.JSON.1001", content, manifest_.size() - 1)) << "larger than the cap";
    EXPECT_FALSE(ReadSection(Elf(), ".bss", content)) << "a section without bytes";
}

TEST_F(ElfSectionReaderTest, RefusesWhatIsNoWellFormedElfFile)
{
    const std::string image = Read(Elf());
    std::string content;
    Write(root_.BelowUtf8("text"), "just some text, not ELF at all");
    Write(root_.BelowUtf8("empty"), "");
    EXPECT_FALSE(ReadSection(root_.BelowUtf8("text"), ".veq.version", content));
    EXPECT_FALSE(ReadSection(root_.BelowUtf8("empty"), ".veq.version", content));
    EXPECT_FALSE(ReadSection(root_.BelowUtf8("missing"), ".veq.version", content));
    EXPECT_FALSE(ReadSection(root_.PathUtf8(), ".veq.version", content)) << "a directory";
    const std::string fifo = root_.BelowUtf8("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(ReadSection(fifo, ".veq.version", content)) << "a FIFO neither blocks nor reads";
    // Our sections lie at the end of the file, with the section table after them: every cut loses them.
    for (size_t length : {size_t{4}, size_t{64}, image.size() / 2, image.size() - 1}) {
        const std::string path = root_.BelowUtf8("cut-" + std::to_string(length));
        Write(path, image.substr(0, length));
        EXPECT_FALSE(ReadSection(path, ".veq.version", content)) << "cut at " << length;
    }
}

TEST_F(ElfSectionReaderTest, ASectionTableThatLiesCostsOnlyThatFile)
{
    const std::string image = Read(Elf());
    ASSERT_EQ(image[EI_CLASS], ELFCLASS64);
    Elf64_Ehdr header;
    std::memcpy(&header, image.data(), sizeof header);
    std::string content;

    const uint64_t farOffset = image.size() * 4;
    EXPECT_FALSE(ReadSection(Patched(offsetof(Elf64_Ehdr, e_shoff), &farOffset, sizeof farOffset), ".veq.version", content));
    const uint16_t manySections = 0xFFF0;
    EXPECT_FALSE(ReadSection(Patched(offsetof(Elf64_Ehdr, e_shnum), &manySections, sizeof manySections), ".veq.version",
                             content));
    const uint16_t badNames = static_cast<uint16_t>(header.e_shnum + 5);
    EXPECT_FALSE(ReadSection(Patched(offsetof(Elf64_Ehdr, e_shstrndx), &badNames, sizeof badNames), ".veq.version",
                             content));

    // Each section header of ours made to reach past the end of the file, or to name nothing.
    for (uint16_t index = 1; index < header.e_shnum; ++index) {
        const size_t at = header.e_shoff + index * sizeof(Elf64_Shdr);
        Elf64_Shdr section;
        std::memcpy(&section, image.data() + at, sizeof section);
        const uint64_t hugeSize = image.size();
        const std::string longer = Patched(at + offsetof(Elf64_Shdr, sh_size), &hugeSize, sizeof hugeSize);
        const uint32_t badName = 0x7FFFFFFF;
        const std::string unnamed = Patched(at + offsetof(Elf64_Shdr, sh_name), &badName, sizeof badName);
        for (const std::string& path : {longer, unnamed}) {
            std::string error;
            ElfSectionReader::ReadSection(path, ".veq.res.JSON.1001", 1 << 20, content, error);
        }
    }
    // Nothing above may crash or read outside the file; the untouched file still reads.
    ASSERT_TRUE(ReadSection(Elf(), ".veq.version", content));
}

TEST_F(ElfSectionReaderTest, FileVersionsComeFromTheVersionSection)
{
    VEQ::Test::MakeElfWithSections(root_.BelowUtf8("old.dll"), {{".veq.version", "1.9\n"}});
    VEQ::Test::MakeElfWithSections(root_.BelowUtf8("bad.dll"), {{".veq.version", "one.two"}});
    CVersion newer;
    CVersion older;
    ASSERT_TRUE(FileSystem::GetFileVersion(String::UTF8ToUTF16(Elf()), newer));
    ASSERT_TRUE(FileSystem::GetFileVersion(root_.Below(L"old.dll"), older));
    EXPECT_EQ(newer.ToString(), L"1.2.3.4");
    EXPECT_EQ(older.ToString(), L"1.9.0.0");
    EXPECT_GT(older.CompareTo(newer), 0);
    CVersion untouched;
    EXPECT_FALSE(FileSystem::GetFileVersion(root_.Below(L"bad.dll"), untouched));
    VEQ::Test::MakeElfWithSections(root_.BelowUtf8("none.dll"), {});
    EXPECT_FALSE(FileSystem::GetFileVersion(root_.Below(L"none.dll"), untouched));
}

TEST(CVersionTest, ParsesOneToFourDecimalParts)
{
    const std::pair<const wchar_t*, const wchar_t*> valid[] = {
        {L"1.2.3.4", L"1.2.3.4"}, {L"7", L"7.0.0.0"}, {L"1.10", L"1.10.0.0"}, {L"65535.0.0.65535", L"65535.0.0.65535"},
        {L"01.002", L"1.2.0.0"},
    };
    for (const auto& [text, canonical] : valid) {
        CVersion version;
        EXPECT_TRUE(version.Parse(text)) << String::UTF16ToUTF8(text);
        EXPECT_EQ(version.ToString(), canonical) << String::UTF16ToUTF8(text);
    }
    for (const wchar_t* text : {L"", L".", L"1.", L".1", L"1..2", L"1.2.3.4.5", L"65536", L"-1", L"+1", L" 1", L"1 ",
                                L"1.2a", L"9999999999", L"\u0661"}) {
        CVersion version;
        version.Parse(L"5.5");
        EXPECT_FALSE(version.Parse(text)) << String::UTF16ToUTF8(text);
        EXPECT_EQ(version.ToString(), L"5.5.0.0") << "a failed parse keeps the version: " << String::UTF16ToUTF8(text);
    }
}

TEST(CVersionTest, ComparesPartByPart)
{
    const std::tuple<const wchar_t*, const wchar_t*, int> rows[] = {
        {L"1.10", L"1.9", 1}, {L"1.2", L"1.2.0.0", 0}, {L"1.2.3.4", L"1.2.3.5", -1}, {L"2", L"1.65535.65535.65535", 1},
    };
    for (const auto& [left, right, order] : rows) {
        CVersion a;
        CVersion b;
        ASSERT_TRUE(a.Parse(left) && b.Parse(right));
        EXPECT_EQ(a.CompareTo(b), order) << String::UTF16ToUTF8(left) << " vs " << String::UTF16ToUTF8(right);
        EXPECT_EQ(b.CompareTo(a), -order) << String::UTF16ToUTF8(right) << " vs " << String::UTF16ToUTF8(left);
    }
}

TEST_F(ElfSectionReaderTest, ResourcesComeFromProductFilesAndAddOnSections)
{
    Write(root_.BelowUtf8("system/resources/JSON/104.json"), "{\"a\": \"caf\xC3\xA9\"}");
    std::wstring text = L"stale";
    ASSERT_TRUE(ResourceLoaderUtility::GetInstance()->LoadCustomResource(text, 104, L"JSON"));
    EXPECT_EQ(text, L"{\"a\": \"caf\u00E9\"}");
    EXPECT_FALSE(ResourceLoaderUtility::GetInstance()->LoadCustomResource(text, 999, L"JSON"));
    EXPECT_TRUE(text.empty()) << "a missing resource leaves empty text";
    EXPECT_FALSE(ResourceLoaderUtility::GetInstance()->LoadCustomResource(text, 104, L"../resources/JSON"));

    VEQ::Test::MakeElfWithSections(root_.BelowUtf8("system/AddOnPlugins/x/resourceloader.dll"),
                                   {{".veq.res.JSON.1001", manifest_}});
    const std::wstring modulePath =
        FileSystem::GetSystemFolderPath() + L"\\drivers\\tavrin\\VEQ\\AddOnPlugins\\x\\resourceloader.dll";
    ASSERT_TRUE(ResourceLoaderUtility::LoadCustomResourceFromFile(text, modulePath, 1001, L"JSON"));
    EXPECT_EQ(text, String::UTF8ToUTF16(manifest_));
    EXPECT_FALSE(ResourceLoaderUtility::LoadCustomResourceFromFile(text, modulePath, 104, L"JSON"));
    EXPECT_FALSE(ResourceLoaderUtility::LoadCustomResourceFromFile(text, modulePath, 1001, L"TEXT"));
    EXPECT_TRUE(text.empty());
}

}  // namespace
}  // namespace VEQ
