#include "commands/GetVeqTagsCommandResponse.h"

#include "broker/ReplyJson.h"
#include "platform/log/Log.h"
#include "platform/string/String.h"

#include <json/json.h>

#include <exception>

namespace VEQ {

std::string GetVeqTagsCommandResponse::Serialize(const GetVeqTagsCommandResponse& response)
{
    Json::Value root;  // stays null without tags, so clients read null rather than {}
    for (const VEQTag& tag : response.tags) {
        root[String::UTF16ToUTF8(tag.getKey())] = String::UTF16ToUTF8(tag.getValue());
    }
    return ReplyJson::Write(root);
}

GetVeqTagsCommandResponse GetVeqTagsCommandResponse::Deserialize(const std::string& text)
{
    GetVeqTagsCommandResponse response;
    try {
        Json::Value root;
        if (!ReplyJson::Parse(text, root)) {
            return response;
        }
        for (auto member = root.begin(); member != root.end(); ++member) {
            VEQTag tag;
            tag.setKey(String::UTF8ToUTF16(member.name()));
            tag.setValue(String::UTF8ToUTF16(member->asString()));
            response.tags.push_back(std::move(tag));
        }
    } catch (const std::exception& error) {
        g_log.e(L"%s: catch exception: %s", L"VEQ::GetVeqTagsCommandResponse::Deserialize", error.what());
    }
    return response;
}

}  // namespace VEQ
