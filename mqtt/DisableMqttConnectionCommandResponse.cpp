#include "mqtt/DisableMqttConnectionCommandResponse.h"

#include "broker/ReplyJson.h"
#include "platform/log/Log.h"

#include <json/json.h>

#include <exception>

namespace VEQ {

std::string DisableMqttConnectionCommandResponse::Serialize(const DisableMqttConnectionCommandResponse& response)
{
    Json::Value root;
    root["isMqttDisabled"] = response.isMqttDisabled;
    root["responseCode"] = response.responseCode;
    root["responseDescription"] = response.responseDescription;
    return ReplyJson::Write(root);
}

DisableMqttConnectionCommandResponse DisableMqttConnectionCommandResponse::Deserialize(const std::string& text)
{
    DisableMqttConnectionCommandResponse response;
    try {
        Json::Value root;
        if (!ReplyJson::Parse(text, root)) {
            return response;
        }
        response.isMqttDisabled = root["isMqttDisabled"].asString();
        response.responseCode = root["responseCode"].asString();
        response.responseDescription = root["responseDescription"].asString();
    } catch (const std::exception& error) {
        g_log.e(L"%s: catch exception: %s", L"VEQ::DisableMqttConnectionCommandResponse::Deserialize", error.what());
    }
    return response;
}

}  // namespace VEQ
