#pragma once
// Readers for members of a policy object. A policy is written by hand, so a member of the wrong
// JSON type reads as absent instead of making a reader throw.

#include <json/json.h>

#include <string>
#include <vector>

namespace VEQ {

class PolicyText {
public:
    // A string member as wide text; empty when absent or not a string.
    static std::wstring Member(const Json::Value& object, const char* name);
    // A list of strings: the strings of an array member (other elements are skipped), or a lone
    // string member as a list of one. Empty otherwise.
    static std::vector<std::wstring> Texts(const Json::Value& object, const char* name);
    // The object elements of an array member, as written; other elements are skipped.
    static std::vector<Json::Value> Objects(const Json::Value& object, const char* name);
    // The member when it is an object, else null.
    static Json::Value Object(const Json::Value& object, const char* name);
};

}  // namespace VEQ
