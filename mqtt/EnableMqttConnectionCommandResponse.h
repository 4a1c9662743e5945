#pragma once

#include <string>
#include <utility>

namespace VEQ {

// The reply of "Enable-MqttConnection".
// All three members are JSON strings: the flag "true" or "false", the code in decimal.
class EnableMqttConnectionCommandResponse {
public:
    std::string isMqttEnabled;
    std::string responseCode;
    std::string responseDescription;

    EnableMqttConnectionCommandResponse() = default;
    EnableMqttConnectionCommandResponse(std::string flag, std::string code, std::string description)
        : isMqttEnabled(std::move(flag)), responseCode(std::move(code)), responseDescription(std::move(description))
    {
    }
    EnableMqttConnectionCommandResponse(const EnableMqttConnectionCommandResponse&) = default;
    EnableMqttConnectionCommandResponse(EnableMqttConnectionCommandResponse&&) = default;
    EnableMqttConnectionCommandResponse& operator=(const EnableMqttConnectionCommandResponse&) = default;
    EnableMqttConnectionCommandResponse& operator=(EnableMqttConnectionCommandResponse&&) = default;

    static std::string Serialize(const EnableMqttConnectionCommandResponse& response);
    // For clients of the reply: text that is not JSON gives empty members.
    static EnableMqttConnectionCommandResponse Deserialize(const std::string& text);
};

}  // namespace VEQ
