#pragma once

#include "module/ElevationType.h"

#include <cstdint>

namespace VEQ {

// The process a plugin runs in.
class IPluginHostProcess {
public:
    virtual ~IPluginHostProcess() = default;
    // 0 until a process has been started.
    virtual int32_t GetProcessID() = 0;
    virtual bool IsRunning() = 0;
    virtual void Start() = 0;
    virtual void Kill() = 0;
    // The session a user-side process was started in; 0xFFFFFFFF for none.
    virtual uint32_t GetUserSessionId() = 0;
};

}  // namespace VEQ
