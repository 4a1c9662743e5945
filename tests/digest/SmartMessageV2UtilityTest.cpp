#include "digest/SmartMessageV2Utility.h"
#include "platform/registry/CRegUtil.h"
#include "platform/session/SessionFileSource.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace VEQ {
namespace {

namespace fs = std::filesystem;
using SmartMessageV2::SmartMessageV2Utility;

// The signed-in user is this test's own user, so the status key lives in the hive it can see.
PlatformSettings SignedInAsMe(const std::string& sessionFile)
{
    PlatformSettings settings;
    settings.sessionSource = "file";
    settings.sessionFile = sessionFile;
    return settings;
}

class SmartMessageV2UtilityTest : public ::testing::Test {
protected:
    SmartMessageV2UtilityTest() : root_({}, SignedInAsMe("/nonexistent"))
    {
        const std::string sessionFile = root_.BelowUtf8("session.json");
        std::ofstream(sessionFile) << "{\"sessionId\": 2, \"uid\": " << getuid() << "}";
        root_.Reinstall({}, SignedInAsMe(sessionFile));
        digest_ = root_.BelowUtf8("plugin-data/46C44A27-EAAD-4593-9AA0-8FA0F87BF955/digestv2.json.signed");
    }

    void CacheEverything()
    {
        fs::create_directories(fs::path(digest_).parent_path());
        std::ofstream(digest_) << "{}";
        ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, SmartMessageV2Utility::kMessagingPluginKey, L"Etag",
                                          L"\"abc\""));
        ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_CURRENT_USER, SmartMessageV2Utility::kStatusKey,
                                          L"LastMessageDigestTimeStamp", L"1700000000"));
    }

    VEQ::Test::TempRoot root_;
    std::string digest_;
};

TEST_F(SmartMessageV2UtilityTest, DeletesTheDigestTheEtagAndTheUsersStatusKey)
{
    CacheEverything();
    // The digest commands write the key with "VEQ" in capitals; it is one key.
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tavrin\\VEQ\\Plugins\\MessagingPlugin",
                                      L"Etag", L"\"def\""));

    EXPECT_TRUE(SmartMessageV2Utility::DeleteCachedMessageDigest());
    EXPECT_TRUE(SmartMessageV2Utility::DeleteEtag());
    EXPECT_TRUE(SmartMessageV2Utility::DeletePreviousDownloadDigestTimestamp());

    EXPECT_FALSE(fs::exists(digest_));
    std::wstring etag;
    EXPECT_FALSE(CRegUtil::GetRegValueOfStringType(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tavrin\\VEQ\\Plugins\\MessagingPlugin",
                                                   L"Etag", etag));
    EXPECT_FALSE(CRegUtil::DoesKeyExists(HKEY_CURRENT_USER, SmartMessageV2Utility::kStatusKey));
    // The key that holds the ETag stays: the hash lives there too.
    EXPECT_TRUE(CRegUtil::DoesKeyExists(HKEY_LOCAL_MACHINE, SmartMessageV2Utility::kMessagingPluginKey));
}

TEST_F(SmartMessageV2UtilityTest, AMissingDigestIsDoneButAMissingEtagIsAFailure)
{
    EXPECT_TRUE(SmartMessageV2Utility::DeleteCachedMessageDigest());
    EXPECT_FALSE(SmartMessageV2Utility::DeleteEtag());
}

TEST_F(SmartMessageV2UtilityTest, TheHashIsKeptAndReadBackAndAbsenceLeavesTheOutputAlone)
{
    std::string hash = "untouched";
    EXPECT_FALSE(SmartMessageV2Utility::ReadPreviousHash(hash));
    EXPECT_EQ(hash, "untouched");

    SmartMessageV2Utility::UpdateHashInRegistry("9f86d081884c7d65");
    EXPECT_TRUE(SmartMessageV2Utility::ReadPreviousHash(hash));
    EXPECT_EQ(hash, "9f86d081884c7d65");

    // Deleting the cache does not forget which address it came from.
    CacheEverything();
    SmartMessageV2Utility::DeleteEtag();
    EXPECT_TRUE(SmartMessageV2Utility::ReadPreviousHash(hash));
}

}  // namespace
}  // namespace VEQ
