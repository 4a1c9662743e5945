#include "platform/policy/PlatformPolicy.h"

#include "platform/log/Log.h"
#include "platform/string/String.h"

namespace VEQ {
namespace {

std::wstring Member(const Json::Value& object, const char* name, Log* logger)
{
    const Json::Value& member = object[name];
    if (member.isString()) {
        return String::UTF8ToUTF16(member.asString());
    }
    if (!member.isNull() && logger != nullptr) {
        logger->w(L"%s: %s is not a string", L"VEQ::PlatformPolicy::Load", name);
    }
    return L"";
}

}  // namespace

bool PlatformPolicy::Load(const Json::Value& value)
{
    if (!value.isObject()) {
        return false;
    }
    enterprise_auth_baseuri = Member(value, "enterprise_auth_baseuri", logger_);
    consumer_auth_baseuri = Member(value, "consumer_auth_baseuri", logger_);
    api_baseuri = Member(value, "api_baseuri", logger_);
    return true;
}

}  // namespace VEQ
