#include "platform/crypto/SignatureTrailer.h"

namespace VEQ {

SignatureTrailer::Parse SignatureTrailer::Read(uint64_t fileSize, std::string_view tail, uint64_t& contentLength,
                                               uint64_t& signatureLength, std::string& reason)
{
    if (fileSize < kSize || tail.size() != kSize || tail.substr(kLengthBytes) != kMagic) {
        reason = "the file carries no signature";
        return Parse::NotSigned;
    }
    uint64_t length = 0;
    for (size_t n = 0; n < kLengthBytes; ++n) {
        length = (length << 8) | static_cast<unsigned char>(tail[n]);
    }
    if (length == 0 || length > kMaxSignatureBytes || length > fileSize - kSize) {
        reason = "the signature trailer gives a length of " + std::to_string(length) + " bytes, which the file cannot hold";
        return Parse::Malformed;
    }
    signatureLength = length;
    contentLength = fileSize - kSize - length;
    return Parse::Valid;
}

std::string SignatureTrailer::Make(uint64_t signatureLength)
{
    std::string trailer(kLengthBytes, '\0');
    for (size_t n = 0; n < kLengthBytes; ++n) {
        trailer[kLengthBytes - 1 - n] = static_cast<char>((signatureLength >> (8 * n)) & 0xFF);
    }
    trailer += kMagic;
    return trailer;
}

}  // namespace VEQ
