#include "platform/device/DeviceInfoProvider.h"

#include "platform/Platform.h"

#include <cstring>
#include <sys/utsname.h>

namespace VEQ {

DeviceInfoProvider* DeviceInfoProvider::GetInstance()
{
    static DeviceInfoProvider* instance = new DeviceInfoProvider();
    return instance;
}

int32_t DeviceInfoProvider::GetProcessorArchitecture()
{
    const int32_t configured = Platform::Settings().processorArchitecture;
    if (configured >= 0) {
        return configured;
    }
    struct utsname names {};
    if (uname(&names) != 0) {
        return 0;
    }
    if (std::strcmp(names.machine, "aarch64") == 0 || std::strcmp(names.machine, "arm64") == 0) {
        return kArchitectureArm64;
    }
    if (std::strcmp(names.machine, "x86_64") == 0) {
        return kArchitectureX64;
    }
    return 0;
}

}  // namespace VEQ
