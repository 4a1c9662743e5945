#pragma once
// Signed content of the back end (the message digest, "Verify-Signature"): a JWS in compact
// serialisation, header.payload.signature, each part base64url without padding, signed with RS256
// or ES256 (docs/digest.md). A key is a PEM public key or the base64 DER of a
// SubjectPublicKeyInfo.

#include "platform/crypto/SignatureCheckResult.h"

#include <string>
#include <vector>

namespace VEQ {

class JwsVerifier {
public:
    // The policy's member that lists the keys the back end signs content with.
    static constexpr const char* kPolicyKeysMember = "content_public_keys";
    // Larger texts are refused unread: a digest is a few kilobytes.
    static constexpr size_t kMaxTextSize = 16 * 1024 * 1024;

    // Valid when one of keys verifies the signature with the algorithm the header names. enforce
    // false (a developer setting): the outcome is reported as found, but isValid is true for any
    // text, so that a test back end can serve unsigned content.
    static SignatureCheckResult VerifyContentWithKeys(const std::string& text, const std::vector<std::wstring>& keys,
                                                      bool enforce);
    // The keys the policy document lists; none for a document that is not JSON or lists none.
    static std::vector<std::wstring> KeysFromPolicy(const std::string& policyText);
    // The payload of a JWS, decoded; empty when text is none.
    static std::string Payload(const std::string& text);

private:
    static SignatureCheckResult Check(const std::string& text, const std::vector<std::wstring>& keys);
};

}  // namespace VEQ
