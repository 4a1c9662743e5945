#pragma once
// Random bytes, AES-GCM, and data protection bound to this machine (the Linux stand-in for
// DPAPI's machine scope: AES-256-GCM under the machine key, see MachineKey).

#include <cstddef>
#include <string>
#include <vector>

namespace VEQ {

class CipherUtility {
public:
    // length bytes from the system's random source. Throws when it has none to give.
    static std::string GenRandom(size_t length);

    // AES-GCM; the key's length picks AES-128, -192 or -256, the vector may have any non-zero
    // length (12 bytes is GCM's natural one). Fills tag with the 16-byte authentication tag and
    // returns the cipher bytes, as long as plainText. Empty, with tag empty, when key or vector
    // do not fit. aad: data authenticated along, not encrypted.
    static std::vector<unsigned char> EVP_GCM_Encrypt(const std::string& plainText,
                                                      const std::vector<unsigned char>& key,
                                                      const std::vector<unsigned char>& iv,
                                                      std::vector<unsigned char>& tag, const std::string& aad = {});
    // False when the tag does not match: wrong key, vector, tag or altered data.
    static bool EVP_GCM_Decrypt(const std::vector<unsigned char>& cipher, const std::vector<unsigned char>& key,
                                const std::vector<unsigned char>& iv, const std::vector<unsigned char>& tag,
                                std::string& plainText, const std::string& aad = {});

    // Protects data so that only the service's user on this machine opens it again: with the
    // machine key in <data root>/keys, created on first use.
    static bool DPAPIEncrypt(const std::vector<unsigned char>& data, std::vector<unsigned char>& protectedData);
    static bool DPAPIDecrypt(const std::vector<unsigned char>& protectedData, std::vector<unsigned char>& data);
};

}  // namespace VEQ
