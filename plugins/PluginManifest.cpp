#include "plugins/PluginManifest.h"

#include "platform/string/String.h"

namespace VEQ {

PluginManifest::PluginManifest(std::string pluginNameIn, std::wstring pluginIdIn, RuntimeType runtimeTypeIn,
                               std::string pluginVersionIn, std::list<PluginCommand> commandsIn,
                               PluginExecutionDetails userIn, PluginExecutionDetails systemIn,
                               std::wstring updateStrategyIn)
    : pluginName(std::move(pluginNameIn)),
      pluginId(std::move(pluginIdIn)),
      runtimeType(runtimeTypeIn),
      pluginVersion(std::move(pluginVersionIn)),
      user(std::move(userIn)),
      system(std::move(systemIn)),
      commands(std::move(commandsIn)),
      updateStrategy(std::move(updateStrategyIn))
{
}

PluginManifest PluginManifest::JsonDeSerialize(const Json::Value& value)
{
    std::list<PluginCommand> commands;
    PluginCommand::JsonDeSerialize(value["commands"], commands);
    return PluginManifest(value["pluginName"].asString(), String::UTF8ToUTF16(value["pluginId"].asString()),
                          getRuntimeTypeAsEnum(value["runtimeType"].asString()), value["pluginVersion"].asString(),
                          std::move(commands), PluginExecutionDetails::JsonDeSerialize(value["user"]),
                          PluginExecutionDetails::JsonDeSerialize(value["system"]),
                          String::UTF8ToUTF16(value["updateStrategy"].asString()));
}

RuntimeType PluginManifest::getRuntimeTypeAsEnum(std::string text)
{
    if (String::CaseInsesitiveEqual(text, std::string("Unmanaged"))) {
        return RuntimeType::Unmanaged;
    }
    if (String::CaseInsesitiveEqual(text, std::string("Dotnet5"))) {
        return RuntimeType::Dotnet5;
    }
    return RuntimeType::Unmanaged;
}

std::wstring PluginManifest::getRuntimeTypeAsString() const
{
    switch (runtimeType) {
    case RuntimeType::Unmanaged:
        return L"Unmanaged";
    case RuntimeType::Dotnet5:
        return L"Dotnet5";
    }
    return L"";
}

void PluginManifest::GetPluginMode(bool& userMode, bool& systemMode) const
{
    userMode = user.isValid();
    systemMode = system.isValid();
}

}  // namespace VEQ
