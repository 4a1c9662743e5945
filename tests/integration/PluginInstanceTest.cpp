// Real plugin hosts on both sides, with a plugin built against the plugin ABI and signed by a CA
// made for the test.

#include "broker/PluginClientBroker.h"
#include "plugins/PluginInstance.h"
#include "plugins/PluginHostProcess.h"
#include "platform/fs/ProcessDataRoot.h"
#include "platform/process/ProcessHandles.h"
#include "platform/string/String.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/FileStatus.h"
#include "tests/support/TempRoot.h"
#include "tests/support/TestBroker.h"
#include "tests/support/TestCa.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <fstream>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using VEQ::Test::Eventually;
using VEQ::Test::Exists;

constexpr uint32_t kNobody = 65534;

std::vector<Json::Value> ReadReport(const std::string& path)
{
    std::vector<Json::Value> lines;
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        Json::Value value;
        Json::Reader().parse(line, value);
        lines.push_back(value);
    }
    return lines;
}

Json::Value PayloadOf(const Json::Value& result)
{
    Json::Value payload;
    Json::Reader().parse(result["message"]["notification"]["payload"].asString(), payload);
    return payload;
}

class PluginInstanceTest : public ::testing::Test {
protected:
    PluginInstanceTest()
    {
        std::ofstream(root_.BelowUtf8("session.json")) << R"({"sessionId": 7, "uid": 65534})";
        PlatformSettings settings;
        settings.trustCaFile = String::UTF8ToUTF16(ca_.CaFile());
        settings.sessionSource = "file";
        settings.sessionFile = root_.BelowUtf8("session.json");
        root_.Reinstall({}, settings);
        ProcessDataRoot::ExportForChildren(root_.PathUtf8());  // hosts log below the test's root
        InstallHost(true);
    }
    ~PluginInstanceTest() override
    {
        for (auto& instance : instances_) {
            instance->Suspend(false);
        }
    }

    void InstallHost(bool sign)
    {
        const std::string host = root_.BelowUtf8("system/Service/Hosts/x64/VEQPluginHost.exe");
        fs::create_directories(fs::path(host).parent_path());
        fs::copy_file(VEQ_PLUGIN_HOST_PROGRAM, host, fs::copy_options::overwrite_existing);
        if (sign) {
            SignWithTool(host);
        }
    }

    // An embedded plugin whose library is the test plugin, runnable on both sides.
    PluginDetails InstallPlugin(const std::string& id, const std::string& name)
    {
        const std::string folder = PluginFolder(id);
        fs::create_directories(folder);
        chmod(folder.c_str(), 0777);  // the user side's plugin reports here
        const std::string library = folder + "/" + name + ".dll";
        fs::copy_file(VEQ_TEST_PLUGIN, library, fs::copy_options::overwrite_existing);
        SignWithTool(library);
        const std::string entry = "\\bin\\" + name + ".dll";
        PluginManifest manifest(name, String::UTF8ToUTF16(id), RuntimeType::Unmanaged, "1.0.0.0", {},
                                PluginExecutionDetails(StartupType::Auto, {}, "", entry),
                                PluginExecutionDetails(StartupType::Auto, {}, "", entry), L"");
        return PluginDetails(PluginSourceType::Embedded, manifest);
    }
    // As a plugin's author signs: with the tool.
    void SignWithTool(const std::string& path)
    {
        const auto outcome = VEQ::Test::ChildProcess::Run(
            {VEQ_SIGN_PROGRAM, "--key", ca_.SignerKey(), "--cert", ca_.SignerCert(), path});
        ASSERT_EQ(outcome.exitCode, 0) << outcome.output;
    }
    std::string PluginFolder(const std::string& id) const { return root_.BelowUtf8("system/EmbeddedPlugins/" + id + "/bin"); }

    PluginInstance& Start(const PluginDetails& details, ElevationType side)
    {
        BrokerContext context = VEQ::Test::MakeBrokerContext(side);
        context.setExtensionType(Tavrin::Veq::ClientBroker::ExtensionType::Plugin);
        instances_.push_back(std::make_unique<PluginInstance>(details, context));
        instances_.back()->Start();
        return *instances_.back();
    }

    static uint32_t PidOf(PluginInstance& instance)
    {
        return instance.getPluginHostProcess() != nullptr ? static_cast<uint32_t>(instance.getPluginHostProcess()->GetProcessID())
                                                          : 0;
    }

    VEQ::Test::TempRoot root_;
    VEQ::Test::TestCa ca_{root_.BelowUtf8("ca"), "Plugin CA"};
    std::vector<std::unique_ptr<PluginInstance>> instances_;
};

