#include "commands/GetDeviceAccessStampResponse.h"

#include "broker/ReplyJson.h"

namespace VEQ {

std::string GetDeviceAccessStampResponse::Serialize(const GetDeviceAccessStampResponse& response)
{
    Json::Value root(Json::objectValue);
    root["deviceId"] = response.deviceId;
    root["timestamp"] = response.timestamp;
    root["stamp"] = response.stamp;
    return ReplyJson::Write(root);
}

}  // namespace VEQ
