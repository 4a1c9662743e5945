#pragma once

#include <string>
#include <utility>

namespace VEQ {

// The reply of "Disable-MqttConnection".
// All three members are JSON strings: the flag "true" or "false", the code in decimal.
class DisableMqttConnectionCommandResponse {
public:
    std::string isMqttDisabled;
    std::string responseCode;
    std::string responseDescription;

    DisableMqttConnectionCommandResponse() = default;
    DisableMqttConnectionCommandResponse(std::string flag, std::string code, std::string description)
        : isMqttDisabled(std::move(flag)), responseCode(std::move(code)), responseDescription(std::move(description))
    {
    }
    DisableMqttConnectionCommandResponse(const DisableMqttConnectionCommandResponse&) = default;
    DisableMqttConnectionCommandResponse(DisableMqttConnectionCommandResponse&&) = default;
    DisableMqttConnectionCommandResponse& operator=(const DisableMqttConnectionCommandResponse&) = default;
    DisableMqttConnectionCommandResponse& operator=(DisableMqttConnectionCommandResponse&&) = default;

    static std::string Serialize(const DisableMqttConnectionCommandResponse& response);
    // For clients of the reply: text that is not JSON gives empty members.
    static DisableMqttConnectionCommandResponse Deserialize(const std::string& text);
};

}  // namespace VEQ
