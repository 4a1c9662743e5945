#include "platform/crypto/DeviceKey.h"

#include "platform/crypto/BinaryText.h"
#include "platform/crypto/KeyFolder.h"
#include "platform/crypto/RsaOaep.h"

#include <openssl/crypto.h>

namespace VEQ {
namespace {

constexpr size_t kMaxKeyFile = 16 * 1024;

using DigestContext = std::unique_ptr<EVP_MD_CTX, OpenSsl::Deleter<EVP_MD_CTX_free>>;

// Never asks a terminal for a pass phrase: our key files have none.
int NoPassphrase(char*, int, int, void*)
{
    return -1;
}

std::string TextOf(BIO* bio)
{
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return size > 0 ? std::string(data, static_cast<size_t>(size)) : std::string();
}

std::string MakePrivateKeyPem()
{
    const OpenSsl::Key key(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(DeviceKey::kBits)));
    const OpenSsl::Bio bio(BIO_new(BIO_s_secmem()));
    if (!key || !bio || PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
        ERR_clear_error();
        return {};
    }
    return TextOf(bio.get());
}

}  // namespace

DeviceKey::DeviceKey(std::wstring folder) : folder_(std::move(folder)) {}

std::string DeviceKey::PemOfPublicKey(EVP_PKEY* key)
{
    const OpenSsl::Bio bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_PUBKEY(bio.get(), key) != 1) {
        ERR_clear_error();
        return {};
    }
    return TextOf(bio.get());
}

OpenSsl::Key DeviceKey::Load(std::string& error) const
{
    const KeyFolder folder(folder_);
    auto pem = folder.LoadOrCreateSecret(kPrivateFile, kMaxKeyFile, MakePrivateKeyPem, error);
    if (!pem) {
        return nullptr;
    }
    OpenSsl::Key key;
    {
        const OpenSsl::Bio bio = OpenSsl::MemoryOf(pem->data(), pem->size());
        key.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, NoPassphrase, nullptr));
    }
    OPENSSL_cleanse(pem->data(), pem->size());
    if (!key || !EVP_PKEY_is_a(key.get(), "RSA")) {
        ERR_clear_error();
        error = "the device key file holds no RSA private key";
        return nullptr;
    }
    const std::string publicPem = PemOfPublicKey(key.get());
    std::string ignored;
    if (folder.ReadPublic(kPublicFile, kMaxKeyFile, ignored) != publicPem &&
        !folder.WritePublic(kPublicFile, publicPem, error)) {
        return nullptr;
    }
    return key;
}

std::string DeviceKey::Sign(const std::string& text, std::string& error) const
{
    const OpenSsl::Key key = Load(error);
    if (!key) {
        return {};
    }
    const DigestContext context(EVP_MD_CTX_new());
    size_t size = 0;
    const auto* data = reinterpret_cast<const unsigned char*>(text.data());
    if (!context || EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1 ||
        EVP_DigestSign(context.get(), nullptr, &size, data, text.size()) != 1) {
        error = OpenSsl::TakeError("cannot sign");
        return {};
    }
    std::vector<unsigned char> signature(size);
    if (EVP_DigestSign(context.get(), signature.data(), &size, data, text.size()) != 1) {
        error = OpenSsl::TakeError("cannot sign");
        return {};
    }
    signature.resize(size);
    return BinaryText::binToBase64String(signature);
}

std::optional<std::string> DeviceKey::Decrypt(const std::vector<unsigned char>& cipher, std::string& error) const
{
    const OpenSsl::Key key = Load(error);
    if (!key) {
        return std::nullopt;
    }
    return RsaOaep::Decrypt(key.get(), cipher, error);
}

std::string DeviceKey::PublicKeyPem(std::string& error) const
{
    const OpenSsl::Key key = Load(error);
    return key ? PemOfPublicKey(key.get()) : std::string();
}

std::optional<std::string> DeviceKey::ReadPublicKeyPem(const std::wstring& folder, std::string& error, int* errnoOut)
{
    if (errnoOut != nullptr) {
        *errnoOut = 0;
    }
    const auto text = KeyFolder(folder).ReadPublic(kPublicFile, kMaxKeyFile, error, errnoOut);
    if (!text) {
        return std::nullopt;
    }
    const OpenSsl::Bio bio = OpenSsl::MemoryOf(text->data(), text->size());
    const OpenSsl::Key key(PEM_read_bio_PUBKEY(bio.get(), nullptr, NoPassphrase, nullptr));
    if (!key) {
        ERR_clear_error();
        error = "the device's public key file holds no public key";
        return std::nullopt;
    }
    return PemOfPublicKey(key.get());
}

}  // namespace VEQ
