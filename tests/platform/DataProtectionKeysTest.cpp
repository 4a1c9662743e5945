// The service's own keys and the primitives under the data protection commands: strict base64,
// AES-GCM, machine-bound protection, and key files made once and kept private.

#include "platform/crypto/BinaryText.h"
#include "platform/crypto/CipherUtility.h"
#include "platform/crypto/DeviceKey.h"
#include "platform/crypto/MachineKey.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace VEQ {
namespace {

namespace fs = std::filesystem;

std::string HexOf(const std::vector<unsigned char>& bytes)
{
    return BinaryText::BinToHexString(bytes.data(), bytes.size());
}

unsigned ModeOf(const std::string& path)
{
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

std::string Content(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

TEST(BinaryTextTest, Base64IsDecodedOnlyWhenItIsCanonicalBase64)
{
    struct Row {
        std::string text;
        bool valid;
        std::string hex;
    };
    const std::vector<Row> rows = {
        {"", true, ""},
        {"Zg==", true, "66"},
        {"Zm8=", true, "666f"},
        {"Zm9v", true, "666f6f"},
        {"+/8A", true, "fbff00"},
        {"Zg=", false, ""},         // not a whole group
        {"Zm9v\n", false, ""},      // line break
        {"Zm 9v", false, ""},       // blank inside
        {"Zg==Zg==", false, ""},    // padding before the end
        {"Zm9v====", false, ""},    // a group of padding
        {"Z===", false, ""},        // three pads
        {"Zh==", false, ""},        // bits that no byte holds
        {"Zm9=", false, ""},
        {"-_8A", false, ""},        // the URL alphabet
        {"Zg=a", false, ""},        // a character after '='
        {"w6k\xc3\xa9", false, ""},  // not ASCII
    };
    for (const Row& row : rows) {
        std::vector<unsigned char> data{1, 2, 3};
        EXPECT_EQ(BinaryText::Base64ToBin(row.text, data), row.valid) << "'" << row.text << "'";
        EXPECT_EQ(HexOf(data), row.hex) << "'" << row.text << "'";
        EXPECT_EQ(BinaryText::Base64ToHexString(String::UTF8ToUTF16(row.text)), row.hex) << "'" << row.text << "'";
    }
}

TEST(CipherUtilityTest, GcmGivesTheStandardTestVectorAndOpensOnlyWhatItSealed)
{
    // AES-128-GCM with an all-zero key, vector and block (test case 2 of McGrew and Viega's GCM paper).
    const std::vector<unsigned char> key(16, 0);
    const std::vector<unsigned char> iv(12, 0);
    std::vector<unsigned char> tag;
    const auto cipher = CipherUtility::EVP_GCM_Encrypt(std::string(16, '\0'), key, iv, tag);
    EXPECT_EQ(HexOf(cipher), "0388dace60b6a392f328c2b971b2fe78");
    EXPECT_EQ(HexOf(tag), "ab6e47d42cec13bdf53a67b21257bddf");

    std::string plain;
    EXPECT_TRUE(CipherUtility::EVP_GCM_Decrypt(cipher, key, iv, tag, plain));
    EXPECT_EQ(plain, std::string(16, '\0'));
    auto altered = tag;
    altered[0] ^= 1;
    EXPECT_FALSE(CipherUtility::EVP_GCM_Decrypt(cipher, key, iv, altered, plain));
    EXPECT_TRUE(plain.empty());

    for (size_t size : {0u, 15u, 17u, 64u}) {
        const auto refused = CipherUtility::EVP_GCM_Encrypt("text", std::vector<unsigned char>(size, 1), iv, tag);
        EXPECT_TRUE(refused.empty()) << size << "-byte key";
        EXPECT_TRUE(tag.empty()) << size << "-byte key";
    }
    EXPECT_EQ(CipherUtility::GenRandom(16).size(), 16u);
    EXPECT_NE(CipherUtility::GenRandom(16), CipherUtility::GenRandom(16));
}

TEST(MachineKeyTest, ProtectedDataOpensOnlyUnalteredAndWithTheSameMachineKey)
{
    VEQ::Test::TempRoot root;
    const std::vector<unsigned char> secret = {'k', 'e', 'y', 0, 0xff};
    std::vector<unsigned char> first;
    std::vector<unsigned char> second;
    ASSERT_TRUE(CipherUtility::DPAPIEncrypt(secret, first));  // the data root's key folder
    ASSERT_TRUE(CipherUtility::DPAPIEncrypt(secret, second));
    EXPECT_NE(first, second) << "a fresh nonce every time";

    std::vector<unsigned char> opened;
    EXPECT_TRUE(MachineKey(root.Below(L"keys")).Unprotect(first, opened));
    EXPECT_EQ(opened, secret);

    struct Row {
        const char* name;
        std::function<void(std::vector<unsigned char>&)> change;
    };
    const std::vector<Row> rows = {
        {"a cipher byte changed", [](auto& data) { data[14] ^= 1; }},
        {"a tag byte changed", [](auto& data) { data.back() ^= 1; }},
        {"another format", [](auto& data) { data[0] = 2; }},
        {"cut short", [](auto& data) { data.resize(20); }},
    };
    for (const Row& row : rows) {
        auto changed = first;
        row.change(changed);
        EXPECT_FALSE(CipherUtility::DPAPIDecrypt(changed, opened)) << row.name;
        EXPECT_TRUE(opened.empty()) << row.name;
    }
    EXPECT_FALSE(MachineKey(root.Below(L"other-machine")).Unprotect(first, opened));
}

TEST(KeyFolderTest, ConcurrentFirstStartsMakeOneKeyOfEachKindWithPrivateModes)
{
    VEQ::Test::TempRoot root;
    const std::wstring folder = root.Below(L"keys");
    const std::string folderUtf8 = root.BelowUtf8("keys");
    constexpr int kStarts = 3;
    std::vector<std::string> publicKeys(kStarts);
    std::vector<std::vector<unsigned char>> sealed(kStarts);
    std::vector<std::thread> starts;
    for (int n = 0; n < kStarts; ++n) {
        starts.emplace_back([&, n] {
            std::string error;
            publicKeys[n] = DeviceKey(folder).PublicKeyPem(error);
            MachineKey(folder).Protect({static_cast<unsigned char>(n)}, sealed[n]);
        });
    }
    for (auto& start : starts) {
        start.join();
    }
    for (int n = 0; n < kStarts; ++n) {
        EXPECT_NE(publicKeys[n].find("-----BEGIN PUBLIC KEY-----"), std::string::npos) << n;
        EXPECT_EQ(publicKeys[n], publicKeys[0]) << "start " << n << " used a key of its own";
        std::vector<unsigned char> opened;
        EXPECT_TRUE(MachineKey(folder).Unprotect(sealed[n], opened)) << "start " << n << " used a machine key of its own";
    }
    EXPECT_EQ(Content(folderUtf8 + "/device-key.pub.pem"), publicKeys[0]);
    EXPECT_EQ(ModeOf(folderUtf8), 0700u);
    EXPECT_EQ(ModeOf(folderUtf8 + "/device-key.pem"), 0600u);
    EXPECT_EQ(ModeOf(folderUtf8 + "/machine.key"), 0600u);
    EXPECT_EQ(ModeOf(folderUtf8 + "/device-key.pub.pem"), 0644u);
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folderUtf8)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"device-key.pem", "device-key.pub.pem", "machine.key"}))
        << "no half-made files stay behind";
}

