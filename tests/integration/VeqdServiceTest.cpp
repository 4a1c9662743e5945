// veqd as a process on a temporary root: which sides serve under which policy, live policy
// changes, events published through veqctl, and a clean stop and restart.

#include "platform/registry/SqliteRegistryStore.h"
#include "platform/string/String.h"
#include "sdk/AppClient.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/FileStatus.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>

namespace VEQ {
namespace {

using VEQ::Test::Exists;
using namespace std::chrono_literals;
using Veq::Sdk::AppClient;
using Veq::Sdk::AppClientOptions;
using Veq::Sdk::Side;

constexpr const wchar_t* kBrokerKey = L"Software\\Tavrin\\VEQ\\Broker";

std::string Policy(const std::string& enablement, const std::string& sides, const std::string& mqttFeatures = "none")
{
    return R"({"app_settings":[{"application_id":"Tavrin.veq","settings":{"extension_apps":{"enablement":")" +
           enablement + R"(","ipcMethods_afunix":")" + sides + R"("}}}],"mqtt":{"mqttFeatures":")" + mqttFeatures +
           R"(","mqttConnectType":"0"}})";
}

class VeqdServiceTest : public ::testing::Test {
protected:
    VeqdServiceTest()
    {
        char rootTemplate[] = "/tmp/veqd-test-XXXXXX";
        root_ = ::mkdtemp(rootTemplate);
        ::chmod(root_.c_str(), 0755);
    }

    ~VeqdServiceTest() override
    {
        clients_.clear();
        daemon_.reset();
        std::filesystem::remove_all(root_);
    }

    void WritePolicy(const std::string& text)
    {
        // Written beside and renamed, as editors do, so the service never reads half a file.
        const std::string temporary = root_ + "/policy.json.new";
        std::ofstream(temporary) << text;
        std::filesystem::rename(temporary, root_ + "/policy.json");
    }

    void SetManualFlag(uint32_t value)
    {
        SqliteRegistryStore store(String::UTF8ToUTF16(root_ + "/registry"));
        store.SetDword(Hive::LocalMachine, L"Software\\Tavrin\\VEQ", L"extension-support", value);
    }

    void StartDaemon()
    {
        daemon_ = std::make_unique<VEQ::Test::DaemonProcess>(root_);
        ASSERT_TRUE(daemon_->Start()) << daemon_->Output();
    }

    std::optional<std::wstring> PublishedId(Side side)
    {
        auto store = SqliteRegistryStore::OpenReadOnly(String::UTF8ToUTF16(root_ + "/registry"));
        if (!store) {
            return std::nullopt;
        }
        return store->GetString(Hive::LocalMachine, kBrokerKey,
                                side == Side::User ? L"afxunix-usersocket" : L"afxunix-elevatedsocket");
    }

    AppClientOptions Options(Side side, const std::string& id, std::chrono::milliseconds timeout)
    {
        AppClientOptions options;
        options.dataRoot = root_;
        options.side = side;
        options.extensionId = id;
        options.extensionName = id;
        options.timeout = timeout;
        options.autoReconnect = false;
        return options;
    }

    // A connected app on a side; null when the side does not serve.
    AppClient* App(Side side, const std::string& id)
    {
        auto client = std::make_unique<AppClient>(Options(side, id, 3s));
        if (client->Connect()) {
            return nullptr;
        }
        clients_.push_back(std::move(client));
        return clients_.back().get();
    }

    bool Serves(Side side)
    {
        AppClient probe(Options(side, "probe", 2s));
        AppClient::Result result;
        return !probe.Send("Get-VeqStatus", "{}", result) && result.isSuccess;
    }

    VEQ::Test::ChildOutcome Publish(int topic, int state, const std::string& payload = "")
    {
        std::vector<std::string> args = {VEQCTL_PROGRAM,     "--root", root_, "publish", "--topic",
                                         std::to_string(topic), "--state", std::to_string(state)};
        if (!payload.empty()) {
            args.insert(args.end(), {"--payload", payload});
        }
        return VEQ::Test::ChildProcess::Run(args);
    }

    std::string root_;
    std::unique_ptr<VEQ::Test::DaemonProcess> daemon_;
    std::vector<std::unique_ptr<AppClient>> clients_;
};

