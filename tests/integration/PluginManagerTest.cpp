// The plugin manager over real signed plugins and real hosts: what runs where under which
// policy, what a policy change stops and starts, sessions coming and going, and events.

#include "digest/SmartMessageV2Utility.h"
#include "plugins/PluginDetailsGenerator.h"
#include "plugins/PluginManager.h"
#include "plugins/PluginRepository.h"
#include "platform/applicability/ApplicabilityEvaluator.h"
#include "platform/bus/VEQNotificationData.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/fs/ProcessDataRoot.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"
#include "platform/sync/ManualResetEvent.h"
#include "tests/support/Eventually.h"
#include "tests/support/FakeAgents.h"
#include "tests/support/FileStatus.h"
#include "tests/support/PluginWorld.h"
#include "tests/support/TempRoot.h"
#include "tests/support/WhatRunsRows.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <unistd.h>

namespace fs = std::filesystem;

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using VEQ::Test::Eventually;
using VEQ::Test::PluginPolicy;
using VEQ::Test::PluginWorld;
using VEQ::Test::TestPluginSpec;

constexpr int kNobody = 65534;
constexpr int kDaemonUser = 1;

Json::Value ClientEntry(const std::string& id, const std::string& elevation, const std::string& os = "windows",
                        const std::vector<std::string>& permissions = {})
{
    return PluginWorld::ClientEntry(id, elevation, os, permissions);
}

std::vector<std::string> Lines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

// Pushes of one command that a plugin's side received.
std::vector<Json::Value> Pushes(const std::string& folder, const std::string& side, const std::string& command)
{
    std::vector<Json::Value> found;
    for (const std::string& line : Lines(folder + "/" + side + ".pushes")) {
        Json::Value push;
        if (Json::Reader().parse(line, push) && push["command"].asString() == command) {
            found.push_back(push);
        }
    }
    return found;
}

class PluginManagerTest : public ::testing::Test {
protected:
    PluginManagerTest()
    {
        WriteSessions(7, kNobody, {{7, kNobody}});
        PlatformServices services;
        services.configAgent = policy_;
        services.notificationAgent = mqtt_;
        PlatformSettings settings;
        settings.trustCaFile = String::UTF8ToUTF16(world_.Ca().CaFile());
        settings.sessionSource = "file";
        settings.sessionFile = SessionFile();
        root_.Reinstall(services, settings);
        ProcessDataRoot::ExportForChildren(root_.PathUtf8());
        PluginDetailsGenerator::ReleaseInstance();  // its log opens below this root
        SetPolicy({});
    }
    ~PluginManagerTest() override
    {
        if (manager_ != nullptr) {
            manager_->Stop();
        }
        PluginManager::ReleaseInstance();
        PluginDetailsGenerator::ReleaseInstance();
    }

    std::string SessionFile() const { return root_.BelowUtf8("session.json"); }
    void WriteSessions(int active, int uid, const std::vector<std::pair<int, int>>& sessions)
    {
        PluginWorld::WriteSessions(SessionFile(), active, uid, sessions);
    }
    void SetPolicy(const PluginPolicy& policy) { policy_->SetDocument(PluginWorld::PolicyDocument(policy)); }

    PluginManager& Manager()
    {
        if (manager_ == nullptr) {
            manager_ = PluginManager::GetInstance();
        }
        return *manager_;
    }
    PluginManager& Started()
    {
        Manager().Start(false);
        return *manager_;
    }

