#pragma once

#include <json/json.h>

#include <string>

namespace VEQ {

// How reply records are written and read: one-line JSON, and a parse that leaves a failure to
// the caller's defaults.
class ReplyJson {
public:
    static std::string Write(const Json::Value& value);
    // False when text is not JSON; may throw what JsonCpp throws past its nesting limit.
    static bool Parse(const std::string& text, Json::Value& value);
};

}  // namespace VEQ
