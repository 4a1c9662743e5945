#pragma once
// ICodeTrust with OpenSSL: CMS signatures verified against a PEM bundle of trust anchors, by
// default the one PlatformSettings::trustCaFile names. The bundle is read for each check, so a
// changed bundle applies at once; checks happen when plugins are discovered and started, rarely.

#include "platform/crypto/ICodeTrust.h"

#include <optional>
#include <string>

namespace VEQ {

class OpenSslCodeTrust : public ICodeTrust {
public:
    // caFile: the bundle to trust instead of the host setting.
    explicit OpenSslCodeTrust(std::optional<std::string> caFile = std::nullopt);

    SignatureCheckResult VerifyFile(const std::string& path) override;
    SignatureCheckResult DecodeSignedContent(const std::string& encoded, std::string& decoded, bool strict) override;

    // Content larger than this is refused unread: code and manifests are far smaller.
    static constexpr uint64_t kMaxSignedFileBytes = 512ull * 1024 * 1024;
    static constexpr size_t kMaxEnvelopeBytes = 16 * 1024 * 1024;

private:
    std::string CaFile() const;

    std::optional<std::string> caFile_;
};

}  // namespace VEQ
