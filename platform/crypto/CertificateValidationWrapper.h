#pragma once
// The code-signature gate: whether a file on disk carries a signature the service trusts.

#include <string>

namespace VEQ {

class CertificateValidationWrapper {
public:
    // path as the module builds it; true only for a file whose appended signature checks out
    // against the trust anchors (docs/signing.md). Every refusal is logged with its reason.
    static bool IsFileValid(const std::wstring& path);
};

}  // namespace VEQ
