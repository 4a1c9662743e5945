#include "platform/elf/ElfSectionReader.h"
#include "platform/fs/FileSystem.h"
#include "platform/string/String.h"
#include "platform/util/CVersion.h"
#include "tests/support/ElfFixture.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <elf.h>

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

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

template <typename T>
T At(const std::string& image, size_t offset)
{
    T value;
    std::memcpy(&value, image.data() + offset, sizeof value);
    return value;
}

class ElfSectionReaderTest : public ::testing::Test {
protected:
    ElfSectionReaderTest()
    {
        VEQ::Test::MakeElfWithSections(Elf(), {{".veq.version", "1.2.3.4"}, {".veq.res.JSON.1001", manifest_}});
        image_ = Read(Elf());
    }
    std::string Elf() const { return root_.BelowUtf8("lib.dll"); }
    bool ReadSection(const std::string& path, const std::string& name, std::string& content, size_t cap = 1 << 20)
    {
        std::string error;
        const bool read = ElfSectionReader::ReadSection(path, name, cap, content, error);
        EXPECT_EQ(read, error.empty()) << "an error says why, and only on failure: " << error;
        return read;
    }
    // A copy of the file with the bytes of value at offset.
    template <typename T>
    std::string Patched(size_t offset, T value)
    {
        std::string image = image_;
        std::memcpy(image.data() + offset, &value, sizeof value);
        const std::string path = root_.BelowUtf8("patched-" + std::to_string(patches_++));
        Write(path, image);
        return path;
    }
    // Where the header of the section named name lies in the file.
    size_t SectionHeaderOffset(const std::string& name) const
    {
        const auto header = At<Elf64_Ehdr>(image_, 0);
        const auto names = At<Elf64_Shdr>(image_, header.e_shoff + header.e_shstrndx * sizeof(Elf64_Shdr));
        for (size_t index = 1; index < header.e_shnum; ++index) {
            const size_t at = header.e_shoff + index * sizeof(Elf64_Shdr);
            if (image_.compare(names.sh_offset + At<Elf64_Shdr>(image_, at).sh_name, name.size() + 1,
                               name.c_str(), name.size() + 1) == 0) {
                return at;
            }
        }
        ADD_FAILURE() << "no section " << name;
        return 0;
    }

    VEQ::Test::TempRoot root_;
    const std::string manifest_ = R"({"plugins": [{"pluginId": "caf\u00e9"}]})";
    std::string image_;
    int patches_ = 0;
};

TEST_F(ElfSectionReaderTest, ReadsNamedSectionsExactly)
{
    std::string content;
    ASSERT_TRUE(ReadSection(Elf(), ".veq.version", content));
    EXPECT_EQ(content, "1.2.3.4");
    ASSERT_TRUE(ReadSection(Elf(), ".veq.res.JSON.1001", content));
    EXPECT_EQ(content, manifest_);
    ASSERT_TRUE(ReadSection(Elf(), ".veq.res.JSON.1001", content, manifest_.size())) << "exactly as large as the cap";
    EXPECT_EQ(content, manifest_);

    const std::pair<const char*, size_t> refused[] = {
        {".veq.res.JSON.104", 1 << 20},            // absent
        {".veq.res.JSON", 1 << 20},                // a prefix of a section's name
        {".veq.res.JSON.1001", manifest_.size() - 1},  // one byte over the cap
        {".bss", std::numeric_limits<size_t>::max()},  // a section without bytes in the file
    };
    for (const auto& [name, cap] : refused) {
        EXPECT_FALSE(ReadSection(Elf(), name, content, cap)) << name << " with cap " << cap;
    }
}

TEST_F(ElfSectionReaderTest, RefusesWhatIsNoWellFormedElfFile)
{
    std::string content;
    Write(root_.BelowUtf8("text"), "just some text, not ELF at all");
    Write(root_.BelowUtf8("empty"), "");
    Write(root_.BelowUtf8("magic"), "\x7F" "ELF");
    for (const std::string& path : {root_.BelowUtf8("text"), root_.BelowUtf8("empty"), root_.BelowUtf8("magic"),
                                    root_.BelowUtf8("missing"), root_.PathUtf8()}) {
        EXPECT_FALSE(ReadSection(path, ".veq.version", content)) << path;
    }
    // Our sections lie near the end of the file, with the section table after them: every cut loses them.
    for (size_t length : {size_t{4}, size_t{63}, size_t{64}, image_.size() / 2, image_.size() - 1}) {
        const std::string path = root_.BelowUtf8("cut-" + std::to_string(length));
        Write(path, image_.substr(0, length));
        EXPECT_FALSE(ReadSection(path, ".veq.version", content)) << "cut at " << length;
    }
}

TEST_F(ElfSectionReaderTest, AFifoNeitherBlocksNorReads)
{
    const std::string fifo = root_.BelowUtf8("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    auto read = std::async(std::launch::async, [&] {
        std::string content;
        std::string error;
        return ElfSectionReader::ReadSection(fifo, ".veq.version", 64, content, error);
    });
    if (read.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        // Let the reader go, or the test would hang rather than fail.
        const int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
        if (writer >= 0) {
            close(writer);
        }
        ADD_FAILURE() << "the reader waited for a writer";
    }
    EXPECT_FALSE(read.get());
}

