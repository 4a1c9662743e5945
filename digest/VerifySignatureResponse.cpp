#include "digest/VerifySignatureResponse.h"

#include "broker/ReplyJson.h"

#include <exception>

namespace VEQ {

std::string VerifySignatureResponse::Serialize(const VerifySignatureResponse& response)
{
    Json::Value root(Json::objectValue);
    root["isSigned"] = response.isSigned;
    root["responseCode"] = response.responseCode;
    root["responseDescription"] = response.responseDescription;
    return ReplyJson::Write(root);
}

VerifySignatureResponse VerifySignatureResponse::Deserialize(const std::string& text, Log* log)
{
    VerifySignatureResponse response;
    try {
        Json::Value root;
        if (!ReplyJson::Parse(text, root) || !root.isObject()) {
            return response;
        }
        response.isSigned = root["isSigned"].asString();
        response.responseCode = root["responseCode"].asString();
        response.responseDescription = root["responseDescription"].asString();
    } catch (const std::exception& error) {
        if (log != nullptr) {
            log->e(L"%s: catch exception: %s", L"VEQ::VerifySignatureResponse::Deserialize", error.what());
        }
    }
    return response;
}

}  // namespace VEQ