    // "id side source", and the session on the user side.
    static std::string Key(const Json::Value& instance)
    {
        std::string text =
            instance["id"].asString() + " " + instance["side"].asString() + " " + instance["source"].asString();
        if (instance["side"].asString() == "user") {
            text += " " + std::to_string(instance["session"].asUInt());
        }
        return text;
    }
    std::set<std::string> Instances()
    {
        std::set<std::string> found;
        const Json::Value description = Manager().Describe();
        for (const Json::Value& instance : description["instances"]) {
            found.insert(Key(instance));
        }
        return found;
    }
    // Host pids by instance, to tell a plugin kept from one started again.
    std::map<std::string, int> Pids()
    {
        std::map<std::string, int> pids;
        const Json::Value description = Manager().Describe();
        for (const Json::Value& instance : description["instances"]) {
            pids[Key(instance)] = instance["pid"].asInt();
        }
        return pids;
    }
    void Publish(int topic, int state, const std::string& payload = "{}")
    {
        VEQNotificationData data(topic, state, String::UTF8ToUTF16(payload));
        VEQPublisherSubscriber::GetInstance()->Notify(data, L"test");
    }
    // A message from the back end that asks the device to run something.
    void SendMessage(const std::wstring& messageType, const std::wstring& payload)
    {
        const int noTopic = 0;
        VEQNotificationData data(noTopic, noTopic, payload);
        data.setActionType(L"run");
        data.setMessageType(messageType);
        VEQPublisherSubscriber::GetInstance()->Notify(data, L"test");
    }
    void PolicyChanged(const PluginPolicy& policy)
    {
        SetPolicy(policy);
        Publish(4, 15);
    }

    VEQ::Test::TempRoot root_;
    PluginWorld world_{root_.PathUtf8()};
    std::shared_ptr<VEQ::Test::FakeConfigAgent> policy_ = std::make_shared<VEQ::Test::FakeConfigAgent>();
    std::shared_ptr<VEQ::Test::FakeNotificationAgent> mqtt_ = std::make_shared<VEQ::Test::FakeNotificationAgent>();
    PluginManager* manager_ = nullptr;
};

TEST_F(PluginManagerTest, WhatRunsWhereFollowsThePolicyThePluginsAndTheirVersions)
{
    for (const VEQ::Test::WhatRunsRow& row : VEQ::Test::WhatRunsRows()) {
        SCOPED_TRACE(row.what);
        world_.Clear();
        for (const TestPluginSpec& plugin : row.embedded) {
            world_.AddEmbedded(plugin);
        }
        for (const TestPluginSpec& plugin : row.repository) {
            world_.AddRepository(plugin);
        }
        for (const std::string& id : row.locked) {
            fs::create_directories(root_.BelowUtf8("common/plugin-repository"));
            std::ofstream(root_.BelowUtf8("common/plugin-repository/" + id + "-" + std::to_string(getpid()) + ".lock"));
        }
        SetPolicy(row.policy);
        std::vector<std::wstring> uninstalling;
        for (const std::string& id : row.uninstalling) {
            uninstalling.push_back(String::UTF8ToUTF16(id));
        }
        Manager().setUnInstallInProgress(uninstalling);
        Manager().Start(false);
        EXPECT_EQ(Instances(), row.expected);
        // A second pass in the same session starts nothing more.
        const auto pids = Pids();
        Manager().LaunchPluginsAndLogPluginIdWithElevation(false);
        EXPECT_EQ(Pids(), pids);

        manager_->Stop();
        manager_ = nullptr;
        PluginManager::ReleaseInstance();
        PluginDetailsGenerator::ReleaseInstance();
    }
}

TEST_F(PluginManagerTest, UserSidePluginsFollowTheActiveSession)
{
    world_.AddEmbedded({"Contoso.A", "PluginA"});
    Started();
    ASSERT_EQ(Instances(), (std::set<std::string>{"Contoso.A elevated Embedded", "Contoso.A user Embedded 7"}));

    // A second user logs in and the seat switches to them: their session gets its own instance,
    // and the first user's stops once the switch is applied.
    WriteSessions(8, kDaemonUser, {{7, kNobody}, {8, kDaemonUser}});
    Manager().LaunchPluginsAndLogPluginIdWithElevation(true);
    EXPECT_EQ(Instances(), (std::set<std::string>{"Contoso.A elevated Embedded", "Contoso.A user Embedded 7",
                                                  "Contoso.A user Embedded 8"}));
    Manager().Suspend(true, 8, false);
    EXPECT_EQ(Instances(), (std::set<std::string>{"Contoso.A elevated Embedded", "Contoso.A user Embedded 8"}));

    // A log-off of a session that runs nothing here changes nothing; the active one's stops its plugins.
    Manager().Suspend(true, 7, true);
    EXPECT_EQ(Instances().size(), 2u);
    Manager().Suspend(true, 8, true);
    EXPECT_EQ(Instances(), (std::set<std::string>{"Contoso.A elevated Embedded"}));
}

