#include "platform/crypto/DeviceCrypto.h"

#include "platform/crypto/BinaryText.h"
#include "platform/crypto/DeviceKey.h"
#include "platform/crypto/KeyFolder.h"
#include "platform/crypto/MachineKey.h"
#include "platform/crypto/OpenSslObjects.h"
#include "platform/crypto/RsaOaep.h"
#include "platform/log/Log.h"

#include <openssl/crypto.h>

namespace VEQ {
namespace {

constexpr int kMinimumBits = 2048;

int NoPassphrase(char*, int, int, void*)
{
    return -1;
}

}  // namespace

std::string DeviceCrypto::EncryptValueWithKey(const std::string& text, const std::string& publicKeyPem)
{
    static constexpr const wchar_t* kFunction = L"VEQ::DeviceCrypto::EncryptValueWithKey";
    const OpenSsl::Bio bio = OpenSsl::MemoryOf(publicKeyPem.data(), publicKeyPem.size());
    const OpenSsl::Key key(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, NoPassphrase, nullptr) : nullptr);
    if (!key) {
        g_log.e(L"%s: the key given is not a PEM public key: %s", kFunction,
                OpenSsl::TakeError("no PEM block found"));
        return {};
    }
    if (!EVP_PKEY_is_a(key.get(), "RSA") || EVP_PKEY_get_bits(key.get()) < kMinimumBits) {
        g_log.e(L"%s: the key given is not an RSA key of at least %d bits", kFunction, kMinimumBits);
        return {};
    }
    std::string error;
    const auto cipher = RsaOaep::Encrypt(key.get(), text, error);
    if (!cipher) {
        g_log.e(L"%s: %s", kFunction, error);
        return {};
    }
    return BinaryText::binToBase64String(*cipher);
}

std::string DeviceCrypto::DecryptValue(const std::string& base64)
{
    static constexpr const wchar_t* kFunction = L"VEQ::DeviceCrypto::DecryptValue";
    std::vector<unsigned char> cipher;
    if (!BinaryText::Base64ToBin(base64, cipher)) {
        g_log.e(L"%s: the data is not base64 (%d characters)", kFunction, static_cast<int64_t>(base64.size()));
        return {};
    }
    std::string error;
    auto plain = DeviceKey(KeyFolder::DefaultPath()).Decrypt(cipher, error);
    if (!plain) {
        g_log.e(L"%s: %s", kFunction, error);
        return {};
    }
    return std::move(*plain);
}

std::string DeviceCrypto::SignDeviceText(const std::string& text)
{
    std::string error;
    std::string signature = DeviceKey(KeyFolder::DefaultPath()).Sign(text, error);
    if (signature.empty()) {
        g_log.e(L"%s: %s", L"VEQ::DeviceCrypto::SignDeviceText", error);
    }
    return signature;
}

bool DeviceCrypto::PrepareKeys()
{
    static constexpr const wchar_t* kFunction = L"VEQ::DeviceCrypto::PrepareKeys";
    const std::wstring folder = KeyFolder::DefaultPath();
    std::string error;
    const bool device = DeviceKey(folder).Load(error) != nullptr;
    if (!device) {
        g_log.e(L"%s: no device key: %s", kFunction, error);
    }
    const bool machine = MachineKey(folder).Prepare();
    if (device && machine) {
        g_log.i(L"%s: the keys are in %s", kFunction, folder);
    }
    return device && machine;
}

}  // namespace VEQ
