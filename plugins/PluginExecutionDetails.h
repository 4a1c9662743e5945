#pragma once

#include "plugins/StartupType.h"

#include <json/json.h>

#include <list>
#include <string>

namespace VEQ {

// One launch block of a manifest: how the plugin starts in a user session or in the system context.
class PluginExecutionDetails {
public:
    PluginExecutionDetails(StartupType startupType = StartupType::Auto, std::list<std::wstring> appChannels = {},
                           std::string entryPointPath32 = {}, std::string entryPointPath64 = {},
                           std::string entryPointPathARM64 = {});
    virtual ~PluginExecutionDetails() = default;
    PluginExecutionDetails(const PluginExecutionDetails&) = default;
    PluginExecutionDetails& operator=(const PluginExecutionDetails&) = default;

    // A missing member reads as empty; a member that cannot be read as text throws the JSON
    // library's exception.
    static PluginExecutionDetails JsonDeSerialize(const Json::Value& value);
    // "Event" in any letter case is Event; anything else, the empty text included, is Auto.
    static StartupType getStartupTypeAsEnum(std::string text);

    StartupType getStartupType() const { return startupType; }
    // "Auto", "Event", or empty for any other value.
    std::wstring getStartupTypeAsString() const;
    const std::list<std::wstring>& getAppChannels() const { return appChannels; }
    const std::string& getEntryPointPath32() const { return entryPointPath32; }
    const std::string& getEntryPointPath64() const { return entryPointPath64; }
    const std::string& getEntryPointPathARM64() const { return entryPointPathARM64; }
    void setStartupType(StartupType value) { startupType = value; }
    void setAppChannel(const std::list<std::wstring>& value) { appChannels = value; }
    void setEntryPointPath32(const std::string& value) { entryPointPath32 = value; }
    void setEntryPointPath64(const std::string& value) { entryPointPath64 = value; }
    void setEntryPointPathARM64(const std::string& value) { entryPointPathARM64 = value; }

    // Valid when any entry path is given, even one that is never launched.
    bool isValid() const;

private:
    StartupType startupType;
    std::list<std::wstring> appChannels;
    std::string entryPointPath32;
    std::string entryPointPath64;
    std::string entryPointPathARM64;
};

}  // namespace VEQ
