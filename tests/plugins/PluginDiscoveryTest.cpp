#include "plugins/PluginDetails.h"
#include "plugins/PluginDetailsGenerator.h"
#include "plugins/PluginRepository.h"
#include "platform/device/DeveloperSettings.h"
#include "platform/device/XMLConfigAgent.h"
#include "platform/string/String.h"
#include "tests/support/ElfFixture.h"
#include "tests/support/FakeAgents.h"
#include "tests/support/FileStatus.h"
#include "tests/support/TempRoot.h"
#include "tests/support/TestCa.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <unistd.h>

namespace fs = std::filesystem;

namespace VEQ {
namespace {

using VEQ::Test::Exists;

struct PluginSpec {
    std::string id;
    std::string name;
    std::string entry = "\\bin\\plugin.dll";
};

std::string Document(const std::vector<PluginSpec>& plugins)
{
    Json::Value root;
    Json::Value& list = root["plugins"] = Json::Value(Json::arrayValue);
    for (const PluginSpec& plugin : plugins) {
        Json::Value manifest;
        manifest["pluginId"] = plugin.id;
        manifest["pluginName"] = plugin.name;
        manifest["pluginVersion"] = "1.0.0.0";
        manifest["system"]["entry64Path"] = plugin.entry;
        list.append(manifest);
    }
    return Json::writeString(Json::StreamWriterBuilder(), root);
}

void Write(const std::string& path, const std::string& content)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::string Read(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// Owns what discovery returns.
struct Listed {
    std::vector<std::unique_ptr<PluginDetails>> plugins;

    std::vector<std::string> Ids() const
    {
        std::vector<std::string> ids;
        for (const auto& plugin : plugins) {
            ids.push_back(String::UTF16ToUTF8(plugin->getPluginManifest().getPluginId()));
        }
        return ids;
    }
};

class PluginDiscoveryTest : public ::testing::Test {
protected:
    PluginDiscoveryTest()
        : ca_(root_.BelowUtf8("ca"), "Trusted Test CA"), otherCa_(root_.BelowUtf8("other-ca"), "Other Test CA")
    {
        PlatformServices services;
        services.configAgent = policy_;
        PlatformSettings settings;
        settings.trustCaFile = String::UTF8ToUTF16(ca_.CaFile());
        root_.Reinstall(services, settings);
        SetPluginType("all");
        PluginDetailsGenerator::ReleaseInstance();  // its log opens below this root
    }

    ~PluginDiscoveryTest() override
    {
        PluginRepository::ReleaseInstance();
        PluginDetailsGenerator::ReleaseInstance();
        DeveloperSettings::GetInstance()->SetSkipPluginSignatureCheck(false);
        DeveloperSettings::GetInstance()->SetSkipSignedContentCheck(false);
        XMLConfigAgent::GetInstance(0).SetDisableSecurity(false);
    }

    void SetPluginType(const std::string& type)
    {
        Json::Value document;
        Json::Value entry;
        entry["application_id"] = "Tavrin.veq";
        entry["settings"]["extension_apps"]["enablement"] = "enabled";
        entry["settings"]["extension_plugins"]["enabledPluginType"] = type;
        document["app_settings"].append(entry);
        policy_->SetDocument(document);
    }

    std::string System(const std::string& below) const { return root_.BelowUtf8("system/" + below); }
    std::string Repository(const std::string& below = "") const
    {
        return root_.BelowUtf8("common/plugin-repository/" + below);
    }
    std::string HostCopies(const std::string& below) const { return root_.BelowUtf8("common/Hosts/" + below); }

    // A signed entry file for plugin id in folder (the plugin's root).
    void SignedEntry(const std::string& folder, const std::string& entry = "bin/plugin.dll")
    {
        Write(folder + "/" + entry, "code of " + folder);
        ca_.SignFile(folder + "/" + entry);
    }

    void EmbeddedResource(int id, const std::string& document)
    {
        Write(System("resources/JSON/" + std::to_string(id) + ".json"), document);
    }

    // A repository plugin: its signed folder and its manifest in a signed envelope.
    void RepositoryPlugin(const PluginSpec& plugin)
    {
        SignedEntry(Repository(plugin.id));
        Write(Repository(plugin.id + ".json"), ca_.Envelope(Document({plugin})));
    }

    Listed Discover()
    {
        Listed listed;
        for (PluginDetails* plugin : PluginRepository::GetInstance()->GetInstalledPlugins()) {
            listed.plugins.emplace_back(plugin);
        }
        return listed;
    }

    std::string DiscoveryLog() const { return Read(root_.BelowUtf8("log/PluginDetailsGenerator.log")); }
    std::string Lock(const std::string& id, pid_t pid) const
    {
        return Repository(id + "-" + std::to_string(pid) + ".lock");
    }

    VEQ::Test::TempRoot root_;
    std::shared_ptr<VEQ::Test::FakeConfigAgent> policy_ = std::make_shared<VEQ::Test::FakeConfigAgent>();
    VEQ::Test::TestCa ca_;
    VEQ::Test::TestCa otherCa_;
};

TEST_F(PluginDiscoveryTest, ListsOnlyPluginsWhoseEntryATrustedSignerSigned)
{
    SignedEntry(System("EmbeddedPlugins/Good"));
    Write(System("EmbeddedPlugins/Unsigned/bin/plugin.dll"), "unsigned code");
    SignedEntry(System("EmbeddedPlugins/Tampered"));
    {
        std::fstream file(System("EmbeddedPlugins/Tampered/bin/plugin.dll"), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(0);
        file.put('X');  // was 'c'
    }
    Write(System("EmbeddedPlugins/Foreign/bin/plugin.dll"), "foreign code");
    otherCa_.SignFile(System("EmbeddedPlugins/Foreign/bin/plugin.dll"));
    SignedEntry(System("EmbeddedPlugins/Truncated"));
    const std::string truncated = Read(System("EmbeddedPlugins/Truncated/bin/plugin.dll"));
    Write(System("EmbeddedPlugins/Truncated/bin/plugin.dll"), truncated.substr(0, truncated.size() - 5));
    EmbeddedResource(104, Document({{"Good", "Good"},
                                    {"Unsigned", "Unsigned"},
                                    {"Tampered", "Tampered"},
                                    {"Foreign", "Foreign"},
                                    {"Truncated", "Truncated"},
                                    {"Missing", "MissingName"}}));

    const Listed listed = Discover();

    EXPECT_EQ(listed.Ids(), std::vector<std::string>{"Good"});
    const std::string log = DiscoveryLog();
    for (const char* refused : {"Unsigned", "Tampered", "Foreign", "Truncated"}) {
        // Paths are logged as the service spells them, whatever they are on disk.
        const std::string line = std::string("Invalid Plugin, not signed by tavrin, path: ") + root_.BelowUtf8("system") +
                                 "\\drivers\\tavrin\\VEQ\\EmbeddedPlugins\\" + refused + "\\bin\\plugin.dll";
        EXPECT_NE(log.find(line), std::string::npos) << refused << " should be refused in the log";
    }
    EXPECT_NE(log.find("MissingName does not exists"), std::string::npos);
}

TEST_F(PluginDiscoveryTest, EitherSecuritySwitchAcceptsAPluginWhoseEntryIsMissing)
{
    EmbeddedResource(104, Document({{"Ghost", "Ghost"}}));
    const std::function<void(bool)> switches[] = {
        [](bool on) { XMLConfigAgent::GetInstance(0).SetDisableSecurity(on); },
        [](bool on) { DeveloperSettings::GetInstance()->SetSkipPluginSignatureCheck(on); },
    };
    int row = 0;
    for (const auto& flip : switches) {
        flip(true);
        EXPECT_EQ(Discover().Ids(), std::vector<std::string>{"Ghost"}) << "switch " << row;
        flip(false);
        EXPECT_TRUE(Discover().Ids().empty()) << "switch " << row;
        ++row;
    }
}

TEST_F(PluginDiscoveryTest, ReadsEmbeddedResourcesInOrderThenAddOnsAndKeepsTheFirstOfADuplicate)
{
    SignedEntry(System("EmbeddedPlugins/A"));
    SignedEntry(System("EmbeddedPlugins/B"));
    SignedEntry(System("AddOnPlugins/C"));
    SignedEntry(System("AddOnPlugins/Nowhere"), "bin/other.dll");
    EmbeddedResource(105, Document({{"B", "FromResource105"}}));
    EmbeddedResource(104, Document({{"A", "First"}, {"a", "SecondOfA"}}));
    EmbeddedResource(999, Document({{"B", "FromResource999"}}));
    VEQ::Test::MakeElfWithSections(System("AddOnPlugins/C/resourceloader.dll"),
                                   {{".veq.res.JSON.1001", Document({{"C", "AddOn"}})}});
    // The folder of an add-on manifest need not be the plugin's own folder.
    VEQ::Test::MakeElfWithSections(System("AddOnPlugins/loader-only/resourceloader.dll"),
                                   {{".veq.res.JSON.1001", Document({{"Nowhere", "N", "\\bin\\other.dll"}})}});

    const Listed listed = Discover();

    ASSERT_EQ(listed.Ids(), (std::vector<std::string>{"A", "B", "C", "Nowhere"}));
    EXPECT_EQ(listed.plugins[0]->getPluginManifest().getPluginName(), "First");
    EXPECT_EQ(listed.plugins[1]->getPluginManifest().getPluginName(), "FromResource999");
    for (const auto& plugin : listed.plugins) {
        EXPECT_EQ(plugin->getSourceType(), PluginSourceType::Embedded);
    }
    // An embedded plugin whose folder is under neither root is looked for under AddOnPlugins.
    EXPECT_NE(String::UTF16ToUTF8(listed.plugins[3]->getPluginFullPath()).find("AddOnPlugins"), std::string::npos);
}

TEST_F(PluginDiscoveryTest, AMalformedManifestEndsItsDocumentThere)
{
    SignedEntry(System("EmbeddedPlugins/First"));
    SignedEntry(System("EmbeddedPlugins/Third"));
    EmbeddedResource(104, R"({"plugins": [
        {"pluginId": "First", "pluginName": "First", "system": {"entry64Path": "\\bin\\plugin.dll"}},
        {"pluginId": "Second", "system": {"entry64Path": ["not", "text"]}},
        {"pluginId": "Third", "pluginName": "Third", "system": {"entry64Path": "\\bin\\plugin.dll"}}]})");
    // Documents that are no manifest at all give nothing and stop nothing else.
    EmbeddedResource(999, "{\"plugins\": [ truncated");
    EmbeddedResource(105, R"({"plugins": [7, {"pluginId": "Third"}]})");

    EXPECT_EQ(Discover().Ids(), std::vector<std::string>{"First"});
}

TEST_F(PluginDiscoveryTest, RefusesIdsAndEntriesThatLeadOutOfThePluginFolder)
{
    SignedEntry(System("EmbeddedPlugins/Fine"));
    SignedEntry(System("outside"));
    EmbeddedResource(104, Document({{"..", "Up"},
                                    {"../outside", "Climb"},
                                    {"a\\..\\..", "Back"},
                                    {"Fine", "Escape", "\\..\\..\\outside\\bin\\plugin.dll"},
                                    {"Fine", "Fine"}}));

    EXPECT_EQ(Discover().Ids(), std::vector<std::string>{"Fine"});
}

TEST_F(PluginDiscoveryTest, EnabledPluginTypeIsComparedExactly)
{
    SignedEntry(System("EmbeddedPlugins/Embedded"));
    EmbeddedResource(104, Document({{"Embedded", "Embedded"}}));
    RepositoryPlugin({"Downloaded", "Downloaded"});
    const std::pair<std::string, std::vector<std::string>> rows[] = {
        {"all", {"Embedded", "Downloaded"}},
        {"All", {"Embedded"}},
        {"embedded", {"Embedded"}},
        {"", {"Embedded"}},
        {"none", {}},
    };
    for (const auto& [type, expected] : rows) {
        SetPluginType(type);
        EXPECT_EQ(Discover().Ids(), expected) << "enabledPluginType \"" << type << "\"";
    }
}

TEST_F(PluginDiscoveryTest, AnEmbeddedAndADownloadedPluginOfOneIdAreBothListed)
{
    SignedEntry(System("EmbeddedPlugins/Same"));
    EmbeddedResource(104, Document({{"Same", "Same"}}));
    RepositoryPlugin({"same", "Same"});

    const Listed listed = Discover();

    ASSERT_EQ(listed.plugins.size(), 2u);
    EXPECT_EQ(listed.plugins[0]->getSourceType(), PluginSourceType::Embedded);
    EXPECT_EQ(listed.plugins[1]->getSourceType(), PluginSourceType::Downloaded);
}

TEST_F(PluginDiscoveryTest, RepositoryManifestsMustBeSignedByATrustedSigner)
{
    RepositoryPlugin({"Trusted", "Trusted"});
    SignedEntry(Repository("Plain"));
    Write(Repository("Plain.json"), Document({{"Plain", "Plain"}}));
    SignedEntry(Repository("Foreign"));
    Write(Repository("Foreign.json"), otherCa_.Envelope(Document({{"Foreign", "Foreign"}})));
    SignedEntry(Repository("Cut"));
    const std::string envelope = ca_.Envelope(Document({{"Cut", "Cut"}}));
    Write(Repository("Cut.json"), envelope.substr(0, envelope.size() / 2));

    EXPECT_EQ(Discover().Ids(), std::vector<std::string>{"Trusted"});
    const std::string log = DiscoveryLog();
    for (const char* refused : {"Plain", "Foreign", "Cut"}) {
        EXPECT_NE(log.find(std::string("Not a valid Manifest json : ") + root_.BelowUtf8("common") +
                           "\\Tavrin\\Veq\\plugin-repository\\" + refused + ".json"),
                  std::string::npos)
            << refused;
        // Neither the manifest nor the folder of a plugin that failed to decode is deleted.
        EXPECT_TRUE(Exists(Repository(refused) + ".json")) << refused;
        EXPECT_TRUE(Exists(Repository(refused))) << refused;
    }

    DeveloperSettings::GetInstance()->SetSkipSignedContentCheck(true);
    EXPECT_EQ(Discover().Ids(), (std::vector<std::string>{"Foreign", "Plain", "Trusted"}))
        << "unchecked envelopes and plain documents are read when signed content is not checked";
}

TEST_F(PluginDiscoveryTest, StrayManifestsGoUnlessThisProcessLockedThem)
{
    RepositoryPlugin({"Kept", "Kept"});
    for (const char* id : {"Stray", "LockedHere", "LockedElsewhere"}) {
        Write(Repository(std::string(id) + ".json"), ca_.Envelope(Document({{id, id}})));
    }
    Write(Lock("LockedHere", getpid()), "");
    Write(Lock("LockedElsewhere", getpid() + 1), "");

    EXPECT_EQ(Discover().Ids(), std::vector<std::string>{"Kept"});

    EXPECT_TRUE(Exists(Repository("Kept.json")));
    EXPECT_FALSE(Exists(Repository("Stray.json")));
    EXPECT_TRUE(Exists(Repository("LockedHere.json")));
    EXPECT_FALSE(Exists(Repository("LockedElsewhere.json"))) << "a lock of another process protects nothing";
    EXPECT_NE(DiscoveryLog().find("Deleting manifest file of plugin Stray since corresponding plugin is not found"),
              std::string::npos);
}

TEST_F(PluginDiscoveryTest, StrayFoldersGoUnlessLockedOrMarkedWithAnUnderscore)
{
    SignedEntry(Repository("Orphan"));
    SignedEntry(Repository("Installing_"));
    SignedEntry(Repository("LockedHere"));
    Write(Lock("LockedHere", getpid()), "");

    Discover();

    EXPECT_NE(DiscoveryLog().find("Plugin manifest file does not exists"), std::string::npos);
    EXPECT_FALSE(Exists(Repository("Orphan")));
    EXPECT_TRUE(Exists(Repository("Installing_")));
    EXPECT_TRUE(Exists(Repository("LockedHere")));
    EXPECT_NE(DiscoveryLog().find("Deleting plugin folder of plugin Orphan since corresponding manifest file is not found"),
              std::string::npos);
}

TEST_F(PluginDiscoveryTest, OddNamesInTheRepositoryCostNothingOutsideIt)
{
    const std::string outside = root_.BelowUtf8("outside");
    Write(outside + "/precious.txt", "keep me");
    fs::create_directories(Repository());
    fs::create_directory_symlink(outside, Repository("Linked"));
    fs::create_directory_symlink(outside, Repository("LinkedPlugin"));
    Write(Repository("LinkedPlugin.json"), ca_.Envelope(Document({{"LinkedPlugin", "LinkedPlugin"}})));
    RepositoryPlugin({"with space", "Space"});
    const std::string longId(200, 'x');
    RepositoryPlugin({longId, "Long"});
    Write(Repository("..json"), "dots");
    Write(Repository("no-extension"), "not a manifest");
    SignedEntry(Repository("bad\xff\xfe name"));

    const Listed listed = Discover();

    const std::vector<std::string> ids = listed.Ids();
    EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()), (std::set<std::string>{"with space", longId}));
    EXPECT_EQ(Read(outside + "/precious.txt"), "keep me");
    EXPECT_TRUE(Exists(Repository("no-extension")));
    EXPECT_FALSE(Exists(Repository("..json"))) << "a manifest without a folder goes, whatever its name";
    // Links are removed, never followed.
    EXPECT_FALSE(Exists(Repository("Linked")));
}

