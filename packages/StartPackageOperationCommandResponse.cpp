#include "packages/StartPackageOperationCommandResponse.h"

#include "broker/ReplyJson.h"

#include <json/json.h>

namespace VEQ {

std::string StartPackageOperationCommandResponse::Serialize(const StartPackageOperationCommandResponse& response)
{
    Json::Value root(Json::objectValue);
    root["requestId"] = response.requestId;
    root["packageId"] = response.packageId;
    root["result"] = response.result;
    return ReplyJson::Write(root);
}

}  // namespace VEQ
