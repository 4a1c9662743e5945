#include "tests/support/TestJws.h"

#include <openssl/bio.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <stdexcept>

namespace VEQ::Test {

TestJws::TestJws(Algorithm algorithm) : algorithm_(algorithm)
{
    key_ = algorithm == Algorithm::RS256 ? EVP_RSA_gen(2048) : EVP_EC_gen("P-256");
    if (key_ == nullptr) {
        throw std::runtime_error("cannot make a test key");
    }
}

TestJws::~TestJws()
{
    EVP_PKEY_free(key_);
}

std::string TestJws::Base64Url(const std::string& bytes)
{
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                       reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    out.resize(static_cast<size_t>(length));
    while (!out.empty() && out.back() == '=') {
        out.pop_back();
    }
    for (char& c : out) {
        c = c == '+' ? '-' : c == '/' ? '_' : c;
    }
    return out;
}

std::string TestJws::PublicPem() const
{
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_PUBKEY(bio, key_);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    std::string pem(data, static_cast<size_t>(length));
    BIO_free(bio);
    return pem;
}

std::string TestJws::PublicBase64Der() const
{
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key_, &der);
    std::string bytes(reinterpret_cast<char*>(der), static_cast<size_t>(length));
    OPENSSL_free(der);
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    out.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                                   reinterpret_cast<const unsigned char*>(bytes.data()),
                                                   static_cast<int>(bytes.size()))));
    return out;
}

std::string TestJws::Sign(const std::string& payload, const std::string& header) const
{
    const std::string head = header.empty()
                                 ? std::string(R"({"alg":")") + (algorithm_ == Algorithm::RS256 ? "RS256" : "ES256") +
                                       R"(","typ":"JWT"})"
                                 : header;
    const std::string input = Base64Url(head) + "." + Base64Url(payload);
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    size_t length = 0;
    EVP_DigestSignInit(context, nullptr, EVP_sha256(), nullptr, key_);
    EVP_DigestSign(context, nullptr, &length, reinterpret_cast<const unsigned char*>(input.data()), input.size());
    std::string signature(length, '\0');
    EVP_DigestSign(context, reinterpret_cast<unsigned char*>(signature.data()), &length,
                   reinterpret_cast<const unsigned char*>(input.data()), input.size());
    EVP_MD_CTX_free(context);
    signature.resize(length);
    if (algorithm_ == Algorithm::ES256) {
        // JWS carries R || S, not OpenSSL's DER.
        const auto* bytes = reinterpret_cast<const unsigned char*>(signature.data());
        ECDSA_SIG* parsed = d2i_ECDSA_SIG(nullptr, &bytes, static_cast<long>(signature.size()));
        std::string raw(64, '\0');
        BN_bn2binpad(ECDSA_SIG_get0_r(parsed), reinterpret_cast<unsigned char*>(raw.data()), 32);
        BN_bn2binpad(ECDSA_SIG_get0_s(parsed), reinterpret_cast<unsigned char*>(raw.data()) + 32, 32);
        ECDSA_SIG_free(parsed);
        signature = raw;
    }
    return input + "." + Base64Url(signature);
}

}  // namespace VEQ::Test
