#pragma once

#include "platform/policy/DeviceConfigPolicy.h"
#include "platform/policy/MqttPolicy.h"
#include "platform/policy/PlatformPolicy.h"
#include "platform/policy/PolicyRefreshStatus.h"

#include <cstdint>
#include <string>

namespace VEQ {

// The device configuration policy in force, as the module reads it.
class IConfigAgent {
public:
    virtual ~IConfigAgent() = default;
    virtual bool GetDeviceConfigPolicy(DeviceConfigPolicy& policy) = 0;
    // The whole policy document as text.
    virtual std::wstring GetConfigPolicy() = 0;
    virtual bool LoadPlatformPolicy(PlatformPolicy& policy) = 0;
    virtual bool GetMqttPolicy(MqttPolicy& policy) = 0;
    // The refresh that topic 4, state 24 on the bus asks for: -1 while it runs, then how it ended,
    // as PolicyRefreshStatus lists.
    virtual int32_t GetRefreshStatus() = 0;
};

}  // namespace VEQ
