#include "platform/crypto/CertificateValidationWrapper.h"

#include "platform/Platform.h"
#include "platform/crypto/ICodeTrust.h"
#include "platform/fs/PathMapper.h"
#include "platform/log/Log.h"

namespace VEQ {

bool CertificateValidationWrapper::IsFileValid(const std::wstring& path)
{
    const SignatureCheckResult result = Platform::CodeTrust()->VerifyFile(PathMapper::ToNativeUtf8(path));
    if (!result.isValid) {
        g_log.e(L"%s: refused (%d): %s", L"VEQ::CertificateValidationWrapper::IsFileValid", result.status,
                result.message);
    }
    return result.isValid;
}

}  // namespace VEQ
