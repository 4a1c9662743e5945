#include "commands/VerifyCustomSettingsEnabledResponse.h"

#include <json/json.h>

namespace VEQ {

std::string VerifyCustomSettingsEnabledResponse::Serialize(const VerifyCustomSettingsEnabledResponse& response)
{
    Json::Value root;
    root["isCustomSettingEnabled"] = response.isCustomSettingEnabled;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, root);
}

}  // namespace VEQ
