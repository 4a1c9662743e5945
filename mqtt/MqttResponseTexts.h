#pragma once
// The outcome texts that the MQTT commands put in their replies, shared by the three of them.

#include "mqtt/ExtensionMqttBrokerResult.h"

namespace VEQ::MqttResponseTexts {

inline constexpr const char* kTrue = "true";
inline constexpr const char* kFalse = "false";
inline constexpr const char* kSuccess = "Success";
inline constexpr const char* kNotAllowed = "Not allowed by VEQ config policy";
inline constexpr const char* kUnableToAccess = "Unable to access VEQ MQTT features";
// Spelt so on the wire; clients compare it.
inline constexpr const char* kNotConnected = "MQTT did not connect sucessfully";

// The flag, code and description that an Enable or Disable reply carries for an outcome of the
// gate. A disable has no "not connected" outcome of its own: with reportsNotConnected false it
// gives empty texts like any outcome without a row.
struct ConnectionReply {
    const char* flag;
    const char* code;
    const char* description;
};

inline ConnectionReply ForConnectionOutcome(ExtensionMqttBrokerResult outcome, bool reportsNotConnected)
{
    switch (outcome) {
    case ExtensionMqttBrokerResult::Success:
        return {kTrue, "0", kSuccess};
    case ExtensionMqttBrokerResult::NotAllowed:
        return {kFalse, "1", kNotAllowed};
    case ExtensionMqttBrokerResult::UnableToAccess:
        return {kFalse, "2", kUnableToAccess};
    case ExtensionMqttBrokerResult::NotConnected:
        if (reportsNotConnected) {
            return {kFalse, "3", kNotConnected};
        }
        break;
    }
    return {kFalse, "", ""};
}

}  // namespace VEQ::MqttResponseTexts