TEST_F(PluginInstanceTest, AnElevatedPluginLearnsWhoItIsAndStopsWhenAsked)
{
    const PluginDetails details = InstallPlugin("Contoso.Hello", "HelloPlugin");
    PluginInstance& instance = Start(details, ElevationType::Elevated);
    ASSERT_NE(PidOf(instance), 0u);
    const std::string report = PluginFolder("Contoso.Hello") + "/elevated.report";
    ASSERT_TRUE(Eventually([&] { return Exists(report); }, 20s)) << "the plugin never reported";

    const std::vector<Json::Value> lines = ReadReport(report);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[0]["isSuccess"].asBool());
    const Json::Value context = PayloadOf(lines[0]);
    EXPECT_EQ(context["pluginName"].asString(), "HelloPlugin");
    EXPECT_EQ(context["pluginId"].asString(), "Contoso.Hello");
    EXPECT_EQ(context["pluginEntryPath"].asString(), PluginFolder("Contoso.Hello"));
    EXPECT_EQ(PayloadOf(lines[1])["pluginManifest"]["system"]["entry64"].asString(), "\\bin\\HelloPlugin.dll");
    // The data commands serve elevated plugins: an empty request reaches the handler, which refuses it.
    EXPECT_NE(lines[2]["message"]["statusCode"].asInt(), 17001);

    // Its own copy of the host, named after it, runs it.
    EXPECT_TRUE(Exists(root_.BelowUtf8("common/Hosts/x64/HelloPlugin.exe")));
    instance.Suspend(true);
    EXPECT_TRUE(Exists(PluginFolder("Contoso.Hello") + "/elevated.stopped"));
    EXPECT_FALSE(instance.isPluginRunning());
    instances_.clear();
    EXPECT_FALSE(Exists(root_.BelowUtf8("common/Hosts/x64/HelloPlugin.exe"))) << "the copy goes with its instance";
}

TEST_F(PluginInstanceTest, APluginMayAskTheServiceFromItsEntry)
{
    const PluginDetails details = InstallPlugin("Contoso.Eager", "EagerPlugin");
    Start(details, ElevationType::Elevated);
    const std::string answer = PluginFolder("Contoso.Eager") + "/elevated.eager";
    ASSERT_TRUE(Eventually([&] { return Exists(answer) && !ReadReport(answer).empty(); }, 20s));
    EXPECT_TRUE(ReadReport(answer)[0]["isSuccess"].asBool()) << "send from the entry failed";
}

TEST_F(PluginInstanceTest, AUserSidePluginRunsAsTheSessionsUser)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root starts programs as another user";
    }
    const PluginDetails details = InstallPlugin("Contoso.Hello", "HelloPlugin");
    PluginInstance& instance = Start(details, ElevationType::User);
    ASSERT_NE(PidOf(instance), 0u);
    EXPECT_EQ(instance.getPluginHostProcess()->GetUserSessionId(), 7u);
    const std::string report = PluginFolder("Contoso.Hello") + "/user.report";
    ASSERT_TRUE(Eventually([&] { return Exists(report); }, 20s)) << "the plugin never reported";
    struct stat status {};
    ASSERT_EQ(stat(report.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, kNobody) << "written by the session's user";
    const std::vector<Json::Value> lines = ReadReport(report);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(PayloadOf(lines[0])["pluginId"].asString(), "Contoso.Hello");
    EXPECT_EQ(lines[2]["message"]["statusCode"].asInt(), 17001) << "a user-side plugin never gets Get-DecryptedData";
    instance.Suspend(true);
    EXPECT_TRUE(Exists(PluginFolder("Contoso.Hello") + "/user.stopped"));
}

TEST_F(PluginInstanceTest, NoProcessStartsFromAnUntrustedHost)
{
    InstallHost(false);
    const PluginDetails details = InstallPlugin("Contoso.Hello", "HelloPlugin");
    PluginInstance& instance = Start(details, ElevationType::Elevated);
    EXPECT_EQ(instance.getPluginHostProcess(), nullptr);
    EXPECT_FALSE(instance.isPluginRunning());
    // The broker was started first and stays, with nobody connected.
    EXPECT_TRUE(Exists(String::UTF16ToUTF8(instance.getClientBroker()->get_soketID())));
    instance.Suspend(true);
}

