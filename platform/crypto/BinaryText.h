#pragma once
// Bytes as text: base64 (RFC 4648, standard alphabet, padded) and lower-case hexadecimal.
// Decoding is strict: text that is not canonical base64 is refused, never half decoded.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace VEQ {

class BinaryText {
public:
    static std::string binToBase64String(const unsigned char* data, size_t length);
    static std::string binToBase64String(const std::vector<unsigned char>& data);
    // False, and data emptied, unless text is a whole number of padded 4-character groups of the
    // standard alphabet with zero unused bits: no whitespace, no line breaks, no URL alphabet.
    static bool Base64ToBin(std::string_view text, std::vector<unsigned char>& data);
    // The bytes that base64 stands for, in hexadecimal; empty when base64 is not base64.
    static std::string Base64ToHexString(const std::wstring& base64);
    static std::string BinToHexString(const unsigned char* data, size_t length);
};

}  // namespace VEQ
