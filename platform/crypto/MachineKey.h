#pragma once
// The machine key: 32 random bytes in <key folder>/machine.key (0600), created on first use,
// under which data is protected for this machine and the service's user alone. What it
// protects reads as
//     0x01 | 12-byte nonce | AES-256-GCM cipher bytes | 16-byte tag
// with "veq machine-bound data v1" authenticated along, so that nothing else sealed with GCM
// passes for it. Whoever holds the key file can open the data: it never leaves the folder.

#include <string>
#include <vector>

namespace VEQ {

class MachineKey {
public:
    static constexpr const char* kFile = "machine.key";
    static constexpr size_t kKeySize = 32;

    explicit MachineKey(std::wstring folder);

    // Creates the key when there is none; false, logged, when the key file is refused.
    bool Prepare() const;
    bool Protect(const std::vector<unsigned char>& data, std::vector<unsigned char>& protectedData) const;
    // False for data not protected with this machine's key, or altered.
    bool Unprotect(const std::vector<unsigned char>& protectedData, std::vector<unsigned char>& data) const;

private:
    // The key bytes; empty, logged, when there is no usable key.
    std::vector<unsigned char> Load(const wchar_t* function) const;

    std::wstring folder_;
};

}  // namespace VEQ
