#pragma once
// ICodeTrust with OpenSSL: CMS signatures verified against the PEM bundle named by
// PlatformSettings::trustCaFile, read again for each check so that a changed bundle applies.

#include "platform/crypto/ICodeTrust.h"

namespace VEQ {

class OpenSslCodeTrust : public ICodeTrust {
public:
    SignatureCheckResult VerifyFile(const std::string& path) override;
    SignatureCheckResult DecodeSignedContent(const std::string& encoded, std::string& decoded, bool strict) override;
};

}  // namespace VEQ
