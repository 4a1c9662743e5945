#pragma once
// The JSON form of the protocol's records on the socket (docs/protocol.md).

#include "platform/transport/Message.h"
#include "platform/transport/Notification.h"
#include "platform/transport/Result.h"

#include <json/json.h>

#include <optional>
#include <string>

namespace Tavrin::Veq::ClientBroker {

// Frame kinds of the notification channel.
namespace FrameType {
inline constexpr const char* kHello = "hello";
inline constexpr const char* kWelcome = "welcome";
inline constexpr const char* kNotification = "notification";
inline constexpr const char* kRequest = "request";
inline constexpr const char* kResult = "result";
}  // namespace FrameType

class WireCodec {
public:
    static Json::Value ToJson(const Notification& notification);
    static Json::Value ToJson(const Message& message);
    static Json::Value ToJson(const Result& result);

    // Each reader fills error and returns false on a member of the wrong type. Absent members keep
    // their defaults; unknown members are ignored.
    static bool FromJson(const Json::Value& value, Notification& out, std::string& error);
    static bool FromJson(const Json::Value& value, Message& out, std::string& error);
    static bool FromJson(const Json::Value& value, Result& out, std::string& error);

    // One-line JSON text; strings go out byte for byte, with only quotes, backslashes and control
    // characters escaped.
    static std::string Write(const Json::Value& value);
    // Parses one JSON object; nullopt (with error) for anything else.
    static std::optional<Json::Value> ParseObject(const std::string& text, std::string& error);

    static std::string EncodeMessage(const Message& message);
    static std::string EncodeResult(const Result& result);
    static bool DecodeMessage(const std::string& text, Message& out, std::string& error);
    static bool DecodeResult(const std::string& text, Result& out, std::string& error);
};

}  // namespace Tavrin::Veq::ClientBroker
