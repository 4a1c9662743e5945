#include "commands/GetDeviceConfigResponse.h"

#include <json/json.h>

namespace VEQ {

std::string GetDeviceConfigResponse::Serialize(const GetDeviceConfigResponse& response)
{
    Json::Value root;
    root["configPolicy"] = response.configPolicy;
    if (!response.responseCode.empty() && !response.responseDescription.empty()) {
        // The code stays text: clients compare it as a string.
        root["refreshConfig"]["responseCode"] = response.responseCode;
        root["refreshConfig"]["responseDescription"] = response.responseDescription;
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, root);
}

}  // namespace VEQ
