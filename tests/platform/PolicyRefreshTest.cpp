#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/policy/ExternalRefreshSource.h"
#include "platform/policy/PolicyDownloadRefreshSource.h"
#include "platform/policy/PolicyFile.h"
#include "platform/policy/PolicyFileRefreshSource.h"
#include "platform/policy/PolicyRefreshStatus.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"
#include "tests/support/Eventually.h"
#include "tests/support/FakeAgents.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

namespace VEQ {
namespace {

const char* const kOldPolicy = R"({"mqtt":{"mqttConnectType":"NRT"}})";
const char* const kNewPolicy = R"({"mqtt":{"mqttConnectType":"OnDemand"}})";

class PrivateAgent : public ConfigPolicyAgent {
public:
    PrivateAgent() = default;
};

Json::Value Parse(const std::string& text)
{
    Json::Value value;
    std::string error;
    EXPECT_TRUE(PolicyFile::Parse(text, value, error)) << text;
    return value;
}

std::string Contents(const std::wstring& path)
{
    std::ifstream file(String::UTF16ToUTF8(path));
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

void RequestRefresh()
{
    VEQNotificationData request(4, 24, L"");
    VEQPublisherSubscriber::GetInstance()->Notify(request, L"test");
}

// Announcements of a changed policy on the bus.
class Announcements {
public:
    Announcements()
    {
        id_ = VEQPublisherSubscriber::GetInstance()->Subscribe(
            [this](VEQNotificationData& data) {
                if (data.getTopicId() == 4 && data.getEventState() == 15) {
                    ++count_;
                }
            },
            false);
    }
    ~Announcements() { VEQPublisherSubscriber::GetInstance()->Unsubscribe(id_); }
    int Count() const { return count_; }

private:
    std::wstring id_;
    std::atomic<int> count_{0};
};

class PolicyRefreshTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::ofstream(String::UTF16ToUTF8(path_)) << kOldPolicy;
        ASSERT_TRUE(agent_.LoadFromFile(path_));
    }
    void TearDown() override { agent_.SetRefreshSource(nullptr); }

