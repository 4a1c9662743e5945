#pragma once
// Which code and which signed documents the service trusts (docs/signing.md). Paths are paths
// on disk (PathMapper has already run). No operation throws.

#include "platform/crypto/SignatureCheckResult.h"

#include <string>

namespace VEQ {

class ICodeTrust {
public:
    virtual ~ICodeTrust() = default;

    // A file that ends in a detached CMS signature over the bytes before it, and the trailer
    // that gives the signature's length. Valid when the signer chains to a trust anchor.
    virtual SignatureCheckResult VerifyFile(const std::string& path) = 0;

    // A document wrapped in a CMS SignedData envelope (PEM or DER) that encapsulates it.
    // strict: the signer must chain to a trust anchor. Not strict: the content is taken without
    // verifying, and a plain document that is no envelope at all is taken as it is.
    virtual SignatureCheckResult DecodeSignedContent(const std::string& encoded, std::string& decoded,
                                                     bool strict) = 0;
};

}  // namespace VEQ
