#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <fstream>
#include <optional>

namespace VEQ {
namespace {

class DeviceIdentityTest : public ::testing::Test {
protected:
    void TearDown() override { CoreUtility::GetInstance()->SetMachineIdFiles(CoreUtility::DefaultMachineIdFiles()); }

    std::wstring File(const std::wstring& name, const std::optional<std::string>& content)
    {
        const std::wstring path = root_.Below(name);
        if (content) {
            std::ofstream(String::UTF16ToUTF8(path), std::ios::binary) << *content;
        }
        return path;
    }

    VEQ::Test::TempRoot root_;
};

TEST_F(DeviceIdentityTest, TheFirstFileWithAValidMachineIdGivesTheDeviceId)
{
    const std::string valid = "0123456789abcdef0123456789abcdef\n";
    const std::wstring validId = L"01234567-89AB-CDEF-0123-456789ABCDEF";
    const std::string fallback = "ffffffffffffffffffffffffffff0001\n";
    const std::wstring fallbackId = L"FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFF0001";
    struct Row {
        const char* what;
        std::optional<std::string> primary;
        std::optional<std::string> secondary;
        std::wstring expected;  // empty: no identity
    };
    const Row rows[] = {
        {"machine id with line feed", valid, fallback, validId},
        {"machine id without line feed", "0123456789abcdef0123456789abcdef", std::nullopt, validId},
        {"upper-case digits", "0123456789ABCDEF0123456789ABCDEF\n", std::nullopt, validId},
        {"first file missing", std::nullopt, fallback, fallbackId},
        {"first boot, not yet written", "uninitialized\n", fallback, fallbackId},
        {"empty file", "", fallback, fallbackId},
        {"31 digits", "0123456789abcdef0123456789abcde\n", fallback, fallbackId},
        {"33 digits", "0123456789abcdef0123456789abcdef0\n", fallback, fallbackId},
        {"not hex", "0123456789abcdef0123456789abcdeg\n", fallback, fallbackId},
        {"all zero", "00000000000000000000000000000000\n", fallback, fallbackId},
        {"dashed already", "01234567-89ab-cdef-0123-456789abcdef\n", std::nullopt, L""},
        {"no file at all", std::nullopt, std::nullopt, L""},
        {"no valid file", "x\n", "\n", L""},
    };
    for (size_t n = 0; n < std::size(rows); ++n) {
        const Row& row = rows[n];
        const std::wstring suffix = std::to_wstring(n);
        CoreUtility::GetInstance()->SetMachineIdFiles(
            {File(L"etc-machine-id-" + suffix, row.primary), File(L"dbus-machine-id-" + suffix, row.secondary)});
        DeviceIdentity identity{L"left over"};
        EXPECT_EQ(CoreUtility::GetInstance()->GetDeviceIdentity(identity), !row.expected.empty()) << row.what;
        EXPECT_EQ(identity.deviceId, row.expected) << row.what;
    }
}

TEST_F(DeviceIdentityTest, AnIdOnceReadIsKeptUntilTheFilesAreReplaced)
{
    const std::wstring path = File(L"machine-id", "uninitialized\n");
    CoreUtility::GetInstance()->SetMachineIdFiles({path});
    DeviceIdentity identity;
    EXPECT_FALSE(CoreUtility::GetInstance()->GetDeviceIdentity(identity)) << "first boot: no id yet";
    File(L"machine-id", "0123456789abcdef0123456789abcdef\n");
    ASSERT_TRUE(CoreUtility::GetInstance()->GetDeviceIdentity(identity)) << "written later: read then";
    File(L"machine-id", "ffffffffffffffffffffffffffffffff\n");
    EXPECT_TRUE(CoreUtility::GetInstance()->GetDeviceIdentity(identity));
    EXPECT_EQ(identity.deviceId, L"01234567-89AB-CDEF-0123-456789ABCDEF");
    CoreUtility::GetInstance()->SetMachineIdFiles({path});
    EXPECT_TRUE(CoreUtility::GetInstance()->GetDeviceIdentity(identity));
    EXPECT_EQ(identity.deviceId, L"FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF");
}

}  // namespace
}  // namespace VEQ
