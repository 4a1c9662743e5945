#include "broker/ReplyJson.h"

#include <sstream>

namespace VEQ {

std::string ReplyJson::Write(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

bool ReplyJson::Parse(const std::string& text, Json::Value& value)
{
    Json::CharReaderBuilder reader;
    std::istringstream stream(text);
    std::string errors;
    return Json::parseFromStream(reader, stream, &value, &errors);
}

}  // namespace VEQ
