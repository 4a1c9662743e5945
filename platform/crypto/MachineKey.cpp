#include "platform/crypto/MachineKey.h"

#include "platform/crypto/CipherUtility.h"
#include "platform/crypto/KeyFolder.h"
#include "platform/log/Log.h"

#include <openssl/crypto.h>

namespace VEQ {
namespace {

constexpr unsigned char kFormat = 0x01;
constexpr size_t kNonceSize = 12;
constexpr size_t kTagSize = 16;
constexpr const char* kAad = "veq machine-bound data v1";

// Wipes a key when it goes out of scope.
struct Wiped {
    std::vector<unsigned char>& bytes;
    ~Wiped() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
};

}  // namespace

MachineKey::MachineKey(std::wstring folder) : folder_(std::move(folder)) {}

std::vector<unsigned char> MachineKey::Load(const wchar_t* function) const
{
    std::string error;
    auto text = KeyFolder(folder_).LoadOrCreateSecret(
        kFile, kKeySize, [] { return CipherUtility::GenRandom(kKeySize); }, error);
    if (!text || text->size() != kKeySize) {
        g_log.e(L"%s: no machine key: %s", function, text ? "the key file is not 32 bytes" : error);
        if (text) {
            OPENSSL_cleanse(text->data(), text->size());
        }
        return {};
    }
    std::vector<unsigned char> key(text->begin(), text->end());
    OPENSSL_cleanse(text->data(), text->size());
    return key;
}

bool MachineKey::Prepare() const
{
    std::vector<unsigned char> key = Load(L"VEQ::MachineKey::Prepare");
    const Wiped wipe{key};
    return !key.empty();
}

bool MachineKey::Protect(const std::vector<unsigned char>& data, std::vector<unsigned char>& protectedData) const
{
    static constexpr const wchar_t* kFunction = L"VEQ::MachineKey::Protect";
    protectedData.clear();
    std::vector<unsigned char> key = Load(kFunction);
    const Wiped wipe{key};
    if (key.empty()) {
        return false;
    }
    const std::string nonceText = CipherUtility::GenRandom(kNonceSize);
    const std::vector<unsigned char> nonce(nonceText.begin(), nonceText.end());
    std::vector<unsigned char> tag;
    const std::string plain(data.begin(), data.end());
    const std::vector<unsigned char> cipher = CipherUtility::EVP_GCM_Encrypt(plain, key, nonce, tag, kAad);
    OPENSSL_cleanse(const_cast<char*>(plain.data()), plain.size());
    if (tag.size() != kTagSize) {
        g_log.e(L"%s: encryption failed", kFunction);
        return false;
    }
    protectedData.reserve(1 + kNonceSize + cipher.size() + kTagSize);
    protectedData.push_back(kFormat);
    protectedData.insert(protectedData.end(), nonce.begin(), nonce.end());
    protectedData.insert(protectedData.end(), cipher.begin(), cipher.end());
    protectedData.insert(protectedData.end(), tag.begin(), tag.end());
    return true;
}

bool MachineKey::Unprotect(const std::vector<unsigned char>& protectedData, std::vector<unsigned char>& data) const
{
    static constexpr const wchar_t* kFunction = L"VEQ::MachineKey::Unprotect";
    data.clear();
    if (protectedData.size() < 1 + kNonceSize + kTagSize || protectedData[0] != kFormat) {
        g_log.e(L"%s: the data is not machine-protected data", kFunction);
        return false;
    }
    std::vector<unsigned char> key = Load(kFunction);
    const Wiped wipe{key};
    if (key.empty()) {
        return false;
    }
    const auto nonceBegin = protectedData.begin() + 1;
    const auto cipherBegin = nonceBegin + kNonceSize;
    const auto tagBegin = protectedData.end() - kTagSize;
    std::string plain;
    if (!CipherUtility::EVP_GCM_Decrypt({cipherBegin, tagBegin}, key, {nonceBegin, cipherBegin},
                                        {tagBegin, protectedData.end()}, plain, kAad)) {
        g_log.e(L"%s: the data was not protected on this machine, or was altered", kFunction);
        return false;
    }
    data.assign(plain.begin(), plain.end());
    OPENSSL_cleanse(plain.data(), plain.size());
    return true;
}

}  // namespace VEQ
