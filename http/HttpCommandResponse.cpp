#include "http/HttpCommandResponse.h"

#include "broker/ReplyJson.h"

namespace VEQ {

std::string HttpCommandResponse::Serialize(const HttpCommandResponse& response)
{
    Json::Value root(Json::objectValue);
    root["fullUrl"] = response.fullUrl;
    root["resultType"] = response.resultType;
    root["httpMethod"] = response.httpMethod;
    root["responseFile"] = response.responseFile;
    root["httpResponseCode"] = response.httpResponseCode;
    root["responseBody"] = response.responseBody;
    return ReplyJson::Write(root);
}

}  // namespace VEQ
