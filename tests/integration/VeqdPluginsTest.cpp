// veqd running real signed plugins on a temporary root: users logging in, switching and logging
// off through the session file, policy changes through the policy file, events through
// veqctl publish, and `veqctl plugins` checked against the processes themselves.

#include "tests/support/BackgroundProcess.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/FileStatus.h"
#include "tests/support/PluginWorld.h"
#include "tests/support/WhatRunsRows.h"
#include "sdk/AppClient.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/stat.h>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using VEQ::Test::Eventually;
using VEQ::Test::PluginPolicy;
using VEQ::Test::PluginWorld;

constexpr int kNobody = 65534;
constexpr int kDaemonUser = 1;

std::string Text(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

// The real uid of a process, or -1 when it is gone.
int UidOf(int pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("Uid:", 0) == 0) {
            return std::stoi(line.substr(4));
        }
    }
    return -1;
}

bool Alive(int pid);

// A stopped instance leaves the listing as its stop begins; its host ends within the stop's grace.
bool Ended(int pid)
{
    return Eventually([pid] { return !Alive(pid); }, 10s);
}

bool Alive(int pid)
{
    // A zombie has no status line of its own once reaped; one not reaped yet counts as gone.
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("State:", 0) == 0) {
            return line.find('Z') == std::string::npos;
        }
    }
    return false;
}

class VeqdPluginsTest : public ::testing::Test {
protected:
    VeqdPluginsTest()
    {
        char rootTemplate[] = "/tmp/veqd-plugins-XXXXXX";
        root_ = ::mkdtemp(rootTemplate);
        ::chmod(root_.c_str(), 0755);
        world_ = std::make_unique<PluginWorld>(root_);
        Json::Value config;
        config["paths"]["systemRoot"] = root_ + "/system";
        config["paths"]["commonDataRoot"] = root_ + "/common";
        config["trust"]["caFile"] = world_->Ca().CaFile();
        config["sessions"]["source"] = "file";
        config["sessions"]["file"] = SessionFile();
        std::ofstream(root_ + "/veqd.json") << Text(config);
        PluginWorld::WriteSessions(SessionFile(), 7, kNobody, {{7, kNobody}});
    }
    ~VeqdPluginsTest() override
    {
        daemon_.reset();
        std::filesystem::remove_all(root_);
    }

    std::string SessionFile() const { return root_ + "/run/session.json"; }

    void WritePolicy(const PluginPolicy& policy)
    {
        const std::string temporary = root_ + "/policy.json.new";
        std::ofstream(temporary) << Text(PluginWorld::PolicyDocument(policy));
        std::filesystem::rename(temporary, root_ + "/policy.json");
    }

    void StartDaemon()
    {
        daemon_ = std::make_unique<VEQ::Test::DaemonProcess>(root_);
        ASSERT_TRUE(daemon_->Start()) << daemon_->Output();
    }

    Json::Value Listing()
    {
        const auto outcome = VEQ::Test::ChildProcess::Run({VEQCTL_PROGRAM, "--root", root_, "plugins"});
        Json::Value listing;
        if (outcome.exitCode != 0 || !Json::Reader().parse(outcome.output, listing)) {
            ADD_FAILURE() << "veqctl plugins: " << outcome.output;
        }
        return listing;
    }

    // The instances `veqctl plugins` lists, as "id side source [session]", each checked against its process:
    // alive, and run by the user its side says.
    std::set<std::string> Instances()
    {
        std::set<std::string> found;
        const Json::Value listing = Listing();
        for (const Json::Value& instance : listing["instances"]) {
            const std::string side = instance["side"].asString();
            std::string text = instance["id"].asString() + " " + side + " " + instance["source"].asString();
            if (side == "user") {
                text += " " + std::to_string(instance["session"].asUInt());
            }
            const int pid = instance["pid"].asInt();
            if (!instance["running"].asBool() || !Alive(pid)) {
                text += " (not running)";
            } else if (side == "elevated" ? UidOf(pid) != static_cast<int>(geteuid()) : UidOf(pid) == 0) {
                text += " (wrong user)";
            }
            found.insert(text);
        }
        return found;
    }
    std::map<std::string, int> Pids()
    {
        std::map<std::string, int> pids;
        const Json::Value listing = Listing();
        for (const Json::Value& instance : listing["instances"]) {
            pids[instance["id"].asString() + " " + instance["side"].asString() + " " +
                 instance["session"].toStyledString()] = instance["pid"].asInt();
        }
        return pids;
    }
    bool Become(const std::set<std::string>& expected)
    {
        return Eventually([&] { return Instances() == expected; }, 20s);
    }