TEST_F(VeqdServiceTest, ThePolicyDecidesWhichSidesServe)
{
    struct Row {
        const char* enablement;
        int flag;  // -1: no registry value
        const char* sides;
        bool user;
        bool elevated;
    };
    const Row rows[] = {
        {"disabled", 1, "both", false, false},  {"enabled", 1, "none", false, false},
        {"enabled", -1, "sideways", false, false}, {"manual", -1, "both", false, false},
        {"manual", 0, "user", false, false},    {"manual", 1, "user", true, false},
        {"manual", 1, "elevated", false, true}, {"manual", 1, "both", true, true},
        {"enabled", -1, "user", true, false},   {"ENABLED", -1, "Elevated", false, true},
        {"enabled", 0, "both", true, true},
    };
    for (const auto& row : rows) {
        const std::string name = std::string(row.enablement) + "/" + std::to_string(row.flag) + "/" + row.sides;
        std::filesystem::remove_all(root_ + "/registry");
        if (row.flag >= 0) {
            SetManualFlag(static_cast<uint32_t>(row.flag));
        }
        WritePolicy(Policy(row.enablement, row.sides));
        StartDaemon();
        EXPECT_EQ(Serves(Side::User), row.user) << name;
        EXPECT_EQ(Serves(Side::Elevated), row.elevated) << name;
        EXPECT_EQ(PublishedId(Side::User).has_value(), row.user) << name;
        EXPECT_EQ(PublishedId(Side::Elevated).has_value(), row.elevated) << name;
        EXPECT_EQ(daemon_->Stop(), 0) << name << "\n" << daemon_->Output();
    }
}

TEST_F(VeqdServiceTest, WithoutAPolicyFileBothSidesServe)
{
    StartDaemon();
    EXPECT_TRUE(Serves(Side::User));
    EXPECT_TRUE(Serves(Side::Elevated));
}

TEST_F(VeqdServiceTest, GoingFromBothSidesToUserStopsOnlyTheElevatedApps)
{
    WritePolicy(Policy("enabled", "both"));
    StartDaemon();
    AppClient* user = App(Side::User, "user.app");
    AppClient* elevated = App(Side::Elevated, "elevated.app");
    ASSERT_NE(user, nullptr);
    ASSERT_NE(elevated, nullptr);
    const std::string elevatedGlobal = elevated->GlobalSocketPath();
    ASSERT_TRUE(Exists(elevatedGlobal));

    WritePolicy(Policy("enabled", "user"));
    auto push = elevated->NextPush(10s);
    ASSERT_TRUE(push);
    EXPECT_EQ(push->command, "StopAppExtension");
    EXPECT_TRUE(VEQ::Test::Eventually([&] { return !PublishedId(Side::Elevated); })) << "the elevated id stayed";
    EXPECT_FALSE(Exists(elevatedGlobal));
    EXPECT_TRUE(PublishedId(Side::User).has_value());

    AppClient::Result result;
    EXPECT_FALSE(user->Send("Get-VeqStatus", "{}", result)) << "the user app lost its broker";
    EXPECT_TRUE(result.isSuccess);
    EXPECT_FALSE(user->NextPush(200ms)) << "the user app was told something";
}

TEST_F(VeqdServiceTest, AnUnchangedRewriteDoesNothingAndABrokenFileKeepsTheLastGoodPolicy)
{
    WritePolicy(Policy("enabled", "both"));
    StartDaemon();
    AppClient* elevated = App(Side::Elevated, "watcher.app");
    ASSERT_NE(elevated, nullptr);
    const auto userId = PublishedId(Side::User);

    WritePolicy(Policy("enabled", "both"));           // the same policy again
    WritePolicy("{\"app_settings\": [ broken");      // not JSON
    WritePolicy(Policy("enabled", "both", "alerts"));  // a real change, elsewhere in the policy
    // Only the last write changed the policy, so it is the only one apps hear of.
    auto push = elevated->NextPush(10s);
    ASSERT_TRUE(push);
    EXPECT_EQ(push->command, "Receive-DeviceConfig");
    EXPECT_NE(push->payload.find("alerts"), std::string::npos) << push->payload;
    EXPECT_FALSE(elevated->NextPush(300ms)) << "a rewrite that changed nothing was announced";
    EXPECT_EQ(PublishedId(Side::User), userId) << "the user side was restarted";
    EXPECT_TRUE(Serves(Side::User));
}

TEST_F(VeqdServiceTest, PublishedEventsReachTheRightApps)
{
    WritePolicy(Policy("enabled", "both"));
    StartDaemon();
    AppClient* user = App(Side::User, "user.app");
    AppClient* elevated = App(Side::Elevated, "elevated.app");
    ASSERT_NE(user, nullptr);
    ASSERT_NE(elevated, nullptr);

    auto published = Publish(2, 11);
    ASSERT_EQ(published.exitCode, 0) << published.output;
    auto registration = elevated->NextPush(10s);
    ASSERT_TRUE(registration);
    EXPECT_EQ(registration->command, "Receive-RegistrationResult");
    EXPECT_EQ(registration->payload, R"({"isRegistered":true})");

    const std::string package = R"({"packageId":"p1","packageType":"app","packageName":"P","packageVersion":"1.0",)"
                                R"("installationTrigger":"user"})";
    for (int state : {311, 311, 300}) {  // downloading twice, then installed
        published = Publish(30, state, package);
        ASSERT_EQ(published.exitCode, 0) << published.output;
    }
    for (AppClient* app : {user, elevated}) {
        std::vector<std::string> statuses;
        while (auto push = app->NextPush(statuses.size() < 2 ? 10s : 300ms)) {
            if (push->command == "Receive-PackageInstallStatus") {
                statuses.push_back(push->payload);
            }
        }
        ASSERT_EQ(statuses.size(), 2u);
        EXPECT_EQ(statuses[0], R"({"installationTrigger":"user","packageId":"p1","status":"downloading"})");
        EXPECT_EQ(statuses[1], R"({"installationTrigger":"user","packageId":"p1","status":"installed"})");
    }
    // The user side never hears of registration.
    EXPECT_FALSE(user->NextPush(100ms));
}

