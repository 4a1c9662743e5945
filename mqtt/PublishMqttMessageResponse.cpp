#include "mqtt/PublishMqttMessageResponse.h"

#include "broker/ReplyJson.h"
#include "platform/log/Log.h"

#include <json/json.h>

#include <exception>

namespace VEQ {

std::string PublishMqttMessageResponse::Serialize(const PublishMqttMessageResponse& response)
{
    Json::Value root;
    root["isMqttMesssagePublished"] = response.isMqttMesssagePublished;
    root["responseCode"] = response.responseCode;
    root["responseDescription"] = response.responseDescription;
    return ReplyJson::Write(root);
}

PublishMqttMessageResponse PublishMqttMessageResponse::Deserialize(const std::string& text)
{
    PublishMqttMessageResponse response;
    try {
        Json::Value root;
        if (!ReplyJson::Parse(text, root)) {
            return response;
        }
        response.isMqttMesssagePublished = root["isMqttMesssagePublished"].asString();
        response.responseCode = root["responseCode"].asString();
        response.responseDescription = root["responseDescription"].asString();
    } catch (const std::exception& error) {
        g_log.e(L"%s: catch exception:%s", L"VEQ::PublishMqttMessageResponse::Deserialize", error.what());
    }
    return response;
}

}  // namespace VEQ
