#include "digest/RegistryAndDigestResponse.h"

#include "broker/ReplyJson.h"

namespace VEQ {

std::string RegistryAndDigestResponse::Serialize(const RegistryAndDigestResponse& response)
{
    Json::Value root(Json::objectValue);
    root["cachedDigestAndRegDeleted"] = response.cachedDigestAndRegDeleted;
    root["hashUpdated"] = response.hashUpdated;
    return ReplyJson::Write(root);
}

}  // namespace VEQ
