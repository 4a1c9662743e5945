#include "platform/applicability/AppAndTagCollection.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <thread>

namespace VEQ {
namespace {

std::string Describe(const std::vector<VEQTag>& tags)
{
    std::string text;
    for (const VEQTag& tag : tags) {
        text += String::UTF16ToUTF8(tag.getKey()) + "=" + String::UTF16ToUTF8(tag.getValue()) + ";";
    }
    return text;
}

class AppAndTagCollectionTest : public ::testing::Test {
protected:
    void SetUp() override { AppAndTagCollection::GetInstance()->SetTags({}); }
    void TearDown() override { AppAndTagCollection::GetInstance()->SetTags({}); }

    VEQ::Test::TempRoot root_;
};

TEST_F(AppAndTagCollectionTest, RegistryStringsComeFirstByNameThenMemoryTagsInTheirOrder)
{
    const std::wstring key = AppAndTagCollection::kTagsKey;
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, key, L"zone", std::wstring(L"eu-west")));
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, key, L"Device.Warranty.ExpirationDate",
                                      std::wstring(L"2027-05-01T00:00:00Z")));
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, key, L"RetryCount", 3u)) << "a DWORD is no tag";
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, key + L"\\Nested", L"inner", std::wstring(L"x")))
        << "values of subkeys are no tags";
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_CURRENT_USER, key, L"user", std::wstring(L"y"))) << "another hive";
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tavrin\\VEQ\\Applicability", L"parent",
                                      std::wstring(L"z")));

    auto* collection = AppAndTagCollection::GetInstance();
    collection->SetTags({{L"ring", L"beta"}, {L"zone", L"memory"}});
    collection->AddTag({L"a", L"1"});

    EXPECT_EQ(Describe(collection->getTagsFromRegistryAndMemory()),
              "Device.Warranty.ExpirationDate=2027-05-01T00:00:00Z;zone=eu-west;ring=beta;zone=memory;a=1;");

    collection->SetTags({{L"only", L"this"}});
    ASSERT_TRUE(CRegUtil::DeleteKey(HKEY_LOCAL_MACHINE, key));
    EXPECT_EQ(Describe(collection->getTagsFromRegistryAndMemory()), "only=this;")
        << "SetTags replaces the memory tags, and a missing key gives no registry tags";
}

TEST_F(AppAndTagCollectionTest, TagsCanBeAddedWhileOthersReadThem)
{
    auto* collection = AppAndTagCollection::GetInstance();
    std::thread writer([&] {
        for (int n = 0; n < 200; ++n) {
            collection->AddTag({L"tag" + std::to_wstring(n), L"v"});
        }
    });
    size_t seen = 0;
    for (int n = 0; n < 200; ++n) {
        const size_t count = collection->getTagsFromRegistryAndMemory().size();
        ASSERT_GE(count, seen) << "tags are only added";
        seen = count;
    }
    writer.join();
    EXPECT_EQ(collection->getTagsFromRegistryAndMemory().size(), 200u);
}

}  // namespace
}  // namespace VEQ
