#include "platform/policy/PolicyText.h"

#include "platform/string/String.h"

namespace VEQ {

std::wstring PolicyText::Member(const Json::Value& object, const char* name)
{
    if (!object.isObject()) {
        return {};
    }
    const Json::Value& member = object[name];
    return member.isString() ? String::UTF8ToUTF16(member.asString()) : std::wstring();
}

std::vector<std::wstring> PolicyText::Texts(const Json::Value& object, const char* name)
{
    std::vector<std::wstring> texts;
    if (!object.isObject()) {
        return texts;
    }
    const Json::Value& member = object[name];
    if (member.isString()) {
        texts.push_back(String::UTF8ToUTF16(member.asString()));
    } else if (member.isArray()) {
        for (const auto& element : member) {
            if (element.isString()) {
                texts.push_back(String::UTF8ToUTF16(element.asString()));
            }
        }
    }
    return texts;
}

std::vector<Json::Value> PolicyText::Objects(const Json::Value& object, const char* name)
{
    std::vector<Json::Value> objects;
    if (!object.isObject() || !object[name].isArray()) {
        return objects;
    }
    for (const auto& element : object[name]) {
        if (element.isObject()) {
            objects.push_back(element);
        }
    }
    return objects;
}

Json::Value PolicyText::Object(const Json::Value& object, const char* name)
{
    if (!object.isObject() || !object[name].isObject()) {
        return Json::Value();
    }
    return object[name];
}

}  // namespace VEQ
