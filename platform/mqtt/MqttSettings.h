#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace VEQ {

// Where the service's MQTT connection goes and how it presents itself (the "mqtt" section of
// the host configuration, docs/veqd.md and docs/mqtt.md).
struct MqttSettings {
    std::string host;  // empty: no broker, the service runs without MQTT
    int32_t port = 1883;
    std::string clientId;  // empty: the device id
    std::string username;  // empty: no credentials are sent
    std::string password;
    int32_t keepAliveSeconds = 30;
    std::string topicRoot;  // empty: "devices/<clientId>"
    // TLS is used when caFile is set; certFile and keyFile add a client certificate.
    std::string caFile;
    std::string certFile;
    std::string keyFile;
    // After a failed attempt or a lost connection the agent waits firstReconnectDelay, then twice
    // as long after every further failure, up to maxReconnectDelay.
    std::chrono::milliseconds firstReconnectDelay{1000};
    std::chrono::milliseconds maxReconnectDelay{30000};
    // An attempt whose broker has not accepted it by then counts as failed.
    std::chrono::milliseconds connectTimeout{20000};
};

}  // namespace VEQ
