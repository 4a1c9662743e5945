#include "platform/crypto/BinaryText.h"

#include <openssl/evp.h>

#include <array>
#include <climits>

namespace VEQ {
namespace {

constexpr int kInvalid = -1;
constexpr int kPad = -2;

constexpr std::array<int, 256> DecodingTable()
{
    std::array<int, 256> table{};
    for (int& entry : table) {
        entry = kInvalid;
    }
    constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (size_t n = 0; n < alphabet.size(); ++n) {
        table[static_cast<unsigned char>(alphabet[n])] = static_cast<int>(n);
    }
    table['='] = kPad;
    return table;
}

constexpr std::array<int, 256> kDecoding = DecodingTable();

}  // namespace

std::string BinaryText::binToBase64String(const unsigned char* data, size_t length)
{
    if (length == 0 || length > static_cast<size_t>(INT_MAX / 4 * 3)) {
        return {};
    }
    std::string text(4 * ((length + 2) / 3) + 1, '\0');  // EVP_EncodeBlock ends with a NUL
    const int written =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), data, static_cast<int>(length));
    text.resize(written > 0 ? static_cast<size_t>(written) : 0);
    return text;
}

std::string BinaryText::binToBase64String(const std::vector<unsigned char>& data)
{
    return binToBase64String(data.data(), data.size());
}

bool BinaryText::Base64ToBin(std::string_view text, std::vector<unsigned char>& data)
{
    data.clear();
    if (text.size() % 4 != 0) {
        return false;
    }
    data.reserve(text.size() / 4 * 3);
    for (size_t group = 0; group < text.size(); group += 4) {
        const bool last = group + 4 == text.size();
        int values[4];
        int padding = 0;
        for (size_t n = 0; n < 4; ++n) {
            values[n] = kDecoding[static_cast<unsigned char>(text[group + n])];
            if (values[n] == kInvalid) {
                data.clear();
                return false;
            }
            if (values[n] == kPad) {
                ++padding;
                values[n] = 0;
            } else if (padding > 0) {  // a character after '='
                data.clear();
                return false;
            }
        }
        // '=' only at the very end, at most two, and never leaving bits that no byte holds.
        if ((padding > 0 && !last) || padding > 2 || (padding == 2 && (values[1] & 0x0F) != 0) ||
            (padding == 1 && (values[2] & 0x03) != 0)) {
            data.clear();
            return false;
        }
        const unsigned bits = (static_cast<unsigned>(values[0]) << 18) | (static_cast<unsigned>(values[1]) << 12) |
                              (static_cast<unsigned>(values[2]) << 6) | static_cast<unsigned>(values[3]);
        data.push_back(static_cast<unsigned char>(bits >> 16));
        if (padding < 2) {
            data.push_back(static_cast<unsigned char>(bits >> 8));
        }
        if (padding < 1) {
            data.push_back(static_cast<unsigned char>(bits));
        }
    }
    return true;
}

std::string BinaryText::Base64ToHexString(const std::wstring& base64)
{
    std::string narrow;
    narrow.reserve(base64.size());
    for (const wchar_t c : base64) {
        if (c > 0x7F) {
            return {};
        }
        narrow.push_back(static_cast<char>(c));
    }
    std::vector<unsigned char> data;
    if (!Base64ToBin(narrow, data)) {
        return {};
    }
    return BinToHexString(data.data(), data.size());
}

std::string BinaryText::BinToHexString(const unsigned char* data, size_t length)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(length * 2);
    for (size_t n = 0; n < length; ++n) {
        text.push_back(kDigits[data[n] >> 4]);
        text.push_back(kDigits[data[n] & 0x0F]);
    }
    return text;
}

}  // namespace VEQ
