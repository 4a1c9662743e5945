#include "commands/TestApplicabilityResponse.h"

#include "broker/ReplyJson.h"

#include <json/json.h>

namespace VEQ {

std::string TestApplicabilityResponse::Serialize(const TestApplicabilityResponse& response)
{
    Json::Value root(Json::objectValue);
    root["id"] = response.id;
    root["isApplicable"] = response.isApplicable;
    root["reason"] = response.reason;
    return ReplyJson::Write(root);
}

}  // namespace VEQ
