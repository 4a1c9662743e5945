#pragma once

#include "platform/bus/VEQNotificationData.h"

#include <json/json.h>

#include <cstdint>
#include <string>

namespace VEQ {

// The alerts that the service and its plugins send to the back end on the topic "alert". The
// payload is one line of JSON whose "type" tells the two kinds apart (docs/mqtt.md):
//   {"type":"notify","notify":"<name>","param":<any JSON>,"time":"<UTC, RFC 3339>"}
//   {"type":"deviceActionState","action":"<action>","state":<n>,"message":"...","detail":"...","time":"..."}
class NotificationAlertUtility {
public:
    static constexpr const wchar_t* kAlertTopic = L"alert";
    static constexpr const wchar_t* kMessageType = L"alert";

    // A plugin's notification: its name and its parameter, which is kept as the JSON value it is.
    static bool ConstructZCPPayload(const std::wstring& notify, const Json::Value& param, VEQNotificationData& data);
    // The outcome of an action the back end asked the device for.
    static bool ConstructZCPPayloadForDeviceActionState(int32_t state, const std::wstring& action,
                                                        const std::wstring& message, const std::wstring& detail,
                                                        VEQNotificationData& data);
};

}  // namespace VEQ
