#pragma once
// Content signed as the back end signs it (docs/digest.md): a key pair made at run time, and JWS
// compact texts signed with it.

#include <memory>
#include <string>

typedef struct evp_pkey_st EVP_PKEY;

namespace VEQ::Test {

class TestJws {
public:
    enum class Algorithm { RS256, ES256 };

    explicit TestJws(Algorithm algorithm);
    ~TestJws();
    TestJws(const TestJws&) = delete;
    TestJws& operator=(const TestJws&) = delete;

    // The public key as PEM, and as base64 DER without armour.
    std::string PublicPem() const;
    std::string PublicBase64Der() const;
    // header.payload.signature; header names alg unless another header is given.
    std::string Sign(const std::string& payload, const std::string& header = {}) const;

    static std::string Base64Url(const std::string& bytes);

private:
    Algorithm algorithm_;
    EVP_PKEY* key_ = nullptr;
};

}  // namespace VEQ::Test
