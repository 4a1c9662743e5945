#include "platform/crypto/CertificateValidationWrapper.h"

namespace VEQ {

bool CertificateValidationWrapper::IsFileValid(const std::wstring& /*path*/)
{
    return false;
}

}  // namespace VEQ
