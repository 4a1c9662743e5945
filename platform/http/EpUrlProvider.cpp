#include "platform/http/EpUrlProvider.h"

#include "platform/agents/AgentFactory.h"
#include "platform/policy/IConfigAgent.h"
#include "platform/string/String.h"

#include <json/json.h>

#include <memory>
#include <sstream>

namespace VEQ {
namespace {

// The policy's member of "platform_policy"; empty when the policy has none, or no policy is in force.
std::wstring PolicyMember(const char* name)
{
    const std::shared_ptr<IConfigAgent> agent = AgentFactory::GetInstance()->GetConfigPolicyAgent();
    if (agent == nullptr) {
        return {};
    }
    const std::wstring text = agent->GetConfigPolicy();
    if (text.empty()) {
        return {};
    }
    Json::CharReaderBuilder reader;
    Json::Value document;
    std::string errors;
    std::istringstream stream(String::UTF16ToUTF8(text));
    try {
        if (!Json::parseFromStream(reader, stream, &document, &errors) || !document.isObject()) {
            return {};
        }
    } catch (const Json::Exception&) {
        return {};
    }
    const Json::Value& platform = document["platform_policy"];
    if (!platform.isObject() || !platform[name].isString()) {
        return {};
    }
    return String::UTF8ToUTF16(platform[name].asString());
}

}  // namespace

EpUrlProvider* EpUrlProvider::GetInstance()
{
    static EpUrlProvider* instance = new EpUrlProvider();
    return instance;
}

int EpUrlProvider::GetRealm(std::wstring& realm)
{
    std::lock_guard<std::mutex> lock(mutex_);
    realm = realm_;
    return realm_.empty() ? kNotSet : kOk;
}

void EpUrlProvider::SetRealm(const std::wstring& realm)
{
    std::lock_guard<std::mutex> lock(mutex_);
    realm_ = realm;
}

int EpUrlProvider::GetApiMtlsBaseUri(std::wstring& uri)
{
    uri = PolicyMember(kPolicyApiMtlsBaseUri);
    if (uri.empty()) {
        std::lock_guard<std::mutex> lock(mutex_);
        uri = endpoints_.apiMtlsBaseUri;
    }
    return uri.empty() ? kNotSet : kOk;
}

void EpUrlProvider::SetEndpoints(const Endpoints& endpoints)
{
    std::lock_guard<std::mutex> lock(mutex_);
    endpoints_ = endpoints;
}

}  // namespace VEQ
