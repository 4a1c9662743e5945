#include "platform/crypto/RsaOaep.h"

#include "platform/crypto/OpenSslObjects.h"

#include <openssl/rsa.h>

namespace VEQ {
namespace {

using Context = std::unique_ptr<EVP_PKEY_CTX, OpenSsl::Deleter<EVP_PKEY_CTX_free>>;

constexpr size_t kOverhead = 2 * 32 + 2;  // two SHA-256 digests and two bytes

bool UseOaep(EVP_PKEY_CTX* context)
{
    return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_OAEP_PADDING) > 0 &&
           EVP_PKEY_CTX_set_rsa_oaep_md(context, EVP_sha256()) > 0 &&
           EVP_PKEY_CTX_set_rsa_mgf1_md(context, EVP_sha256()) > 0;
}

}  // namespace

size_t RsaOaep::MaxPlainSize(EVP_PKEY* key)
{
    const int size = EVP_PKEY_get_size(key);
    return size > static_cast<int>(kOverhead) ? static_cast<size_t>(size) - kOverhead : 0;
}

std::optional<std::vector<unsigned char>> RsaOaep::Encrypt(EVP_PKEY* key, const std::string& plain, std::string& error)
{
    if (!EVP_PKEY_is_a(key, "RSA")) {
        error = "not an RSA key";
        return std::nullopt;
    }
    if (plain.size() > MaxPlainSize(key)) {
        error = "the text is longer than the key can carry (" + std::to_string(MaxPlainSize(key)) + " bytes)";
        return std::nullopt;
    }
    const Context context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    size_t size = 0;
    const auto* in = reinterpret_cast<const unsigned char*>(plain.data());
    if (!context || EVP_PKEY_encrypt_init(context.get()) <= 0 || !UseOaep(context.get()) ||
        EVP_PKEY_encrypt(context.get(), nullptr, &size, in, plain.size()) <= 0) {
        error = OpenSsl::TakeError("cannot encrypt");
        return std::nullopt;
    }
    std::vector<unsigned char> cipher(size);
    if (EVP_PKEY_encrypt(context.get(), cipher.data(), &size, in, plain.size()) <= 0) {
        error = OpenSsl::TakeError("cannot encrypt");
        return std::nullopt;
    }
    cipher.resize(size);
    return cipher;
}

std::optional<std::string> RsaOaep::Decrypt(EVP_PKEY* key, const std::vector<unsigned char>& cipher, std::string& error)
{
    if (!EVP_PKEY_is_a(key, "RSA") || cipher.size() != static_cast<size_t>(EVP_PKEY_get_size(key))) {
        error = "the data is not one block for this key";
        return std::nullopt;
    }
    const Context context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    size_t size = 0;
    if (!context || EVP_PKEY_decrypt_init(context.get()) <= 0 || !UseOaep(context.get()) ||
        EVP_PKEY_decrypt(context.get(), nullptr, &size, cipher.data(), cipher.size()) <= 0) {
        error = OpenSsl::TakeError("cannot decrypt");
        return std::nullopt;
    }
    std::string plain(size, '\0');
    if (EVP_PKEY_decrypt(context.get(), reinterpret_cast<unsigned char*>(plain.data()), &size, cipher.data(),
                         cipher.size()) <= 0) {
        OPENSSL_cleanse(plain.data(), plain.size());
        // One reason for every failure: which check failed is what padding oracles feed on.
        ERR_clear_error();
        error = "the data was not encrypted to this key";
        return std::nullopt;
    }
    plain.resize(size);
    return plain;
}

}  // namespace VEQ
