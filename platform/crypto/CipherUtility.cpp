#include "platform/crypto/CipherUtility.h"

#include "platform/crypto/KeyFolder.h"
#include "platform/crypto/MachineKey.h"
#include "platform/crypto/OpenSslObjects.h"

#include <openssl/rand.h>

#include <climits>
#include <stdexcept>

namespace VEQ {
namespace {

using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, OpenSsl::Deleter<EVP_CIPHER_CTX_free>>;

constexpr int kTagSize = 16;

const EVP_CIPHER* GcmFor(size_t keySize)
{
    switch (keySize) {
    case 16:
        return EVP_aes_128_gcm();
    case 24:
        return EVP_aes_192_gcm();
    case 32:
        return EVP_aes_256_gcm();
    default:
        return nullptr;
    }
}

// Sets up ctx for key and iv in the given direction; false when they do not fit.
bool Begin(EVP_CIPHER_CTX* context, bool encrypt, const std::vector<unsigned char>& key,
           const std::vector<unsigned char>& iv, const std::string& aad)
{
    const EVP_CIPHER* cipher = GcmFor(key.size());
    int ignored = 0;
    return cipher != nullptr && !iv.empty() && iv.size() <= 128 && aad.size() <= INT_MAX &&
           EVP_CipherInit_ex(context, cipher, nullptr, nullptr, nullptr, encrypt ? 1 : 0) == 1 &&
           EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(iv.size()), nullptr) == 1 &&
           EVP_CipherInit_ex(context, nullptr, nullptr, key.data(), iv.data(), encrypt ? 1 : 0) == 1 &&
           (aad.empty() || EVP_CipherUpdate(context, nullptr, &ignored,
                                            reinterpret_cast<const unsigned char*>(aad.data()),
                                            static_cast<int>(aad.size())) == 1);
}

}  // namespace

std::string CipherUtility::GenRandom(size_t length)
{
    std::string bytes(length, '\0');
    if (length > INT_MAX || RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(length)) != 1) {
        ERR_clear_error();
        throw std::runtime_error("no random bytes to be had");
    }
    return bytes;
}

std::vector<unsigned char> CipherUtility::EVP_GCM_Encrypt(const std::string& plainText,
                                                          const std::vector<unsigned char>& key,
                                                          const std::vector<unsigned char>& iv,
                                                          std::vector<unsigned char>& tag, const std::string& aad)
{
    tag.clear();
    const CipherContext context(EVP_CIPHER_CTX_new());
    if (!context || plainText.size() > INT_MAX - kTagSize || !Begin(context.get(), true, key, iv, aad)) {
        ERR_clear_error();
        return {};
    }
    std::vector<unsigned char> cipher(plainText.size() + kTagSize);
    int written = 0;
    int final = 0;
    std::vector<unsigned char> newTag(kTagSize);
    if (EVP_EncryptUpdate(context.get(), cipher.data(), &written, reinterpret_cast<const unsigned char*>(plainText.data()),
                          static_cast<int>(plainText.size())) != 1 ||
        EVP_EncryptFinal_ex(context.get(), cipher.data() + written, &final) != 1 ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, kTagSize, newTag.data()) != 1) {
        ERR_clear_error();
        return {};
    }
    cipher.resize(static_cast<size_t>(written + final));
    tag = std::move(newTag);
    return cipher;
}

bool CipherUtility::EVP_GCM_Decrypt(const std::vector<unsigned char>& cipher, const std::vector<unsigned char>& key,
                                    const std::vector<unsigned char>& iv, const std::vector<unsigned char>& tag,
                                    std::string& plainText, const std::string& aad)
{
    plainText.clear();
    const CipherContext context(EVP_CIPHER_CTX_new());
    if (!context || tag.size() != kTagSize || cipher.size() > INT_MAX - kTagSize ||
        !Begin(context.get(), false, key, iv, aad)) {
        ERR_clear_error();
        return false;
    }
    std::string plain(cipher.size() + kTagSize, '\0');
    auto* out = reinterpret_cast<unsigned char*>(plain.data());
    int written = 0;
    int final = 0;
    std::vector<unsigned char> expected = tag;
    const bool opened =
        EVP_DecryptUpdate(context.get(), out, &written, cipher.data(), static_cast<int>(cipher.size())) == 1 &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, kTagSize, expected.data()) == 1 &&
        EVP_DecryptFinal_ex(context.get(), out + written, &final) == 1;
    ERR_clear_error();
    if (!opened) {
        OPENSSL_cleanse(plain.data(), plain.size());
        return false;
    }
    plain.resize(static_cast<size_t>(written + final));
    plainText = std::move(plain);
    return true;
}

bool CipherUtility::DPAPIEncrypt(const std::vector<unsigned char>& data, std::vector<unsigned char>& protectedData)
{
    return MachineKey(KeyFolder::DefaultPath()).Protect(data, protectedData);
}

bool CipherUtility::DPAPIDecrypt(const std::vector<unsigned char>& protectedData, std::vector<unsigned char>& data)
{
    return MachineKey(KeyFolder::DefaultPath()).Unprotect(protectedData, data);
}

}  // namespace VEQ
