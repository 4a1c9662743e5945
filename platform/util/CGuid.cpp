#include "platform/util/CGuid.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <random>
#include <sys/random.h>

namespace VEQ::Utility {
namespace {

// getrandom draws from the kernel's pool and needs no file descriptor; it only fails on
// kernels too old to have it, where the standard library's device is the fallback.
void FillRandom(std::array<uint8_t, 16>& bytes)
{
    size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t got = getrandom(bytes.data() + filled, bytes.size() - filled, 0);
        if (got > 0) {
            filled += static_cast<size_t>(got);
        } else if (got < 0 && errno != EINTR) {
            break;
        }
    }
    if (filled < bytes.size()) {
        std::random_device device;
        for (size_t i = filled; i < bytes.size(); ++i) {
            bytes[i] = static_cast<uint8_t>(device());
        }
    }
}

}  // namespace

std::wstring CGuid::NewGuid(bool upperCase)
{
    std::array<uint8_t, 16> bytes{};
    FillRandom(bytes);
    bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant

    const wchar_t* digits = upperCase ? L"0123456789ABCDEF" : L"0123456789abcdef";
    std::wstring text;
    text.reserve(36);
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text += L'-';
        }
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

}  // namespace VEQ::Utility
