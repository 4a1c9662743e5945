#pragma once

#include <string>

namespace Veq::Sdk {

// One event for the service's bus, as the control socket takes it (sdk/ControlProtocol.h).
struct ControlEvent {
    int topic = 0;
    int state = 0;
    std::string payload;
    // A message as if it came in from the MQTT connection: mqttTopic is its topic.
    bool extension = false;
    std::string mqttTopic;
    std::string messageType;  // optional
    std::string actionType;   // optional
};

}  // namespace Veq::Sdk
