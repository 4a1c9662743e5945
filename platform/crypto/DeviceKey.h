#pragma once
// The device's own key pair: RSA 3072, created on first use in the key folder as
// device-key.pem (PKCS#8, 0600) beside device-key.pub.pem (SubjectPublicKeyInfo, 0644).
//
// RSA because the one key must do two things with tools every back end has: verify the device's
// stamps (`openssl dgst -sha256 -verify`) and encrypt data to the device (`openssl pkeyutl`
// with OAEP). An EC key signs but cannot be encrypted to without a hybrid scheme of our own.
// Stamps are RSASSA-PKCS1-v1_5 over SHA-256 (what JOSE calls RS256); data to the device is
// RSA-OAEP with SHA-256.

#include "platform/crypto/OpenSslObjects.h"

#include <optional>
#include <string>
#include <vector>

namespace VEQ {

class DeviceKey {
public:
    static constexpr const char* kPrivateFile = "device-key.pem";
    static constexpr const char* kPublicFile = "device-key.pub.pem";
    static constexpr int kBits = 3072;

    // folder: the key folder, KeyFolder::DefaultPath() for the service.
    explicit DeviceKey(std::wstring folder);

    // The private key, created when there is none; the public file is rewritten when it is missing
    // or does not match. Null, with the reason, when the key file is refused.
    OpenSsl::Key Load(std::string& error) const;

    // Base64 of the signature over text; empty on failure.
    std::string Sign(const std::string& text, std::string& error) const;
    std::optional<std::string> Decrypt(const std::vector<unsigned char>& cipher, std::string& error) const;
    // The public key as PEM, from the private key.
    std::string PublicKeyPem(std::string& error) const;

    // The public file only, for readers that must not create a key (veqctl): checked to be a
    // public key and returned as PEM. errnoOut: why the file could not be opened, 0 otherwise.
    static std::optional<std::string> ReadPublicKeyPem(const std::wstring& folder, std::string& error,
                                                       int* errnoOut = nullptr);

    static std::string PemOfPublicKey(EVP_PKEY* key);

private:
    std::wstring folder_;
};

}  // namespace VEQ
