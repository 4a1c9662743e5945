#include "commands/GetDecryptedDataResponse.h"

#include "broker/ReplyJson.h"

namespace VEQ {

std::string GetDecryptedDataResponse::Serialize(const GetDecryptedDataResponse& response)
{
    Json::Value root(Json::objectValue);
    root["dataBase64"] = response.dataBase64;
    root["responseCode"] = response.responseCode;
    root["responseDescription"] = response.responseDescription;
    return ReplyJson::Write(root);
}

}  // namespace VEQ
