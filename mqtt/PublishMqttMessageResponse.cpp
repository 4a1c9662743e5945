#include "mqtt/PublishMqttMessageResponse.h"

#include "platform/log/Log.h"

#include <json/json.h>

#include <exception>
#include <sstream>

namespace VEQ {

std::string PublishMqttMessageResponse::Serialize(const PublishMqttMessageResponse& response)
{
    Json::Value root;
    root["isMqttMesssagePublished"] = response.isMqttMesssagePublished;
    root["responseCode"] = response.responseCode;
    root["responseDescription"] = response.responseDescription;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, root);
}

PublishMqttMessageResponse PublishMqttMessageResponse::Deserialize(const std::string& text)
{
    PublishMqttMessageResponse response;
    try {
        Json::Value root;
        Json::CharReaderBuilder reader;
        std::istringstream stream(text);
        std::string errors;
        if (!Json::parseFromStream(reader, stream, &root, &errors)) {
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
