#include "packages/GetPackagelistCommandResponse.h"

namespace VEQ {

std::string GetPackagelistCommandResponse::Serialize(const Json::Value& details)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    return Json::writeString(writer, details);
}

}  // namespace VEQ
