#pragma once
// What the service knows of the machine's hardware.

#include <cstdint>

namespace VEQ {

class DeviceInfoProvider {
public:
    static constexpr int32_t kArchitectureX64 = 9;
    static constexpr int32_t kArchitectureArm64 = 12;

    static DeviceInfoProvider* GetInstance();

    DeviceInfoProvider(const DeviceInfoProvider&) = delete;
    DeviceInfoProvider& operator=(const DeviceInfoProvider&) = delete;
    virtual ~DeviceInfoProvider() = default;

    // The processor architecture in the numbering the service reports: 12 ARM64, 9 x64, 0 for
    // any other. The host setting plugins.processorArchitecture overrides what uname says.
    virtual int32_t GetProcessorArchitecture();

protected:
    DeviceInfoProvider() = default;
};

}  // namespace VEQ