    std::string root_;
    std::unique_ptr<PluginWorld> world_;
    std::unique_ptr<VEQ::Test::DaemonProcess> daemon_;
};

// Rows that need the service's own hand (an installation's lock, an uninstall) are the manager
// test's: nothing outside the service can make them.
TEST_F(VeqdPluginsTest, WhatRunsWhereRowByRow)
{
    for (const VEQ::Test::WhatRunsRow& row : VEQ::Test::WhatRunsRows()) {
        if (!row.locked.empty() || !row.uninstalling.empty()) {
            continue;
        }
        SCOPED_TRACE(row.what);
        world_->Clear();
        for (const auto& plugin : row.embedded) {
            world_->AddEmbedded(plugin);
        }
        for (const auto& plugin : row.repository) {
            world_->AddRepository(plugin);
        }
        WritePolicy(row.policy);
        // The service is ready once its first launch pass is done.
        StartDaemon();
        EXPECT_EQ(Instances(), row.expected) << Text(Listing());
        daemon_.reset();
    }
}

TEST_F(VeqdPluginsTest, UserSidePluginsFollowLogInsSwitchesAndLogOffs)
{
    world_->AddEmbedded({"Contoso.A", "PluginA"});
    WritePolicy({});
    StartDaemon();
    ASSERT_TRUE(Become({"Contoso.A elevated Embedded", "Contoso.A user Embedded 7"})) << Text(Listing());
    const auto first = Pids();

    // Another user logs in at the seat: their session gets the plugin, the first user's stops.
    PluginWorld::WriteSessions(SessionFile(), 8, kDaemonUser, {{7, kNobody}, {8, kDaemonUser}});
    ASSERT_TRUE(Become({"Contoso.A elevated Embedded", "Contoso.A user Embedded 8"})) << Text(Listing());
    for (const auto& [instance, pid] : first) {
        EXPECT_TRUE(instance.find("elevated") != std::string::npos ? Alive(pid) : Ended(pid)) << instance;
    }

    // They log off, and the seat goes back to the first user.
    PluginWorld::WriteSessions(SessionFile(), 7, kNobody, {{7, kNobody}});
    ASSERT_TRUE(Become({"Contoso.A elevated Embedded", "Contoso.A user Embedded 7"})) << Text(Listing());

    // Everybody logs off: the system side stays.
    PluginWorld::WriteSessions(SessionFile(), -1, 0, {});
    ASSERT_TRUE(Become({"Contoso.A elevated Embedded"})) << Text(Listing());
    EXPECT_EQ(Pids().begin()->second, first.begin()->second);
}

TEST_F(VeqdPluginsTest, PolicyChangesStartAndStopPluginsAndTheListingSaysWhy)
{
    world_->AddEmbedded({"Contoso.A", "PluginA"});
    world_->AddRepository({"Contoso.B", "PluginB"});
    PluginPolicy policy;
    policy.enabledPluginType = "none";
    WritePolicy(policy);
    StartDaemon();
    EXPECT_TRUE(Instances().empty());

    policy.enabledPluginType = "all";
    policy.sides = "elevated";
    WritePolicy(policy);
    ASSERT_TRUE(Become({"Contoso.A elevated Embedded", "Contoso.B elevated Downloaded"})) << Text(Listing());
    const auto running = Pids();

    policy.enabledPluginType = "embedded";
    policy.controlType = "DenyByDefault";
    policy.clients.append(PluginWorld::ClientEntry("Contoso.A", "both"));
    WritePolicy(policy);
    ASSERT_TRUE(Become({"Contoso.A elevated Embedded"})) << Text(Listing());
    // The change is done once the plugins are found again, without the repository.
    ASSERT_TRUE(Eventually([&] { return Listing()["plugins"].size() == 1u; }, 10s)) << Text(Listing());
    for (const auto& [instance, pid] : running) {
        EXPECT_TRUE(instance.rfind("Contoso.A", 0) == 0 ? Alive(pid) : Ended(pid)) << instance;
    }
    const Json::Value listing = Listing();
    ASSERT_EQ(listing["plugins"].size(), 1u) << "embedded only: the repository is not looked at";
    EXPECT_TRUE(listing["plugins"][0]["allowed"].asBool());

    policy.clients[0]["clientOs"] = "macos";
    WritePolicy(policy);
    ASSERT_TRUE(Become({})) << Text(Listing());
    EXPECT_EQ(Listing()["plugins"][0]["whyNot"].asString(), "the policy does not allow it");
}

