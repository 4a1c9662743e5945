#pragma once
// The back end's addresses, as the configuration policy's "platform_policy" object gives them.

#include <json/json.h>

#include <string>

namespace VEQ {

class Log;

class PlatformPolicy {
public:
    // logger may be null; it only hears about members of the wrong type.
    explicit PlatformPolicy(Log* logger) : logger_(logger) {}

    // Takes the members of a "platform_policy" object. A member that is absent or not a string
    // reads as empty. False, and nothing changed, when value is not an object.
    bool Load(const Json::Value& value);

    std::wstring enterprise_auth_baseuri;
    std::wstring consumer_auth_baseuri;
    std::wstring api_baseuri;

private:
    Log* logger_;
};

}  // namespace VEQ
