#include "commands/GetPluginHostContextResponse.h"

#include "broker/ReplyJson.h"

namespace VEQ {

std::string GetPluginHostContextResponse::Serialize(const GetPluginHostContextResponse& response)
{
    Json::Value root(Json::objectValue);
    root["pluginName"] = response.pluginName;
    root["pluginId"] = response.pluginId;
    root["pluginEntryPath"] = response.pluginEntryPath;
    return ReplyJson::Write(root);
}

}  // namespace VEQ