TEST_F(VeqdPluginsTest, APolicyChangeStopsAndStartsOnlyWhatItConcerns)
{
    world_->AddEmbedded({"Contoso.A", "PluginA"});
    world_->AddRepository({"Contoso.B", "PluginB"});
    PluginPolicy policy;
    // A hears of every applied change: that tells when the service is done with one.
    policy.clients.append(PluginWorld::ClientEntry("Contoso.A", "both", "windows", {"configure"}));
    WritePolicy(policy);
    StartDaemon();
    ASSERT_TRUE(Become({"Contoso.A elevated Embedded", "Contoso.A user Embedded 7", "Contoso.B elevated Downloaded",
                        "Contoso.B user Downloaded 7"}))
        << Text(Listing());
    const std::string pushes = world_->EmbeddedFolder("Contoso.A") + "/elevated.pushes";
    ASSERT_TRUE(Eventually([&] { return VEQ::Test::Exists(world_->EmbeddedFolder("Contoso.A") + "/elevated.report"); }, 20s));
    const auto configPushes = [&] {
        std::ifstream file(pushes);
        int count = 0;
        for (std::string line; std::getline(file, line);) {
            count += line.find("Receive-DeviceConfig") != std::string::npos ? 1 : 0;
        }
        return count;
    };
    const auto before = Pids();

    // Only a permission changes: nothing stops, nothing starts, and the service says so.
    policy.clients[0]["clientPermissions"].append("read");
    WritePolicy(policy);
    ASSERT_TRUE(Eventually([&] { return configPushes() == 1; }, 10s));
    EXPECT_EQ(Pids(), before);
    std::ifstream log(root_ + "/log/PluginManager.log");
    const std::string logged((std::istreambuf_iterator<char>(log)), {});
    EXPECT_NE(logged.find("Plugin already running with the updated enabledtype, control type and elevation state"),
              std::string::npos);

    // All to embedded: the repository plugin goes, the embedded one is left as it runs.
    policy.enabledPluginType = "embedded";
    WritePolicy(policy);
    ASSERT_TRUE(Become({"Contoso.A elevated Embedded", "Contoso.A user Embedded 7"})) << Text(Listing());
    for (const auto& [instance, pid] : before) {
        EXPECT_TRUE(instance.rfind("Contoso.A", 0) == 0 ? Alive(pid) : Ended(pid)) << instance;
    }

    // An entry whose side is no side stops its plugin everywhere, and it stays stopped.
    policy.clients[0]["clientElevation"] = "sideways";
    WritePolicy(policy);
    ASSERT_TRUE(Become({})) << Text(Listing());

    // Back, then no side for anyone: everything stops at once.
    policy.clients[0]["clientElevation"] = "both";
    WritePolicy(policy);
    ASSERT_TRUE(Become({"Contoso.A elevated Embedded", "Contoso.A user Embedded 7"})) << Text(Listing());
    policy.sides = "none";
    WritePolicy(policy);
    ASSERT_TRUE(Become({})) << Text(Listing());
}

