#pragma once

#include <json/json.h>

#include <list>
#include <string>

namespace VEQ {

// One command a plugin serves, as its manifest declares it.
class PluginCommand {
public:
    PluginCommand() = default;
    PluginCommand(std::wstring command, std::wstring allowedOriginContextType, std::wstring allowedOriginType,
                  std::wstring pluginContextType);

    // Appends one command per element of an array of command objects; anything but a non-empty
    // array adds nothing. An element that is neither an object nor null throws the JSON library's
    // exception, which ends the caller's document.
    static void JsonDeSerialize(const Json::Value& value, std::list<PluginCommand>& commands);

    const std::wstring& getCommand() const { return command; }
    const std::wstring& getAllowedOriginContextType() const { return allowedOriginContextType; }
    const std::wstring& getAllowedOriginType() const { return allowedOriginType; }
    const std::wstring& getPluginContextType() const { return pluginContextType; }
    void setCommand(const std::wstring& value) { command = value; }
    void setAllowedOriginContextType(const std::wstring& value) { allowedOriginContextType = value; }
    void setAllowedOriginType(const std::wstring& value) { allowedOriginType = value; }
    void setPluginContextType(const std::wstring& value) { pluginContextType = value; }

    // Which contexts serve this command: "user" and "system" found anywhere in pluginContextType,
    // in lower case only.
    void GetPluginMode(bool& user, bool& system) const;

private:
    static void DeSerializeCommand(const Json::Value& value, PluginCommand& command);

    std::wstring command;
    std::wstring allowedOriginContextType;
    std::wstring allowedOriginType;
    std::wstring pluginContextType;
};

}  // namespace VEQ