    VEQ::Test::TempRoot root_;
    const std::wstring path_ = root_.Below(L"policy.json");
    PrivateAgent agent_;
};

TEST_F(PolicyRefreshTest, TheFileSourcePutsAChangedFileInForceAndFailsOnOneThatIsNoPolicy)
{
    PolicyFileRefreshSource source(agent_, path_);
    Announcements announcements;
    EXPECT_EQ(source.Refresh(), PolicyRefreshStatus::kSucceeded);
    EXPECT_EQ(announcements.Count(), 0) << "the same policy is no change";

    std::ofstream(String::UTF16ToUTF8(path_)) << kNewPolicy;
    EXPECT_EQ(source.Refresh(), PolicyRefreshStatus::kSucceeded);
    EXPECT_EQ(agent_.GetPolicyDocument(), Parse(kNewPolicy));
    EXPECT_EQ(announcements.Count(), 1);

    std::ofstream(String::UTF16ToUTF8(path_)) << "{ broken";
    EXPECT_EQ(source.Refresh(), PolicyRefreshStatus::kFetchFailed);
    std::filesystem::remove(String::UTF16ToUTF8(path_));
    EXPECT_EQ(source.Refresh(), PolicyRefreshStatus::kFetchFailed);
    EXPECT_EQ(agent_.GetPolicyDocument(), Parse(kNewPolicy));
    EXPECT_EQ(announcements.Count(), 1);
}

TEST_F(PolicyRefreshTest, ADownloadThatIsNoPolicyLeavesFileAndPolicyAloneWithItsStatus)
{
    using Download = PolicyDownloadRefreshSource::Download;
    struct Row {
        const char* name;
        Download answer;
        int32_t status;
    };
    const Row rows[] = {
        {"expired device certificate", {200, 0, "", kNewPolicy, true}, PolicyRefreshStatus::kCertificateExpired},
        {"no exchange", {0, 7, "Couldn't connect to server", "", false}, PolicyRefreshStatus::kFetchFailed},
        {"401", {401, 0, "", kNewPolicy, false}, PolicyRefreshStatus::kUnregistered},
        {"403", {403, 0, "", kNewPolicy, false}, PolicyRefreshStatus::kUnregistered},
        {"429", {429, 0, "", kNewPolicy, false}, PolicyRefreshStatus::kTooSoon},
        {"500", {500, 0, "", kNewPolicy, false}, PolicyRefreshStatus::kFetchFailed},
        {"204", {204, 0, "", "", false}, PolicyRefreshStatus::kFetchFailed},
        {"not JSON", {200, 0, "", "<html>", false}, PolicyRefreshStatus::kFetchFailed},
        {"not an object", {200, 0, "", "[1,2]", false}, PolicyRefreshStatus::kFetchFailed},
        {"too large", {200, 0, "", std::string(PolicyFile::kMaxSize + 1, ' ') + "{}", false},
         PolicyRefreshStatus::kFetchFailed},
    };
    for (const Row& row : rows) {
        PolicyDownloadRefreshSource source(agent_, path_, "https://config.example/p",
                                           [&row](const std::string&) { return row.answer; });
        EXPECT_EQ(source.Refresh(), row.status) << row.name;
        EXPECT_EQ(Contents(path_), kOldPolicy) << row.name;
        EXPECT_EQ(agent_.GetPolicyDocument(), Parse(kOldPolicy)) << row.name;
    }
    for (const auto& entry : std::filesystem::directory_iterator(root_.PathUtf8())) {
        EXPECT_EQ(entry.path().filename().string().find("policy.json."), std::string::npos)
            << "left behind: " << entry.path();
    }
}

TEST_F(PolicyRefreshTest, ARequestDuringARefreshGetsOneMorePassAndTheStatusWaitsForIt)
{
    auto source = std::make_shared<VEQ::Test::FakeRefreshSource>(true);
    std::atomic<int32_t> statusDuringSecondPass{0};
    source->SetOnPass([&](int pass) {
        if (pass == 2) {
            statusDuringSecondPass = agent_.GetRefreshStatus();
            return PolicyRefreshStatus::kFetchFailed;
        }
        return PolicyRefreshStatus::kSucceeded;
    });
    EXPECT_EQ(agent_.GetRefreshStatus(), PolicyRefreshStatus::kNone);
    agent_.SetRefreshSource(source);
    EXPECT_EQ(agent_.GetRefreshStatus(), PolicyRefreshStatus::kNone) << "nothing asked for yet";

    RequestRefresh();
    EXPECT_EQ(agent_.GetRefreshStatus(), PolicyRefreshStatus::kRunning);
    ASSERT_TRUE(source->WaitForStarted(1));
    RequestRefresh();
    RequestRefresh();
    source->Release();
    ASSERT_TRUE(VEQ::Test::Eventually([&] { return agent_.GetRefreshStatus() != PolicyRefreshStatus::kRunning; }));
    EXPECT_EQ(source->Started(), 2);
    EXPECT_EQ(statusDuringSecondPass, PolicyRefreshStatus::kRunning) << "the first pass's outcome is not reported";
    EXPECT_EQ(agent_.GetRefreshStatus(), PolicyRefreshStatus::kFetchFailed);

    agent_.SetRefreshSource(nullptr);
    EXPECT_EQ(agent_.GetRefreshStatus(), PolicyRefreshStatus::kNone);
    RequestRefresh();
    EXPECT_EQ(source->Started(), 2) << "no source, no refresh";
}

TEST_F(PolicyRefreshTest, AnExternalRefreshTakesOneReportAndReloadsTheFileOnSuccess)
{
    agent_.SetRefreshSource(
        std::make_shared<ExternalRefreshSource>(std::make_shared<PolicyFileRefreshSource>(agent_, path_)));
    EXPECT_FALSE(agent_.ReportRefreshStatus(0)) << "no refresh runs";

    RequestRefresh();
    EXPECT_EQ(agent_.GetRefreshStatus(), PolicyRefreshStatus::kRunning);
    EXPECT_FALSE(agent_.ReportRefreshStatus(PolicyRefreshStatus::kRunning));
    // The other agent has written the file; its success must not wait for the file watcher.
    std::ofstream(String::UTF16ToUTF8(path_)) << kNewPolicy;
    EXPECT_TRUE(agent_.ReportRefreshStatus(0));
    EXPECT_EQ(agent_.GetRefreshStatus(), PolicyRefreshStatus::kSucceeded);
    EXPECT_EQ(agent_.GetPolicyDocument(), Parse(kNewPolicy));
    EXPECT_FALSE(agent_.ReportRefreshStatus(13)) << "that refresh is over";

    RequestRefresh();
    EXPECT_TRUE(agent_.ReportRefreshStatus(13));
    EXPECT_EQ(agent_.GetRefreshStatus(), PolicyRefreshStatus::kFetchFailed);
}

TEST(DeviceRegistrationTest, OnlyTheDwordOneMeansRegistered)
{
    VEQ::Test::TempRoot root;
    const auto key = CoreUtility::kRegistrationKey;
    const auto value = CoreUtility::kRegistrationValue;
    CoreUtility* core = CoreUtility::GetInstance();
    EXPECT_FALSE(core->IsDeviceRegistered()) << "absent";
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, key, value, std::wstring(L"1")));
    EXPECT_FALSE(core->IsDeviceRegistered()) << "a string";
    for (const uint32_t number : {0u, 2u, 0xFFFFFFFFu}) {
        ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, key, value, number));
        EXPECT_FALSE(core->IsDeviceRegistered()) << number;
    }
    ASSERT_TRUE(core->SetDeviceRegistered(true));
    EXPECT_TRUE(core->IsDeviceRegistered());
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, L"SOFTWARE\\tavrin\\veq\\registration", value, 0u));
    EXPECT_FALSE(core->IsDeviceRegistered()) << "the key's letter case does not matter";
}

}  // namespace
}  // namespace VEQ