TEST_F(VeqdServiceTest, SigtermStopsCleanlyAndTheNextStartPublishesNewIds)
{
    WritePolicy(Policy("enabled", "both"));
    StartDaemon();
    AppClient* user = App(Side::User, "user.app");
    ASSERT_NE(user, nullptr);
    const std::string broker = user->BrokerPath();
    const std::string global = user->GlobalSocketPath();
    const auto oldId = PublishedId(Side::User);

    EXPECT_EQ(daemon_->Stop(), 0) << daemon_->Output();
    auto push = user->NextPush(5s);
    ASSERT_TRUE(push);
    EXPECT_EQ(push->command, "StopAppExtension");
    EXPECT_FALSE(Exists(broker)) << "a private socket outlived the service";
    EXPECT_FALSE(Exists(broker + "_notify"));
    EXPECT_EQ(PublishedId(Side::User), oldId) << "the published id is kept after a stop";
    EXPECT_TRUE(Exists(global));

    StartDaemon();
    const auto newId = PublishedId(Side::User);
    ASSERT_TRUE(newId.has_value());
    EXPECT_NE(newId, oldId);
    EXPECT_FALSE(Exists(global)) << "the stale global socket file stayed";
    EXPECT_TRUE(Serves(Side::User));
}

TEST_F(VeqdServiceTest, AUserSideIsOpenToOtherUsersAndTheElevatedSideIsNot)
{
    if (!VEQ::Test::ChildProcess::IsRoot()) {
        GTEST_SKIP() << "needs root to run a client as another user";
    }
    StartDaemon();
    auto asNobody = [&](const char* side) {
        return VEQ::Test::ChildProcess::RunAsNobody(
            {VEQCTL_PROGRAM, "--root", root_, "--side", side, "send", "Get-VeqStatus"});
    };
    auto user = asNobody("user");
    EXPECT_EQ(user.exitCode, 0) << user.output;
    EXPECT_NE(user.output.find("Receive-VeqStatus"), std::string::npos) << user.output;
    auto elevated = asNobody("elevated");
    EXPECT_NE(elevated.exitCode, 0) << elevated.output;
    auto control = VEQ::Test::ChildProcess::RunAsNobody(
        {VEQCTL_PROGRAM, "--root", root_, "publish", "--topic", "2", "--state", "11"});
    EXPECT_NE(control.exitCode, 0) << "an ordinary user reached the control socket";
}


namespace {

size_t OpenFilesOf(pid_t pid)
{
    const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

bool LogHolds(const std::string& root, const std::string& file, const std::string& text)
{
    std::ifstream in(root + "/log/" + file);
    const std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return all.find(text) != std::string::npos;
}

}  // namespace

// With few descriptors left, the handshake says at once that there is no broker, every app that got
// one is served, and room comes back when apps leave.
TEST_F(VeqdServiceTest, WhenDescriptorsRunShortHandshakesAreRefusedCleanly)
{
    StartDaemon();
    ASSERT_TRUE(Serves(Side::Elevated));
    const pid_t pid = daemon_->Pid();
    const rlimit tight{OpenFilesOf(pid) + 120, OpenFilesOf(pid) + 120};
    ASSERT_EQ(::prlimit(pid, RLIMIT_NOFILE, &tight, nullptr), 0);

    bool refused = false;
    for (int i = 0; i < 40 && !refused; ++i) {
        auto client = std::make_unique<AppClient>(Options(Side::Elevated, "app." + std::to_string(i), 3s));
        const auto error = client->Connect();
        if (error) {
            EXPECT_EQ(error.Code(), Veq::Sdk::ErrorCode::Refused) << error.Message();
            refused = true;
        } else {
            clients_.push_back(std::move(client));
        }
    }
    ASSERT_TRUE(refused) << "no handshake was refused";
    ASSERT_FALSE(clients_.empty()) << "no room for even one app";
    for (auto& client : clients_) {
        AppClient::Result result;
        EXPECT_FALSE(client->Send("Get-VeqStatus", "{}", result));
        EXPECT_TRUE(result.isSuccess);
    }
    EXPECT_TRUE(LogHolds(root_, "AppExtensionOperator.log", "No room for another client"));

    clients_.clear();
    EXPECT_TRUE(VEQ::Test::Eventually([&] { return App(Side::Elevated, "back") != nullptr; }, 10s))
        << "the descriptors of the apps that left were not given back";
}

}  // namespace
}  // namespace VEQ