TEST_F(PluginManagerTest, EventsReachThePluginsTheyConcern)
{
    world_.AddEmbedded({"Contoso.A", "PluginA"});
    world_.AddEmbedded({"Contoso.B", "PluginB"});
    PluginPolicy policy;
    policy.controlType = "DenyByDefault";
    policy.clients.append(ClientEntry("Contoso.A", "both", "windows", {"configure"}));
    policy.clients.append(ClientEntry("Contoso.B", "elevated"));
    SetPolicy(policy);
    Started();
    ASSERT_EQ(Instances().size(), 3u);
    const std::string a = world_.EmbeddedFolder("Contoso.A");
    const std::string b = world_.EmbeddedFolder("Contoso.B");
    // Events are not kept for plugins that have not connected yet: wait until all three have.
    for (const std::string& report : {a + "/elevated.report", a + "/user.report", b + "/elevated.report"}) {
        ASSERT_TRUE(Eventually([&] { return VEQ::Test::Exists(report); }, 20s)) << report;
    }
    // Each event is followed by a network event that all receive, so that "not sent" can be told.
    const auto settled = [&](size_t count) {
        return Eventually([&] { return Pushes(b, "elevated", "networkVEQStatusUpdate").size() >= count; });
    };

    // Configuration goes only to plugins with "configure".
    policy.clients[1]["clientRules"].append(Json::Value(Json::objectValue));  // a change that relaunches nothing
    PolicyChanged(policy);
    Publish(6, 0);
    ASSERT_TRUE(settled(1));
    EXPECT_EQ(Pushes(a, "elevated", "Receive-DeviceConfig").size(), 1u);
    EXPECT_EQ(Pushes(a, "user", "Receive-DeviceConfig").size(), 1u);
    EXPECT_TRUE(Pushes(b, "elevated", "Receive-DeviceConfig").empty());
    Json::Value config;
    ASSERT_TRUE(Json::Reader().parse(Pushes(a, "elevated", "Receive-DeviceConfig")[0]["payload"].asString(), config));
    EXPECT_TRUE(config["configPolicy"].isString());

    // A package status is told once per change.
    const std::string package = R"({"packageId":"P1","packageVersion":"2","installationTrigger":"user"})";
    Publish(30, 311, package);
    Publish(30, 311, package);
    Publish(30, 300, package);
    Publish(6, 1);
    ASSERT_TRUE(settled(2));
    const auto statuses = Pushes(b, "elevated", "Receive-PackageInstallStatus");
    ASSERT_EQ(statuses.size(), 2u);
    EXPECT_EQ(statuses[0]["payload"].asString(),
              R"({"installationTrigger":"user","packageId":"P1","status":"downloading"})");
    EXPECT_EQ(Pushes(b, "elevated", "networkVEQStatusUpdate")[1]["payload"].asString(), "disconnected");

    // Registration, and its loss, which also clears the cached digest.
    const std::string digest =
        root_.BelowUtf8("plugin-data/46C44A27-EAAD-4593-9AA0-8FA0F87BF955/digestv2.json.signed");
    fs::create_directories(fs::path(digest).parent_path());
    std::ofstream(digest) << "{}";
    Publish(2, 11);
    Publish(2, 13);  // neither: says nothing
    Publish(2, 12);
    Publish(6, 0);
    ASSERT_TRUE(settled(3));
    const auto registrations = Pushes(b, "elevated", "registerVEQStatusUpdate");
    ASSERT_EQ(registrations.size(), 2u);
    EXPECT_EQ(registrations[1]["payload"].asString(), "unregistered");
    EXPECT_FALSE(fs::exists(digest));

    // "InvokeCommand" goes to the running user-side instance of its target only, with its fields.
    SendMessage(L"invokecommand", LR"({"command":"Do-It","targetId":"contoso.a","requestId":"r1","isAsync":"TRUE"})");
    SendMessage(L"InvokeCommand", LR"({"command":"Do-It","targetId":"Contoso.B"})");
    Publish(6, 0);
    ASSERT_TRUE(settled(4));
    ASSERT_TRUE(Eventually([&] { return !Pushes(a, "user", "Do-It").empty(); }));
    Json::Value fields;
    ASSERT_TRUE(Json::Reader().parse(Pushes(a, "user", "Do-It")[0]["payload"].asString(), fields));
    EXPECT_EQ(fields["isAsync"].asString(), "true");
    EXPECT_EQ(fields["requestId"].asString(), "r1");
    EXPECT_EQ(fields["isMqttNotification"].asString(), "true");
    EXPECT_TRUE(Pushes(a, "elevated", "Do-It").empty());
    EXPECT_TRUE(Pushes(b, "elevated", "Do-It").empty());

    // "getAppList" without the app-list plugin running: the back end is told why, nobody is asked.
    SendMessage(L"GETAPPLIST", L"{}");
    const auto published = mqtt_->PublishedMessages();
    ASSERT_EQ(published.size(), 1u);
    EXPECT_EQ(published[0].topic, L"alert");
    EXPECT_NE(published[0].payload.find(L"User not logged in"), std::wstring::npos);
    EXPECT_TRUE(Pushes(a, "user", "getAppList").empty());
}

