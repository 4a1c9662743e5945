#pragma once
// The end of a signed file (docs/signing.md):
//
//     content | signature (DER CMS SignedData, detached) | length (8 bytes, big-endian) | magic (16 bytes)
//
// The length is that of the signature. The ELF loader ignores bytes after the sections it maps,
// so signed programs and libraries run as they are, and a copy stays signed.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace VEQ {

class SignatureTrailer {
public:
    static constexpr std::string_view kMagic{"~VEQ signature~\n", 16};
    static constexpr size_t kLengthBytes = 8;
    static constexpr size_t kSize = kLengthBytes + kMagic.size();
    // No signature of ours comes near this; a larger length is a lie.
    static constexpr uint64_t kMaxSignatureBytes = 1024 * 1024;

    enum class Parse { Valid, NotSigned, Malformed };

    // Reads the trailer of a file of fileSize bytes whose last kSize bytes are tail. On Valid,
    // contentLength is where the signature starts and signatureLength its size.
    static Parse Read(uint64_t fileSize, std::string_view tail, uint64_t& contentLength, uint64_t& signatureLength,
                      std::string& reason);
    // The trailer for a signature of signatureLength bytes.
    static std::string Make(uint64_t signatureLength);
};

}  // namespace VEQ
