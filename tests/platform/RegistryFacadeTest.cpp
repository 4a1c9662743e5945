#include "platform/Platform.h"
#include "platform/registry/CRegUtil.h"
#include "platform/registry/PackageUtils.h"
#include "platform/registry/SqliteRegistryStore.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <unistd.h>

namespace VEQ {
namespace {

namespace fs = std::filesystem;

const std::wstring kPackageStatusKey = L"Software\\Tavrin\\VEQ\\PackageStatus";
const std::wstring kRetryCount = L"FailedInstallRetryCount";

// The platform's own store on a fresh root, as the daemon installs it.
class RegistryFacadeTest : public ::testing::Test {
protected:
    void SetUp() override { Reinstall(); }

    void Reinstall()
    {
        Platform::Install(Platform::Paths());
        store_ = std::dynamic_pointer_cast<SqliteRegistryStore>(Platform::Registry());
        ASSERT_NE(store_, nullptr);
    }

    VEQ::Test::TempRoot root_;
    std::shared_ptr<SqliteRegistryStore> store_;
};

TEST_F(RegistryFacadeTest, FailedForcedInstallCountGoesFromMissingToOneAndUpByOne)
{
    PackageUtils package(L"com.tavrin.tool", L"2.1.0", kPackageStatusKey, kRetryCount);
    ASSERT_EQ(package.GetIntValueFromReg(true), -1);

    for (int expected = 1; expected <= 4; ++expected) {
        const int current = package.GetIntValueFromReg(true);
        ASSERT_TRUE(package.SetKeyValueInRegistry(current == -1 ? 1 : current + 1, true));
        EXPECT_EQ(package.GetIntValueFromReg(true), expected);
    }

    // The documented place, which the shell and other tools read.
    uint32_t stored = 0;
    EXPECT_TRUE(CRegUtil::GetRegValueOfDwordType(HKEY_LOCAL_MACHINE,
                                                 L"SOFTWARE\\Tavrin\\VEQ\\PackageStatus\\com.tavrin.tool\\2.1.0",
                                                 L"failedinstallretrycount", stored));
    EXPECT_EQ(stored, 4u);
    EXPECT_EQ(PackageUtils(L"com.tavrin.tool", L"2.2.0", kPackageStatusKey, kRetryCount).GetIntValueFromReg(true), -1)
        << "each version counts on its own";
}

TEST_F(RegistryFacadeTest, PackageIdsThatAreNoKeyNameReachNothing)
{
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, kPackageStatusKey + L"\\a\\b\\1.0", kRetryCount, 3u));
    struct Row {
        const wchar_t* id;
        const wchar_t* version;
    };
    for (const Row& row : {Row{L"", L"1.0"}, Row{L"a", L""}, Row{L"a\\b", L"1.0"}, Row{L"a/b", L"1.0"}, Row{L"a", L"b\\1.0"}}) {
        SCOPED_TRACE(testing::Message() << "id '" << String::UTF16ToUTF8(row.id) << "' version '"
                                        << String::UTF16ToUTF8(row.version) << "'");
        PackageUtils package(row.id, row.version, kPackageStatusKey, kRetryCount);
        EXPECT_EQ(package.GetIntValueFromReg(true), -1);
        EXPECT_FALSE(package.SetKeyValueInRegistry(9, true));
    }
    EXPECT_EQ(store_->SubKeys(HKEY_LOCAL_MACHINE, kPackageStatusKey), std::vector<std::wstring>{L"a"});
    EXPECT_EQ(store_->GetDword(HKEY_LOCAL_MACHINE, kPackageStatusKey + L"\\a\\b\\1.0", kRetryCount), 3u);
}

TEST_F(RegistryFacadeTest, PackageStateIsReadAsAStringWithPathAndNameSetLater)
{
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, kPackageStatusKey + L"\\pkg\\1.0", L"PackageState",
                                      std::wstring(L"install_fail")));
    PackageUtils package(L"pkg", L"1.0");
    package.SetRegPath(kPackageStatusKey);
    package.SetKeyName(L"PackageState");
    EXPECT_EQ(package.GetStringValueFromRegistry(false), L"install_fail");
    EXPECT_EQ(package.GetIntValueFromReg(false), -1) << "a string is no integer";
}

TEST_F(RegistryFacadeTest, DeleteUsersRegKeyPicksTheHiveByCallerAndHive)
{
    const std::wstring key = L"SOFTWARE\\Tavrin\\veq\\Plugins\\MessagingPlugin\\MessageDigestStatus";
    const std::wstring otherUser = std::to_wstring(::geteuid() + 1000);
    const std::string otherFile = String::UTF16ToUTF8(Platform::Paths().registryRoot) + "/users/" +
                                  String::UTF16ToUTF8(otherUser) + ".db";
    struct Row {
        const char* what;
        Hive hive;
        bool isSystemProcess;
        bool machineKeyLeft;
        bool ownKeyLeft;
        bool otherUsersKeyLeft;
    };
    const Row rows[] = {
        {"system process, current user: the signed-in user's hive", HKEY_CURRENT_USER, true, true, true, false},
        {"user process, current user: its own hive", HKEY_CURRENT_USER, false, true, false, true},
        {"system process, local machine: the machine hive", HKEY_LOCAL_MACHINE, true, false, true, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_NE(CRegUtil::CreateKey(HKEY_LOCAL_MACHINE, key), 0);
        ASSERT_NE(CRegUtil::CreateKey(HKEY_CURRENT_USER, key), 0);
        fs::copy_file(store_->HiveFilePath(HKEY_CURRENT_USER), otherFile, fs::copy_options::overwrite_existing);

        EXPECT_TRUE(CRegUtil::DeleteUsersRegKey(row.hive, key, row.isSystemProcess, otherUser));

        EXPECT_EQ(CRegUtil::DoesKeyExists(HKEY_LOCAL_MACHINE, key), row.machineKeyLeft);
        EXPECT_EQ(CRegUtil::DoesKeyExists(HKEY_CURRENT_USER, key), row.ownKeyLeft);
        EXPECT_EQ(store_->DeleteUserKey(otherUser, key), row.otherUsersKeyLeft);
        // The store keeps the other hive open; start the next row from a fresh copy.
        Reinstall();
    }
}

}  // namespace
}  // namespace VEQ
