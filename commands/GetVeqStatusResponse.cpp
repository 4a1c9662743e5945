#include "commands/GetVeqStatusResponse.h"

#include <json/json.h>

namespace VEQ {

std::string GetVeqStatusResponse::Serialize(const GetVeqStatusResponse& response)
{
    Json::Value root;
    root["deviceId"] = response.deviceId;
    root["version"] = response.version;
    root["tenantName"] = response.tenantName;
    root["enterpriseAuthBaseUri"] = response.enterpriseAuthBaseUri;
    root["consumerAuthBaseUri"] = response.consumerAuthBaseUri;
    root["apiBaseUri"] = response.apiBaseUri;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, root);
}

}  // namespace VEQ