TEST_F(PluginManagerTest, TheMessagingPluginStoppingByPolicyTakesItsCachedDigestAlong)
{
    const std::string id = "46C44A27-EAAD-4593-9AA0-8FA0F87BF955";
    world_.AddEmbedded({id, "Messaging"});
    PluginPolicy policy;
    SetPolicy(policy);
    Started();
    ASSERT_EQ(Instances().size(), 2u);
    using SmartMessageV2::SmartMessageV2Utility;
    const std::string digest = root_.BelowUtf8("plugin-data/" + id + "/digestv2.json.signed");
    fs::create_directories(fs::path(digest).parent_path());
    std::ofstream(digest) << "{}";
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, SmartMessageV2Utility::kMessagingPluginKey, L"Etag", L"e1"));

    // While it runs, a change keeps the cache.
    policy.clients.append(ClientEntry(id, "both"));
    PolicyChanged(policy);
    EXPECT_TRUE(fs::exists(digest));

    policy.clients[0]["clientOs"] = "linux";
    PolicyChanged(policy);
    EXPECT_TRUE(Instances().empty());
    EXPECT_FALSE(fs::exists(digest));
    std::wstring etag;
    EXPECT_FALSE(CRegUtil::GetRegValueOfStringType(HKEY_LOCAL_MACHINE, SmartMessageV2Utility::kMessagingPluginKey,
                                                   L"Etag", etag));
}

TEST_F(PluginManagerTest, RoutingLookupsFindTheInstanceOnTheSideAsked)
{
    world_.AddEmbedded({"Contoso.A", "PluginA", "1.0.0.0", true, true, {"Get-Greeting"}});
    world_.AddEmbedded({"Contoso.S", "PluginS", "1.0.0.0", false, true, {"Get-Greeting"}});
    Started();
    ASSERT_EQ(Instances().size(), 3u);
    const auto lookUp = [&](const std::string& target, const std::string& name, const std::string& command,
                            ElevationType side) {
        PluginManager::Message message;
        message.notification.targetId = target;
        message.notification.targetName = name;
        message.notification.command = command;
        PluginInstanceDetails details;
        Manager().GetTargetPluginInstanceDetails(message, details, side);
        return details;
    };

    // The name says the side when the caller does not.
    PluginInstanceDetails found = lookUp("contoso.s", "Contoso.S.User", "get-greeting", ElevationType::None);
    EXPECT_FALSE(found.isPluginFound);
    found = lookUp("Contoso.S", "Contoso.S.User.System", "Get-Greeting", ElevationType::None);
    EXPECT_TRUE(found.isPluginFound);
    EXPECT_EQ(found.elevationType, ElevationType::Elevated);
    EXPECT_TRUE(found.isCommandFound);
    EXPECT_EQ(found.pluginName, "PluginS");
    // Found and running, without the command.
    found = lookUp("Contoso.A", "Contoso.A", "Get-Weather", ElevationType::Elevated);
    EXPECT_TRUE(found.isPluginFound && found.isPluginRunning);
    EXPECT_FALSE(found.isCommandFound);
    EXPECT_EQ(found.elevationType, ElevationType::Elevated);

    std::wstring resolved;
    std::vector<ElevationType> sides;
    ASSERT_TRUE(Manager().TryResolveGetDiagnosticsElevations(L"CONTOSO.A", resolved, sides));
    EXPECT_EQ(resolved, L"Contoso.A");
    EXPECT_EQ(sides, (std::vector<ElevationType>{ElevationType::Elevated, ElevationType::User}));
    std::wstring running;
    EXPECT_TRUE(Manager().TryGetRunningPluginIdForTarget(L"contoso.s", running));
    EXPECT_EQ(running, L"Contoso.S");
    EXPECT_FALSE(Manager().TryGetRunningPluginIdForTarget(L"Contoso.Nobody", running));
}

