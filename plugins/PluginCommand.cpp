#include "plugins/PluginCommand.h"

#include "platform/string/String.h"

namespace VEQ {

PluginCommand::PluginCommand(std::wstring commandIn, std::wstring allowedOriginContextTypeIn,
                             std::wstring allowedOriginTypeIn, std::wstring pluginContextTypeIn)
    : command(std::move(commandIn)),
      allowedOriginContextType(std::move(allowedOriginContextTypeIn)),
      allowedOriginType(std::move(allowedOriginTypeIn)),
      pluginContextType(std::move(pluginContextTypeIn))
{
}

void PluginCommand::JsonDeSerialize(const Json::Value& value, std::list<PluginCommand>& commands)
{
    if (!value.isArray() || value.size() == 0) {
        return;
    }
    for (Json::ArrayIndex index = 0; index < value.size(); ++index) {
        PluginCommand command;
        DeSerializeCommand(value[index], command);
        commands.push_back(std::move(command));
    }
}

void PluginCommand::DeSerializeCommand(const Json::Value& value, PluginCommand& command)
{
    command.command = String::UTF8ToUTF16(value["command"].asString());
    command.allowedOriginContextType = String::UTF8ToUTF16(value["allowedOriginContextType"].asString());
    command.allowedOriginType = String::UTF8ToUTF16(value["allowedOriginType"].asString());
    command.pluginContextType = String::UTF8ToUTF16(value["pluginContextType"].asString());
}

void PluginCommand::GetPluginMode(bool& user, bool& system) const
{
    user = pluginContextType.find(L"user") != std::wstring::npos;
    system = pluginContextType.find(L"system") != std::wstring::npos;
}

}  // namespace VEQ
