#pragma once

#include <string>

namespace VEQ {

// What a signature check found. status is 0 when the signature holds; otherwise one of the
// reasons below, and message says it in words for the log.
struct SignatureCheckResult {
    enum Status : int {
        kValid = 0,
        kUnreadable = 1,         // the file could not be read
        kNotSigned = 2,          // no signature trailer, or content that is no signed envelope
        kMalformed = 3,          // a trailer or envelope that does not parse, or lies about its size
        kUntrusted = 4,          // the signer does not chain to a trust anchor, or has expired
        kContentMismatch = 5,    // the signature does not cover these bytes
        kNoTrustAnchors = 6,     // no trust anchors are configured or they cannot be read
    };

    int status = kUnreadable;
    std::string message;
    bool isValid = false;
};

}  // namespace VEQ
