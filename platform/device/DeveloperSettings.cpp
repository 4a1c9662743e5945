#include "platform/device/DeveloperSettings.h"

namespace VEQ {

DeveloperSettings* DeveloperSettings::GetInstance()
{
    static DeveloperSettings* instance = new DeveloperSettings();
    return instance;
}

}  // namespace VEQ
