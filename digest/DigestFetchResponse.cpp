#include "digest/DigestFetchResponse.h"

#include "broker/ReplyJson.h"

namespace VEQ {

std::string DigestFetchResponse::Serialize(const DigestFetchResponse& response)
{
    Json::Value root(Json::objectValue);
    root["httpResponseCode"] = response.httpResponseCode;
    root["responseBody"] = response.responseBody;
    root["httpEtagResponseCode"] = response.httpEtagResponseCode;
    root["EtagResponseBody"] = response.etagResponseBody;
    root["etagChanged"] = response.etagChanged;
    root["isMessageDigestSigned"] = response.isMessageDigestSigned;
    return ReplyJson::Write(root);
}

}  // namespace VEQ