TEST_F(VeqdPluginsTest, BackEndMessagesAndServiceEventsReachThePluginsTheyConcern)
{
    world_->AddEmbedded({"Contoso.A", "PluginA"});
    WritePolicy({});
    StartDaemon();
    const std::string folder = world_->EmbeddedFolder("Contoso.A");
    ASSERT_TRUE(Eventually([&] { return VEQ::Test::Exists(folder + "/user.report"); }, 20s));
    ASSERT_TRUE(Eventually([&] { return VEQ::Test::Exists(folder + "/elevated.report"); }, 20s));

    const auto outcome = VEQ::Test::ChildProcess::Run(
        {VEQCTL_PROGRAM, "--root", root_, "publish", "--topic", "0", "--state", "0", "--action-type", "run",
         "--message-type", "InvokeCommand", "--payload",
         R"({"command":"Show-Note","targetId":"Contoso.A","requestId":"42","message_id":"m-1"})"});
    ASSERT_EQ(outcome.exitCode, 0) << outcome.output;
    ASSERT_TRUE(Eventually([&] { return VEQ::Test::Exists(folder + "/user.pushes"); }, 10s));
    std::ifstream pushes(folder + "/user.pushes");
    std::string line;
    ASSERT_TRUE(std::getline(pushes, line));
    Json::Value push;
    ASSERT_TRUE(Json::Reader().parse(line, push));
    EXPECT_EQ(push["command"].asString(), "Show-Note");
    Json::Value fields;
    ASSERT_TRUE(Json::Reader().parse(push["payload"].asString(), fields));
    EXPECT_EQ(fields["requestId"].asString(), "42");
    EXPECT_EQ(fields["message_id"].asString(), "m-1");
    EXPECT_EQ(fields["isAsync"].asString(), "false");
    EXPECT_FALSE(VEQ::Test::Exists(folder + "/elevated.pushes"));

    // Service events: a package status once per change, then the loss of the registration,
    // which also takes the messaging plugin's cached digest.
    const std::string digest = root_ + "/plugin-data/46C44A27-EAAD-4593-9AA0-8FA0F87BF955/digestv2.json.signed";
    std::filesystem::create_directories(std::filesystem::path(digest).parent_path());
    std::ofstream(digest) << "{}";
    const std::string package = R"({"packageId":"P1","packageVersion":"2","installationTrigger":"user"})";
    for (const auto& [topic, state] : std::vector<std::pair<int, int>>{{30, 311}, {30, 311}, {30, 300}, {2, 12}, {6, 0}}) {
        const auto published = VEQ::Test::ChildProcess::Run({VEQCTL_PROGRAM, "--root", root_, "publish", "--topic",
                                                             std::to_string(topic), "--state", std::to_string(state),
                                                             "--payload", package});
        ASSERT_EQ(published.exitCode, 0) << published.output;
    }
    const auto lines = [&](const std::string& command) {
        std::ifstream file(folder + "/elevated.pushes");
        std::vector<Json::Value> found;
        for (std::string text; std::getline(file, text);) {
            Json::Value value;
            if (Json::Reader().parse(text, value) && value["command"].asString() == command) {
                found.push_back(value);
            }
        }
        return found;
    };
    ASSERT_TRUE(Eventually([&] { return lines("networkVEQStatusUpdate").size() == 1; }, 10s));
    const auto statuses = lines("Receive-PackageInstallStatus");
    ASSERT_EQ(statuses.size(), 2u);
    EXPECT_NE(statuses[1]["payload"].asString().find("\"installed\""), std::string::npos);
    ASSERT_EQ(lines("registerVEQStatusUpdate").size(), 1u);
    EXPECT_EQ(lines("registerVEQStatusUpdate")[0]["payload"].asString(), "unregistered");
    EXPECT_FALSE(VEQ::Test::Exists(digest));
}

// An app on the elevated side of the service on root.
std::unique_ptr<Veq::Sdk::AppClient> ConnectedApp(const std::string& root, const std::string& id)
{
    Veq::Sdk::AppClientOptions options;
    options.dataRoot = root;
    options.side = Veq::Sdk::Side::Elevated;
    options.extensionId = id;
    options.extensionName = id + " app";
    options.timeout = 10s;
    options.autoReconnect = false;
    auto app = std::make_unique<Veq::Sdk::AppClient>(options);
    if (auto error = app->Connect()) {
        ADD_FAILURE() << "the app could not connect: " << error.Message();
        return nullptr;
    }
    return app;
}