TEST_F(ElfSectionReaderTest, AFileHeaderThatLiesIsRefused)
{
    const auto header = At<Elf64_Ehdr>(image_, 0);
    ASSERT_EQ(header.e_ident[EI_CLASS], ELFCLASS64) << "the rows below patch a 64-bit header";
    std::string content;
    const std::pair<std::string, const char*> rows[] = {
        {Patched(offsetof(Elf64_Ehdr, e_shoff), uint64_t{image_.size() * 4}), "section table past the end"},
        {Patched(offsetof(Elf64_Ehdr, e_shoff), std::numeric_limits<uint64_t>::max() - 8),
         "section table offset wraps"},
        {Patched(offsetof(Elf64_Ehdr, e_shoff), uint64_t{0}), "no section table"},
        {Patched(offsetof(Elf64_Ehdr, e_shnum), uint16_t{0xFFF0}), "more sections than the file holds"},
        {Patched(offsetof(Elf64_Ehdr, e_shstrndx), static_cast<uint16_t>(header.e_shnum + 5)), "names in no section"},
        {Patched(EI_MAG1, 'X'), "no ELF magic"},
    };
    for (const auto& [path, why] : rows) {
        EXPECT_FALSE(ReadSection(path, ".veq.version", content)) << why;
    }
}

TEST_F(ElfSectionReaderTest, ASectionHeaderThatLiesCostsOnlyThatSection)
{
    const size_t version = SectionHeaderOffset(".veq.version");
    ASSERT_NE(version, 0U);
    const uint64_t size = image_.size();
    const std::pair<std::string, const char*> rows[] = {
        {Patched(version + offsetof(Elf64_Shdr, sh_size), size), "reaches past the end"},
        {Patched(version + offsetof(Elf64_Shdr, sh_size), uint64_t{1} << 62), "larger than any file"},
        {Patched(version + offsetof(Elf64_Shdr, sh_offset), size - 3), "starts within the file and leaves it"},
        {Patched(version + offsetof(Elf64_Shdr, sh_offset), size), "starts at the end"},
        {Patched(version + offsetof(Elf64_Shdr, sh_offset), std::numeric_limits<uint64_t>::max() - 2),
         "offset plus size wraps"},
        {Patched(version + offsetof(Elf64_Shdr, sh_name), uint32_t{0x7FFFFFFF}), "its name lies outside the names"},
        {Patched(version + offsetof(Elf64_Shdr, sh_type), uint32_t{SHT_NOBITS}), "holds no bytes"},
    };
    for (const auto& [path, why] : rows) {
        std::string content;
        std::string error;
        // No cap to hide behind: the reader must check the section against the file itself.
        EXPECT_FALSE(ElfSectionReader::ReadSection(path, ".veq.version", std::numeric_limits<size_t>::max(), content,
                                                   error))
            << why;
        EXPECT_TRUE(ReadSection(path, ".veq.res.JSON.1001", content)) << why;
        EXPECT_EQ(content, manifest_) << why;
    }
}

TEST_F(ElfSectionReaderTest, AnySectionHeaderThatLiesIsSurvived)
{
    // Every header of the file in turn made to reach past the end or to name nothing: whatever
    // each read answers, it must neither crash nor read outside the file (the sanitizer builds
    // watch the latter).
    const auto header = At<Elf64_Ehdr>(image_, 0);
    for (size_t index = 0; index < header.e_shnum; ++index) {
        const size_t at = header.e_shoff + index * sizeof(Elf64_Shdr);
        for (const std::string& path : {Patched(at + offsetof(Elf64_Shdr, sh_size), uint64_t{image_.size()}),
                                        Patched(at + offsetof(Elf64_Shdr, sh_offset), uint64_t{image_.size() - 1}),
                                        Patched(at + offsetof(Elf64_Shdr, sh_name), uint32_t{0x7FFFFFFF})}) {
            std::string content;
            std::string error;
            if (ElfSectionReader::ReadSection(path, ".veq.res.JSON.1001", 1 << 20, content, error)) {
                EXPECT_EQ(content, manifest_) << "section header " << index;
            }
        }
    }
}

TEST_F(ElfSectionReaderTest, FileVersionsComeFromTheVersionSection)
{
    VEQ::Test::MakeElfWithSections(root_.BelowUtf8("old.dll"), {{".veq.version", "1.9\n"}});
    VEQ::Test::MakeElfWithSections(root_.BelowUtf8("terminated.dll"), {{".veq.version", std::string("2.0.1", 6)}});
    CVersion newer;
    CVersion older;
    CVersion terminated;
    ASSERT_TRUE(FileSystem::GetFileVersion(String::UTF8ToUTF16(Elf()), newer));
    ASSERT_TRUE(FileSystem::GetFileVersion(root_.Below(L"old.dll"), older));
    ASSERT_TRUE(FileSystem::GetFileVersion(root_.Below(L"terminated.dll"), terminated));
    EXPECT_EQ(newer.ToString(), L"1.2.3.4");
    EXPECT_EQ(older.ToString(), L"1.9.0.0");
    EXPECT_EQ(terminated.ToString(), L"2.0.1.0");
    EXPECT_GT(older.CompareTo(newer), 0);

    VEQ::Test::MakeElfWithSections(root_.BelowUtf8("bad.dll"), {{".veq.version", "one.two"}});
    VEQ::Test::MakeElfWithSections(root_.BelowUtf8("long.dll"), {{".veq.version", "1.2.3.4" + std::string(4096, ' ')}});
    VEQ::Test::MakeElfWithSections(root_.BelowUtf8("none.dll"), {{".veq.res.JSON.1001", "1.2.3.4"}});
    Write(root_.BelowUtf8("text.dll"), "1.2.3.4");
    for (const wchar_t* name : {L"bad.dll", L"long.dll", L"none.dll", L"text.dll", L"missing.dll"}) {
        CVersion untouched;
        ASSERT_TRUE(untouched.Parse(L"5"));
        EXPECT_FALSE(FileSystem::GetFileVersion(root_.Below(name), untouched)) << String::UTF16ToUTF8(name);
        EXPECT_EQ(untouched.ToString(), L"5.0.0.0") << String::UTF16ToUTF8(name);
    }
}

}  // namespace
}  // namespace VEQ
