#pragma once
// One plugin's manifest, as read from a manifest document (docs/plugins.md). Pure data: reading
// it checks nothing on disk.

#include "plugins/PluginCommand.h"
#include "plugins/PluginExecutionDetails.h"
#include "plugins/RuntimeType.h"

#include <json/json.h>

#include <list>
#include <string>

namespace VEQ {

class PluginManifest {
public:
    PluginManifest() = default;
    PluginManifest(std::string pluginName, std::wstring pluginId, RuntimeType runtimeType, std::string pluginVersion,
                   std::list<PluginCommand> commands, PluginExecutionDetails user, PluginExecutionDetails system,
                   std::wstring updateStrategy);
    virtual ~PluginManifest() = default;
    PluginManifest(const PluginManifest&) = default;
    PluginManifest& operator=(const PluginManifest&) = default;

    // No member is required; missing ones read as empty. Members JSON cannot turn into text, and
    // blocks or commands that are not objects, throw the JSON library's exception.
    static PluginManifest JsonDeSerialize(const Json::Value& value);
    // "Dotnet5" in any letter case is Dotnet5; anything else, the empty text included, is Unmanaged.
    static RuntimeType getRuntimeTypeAsEnum(std::string text);

    const std::string& getPluginName() const { return pluginName; }
    const std::wstring& getPluginId() const { return pluginId; }
    const std::string& getPluginVersion() const { return pluginVersion; }
    RuntimeType getRuntimeType() const { return runtimeType; }
    // "Unmanaged", "Dotnet5", or empty for any other value.
    std::wstring getRuntimeTypeAsString() const;
    const std::wstring& getUpdateStrategy() const { return updateStrategy; }
    const std::list<PluginCommand>& getCommands() const { return commands; }
    PluginExecutionDetails getUser() const { return user; }
    PluginExecutionDetails getSystem() const { return system; }

    void setPluginName(const std::string& value) { pluginName = value; }
    void setPluginId(const std::wstring& value) { pluginId = value; }
    void setPluginVersion(const std::string& value) { pluginVersion = value; }
    void setRuntimeType(RuntimeType value) { runtimeType = value; }
    void setUpdateStrategy(const std::wstring& value) { updateStrategy = value; }
    void setUser(const PluginExecutionDetails& value) { user = value; }
    void setSystem(const PluginExecutionDetails& value) { system = value; }

    // Which contexts the plugin can run in: those whose block is valid.
    void GetPluginMode(bool& userMode, bool& systemMode) const;

private:
    std::string pluginName;
    std::wstring pluginId;
    RuntimeType runtimeType = RuntimeType::Unmanaged;
    std::string pluginVersion;
    PluginExecutionDetails user;
    PluginExecutionDetails system;
    std::list<PluginCommand> commands;
    std::wstring updateStrategy;
};

}  // namespace VEQ
