#include "platform/bus/VEQNotificationData.h"

#include "platform/string/String.h"

#include <json/json.h>

#include <memory>
#include <optional>

namespace VEQ {
namespace {

std::optional<Json::Value> ParseObject(const std::wstring& payload)
{
    const std::string text = String::UTF16ToUTF8(payload);
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors) || !root.isObject()) {
        return std::nullopt;
    }
    return root;
}

std::wstring MemberText(const Json::Value& object, const char* name)
{
    const Json::Value& member = object[name];
    if (member.isString() || member.isNumeric() || member.isBool()) {
        return String::UTF8ToUTF16(member.asString());
    }
    return std::wstring();
}

}  // namespace

VEQNotificationData::VEQNotificationData() = default;

VEQNotificationData::VEQNotificationData(int topicId, int eventState, const std::wstring& payload)
    : topicId_(topicId), eventState_(eventState), payload_(payload)
{
}

VEQNotificationData::VEQNotificationData(const std::wstring& topic, const std::wstring& payload,
                                         bool isExtensionNotification)
    : topic_(topic), payload_(payload), isExtensionNotification_(isExtensionNotification)
{
}

std::wstring VEQNotificationData::getFieldValue(const std::wstring& name) const
{
    const std::optional<Json::Value> root = ParseObject(payload_);
    return root ? MemberText(*root, String::UTF16ToUTF8(name).c_str()) : std::wstring();
}

bool VEQNotificationData::deserializePayloadForPackageEvent(std::wstring& packageId, std::wstring& packageType,
                                                            std::wstring& packageName, std::wstring& packageVersion,
                                                            std::wstring& installationTrigger) const
{
    const std::optional<Json::Value> root = ParseObject(payload_);
    const Json::Value empty(Json::objectValue);
    const Json::Value& object = root ? *root : empty;
    packageId = MemberText(object, "packageId");
    packageType = MemberText(object, "packageType");
    packageName = MemberText(object, "packageName");
    packageVersion = MemberText(object, "packageVersion");
    installationTrigger = MemberText(object, "installationTrigger");
    return root.has_value();
}

bool VEQNotificationData::deserializePayloadForDeviceRegistration(std::wstring& status, std::wstring& message) const
{
    const std::optional<Json::Value> root = ParseObject(payload_);
    const Json::Value empty(Json::objectValue);
    const Json::Value& object = root ? *root : empty;
    status = MemberText(object, "status");
    message = MemberText(object, "message");
    return root.has_value() && !status.empty();
}

std::wstring VEQNotificationData::constructPayloadForInvokeCommand(const std::map<std::string, std::string>& fields)
{
    Json::Value object(Json::objectValue);
    for (const auto& [name, value] : fields) {
        object[name] = value;
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    return String::UTF8ToUTF16(Json::writeString(writer, object));
}

}  // namespace VEQ
