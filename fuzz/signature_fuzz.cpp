// Feeds bytes to the readers of signed things: the trailer of a signed file, the verification of
// a file ending in those bytes, and signed envelopes, strictly and not. Nothing may crash, leak
// or read outside its input.

#include "platform/crypto/OpenSslCodeTrust.h"
#include "platform/crypto/SignatureTrailer.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace {

// A scratch directory with a small self-signed CA, made once. Strict checks need anchors that
// load, or they stop before OpenSSL looks at the signature; one certificate loads fast.
struct Scratch {
    std::string directory;
    std::string caFile;
    std::string signedFile;

    Scratch()
    {
        std::string pattern = "/tmp/veq-signature-fuzz-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            std::abort();
        }
        directory = pattern;
        caFile = directory + "/ca.pem";
        signedFile = directory + "/file";
        EVP_PKEY* key = EVP_EC_gen("P-256");
        X509* ca = X509_new();
        if (key == nullptr || ca == nullptr) {
            std::abort();
        }
        X509_set_version(ca, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(ca), 1);
        X509_gmtime_adj(X509_getm_notBefore(ca), 0);
        X509_gmtime_adj(X509_getm_notAfter(ca), 24 * 60 * 60);
        X509_NAME_add_entry_by_txt(X509_get_subject_name(ca), "CN", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>("Fuzz CA"), -1, -1, 0);
        X509_set_issuer_name(ca, X509_get_subject_name(ca));
        X509_set_pubkey(ca, key);
        FILE* file = std::fopen(caFile.c_str(), "w");
        if (X509_sign(ca, key, EVP_sha256()) <= 0 || file == nullptr || PEM_write_X509(file, ca) != 1) {
            std::abort();
        }
        std::fclose(file);
        X509_free(ca);
        EVP_PKEY_free(key);
    }
    ~Scratch() { std::filesystem::remove_all(directory); }

    static Scratch& Get()
    {
        static Scratch scratch;
        return scratch;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const Scratch& scratch = Scratch::Get();
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    uint64_t contentLength = 0;
    uint64_t signatureLength = 0;
    std::string reason;
    if (size >= VEQ::SignatureTrailer::kSize) {
        VEQ::SignatureTrailer::Read(size, std::string_view(bytes).substr(size - VEQ::SignatureTrailer::kSize),
                                    contentLength, signatureLength, reason);
    }
    static VEQ::OpenSslCodeTrust trust(scratch.caFile);
    const int fd = open(scratch.signedFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
        (void)!write(fd, data, size);
        close(fd);
        trust.VerifyFile(scratch.signedFile);
    }
    std::string decoded;
    trust.DecodeSignedContent(bytes, decoded, true);
    trust.DecodeSignedContent(bytes, decoded, false);
    return 0;
}