TEST_F(PluginInstanceTest, APluginThatRefusesToStartEndsItsHost)
{
    const PluginDetails details = InstallPlugin("Contoso.Refuses", "RefusesPlugin");
    PluginInstance& instance = Start(details, ElevationType::Elevated);
    const uint32_t pid = PidOf(instance);
    ASSERT_NE(pid, 0u);
    ASSERT_TRUE(Eventually([&] { return !instance.isPluginRunning(); }, 20s));
    const ProcessHandle handle = ProcessHandles::OpenProcess(pid);
    uint32_t code = 0;
    EXPECT_TRUE(ProcessHandles::GetExitCodeProcess(handle, code));
    EXPECT_EQ(code, 6u);
    ProcessHandles::CloseHandle(handle);
    instance.Suspend(true);
}

TEST_F(PluginInstanceTest, APluginThatCannotRunEndsItsHostWithTheReason)
{
    struct Row {
        const char* id;
        const char* name;
        std::function<void(const std::string& library)> spoil;
        uint32_t exitCode;
    };
    const Row rows[] = {
        {"Missing", "MissingPlugin", [](const std::string& library) { fs::remove(library); }, 5},
        {"NotElf", "NotElfPlugin", [](const std::string& library) { std::ofstream(library) << "not a library"; }, 5},
        {"NoEntry", "NoEntryPlugin",
         [](const std::string& library) {
             fs::copy_file(fs::canonical(VEQ_TEST_FOREIGN_LIBRARY), library,
                           fs::copy_options::overwrite_existing);
         },
         5},
        {"Crashes", "CrashesPlugin", [](const std::string&) {}, 128 + SIGABRT},
    };
    for (const Row& row : rows) {
        const PluginDetails details = InstallPlugin(row.id, row.name);
        row.spoil(PluginFolder(row.id) + "/" + row.name + ".dll");
        PluginInstance& instance = Start(details, ElevationType::Elevated);
        const uint32_t pid = PidOf(instance);
        ASSERT_NE(pid, 0u) << row.id;
        ASSERT_TRUE(Eventually([&] { return !instance.isPluginRunning(); }, 20s)) << row.id;
        const ProcessHandle handle = ProcessHandles::OpenProcess(pid);
        uint32_t code = 0;
        EXPECT_TRUE(ProcessHandles::GetExitCodeProcess(handle, code)) << row.id;
        EXPECT_EQ(code, row.exitCode) << row.id;
        ProcessHandles::CloseHandle(handle);
        instance.Suspend(true);  // returns at once: there is nothing left to wait for
    }
}

TEST_F(PluginInstanceTest, WhatAPluginStartsEndsWithItsHost)
{
    const auto childOf = [&](const std::string& id) {
        std::ifstream file(PluginFolder(id) + "/elevated.child");
        int pid = 0;
        file >> pid;
        return pid;
    };
    const auto gone = [](int pid) { return !Exists("/proc/" + std::to_string(pid)); };
    for (bool waitForExit : {true, false}) {
        const std::string id = waitForExit ? "Contoso.Forks" : "Contoso.ForksKilled";
        // A host killed after its grace takes its group along; one that stops ends its group itself.
        PluginInstance& instance =
            Start(InstallPlugin(id, waitForExit ? "ForksPlugin" : "StubbornForksPlugin"), ElevationType::Elevated);
        ASSERT_TRUE(Eventually([&] { return childOf(id) > 0; }, 20s)) << id;
        const int child = childOf(id);
        ASSERT_FALSE(gone(child)) << id;
        instance.Suspend(waitForExit);
        EXPECT_TRUE(Eventually([&] { return gone(child); })) << (waitForExit ? "stopped" : "killed") << " host left "
                                                              << child << " running";
    }
}

TEST_F(PluginInstanceTest, AStubbornPluginOutlastsTheWaitAndOnlyKillEndsItSlower)
{
    const PluginDetails details = InstallPlugin("Contoso.Stubborn", "StubbornPlugin");
    PluginInstance& instance = Start(details, ElevationType::Elevated);
    ASSERT_TRUE(Eventually([&] { return Exists(PluginFolder("Contoso.Stubborn") + "/elevated.report"); }, 20s));
    instance.Suspend(true);
    EXPECT_TRUE(instance.isPluginRunning()) << "the wait timed out and left the process alone";
    EXPECT_FALSE(instance.getClientBroker()->IsSuspending()) << "and the broker running";
    instance.Suspend(false);
    // Kill does not wait for the end it causes.
    EXPECT_TRUE(Eventually([&] { return !instance.isPluginRunning(); })) << "Kill ends it after its grace";
    EXPECT_FALSE(Exists(PluginFolder("Contoso.Stubborn") + "/elevated.stopped"));
}

}  // namespace
}  // namespace VEQ
