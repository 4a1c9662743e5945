#include "platform/mqtt/NotificationAlertUtility.h"

#include "platform/string/String.h"

#include <chrono>
#include <ctime>

namespace VEQ {
namespace {

std::string UtcNow()
{
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm parts{};
    ::gmtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

void Fill(VEQNotificationData& data, Json::Value& payload, const std::wstring& actionType)
{
    payload["time"] = UtcNow();
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    data.setTopic(NotificationAlertUtility::kAlertTopic);
    data.setMessageType(NotificationAlertUtility::kMessageType);
    data.setActionType(actionType);
    data.setPayload(String::UTF8ToUTF16(Json::writeString(writer, payload)));
}

}  // namespace

bool NotificationAlertUtility::ConstructZCPPayload(const std::wstring& notify, const Json::Value& param,
                                                   VEQNotificationData& data)
{
    Json::Value payload(Json::objectValue);
    payload["type"] = "notify";
    payload["notify"] = String::UTF16ToUTF8(notify);
    payload["param"] = param;
    Fill(data, payload, notify);
    return true;
}

bool NotificationAlertUtility::ConstructZCPPayloadForDeviceActionState(int32_t state, const std::wstring& action,
                                                                       const std::wstring& message,
                                                                       const std::wstring& detail,
                                                                       VEQNotificationData& data)
{
    Json::Value payload(Json::objectValue);
    payload["type"] = "deviceActionState";
    payload["action"] = String::UTF16ToUTF8(action);
    payload["state"] = state;
    payload["message"] = String::UTF16ToUTF8(message);
    payload["detail"] = String::UTF16ToUTF8(detail);
    Fill(data, payload, action);
    return true;
}

}  // namespace VEQ
