// Feeds bytes to the readers of signed things: the trailer of a signed file, the verification of
// a file ending in those bytes, and signed envelopes, strictly and not. Nothing may crash, leak
// or read outside its input.

#include "platform/crypto/OpenSslCodeTrust.h"
#include "platform/crypto/SignatureTrailer.h"

#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

std::string& ScratchFile()
{
    static std::string path = [] {
        std::string pattern = "/tmp/veq-signature-fuzz-XXXXXX";
        const int fd = mkstemp(pattern.data());
        if (fd < 0) {
            std::abort();
        }
        close(fd);
        return pattern;
    }();
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    uint64_t contentLength = 0;
    uint64_t signatureLength = 0;
    std::string reason;
    if (size >= VEQ::SignatureTrailer::kSize) {
        VEQ::SignatureTrailer::Read(size, std::string_view(bytes).substr(size - VEQ::SignatureTrailer::kSize),
                                    contentLength, signatureLength, reason);
    }
    // A CA that cannot be read stops strict checks before OpenSSL verifies; the system bundle
    // lets them run to the end.
    static VEQ::OpenSslCodeTrust trust(std::string("/etc/ssl/certs/ca-certificates.crt"));
    const int fd = open(ScratchFile().c_str(), O_WRONLY | O_TRUNC);
    if (fd >= 0) {
        (void)!write(fd, data, size);
        close(fd);
        trust.VerifyFile(ScratchFile());
    }
    std::string decoded;
    trust.DecodeSignedContent(bytes, decoded, true);
    trust.DecodeSignedContent(bytes, decoded, false);
    return 0;
}
