#include "mqtt/EnableMqttConnectionCommandResponse.h"

#include "broker/ReplyJson.h"
#include "platform/log/Log.h"

#include <json/json.h>

#include <exception>

namespace VEQ {

std::string EnableMqttConnectionCommandResponse::Serialize(const EnableMqttConnectionCommandResponse& response)
{
    Json::Value root;
    root["isMqttEnabled"] = response.isMqttEnabled;
    root["responseCode"] = response.responseCode;
    root["responseDescription"] = response.responseDescription;
    return ReplyJson::Write(root);
}

EnableMqttConnectionCommandResponse EnableMqttConnectionCommandResponse::Deserialize(const std::string& text)
{
    EnableMqttConnectionCommandResponse response;
    try {
        Json::Value root;
        if (!ReplyJson::Parse(text, root)) {
            return response;
        }
        response.isMqttEnabled = root["isMqttEnabled"].asString();
        response.responseCode = root["responseCode"].asString();
        response.responseDescription = root["responseDescription"].asString();
    } catch (const std::exception&) {
        // A reply that cannot be read gives what was read of it.
    }
    return response;
}

}  // namespace VEQ
