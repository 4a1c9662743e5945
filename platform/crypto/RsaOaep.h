#pragma once
// RSA-OAEP with SHA-256 for the hash and for MGF1, as `openssl pkeyutl -pkeyopt
// rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha256` does it, so that peers need nothing else.

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

struct evp_pkey_st;

namespace VEQ {

class RsaOaep {
public:
    // The longest text one block carries: the key's size less 66 bytes.
    static size_t MaxPlainSize(evp_pkey_st* key);
    // nullopt, with OpenSSL's reason, when key is no RSA key or plain is too long for it.
    static std::optional<std::vector<unsigned char>> Encrypt(evp_pkey_st* key, const std::string& plain,
                                                             std::string& error);
    static std::optional<std::string> Decrypt(evp_pkey_st* key, const std::vector<unsigned char>& cipher,
                                              std::string& error);
};

}  // namespace VEQ
