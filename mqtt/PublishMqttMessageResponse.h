#pragma once

#include <string>
#include <utility>

namespace VEQ {

// The reply of "Publish-MqttMessage"; its flag has three s's, as clients know it.
// All three members are JSON strings: the flag "true" or "false", the code in decimal.
class PublishMqttMessageResponse {
public:
    std::string isMqttMesssagePublished;
    std::string responseCode;
    std::string responseDescription;

    PublishMqttMessageResponse() = default;
    PublishMqttMessageResponse(std::string flag, std::string code, std::string description)
        : isMqttMesssagePublished(std::move(flag)), responseCode(std::move(code)), responseDescription(std::move(description))
    {
    }
    PublishMqttMessageResponse(const PublishMqttMessageResponse&) = default;
    PublishMqttMessageResponse(PublishMqttMessageResponse&&) = default;
    PublishMqttMessageResponse& operator=(const PublishMqttMessageResponse&) = default;
    PublishMqttMessageResponse& operator=(PublishMqttMessageResponse&&) = default;

    static std::string Serialize(const PublishMqttMessageResponse& response);
    // For clients of the reply: text that is not JSON gives empty members.
    static PublishMqttMessageResponse Deserialize(const std::string& text);
};

}  // namespace VEQ
