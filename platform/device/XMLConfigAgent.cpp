#include "platform/device/XMLConfigAgent.h"

namespace VEQ {

XMLConfigAgent& XMLConfigAgent::GetInstance(int /*unused*/)
{
    static XMLConfigAgent* instance = new XMLConfigAgent();
    return *instance;
}

}  // namespace VEQ
