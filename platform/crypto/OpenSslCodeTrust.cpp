#include "platform/crypto/OpenSslCodeTrust.h"

namespace VEQ {

SignatureCheckResult OpenSslCodeTrust::VerifyFile(const std::string& /*path*/)
{
    return {SignatureCheckResult::kNotSigned, "not implemented yet", false};
}

SignatureCheckResult OpenSslCodeTrust::DecodeSignedContent(const std::string& /*encoded*/, std::string& /*decoded*/,
                                                           bool /*strict*/)
{
    return {SignatureCheckResult::kNotSigned, "not implemented yet", false};
}

}  // namespace VEQ
