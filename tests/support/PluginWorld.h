#pragma once
// The plugin side of a machine, made for one test below its root: a CA, the signed plugin host,
// embedded and repository plugins whose library is the test plugin (with the version given, and
// signed), and the policy and session documents that decide what runs.

#include "tests/support/TestCa.h"

#include <json/json.h>

#include <string>
#include <vector>

namespace VEQ::Test {

struct TestPluginSpec {
    std::string id;
    std::string name;                // the test plugin behaves by its name (tests/testplugin)
    std::string version = "1.0.0.0";  // embedded in its library; empty: none
    bool user = true;                // which manifest blocks it has
    bool system = true;
    std::vector<std::string> commands = {};  // served on both sides
};

// The policy's plugin fields; clients are entries made with ClientEntry.
struct PluginPolicy {
    std::string enabledPluginType = "all";
    std::string sides = "both";  // "ipcMethods_afunix"
    std::string controlType = "AllowByDefault";
    Json::Value clients = Json::Value(Json::arrayValue);
};

class PluginWorld {
public:
    // root is the service's data root; the system root is root/system, common data root/common.
    explicit PluginWorld(std::string root);

    const TestCa& Ca() const { return ca_; }
    // Adds (or replaces) an embedded plugin; the product's manifest resource lists all of them.
    void AddEmbedded(const TestPluginSpec& plugin);
    // Adds a plugin to the repository: its signed folder and its manifest in a signed envelope.
    void AddRepository(const TestPluginSpec& plugin);
    void RemoveRepository(const std::string& id);
    // Takes every plugin away, embedded and repository.
    void Clear();

    // The folder of a plugin's entry, where the test plugin writes its reports.
    std::string EmbeddedFolder(const std::string& id) const;
    std::string RepositoryFolder(const std::string& id) const;

    // The policy document with the plugin fields, apps enabled on the same sides.
    static Json::Value PolicyDocument(const PluginPolicy& policy);
    static Json::Value ClientEntry(const std::string& id, const std::string& elevation, const std::string& os = "windows",
                                   const std::vector<std::string>& permissions = {});
    // Writes the session file atomically: the active session and every logged-in one.
    static void WriteSessions(const std::string& path, int activeSession, int activeUid,
                              const std::vector<std::pair<int, int>>& sessions);

private:
    void InstallLibrary(const TestPluginSpec& plugin, const std::string& folder);
    static Json::Value Manifest(const TestPluginSpec& plugin);

    std::string root_;
    TestCa ca_;
    std::vector<TestPluginSpec> embedded_;
};

}  // namespace VEQ::Test
