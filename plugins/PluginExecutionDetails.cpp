#include "plugins/PluginExecutionDetails.h"

#include "platform/string/String.h"

namespace VEQ {

PluginExecutionDetails::PluginExecutionDetails(StartupType startupTypeIn, std::list<std::wstring> appChannelsIn,
                                               std::string entryPointPath32In, std::string entryPointPath64In,
                                               std::string entryPointPathARM64In)
    : startupType(startupTypeIn),
      appChannels(std::move(appChannelsIn)),
      entryPointPath32(std::move(entryPointPath32In)),
      entryPointPath64(std::move(entryPointPath64In)),
      entryPointPathARM64(std::move(entryPointPathARM64In))
{
}

PluginExecutionDetails PluginExecutionDetails::JsonDeSerialize(const Json::Value& value)
{
    std::list<std::wstring> channels;
    const Json::Value& list = value["appChannels"];
    if (list.isArray()) {
        for (Json::ArrayIndex index = 0; index < list.size(); ++index) {
            channels.push_back(String::UTF8ToUTF16(list[index].asString()));
        }
    }
    return PluginExecutionDetails(getStartupTypeAsEnum(value["startupType"].asString()), std::move(channels),
                                  value["entry32Path"].asString(), value["entry64Path"].asString(),
                                  value["entryArm64Path"].asString());
}

StartupType PluginExecutionDetails::getStartupTypeAsEnum(std::string text)
{
    if (String::CaseInsesitiveEqual(text, std::string("Auto"))) {
        return StartupType::Auto;
    }
    if (String::CaseInsesitiveEqual(text, std::string("Event"))) {
        return StartupType::Event;
    }
    return StartupType::Auto;
}

std::wstring PluginExecutionDetails::getStartupTypeAsString() const
{
    switch (startupType) {
    case StartupType::Auto:
        return L"Auto";
    case StartupType::Event:
        return L"Event";
    }
    return L"";
}

bool PluginExecutionDetails::isValid() const
{
    return !entryPointPath32.empty() || !entryPointPath64.empty() || !entryPointPathARM64.empty();
}

}  // namespace VEQ
