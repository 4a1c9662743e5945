// The host folders on disk and the host process's end, with real files and processes.

#include "plugins/PluginHostProcess.h"
#include "platform/device/DeveloperSettings.h"
#include "platform/string/String.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/FileStatus.h"
#include "tests/support/TempRoot.h"
#include "tests/support/TestCa.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using VEQ::Test::Eventually;
using VEQ::Test::Exists;

std::string Read(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

void Write(const std::string& path, const std::string& content)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

class PluginHostProcessTest : public ::testing::Test {
protected:
    PluginHostProcessTest()
    {
        PlatformSettings settings;
        settings.trustCaFile = String::UTF8ToUTF16(ca_.CaFile());
        root_.Reinstall({}, settings);
        // A host that exits at once is enough to see the folder rules; it is signed like the real one.
        Write(Source("runtime.so"), "runtime");
        Write(Source("VEQPluginHost.exe.config"), "generic host configuration");
        Write(Source("Utilities/tool"), "tool");
        fs::copy_file(VEQ::Test::ChildProcess::TestProgram("veq_exit_three"), Source("VEQPluginHost.exe"));
        ca_.SignFile(Source("VEQPluginHost.exe"));
    }
    ~PluginHostProcessTest() override { DeveloperSettings::GetInstance()->SetSkipHostSignatureCheck(false); }

    std::string Source(const std::string& name) const { return root_.BelowUtf8("system/Service/Hosts/x64/" + name); }
    std::string Copies(const std::string& name) const { return root_.BelowUtf8("common/Hosts/x64/" + name); }
    std::string Log() const { return Read(root_.BelowUtf8("log/PluginInstance.log")); }

    PluginDetails Plugin(PluginSourceType source, const std::string& id, const std::string& name)
    {
        PluginManifest manifest(name, String::UTF8ToUTF16(id), RuntimeType::Unmanaged, "1.0", {}, {},
                                PluginExecutionDetails(StartupType::Auto, {}, "", "\\bin\\" + name + ".dll"), L"");
        return PluginDetails(source, manifest);
    }

    VEQ::Test::TempRoot root_;
    VEQ::Test::TestCa ca_{root_.BelowUtf8("ca"), "Host CA"};
    std::wstring socket_ = L"/nonexistent/socket";
};

TEST_F(PluginHostProcessTest, PreparesTheCopiesFolderAndStartsTheCopy)
{
    PluginHostProcess host(Plugin(PluginSourceType::Downloaded, "Contoso.A", "Alpha"), &socket_, ElevationType::Elevated);
    Write(root_.BelowUtf8("common/plugin-repository/Contoso.A/bin/Alpha.dll.config"), "alpha settings");
    host.Start();
    EXPECT_NE(host.GetProcessID(), 0);
    EXPECT_EQ(Read(Copies("Alpha.exe")), Read(Source("VEQPluginHost.exe")));
    EXPECT_EQ(Read(Copies("Alpha.exe.config")), "alpha settings") << "a plugin's dll.config becomes the host's exe.config";
    EXPECT_EQ(Read(Copies("runtime.so")), "runtime");
    EXPECT_EQ(Read(Copies("Utilities/tool")), "tool");
    EXPECT_FALSE(Exists(Copies("VEQPluginHost.exe.config"))) << "the generic configuration stays out";
}

TEST_F(PluginHostProcessTest, AnExistingCopyIsReusedAndMustStillBeTrusted)
{
    PluginHostProcess first(Plugin(PluginSourceType::Embedded, "Contoso.A", "Alpha"), &socket_, ElevationType::Elevated);
    first.Start();
    ASSERT_NE(first.GetProcessID(), 0);
    // Two plugins of one name share the copy; a copy changed on disk is refused.
    // Replaced, not written in place: the first host may still be running from the copy.
    std::string bytes = Read(Copies("Alpha.exe"));
    bytes[100] ^= 0x01;
    Write(Copies("Alpha.exe.new"), bytes);
    fs::rename(Copies("Alpha.exe.new"), Copies("Alpha.exe"));
    PluginHostProcess second(Plugin(PluginSourceType::Embedded, "Contoso.B", "Alpha"), &socket_, ElevationType::Elevated);
    second.Start();
    EXPECT_EQ(second.GetProcessID(), 0);
    EXPECT_EQ(Read(Copies("Alpha.exe")), bytes) << "not copied again";
    EXPECT_NE(Log().find("Invalid plugin host file for pluignid Contoso.B"), std::string::npos);
}

TEST_F(PluginHostProcessTest, EmbeddedPluginsBelowEmbeddedPluginsGetNoConfiguration)
{
    fs::create_directories(root_.BelowUtf8("system/EmbeddedPlugins/Contoso.E/bin"));
    Write(root_.BelowUtf8("system/EmbeddedPlugins/Contoso.E/bin/Echo.exe.config"), "echo settings");
    Write(root_.BelowUtf8("system/AddOnPlugins/Contoso.F/bin/Foxtrot.exe.config"), "foxtrot settings");
    PluginHostProcess embedded(Plugin(PluginSourceType::Embedded, "Contoso.E", "Echo"), &socket_, ElevationType::Elevated);
    PluginHostProcess addOn(Plugin(PluginSourceType::Embedded, "Contoso.F", "Foxtrot"), &socket_, ElevationType::Elevated);
    embedded.Start();
    addOn.Start();
    EXPECT_FALSE(Exists(Copies("Echo.exe.config")));
    EXPECT_EQ(Read(Copies("Foxtrot.exe.config")), "foxtrot settings");
}

TEST_F(PluginHostProcessTest, NothingStartsWithoutTheProductsHostFolder)
{
    fs::remove_all(root_.BelowUtf8("system/Service"));
    PluginHostProcess host(Plugin(PluginSourceType::Embedded, "Contoso.A", "Alpha"), &socket_, ElevationType::Elevated);
    host.Start();
    EXPECT_EQ(host.GetProcessID(), 0);
    EXPECT_NE(Log().find("service/Hosts directory is missing"), std::string::npos);
}

TEST_F(PluginHostProcessTest, KillOfAHostThatFailedStillTakesTheTerminatePath)
{
    PluginHostProcess neverStarted(Plugin(PluginSourceType::Embedded, "Contoso.N", "November"), &socket_,
                                   ElevationType::Elevated);
    neverStarted.Kill();
    EXPECT_NE(Log().find("processId_ is 0"), std::string::npos);

    PluginHostProcess host(Plugin(PluginSourceType::Embedded, "Contoso.A", "Alpha"), &socket_, ElevationType::Elevated);
    host.Start();
    ASSERT_NE(host.GetProcessID(), 0);
    ASSERT_TRUE(Eventually([&] { return !host.IsRunning(); }));
    host.Kill();
    EXPECT_NE(Log().find("returned WAIT_OBJECT_0 for processID = " + std::to_string(host.GetProcessID()) +
                         " but GetExitCodeProcess returned 3 exitcode."),
              std::string::npos)
        << Log();
    EXPECT_EQ(Log().find("TerminateProcess succeeded"), std::string::npos) << "an ended process is not signalled";
}

TEST_F(PluginHostProcessTest, TheCopyGoesWithItsObject)
{
    {
        PluginHostProcess host(Plugin(PluginSourceType::Downloaded, "Contoso.A", "Alpha"), &socket_,
                               ElevationType::Elevated);
        Write(root_.BelowUtf8("common/plugin-repository/Contoso.A/bin/Alpha.exe.config"), "alpha");
        host.Start();
        ASSERT_TRUE(Exists(Copies("Alpha.exe")));
        ASSERT_TRUE(Exists(Copies("Alpha.exe.config")));
    }
    EXPECT_FALSE(Exists(Copies("Alpha.exe")));
    EXPECT_FALSE(Exists(Copies("Alpha.exe.config")));
    EXPECT_TRUE(Exists(Copies("runtime.so"))) << "shared runtime files stay";
}

}  // namespace
}  // namespace VEQ