TEST_F(PluginManagerTest, ARepositoryPluginThatGoesAwayHandsOverToItsEmbeddedCopy)
{
    world_.AddEmbedded({"Contoso.A", "PluginA", "1.0.0.0"});
    world_.AddRepository({"Contoso.A", "PluginA", "2.0.0.0"});
    Started();
    ASSERT_EQ(Instances(), (std::set<std::string>{"Contoso.A elevated Downloaded", "Contoso.A user Downloaded 7"}));

    ManualResetEvent neverStopped;
    // A stop waits for the plugin to end by itself, which a plugin not yet connected cannot hear.
    const std::string folder = world_.RepositoryFolder("Contoso.A");
    for (const std::string& report : {folder + "/elevated.report", folder + "/user.report"}) {
        ASSERT_TRUE(Eventually([&] { return VEQ::Test::Exists(report); }, 20s)) << report;
    }
    EXPECT_TRUE(Manager().shouldEmbeddedPluginStarted(L"contoso.a", &neverStopped));
    EXPECT_EQ(Instances(), (std::set<std::string>{"Contoso.A elevated Embedded", "Contoso.A user Embedded 7"}));
    // A plugin without an embedded copy has nothing to hand over to.
    EXPECT_TRUE(Manager().shouldEmbeddedPluginStarted(L"Contoso.Unknown", &neverStopped));
}

// Holds every rule set but those naming a model, which this machine is not.
class ModelRefusingEvaluator : public ApplicabilityEvaluator {
public:
    bool EvaluateFilters(std::vector<ApplicabilityFilter> filters, const std::wstring& /*targetVersion*/,
                         const std::vector<KeyValuePair>& /*tags*/, std::wstring& reason) override
    {
        for (const ApplicabilityFilter& filter : filters) {
            if (!filter.model.empty()) {
                reason = L"model";
                return false;
            }
        }
        return true;
    }
};

TEST_F(PluginManagerTest, RulesThatDoNotHoldKeepAPluginOutAndStopItWhenTheyStopHolding)
{
    PlatformServices services;
    services.configAgent = policy_;
    services.applicabilityEvaluator = std::make_shared<ModelRefusingEvaluator>();
    PlatformSettings settings = Platform::Settings();
    root_.Reinstall(services, settings);
    world_.AddEmbedded({"Contoso.A", "PluginA"});
    world_.AddEmbedded({"Contoso.B", "PluginB"});
    PluginPolicy policy;
    policy.clients.append(ClientEntry("Contoso.A", "elevated"));
    policy.clients.append(ClientEntry("Contoso.B", "elevated"));
    Json::Value rule;
    rule["os"] = "linux";
    policy.clients[0]["clientRules"].append(rule);
    SetPolicy(policy);
    Started();
    EXPECT_EQ(Instances(), (std::set<std::string>{"Contoso.A elevated Embedded", "Contoso.B elevated Embedded"}));

    rule["model"] = "Other 9000";
    policy.clients[0]["clientRules"][0] = rule;
    PolicyChanged(policy);
    EXPECT_EQ(Instances(), (std::set<std::string>{"Contoso.B elevated Embedded"}));
}

}  // namespace
}  // namespace VEQ
