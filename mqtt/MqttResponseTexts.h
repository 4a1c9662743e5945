#pragma once
// The outcome texts that the MQTT commands put in their replies, shared by the three of them.

namespace VEQ::MqttResponseTexts {

inline constexpr const char* kTrue = "true";
inline constexpr const char* kFalse = "false";
inline constexpr const char* kSuccess = "Success";
inline constexpr const char* kNotAllowed = "Not allowed by VEQ config policy";
inline constexpr const char* kUnableToAccess = "Unable to access VEQ MQTT features";
// Spelt so on the wire; clients compare it.
inline constexpr const char* kNotConnected = "MQTT did not connect sucessfully";

}  // namespace VEQ::MqttResponseTexts
