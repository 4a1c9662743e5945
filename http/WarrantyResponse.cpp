#include "http/WarrantyResponse.h"

#include "broker/ReplyJson.h"

namespace VEQ {

std::string WarrantyResponse::Serialize(const WarrantyResponse& response)
{
    Json::Value root(Json::objectValue);
    root["httpResponseCode"] = response.httpResponseCode;
    root["httpResponseBody"] = response.httpResponseBody;
    root["warrantyCommandResponseCode"] = response.warrantyCommandResponseCode;
    root["expirationDate"] = response.expirationDate;
    root["swiftTuneExpirationDate"] = response.swiftTuneExpirationDate;
    root["guardLatchExpirationDate"] = response.guardLatchExpirationDate;
    return ReplyJson::Write(root);
}

}  // namespace VEQ
