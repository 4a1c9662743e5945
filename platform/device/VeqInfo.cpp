#include "platform/device/VeqInfo.h"

#include "platform/string/String.h"

#ifndef VEQ_VERSION
#error "VEQ_VERSION must be defined by the build"
#endif

namespace VEQ {

VeqInfo* VeqInfo::GetInstance()
{
    static VeqInfo* instance = new VeqInfo();
    return instance;
}

std::wstring VeqInfo::GetVersion() const
{
    return String::UTF8ToUTF16(VEQ_VERSION);
}

std::wstring VeqInfo::GetVeqServiceVersion() const
{
    return String::UTF8ToUTF16(VEQ_VERSION);
}

}  // namespace VEQ