TEST_F(VeqdPluginsTest, AnAppReachesAPluginByIdAndHearsWhyWhenItCannot)
{
    world_->AddEmbedded({"Contoso.A", "PluginA", "1.0.0.0", false, true, {"Get-Greeting", "Get-Failure"}});
    PluginPolicy policy;
    policy.sides = "elevated";
    WritePolicy(policy);
    StartDaemon();
    ASSERT_TRUE(Eventually([&] { return VEQ::Test::Exists(world_->EmbeddedFolder("Contoso.A") + "/elevated.report"); }, 20s));
    auto app = ConnectedApp(root_, "Contoso.Caller");
    ASSERT_TRUE(app);

    struct Row {
        const char* what;
        std::string target;
        std::string command;
        bool success;
        int32_t code;
        std::string text;
    };
    const std::vector<Row> rows = {
        {"the plugin answers", "contoso.a", "get-greeting", true, 0, ""},
        {"the plugin's failure is its own", "Contoso.A", "Get-Failure", false, -1, ""},
        {"nobody of that id", "Contoso.Nobody", "Get-Greeting", false, 17002,
         "The target with targetId:Contoso.Nobody targetName:The Nobody was not found in the list of installed plugins "
         "or running apps"},
        {"a command the plugin does not declare", "Contoso.A", "Get-Weather", false, 17004,
         "The command requested:Get-Weather is not supported by plugin with targetId : Contoso.A targetName:The Nobody, "
         "and no app with this ID was found to handle the command"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Veq::Sdk::AppClient::Result result;
        ASSERT_FALSE(app->Send(row.command, R"({"say":"hi"})", result, row.target, "The Nobody"));
        EXPECT_EQ(result.isSuccess, row.success);
        if (row.code > 0) {
            EXPECT_EQ(result.message.statusCode, row.code);
            EXPECT_EQ(result.message.statusText, row.text);
            continue;
        }
        // The plugin's reply, stamped as the plugin's; the plugin saw who asked.
        EXPECT_EQ(result.message.senderId, "Contoso.A");
        EXPECT_EQ(result.message.senderName, "PluginA");
        // The side is named only when the sender named one (in the target's name, or as a side).
        EXPECT_EQ(result.message.senderElevation, "None");
        Json::Value seen;
        ASSERT_TRUE(Json::Reader().parse(result.message.notification.payload, seen));
        EXPECT_EQ(seen["say"].asString(), "hi");
        EXPECT_EQ(seen["sender_id"].asString(), "Contoso.Caller");
        EXPECT_EQ(seen["sender_name"].asString(), "Contoso.Caller app");
    }

    // A plugin whose host died stays listed until it is next stopped: it is found, but not running.
    const Json::Value listing = Listing();
    ASSERT_EQ(listing["instances"].size(), 1u);
    ::kill(listing["instances"][0]["pid"].asInt(), SIGKILL);
    ASSERT_TRUE(Eventually([&] { return !Listing()["instances"][0]["running"].asBool(); }, 10s));
    Veq::Sdk::AppClient::Result result;
    ASSERT_FALSE(app->Send("Get-Greeting", "{}", result, "Contoso.A", "A"));
    EXPECT_EQ(result.message.statusCode, 17003);
    EXPECT_EQ(result.message.statusText, "The target with targetId:Contoso.A targetName:A was found as a plugin but is "
                                         "not running, and no app with this ID was found");
}

// Takes the 30 s wait for the slow plugin once.
TEST_F(VeqdPluginsTest, DiagnosticsAreCollectedFromEveryPluginAndSideSlower)
{
    const std::vector<std::string> commands = {"Get-Diagnostics"};
    world_->AddEmbedded({"Diag.Keep", "DiagKeepPlugin", "1.0.0.0", true, true, commands});
    world_->AddEmbedded({"Diag.Drop", "DiagDropPlugin", "1.0.0.0", false, true, commands});
    world_->AddEmbedded({"Diag.Text", "DiagTextPlugin", "1.0.0.0", false, true, commands});
    world_->AddEmbedded({"Diag.Slow", "DiagSlowPlugin", "1.0.0.0", false, true, commands});
    world_->AddEmbedded({"Diag.Mute", "MutePlugin", "1.0.0.0", false, true, {}});
    WritePolicy({});
    StartDaemon();
    ASSERT_TRUE(Become({"Diag.Keep elevated Embedded", "Diag.Keep user Embedded 7", "Diag.Drop elevated Embedded",
                        "Diag.Text elevated Embedded", "Diag.Slow elevated Embedded", "Diag.Mute elevated Embedded"}));
    for (const std::string id : {"Diag.Keep", "Diag.Drop", "Diag.Text", "Diag.Slow", "Diag.Mute"}) {
        ASSERT_TRUE(Eventually([&] { return VEQ::Test::Exists(world_->EmbeddedFolder(id) + "/elevated.report"); }, 20s));
    }
    ASSERT_TRUE(Eventually([&] { return VEQ::Test::Exists(world_->EmbeddedFolder("Diag.Keep") + "/user.report"); }, 20s));

    const std::string folder = root_ + "/diagnostics";
    const auto outcome =
        VEQ::Test::ChildProcess::Run({VEQCTL_PROGRAM, "--root", root_, "diagnostics", "--folder", folder});
    // The slow plugin runs and was not reached in time; the one that does not take part is not asked.
    EXPECT_EQ(outcome.exitCode, 7) << outcome.output;
    std::map<std::string, Json::Value> results;
    std::istringstream lines(outcome.output);
    for (std::string line; std::getline(lines, line);) {
        Json::Value entry;
        if (Json::Reader().parse(line, entry) && entry.isObject()) {
            results[entry["pluginId"].asString() + " " + entry["side"].asString()] = entry;
        }
    }
    struct Expected {
        bool delivered, timeout, success, deleteFilesOnUpload;
    };
    const std::map<std::string, Expected> expected = {
        {"Diag.Keep elevated", {true, false, true, true}},  {"Diag.Keep user", {true, false, true, true}},
        {"Diag.Drop elevated", {true, false, true, false}}, {"Diag.Text elevated", {true, false, false, true}},
        {"Diag.Slow elevated", {false, true, false, true}},
    };
    ASSERT_EQ(results.size(), expected.size()) << outcome.output;
    for (const auto& [key, want] : expected) {
        SCOPED_TRACE(key);
        const Json::Value& got = results[key];
        EXPECT_EQ(got["delivered"].asBool(), want.delivered);
        EXPECT_EQ(got["timeout"].asBool(), want.timeout);
        EXPECT_EQ(got["success"].asBool(), want.success);
        EXPECT_EQ(got["deleteFilesOnUpload"].asBool(), want.deleteFilesOnUpload);
        EXPECT_EQ(got["folder"].asString(), folder);
    }

    // Asked by id, a plugin that does not take part is not reached.
    const auto mute = VEQ::Test::ChildProcess::Run(
        {VEQCTL_PROGRAM, "--root", root_, "diagnostics", "--plugin", "Diag.Mute", "--folder", folder});
    EXPECT_EQ(mute.exitCode, 7) << mute.output;
    EXPECT_NE(mute.output.find(R"("delivered":false)"), std::string::npos) << mute.output;

    // Nobody of that id: nothing is asked and nothing fails.
    const auto nobody = VEQ::Test::ChildProcess::Run(
        {VEQCTL_PROGRAM, "--root", root_, "diagnostics", "--plugin", "Diag.Nobody", "--folder", folder});
    EXPECT_EQ(nobody.exitCode, 0) << nobody.output;
    EXPECT_NE(nobody.output.find(R"("delivered":false,"folder")"), std::string::npos) << nobody.output;
    EXPECT_NE(nobody.output.find(R"("side":"none")"), std::string::npos) << nobody.output;
}

// An app that answers routed commands with who it is and what it received.
void AnswerAs(Veq::Sdk::AppClient& app, const std::string& label)
{
    app.SetRequestHandler([label](const Veq::Sdk::AppClient::Message& request) {
        Veq::Sdk::AppClient::Result result;
        result.isSuccess = true;
        result.message = request;
        Json::Value answer;
        answer["answeredBy"] = label;
        answer["received"] = request.notification.payload;
        result.message.notification.payload = Text(answer);
        return result;
    });
}

TEST_F(VeqdPluginsTest, ClientsReachEachOtherByIdWhicheverKindTheyAre)
{
    const std::vector<std::string> greeting = {"Get-Greeting"};
    world_->AddEmbedded({"Route.Caller", "CallerPlugin", "1.0.0.0", false, true, {}});
    world_->AddEmbedded({"Route.Echo", "EchoPlugin", "1.0.0.0", false, true, greeting});
    world_->AddEmbedded({"Route.Shared", "SharedPlugin", "1.0.0.0", false, true, greeting});
    PluginPolicy policy;
    policy.sides = "elevated";
    WritePolicy(policy);
    StartDaemon();
    for (const std::string id : {"Route.Echo", "Route.Shared"}) {
        ASSERT_TRUE(Eventually([&] { return VEQ::Test::Exists(world_->EmbeddedFolder(id) + "/elevated.report"); }, 20s));
    }
    // An app in a process of its own shares its id with a plugin.
    VEQ::Test::BackgroundProcess sharedApp(
        {VEQ::Test::ChildProcess::TestProgram("veq_app_process"), root_, "elevated", "Route.Shared"});
    ASSERT_TRUE(sharedApp.Start());
    ASSERT_TRUE(sharedApp.WaitForOutput("ready", 10s)) << sharedApp.Output();
    // Here, only the oldest connection of this process answers for its id.
    auto twinFirst = ConnectedApp(root_, "Route.Twin");
    auto twinSecond = ConnectedApp(root_, "Route.Twin");
    auto sender = ConnectedApp(root_, "Route.Sender");
    ASSERT_TRUE(twinFirst && twinSecond && sender);
    AnswerAs(*twinFirst, "twin-1");
    AnswerAs(*twinSecond, "twin-2");

    const auto send = [&](const std::string& target, const std::string& command, const std::string& guid) {
        Veq::Sdk::AppClient::Message request;
        request.guid = guid;
        request.notification.command = command;
        request.notification.payload = R"({"from":"app"})";
        request.notification.targetId = target;
        Veq::Sdk::AppClient::Result result;
        EXPECT_FALSE(sender->Send(request, result));
        EXPECT_EQ(result.message.guid, guid) << "the answer comes under the request's guid";
        return result;
    };
    const auto answeredBy = [](const Veq::Sdk::AppClient::Result& result) {
        Json::Value answer;
        Json::Reader().parse(result.message.notification.payload, answer);
        return answer["answeredBy"].asString();
    };

    // A plugin and an app with one id: the plugin takes what it declares, the app the rest.
    auto result = send("Route.Shared", "Get-Greeting", "g-1");
    EXPECT_EQ(result.message.senderId, "Route.Shared");
    EXPECT_EQ(result.message.senderKind, std::string(1, '\x02'));
    result = send("Route.Shared", "Get-Weather", "g-2");
    EXPECT_TRUE(result.isSuccess);
    EXPECT_EQ(answeredBy(result), "Route.Shared");

    // App to app: the oldest connection answers, and sees who asked.
    result = send("Route.Twin", "Get-Greeting", "g-3");
    EXPECT_EQ(answeredBy(result), "twin-1");
    Json::Value answer;
    ASSERT_TRUE(Json::Reader().parse(result.message.notification.payload, answer));
    Json::Value received;
    ASSERT_TRUE(Json::Reader().parse(answer["received"].asString(), received));
    EXPECT_EQ(received["sender_id"].asString(), "Route.Sender");

    // "VEQ" is the service itself; any other spelling is a client's id.
    result = send("VEQ", "Get-VeqStatus", "g-6");
    EXPECT_TRUE(result.isSuccess);
    result = send("veq", "Get-VeqStatus", "g-5");
    EXPECT_EQ(result.message.statusCode, 17002);

    // A plugin reaches an app and another plugin.
    const std::string caller = world_->EmbeddedFolder("Route.Caller");
    std::ofstream(caller + "/elevated.calls.new") << "Route.Twin Get-Greeting\nRoute.Echo Get-Greeting\n";
    std::filesystem::rename(caller + "/elevated.calls.new", caller + "/elevated.calls");
    ASSERT_TRUE(Eventually([&] { return VEQ::Test::Exists(caller + "/elevated.answers"); }, 20s));
    std::ifstream answers(caller + "/elevated.answers");
    std::string line;
    Json::Value toApp;
    ASSERT_TRUE(std::getline(answers, line) && Json::Reader().parse(line, toApp)) << line;
    EXPECT_TRUE(toApp["isSuccess"].asBool()) << line;
    ASSERT_TRUE(Json::Reader().parse(toApp["message"]["notification"]["payload"].asString(), answer));
    EXPECT_EQ(answer["answeredBy"].asString(), "twin-1");
    ASSERT_TRUE(Json::Reader().parse(answer["received"].asString(), received));
    EXPECT_EQ(received["sender_id"].asString(), "Route.Caller");
    Json::Value toPlugin;
    ASSERT_TRUE(std::getline(answers, line) && Json::Reader().parse(line, toPlugin)) << line;
    EXPECT_TRUE(toPlugin["isSuccess"].asBool()) << line;
    EXPECT_EQ(toPlugin["message"]["senderId"].asString(), "Route.Echo");
    ASSERT_TRUE(Json::Reader().parse(toPlugin["message"]["notification"]["payload"].asString(), received));
    EXPECT_EQ(received["sender_id"].asString(), "Route.Caller");
    EXPECT_EQ(received["from"].asString(), "plugin");
}

// A plugin on either side asks for a package operation as an app does, and hears its outcome.
TEST_F(VeqdPluginsTest, APluginStartsAPackageOperationAndHearsTheEnginesOutcome)
{
    world_->AddEmbedded({"Pkg.Caller", "CallerPlugin", "1.0.0.0", true, true, {}});
    Json::Value policy = PluginWorld::PolicyDocument(PluginPolicy());
    Json::Reader().parse(R"({"packages":[{"packageId":"Tool","packageVersion":"2.0"}]})", policy["update_policy"]);
    const std::string temporary = root_ + "/policy.json.new";
    std::ofstream(temporary) << Text(policy);
    std::filesystem::rename(temporary, root_ + "/policy.json");
    StartDaemon();
    const std::string folder = world_->EmbeddedFolder("Pkg.Caller");
    for (const std::string side : {"elevated", "user"}) {
        std::ofstream(folder + "/" + side + ".calls.new")
            << R"(- Start-PackageOperation {"requestId":")" << side
            << R"(","packageId":"tool","operationType":"install"})" << "\n";
        std::filesystem::rename(folder + "/" + side + ".calls.new", folder + "/" + side + ".calls");
    }
    for (const std::string side : {"elevated", "user"}) {
        ASSERT_TRUE(Eventually([&] { return VEQ::Test::Exists(folder + "/" + side + ".answers"); }, 20s)) << side;
        std::ifstream answers(folder + "/" + side + ".answers");
        std::string line;
        Json::Value answer;
        ASSERT_TRUE(std::getline(answers, line) && Json::Reader().parse(line, answer)) << line;
        EXPECT_EQ(answer["message"]["notification"]["payload"].asString(),
                  R"({"packageId":"tool","requestId":")" + side + R"(","result":"OTA_pending"})");
    }
    const auto published = VEQ::Test::ChildProcess::Run(
        {VEQCTL_PROGRAM, "--root", root_, "publish", "--topic", "30", "--state", "300", "--payload",
         R"({"packageId":"Tool","packageType":"app","packageName":"T","packageVersion":"2.0","installationTrigger":"manual"})"});
    ASSERT_EQ(published.exitCode, 0) << published.output;
    for (const std::string side : {"elevated", "user"}) {
        // The final word is written compact with a newline at its end, as it always was.
        const std::string expected = R"({"packageId":"tool","requestId":")" + side + R"(","result":"installed"})" "\n";
        EXPECT_TRUE(Eventually(
            [&] {
                std::ifstream pushes(folder + "/" + side + ".pushes");
                for (std::string line; std::getline(pushes, line);) {
                    Json::Value push;
                    if (Json::Reader().parse(line, push) && push["command"] == "Receive-PackageOperationResult") {
                        return push["payload"].asString() == expected;
                    }
                }
                return false;
            },
            10s))
            << side << ": " << std::ifstream(folder + "/" + side + ".pushes").rdbuf();
    }
}

