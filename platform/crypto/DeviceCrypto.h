#pragma once
// The public-key operations that clients ask of the service: encrypting a text to a key they
// name, opening data encrypted to the device, and signing with the device key (DeviceKey).
// The keys live in KeyFolder::DefaultPath(). Failures are logged with their reason, never with
// key material or the data itself, and come back as empty text.

#include <string>

namespace VEQ {

class DeviceCrypto {
public:
    // RSA-OAEP-SHA256 of text to publicKeyPem ("-----BEGIN PUBLIC KEY-----", RSA of at least
    // 2048 bits), in base64. Empty when the key is not such a key or the text is longer than one
    // block of it carries (the key's size in bytes less 66).
    static std::string EncryptValueWithKey(const std::string& text, const std::string& publicKeyPem);
    // The text that base64 holds encrypted to the device key (RSA-OAEP-SHA256); empty when it
    // is not base64 or not encrypted to this device.
    static std::string DecryptValue(const std::string& base64);
    // Base64 of the device key's RSASSA-PKCS1-v1_5 SHA-256 signature over text; empty on failure.
    static std::string SignDeviceText(const std::string& text);

    // Creates the device key and the machine key when they are missing: for the service's start,
    // so that the public key is there to be read before the first client asks for anything.
    static bool PrepareKeys();
};

}  // namespace VEQ