TEST(KeyFolderTest, KeyFilesThatOthersCouldReadOrHavePlacedAreRefusedAndKept)
{
    VEQ::Test::TempRoot root;
    const std::string made = root.BelowUtf8("made");
    {
        std::string error;
        ASSERT_FALSE(DeviceKey(String::UTF8ToUTF16(made)).PublicKeyPem(error).empty()) << error;
        ASSERT_TRUE(MachineKey(String::UTF8ToUTF16(made)).Prepare());
    }
    struct Row {
        const char* name;
        const char* file;
        std::function<void(const std::string& folder)> spoil;
        bool needsRoot;
    };
    const std::vector<Row> rows = {
        {"device key readable by its group", "device-key.pem",
         [](const std::string& f) { ::chmod((f + "/device-key.pem").c_str(), 0640); }, false},
        {"machine key readable by all", "machine.key",
         [](const std::string& f) { ::chmod((f + "/machine.key").c_str(), 0604); }, false},
        {"device key a symbolic link", "device-key.pem",
         [](const std::string& f) {
             fs::rename(f + "/device-key.pem", f + "/elsewhere.pem");
             fs::create_symlink(f + "/elsewhere.pem", f + "/device-key.pem");
         },
         false},
        {"machine key of another user", "machine.key",
         [](const std::string& f) { ASSERT_EQ(::chown((f + "/machine.key").c_str(), 65534, 65534), 0); }, true},
        {"folder of another user", "device-key.pem",
         [](const std::string& f) { ASSERT_EQ(::chown(f.c_str(), 65534, 65534), 0); }, true},
    };
    for (const Row& row : rows) {
        if (row.needsRoot && ::geteuid() != 0) {
            continue;  // only root can give a file away
        }
        const std::string folder = root.BelowUtf8(std::string("row-") + row.file + std::to_string(&row - rows.data()));
        fs::copy(made, folder, fs::copy_options::recursive);
        row.spoil(folder);
        const std::string before = Content(folder + "/" + row.file);

        std::string error;
        const bool deviceFile = std::string(row.file) == "device-key.pem";
        if (deviceFile) {
            EXPECT_TRUE(DeviceKey(String::UTF8ToUTF16(folder)).Sign("text", error).empty()) << row.name;
            EXPECT_NE(error.find("refused"), std::string::npos) << row.name << ": " << error;
        } else {
            std::vector<unsigned char> sealed;
            EXPECT_FALSE(MachineKey(String::UTF8ToUTF16(folder)).Protect({1}, sealed)) << row.name;
        }
        EXPECT_EQ(Content(folder + "/" + row.file), before) << row.name << ": the file must be left as it was";
    }
}

}  // namespace
}  // namespace VEQ
