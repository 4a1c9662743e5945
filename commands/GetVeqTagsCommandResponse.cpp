#include "commands/GetVeqTagsCommandResponse.h"

#include "platform/log/Log.h"
#include "platform/string/String.h"

#include <json/json.h>

#include <exception>
#include <sstream>

namespace VEQ {

std::string GetVeqTagsCommandResponse::Serialize(const GetVeqTagsCommandResponse& response)
{
    Json::Value root;  // stays null without tags, so clients read null rather than {}
    for (const VEQTag& tag : response.tags) {
        root[String::UTF16ToUTF8(tag.getKey())] = String::UTF16ToUTF8(tag.getValue());
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, root);
}

GetVeqTagsCommandResponse GetVeqTagsCommandResponse::Deserialize(const std::string& text)
{
    GetVeqTagsCommandResponse response;
    try {
        Json::Value root;
        Json::CharReaderBuilder reader;
        std::istringstream stream(text);
        std::string errors;
        if (!Json::parseFromStream(reader, stream, &root, &errors)) {
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
