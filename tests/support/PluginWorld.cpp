#include "tests/support/PluginWorld.h"

#include "tests/support/ElfFixture.h"

#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace VEQ::Test {
namespace {

void WriteFile(const std::string& path, const std::string& content)
{
    fs::create_directories(fs::path(path).parent_path());
    const std::string temporary = path + ".new";
    std::ofstream(temporary, std::ios::binary) << content;
    fs::rename(temporary, path);
}

std::string Text(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

}  // namespace

PluginWorld::PluginWorld(std::string root) : root_(std::move(root)), ca_(root_ + "/ca", "Plugin CA")
{
    const std::string host = root_ + "/system/Service/Hosts/x64/VEQPluginHost.exe";
    fs::create_directories(fs::path(host).parent_path());
    fs::copy_file(VEQ_PLUGIN_HOST_PROGRAM, host, fs::copy_options::overwrite_existing);
    ca_.SignFile(host);
}

std::string PluginWorld::EmbeddedFolder(const std::string& id) const
{
    return root_ + "/system/EmbeddedPlugins/" + id + "/bin";
}

std::string PluginWorld::RepositoryFolder(const std::string& id) const
{
    return root_ + "/common/plugin-repository/" + id + "/bin";
}

Json::Value PluginWorld::Manifest(const TestPluginSpec& plugin)
{
    Json::Value manifest;
    manifest["pluginId"] = plugin.id;
    manifest["pluginName"] = plugin.name;
    manifest["pluginVersion"] = plugin.version.empty() ? "1.0.0.0" : plugin.version;
    const std::string entry = "\\bin\\" + plugin.name + ".dll";
    if (plugin.system) {
        manifest["system"]["entry64Path"] = entry;
    }
    if (plugin.user) {
        manifest["user"]["entry64Path"] = entry;
    }
    for (const std::string& command : plugin.commands) {
        Json::Value served;
        served["command"] = command;
        served["allowedOriginContextType"] = "any";
        served["allowedOriginType"] = "any";
        served["pluginContextType"] = "user,system";
        manifest["commands"].append(served);
    }
    return manifest;
}

void PluginWorld::InstallLibrary(const TestPluginSpec& plugin, const std::string& folder)
{
    fs::create_directories(folder);
    // The user side's plugin, running as another user, reports here.
    chmod(folder.c_str(), 0777);
    const std::string library = folder + "/" + plugin.name + ".dll";
    fs::copy_file(VEQ_TEST_PLUGIN, library, fs::copy_options::overwrite_existing);
    if (!plugin.version.empty()) {
        AddElfSections(library, {{".veq.version", plugin.version}});
    }
    ca_.SignFile(library);
}

void PluginWorld::AddEmbedded(const TestPluginSpec& plugin)
{
    std::erase_if(embedded_, [&](const TestPluginSpec& known) { return known.id == plugin.id; });
    embedded_.push_back(plugin);
    InstallLibrary(plugin, EmbeddedFolder(plugin.id));
    Json::Value document;
    document["plugins"] = Json::Value(Json::arrayValue);
    for (const TestPluginSpec& known : embedded_) {
        document["plugins"].append(Manifest(known));
    }
    WriteFile(root_ + "/system/resources/JSON/104.json", Text(document));
}

void PluginWorld::AddRepository(const TestPluginSpec& plugin)
{
    InstallLibrary(plugin, RepositoryFolder(plugin.id));
    Json::Value document;
    document["plugins"].append(Manifest(plugin));
    WriteFile(root_ + "/common/plugin-repository/" + plugin.id + ".json", ca_.Envelope(Text(document)));
}

void PluginWorld::RemoveRepository(const std::string& id)
{
    fs::remove(root_ + "/common/plugin-repository/" + id + ".json");
    fs::remove_all(root_ + "/common/plugin-repository/" + id);
}

void PluginWorld::Clear()
{
    embedded_.clear();
    fs::remove_all(root_ + "/system/EmbeddedPlugins");
    fs::remove_all(root_ + "/system/resources");
    fs::remove_all(root_ + "/common/plugin-repository");
}

Json::Value PluginWorld::PolicyDocument(const PluginPolicy& policy)
{
    Json::Value entry;
    entry["application_id"] = "Tavrin.veq";
    entry["settings"]["extension_apps"]["enablement"] = "enabled";
    entry["settings"]["extension_apps"]["ipcMethods_afunix"] = policy.sides;
    Json::Value& plugins = entry["settings"]["extension_plugins"];
    plugins["enabledPluginType"] = policy.enabledPluginType;
    plugins["controlType"] = policy.controlType;
    plugins["clients"] = policy.clients;
    Json::Value document;
    document["app_settings"].append(entry);
    return document;
}

Json::Value PluginWorld::ClientEntry(const std::string& id, const std::string& elevation, const std::string& os,
                                     const std::vector<std::string>& permissions)
{
    Json::Value client;
    client["clientId"] = id;
    client["clientElevation"] = elevation;
    client["clientOs"] = os;
    client["clientPermissions"] = Json::Value(Json::arrayValue);
    for (const std::string& permission : permissions) {
        client["clientPermissions"].append(permission);
    }
    client["clientRules"] = Json::Value(Json::arrayValue);
    return client;
}

void PluginWorld::WriteSessions(const std::string& path, int activeSession, int activeUid,
                                const std::vector<std::pair<int, int>>& sessions)
{
    Json::Value document(Json::objectValue);
    if (activeSession >= 0) {
        document["sessionId"] = activeSession;
        document["uid"] = activeUid;
    }
    document["sessions"] = Json::Value(Json::arrayValue);
    for (const auto& [session, uid] : sessions) {
        Json::Value entry;
        entry["sessionId"] = session;
        entry["uid"] = uid;
        document["sessions"].append(entry);
    }
    WriteFile(path, Text(document));
}

}  // namespace VEQ::Test