TEST_F(PluginDiscoveryTest, HostCopiesGoWhenNoListedPluginNameContainsTheirStem)
{
    SignedEntry(System("EmbeddedPlugins/Hello"));
    EmbeddedResource(104, Document({{"Hello", "HelloPlugin"}}));
    for (const char* name : {"Hello.exe", "HelloPlugin.exe", "Gone.exe", "Gone.exe.config", "VeqPluginHost.exe",
                             "OldVeqPluginHost.exe", "VEQPluginHost.exe", "x.e", "notes.txt"}) {
        Write(HostCopies(std::string("x64/") + name), "copy");
    }

    Discover();

    const std::pair<const char*, bool> rows[] = {
        {"Hello.exe", true},         {"HelloPlugin.exe", true},     {"Gone.exe", false},
        {"Gone.exe.config", true},   {"VeqPluginHost.exe", true},   {"OldVeqPluginHost.exe", true},
        {"VEQPluginHost.exe", false}, {"x.e", true},                {"notes.txt", true},
    };
    for (const auto& [name, kept] : rows) {
        EXPECT_EQ(Exists(HostCopies(std::string("x64/") + name)), kept) << name;
    }
}

TEST_F(PluginDiscoveryTest, OnlyTheArm64HostFolderIsTidiedWhereItExists)
{
    Write(HostCopies("x64/Gone.exe"), "copy");
    Write(HostCopies("ARM64/Gone.exe"), "copy");

    Discover();

    EXPECT_TRUE(Exists(HostCopies("x64/Gone.exe")));
    EXPECT_FALSE(Exists(HostCopies("ARM64/Gone.exe")));
}

TEST_F(PluginDiscoveryTest, HostCopiesStayUnlessAllPluginsAreLookedFor)
{
    Write(HostCopies("x64/Gone.exe"), "copy");
    SetPluginType("embedded");

    Discover();

    EXPECT_TRUE(Exists(HostCopies("x64/Gone.exe")));
}

}  // namespace
}  // namespace VEQ