// The data commands are the elevated side's: a user-side plugin is told they are not there.
TEST_F(VeqdPluginsTest, DataProtectionServesElevatedPluginsOnly)
{
    world_->AddEmbedded({"Data.Caller", "CallerPlugin", "1.0.0.0", true, true, {}});
    WritePolicy(PluginPolicy());
    StartDaemon();
    const std::string folder = world_->EmbeddedFolder("Data.Caller");
    for (const std::string side : {"elevated", "user"}) {
        std::ofstream(folder + "/" + side + ".calls.new") << "- Get-DecryptedData {}\n- GetEncryptedDataCommand {}\n";
        std::filesystem::rename(folder + "/" + side + ".calls.new", folder + "/" + side + ".calls");
    }
    for (const std::string side : {"elevated", "user"}) {
        ASSERT_TRUE(Eventually([&] { return VEQ::Test::Exists(folder + "/" + side + ".answers"); }, 20s)) << side;
        std::ifstream answers(folder + "/" + side + ".answers");
        int lines = 0;
        for (std::string line; std::getline(answers, line); ++lines) {
            Json::Value answer;
            ASSERT_TRUE(Json::Reader().parse(line, answer)) << line;
            const int code = answer["message"]["statusCode"].asInt();
            if (side == "user") {
                EXPECT_EQ(code, 17001) << line;
            } else {
                EXPECT_NE(code, 17001) << line;
            }
        }
        EXPECT_EQ(lines, 2) << side;
    }
}

}  // namespace
}  // namespace VEQ
