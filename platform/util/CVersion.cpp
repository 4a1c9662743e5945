#include "platform/util/CVersion.h"

namespace VEQ {

bool CVersion::Parse(const std::wstring& /*text*/)
{
    return false;
}

int CVersion::CompareTo(const CVersion& /*other*/) const
{
    return 0;
}

std::wstring CVersion::ToString() const
{
    return L"";
}

}  // namespace VEQ
