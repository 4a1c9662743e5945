#include "platform/util/CVersion.h"

namespace VEQ {

bool CVersion::Parse(const std::wstring& text)
{
    std::array<uint32_t, 4> parts{};
    size_t part = 0;
    size_t digits = 0;
    for (wchar_t c : text) {
        if (c == L'.') {
            if (digits == 0 || ++part == parts.size()) {
                return false;
            }
            digits = 0;
            continue;
        }
        if (c < L'0' || c > L'9') {
            return false;
        }
        // Checked at every digit, so that no run of digits can overflow; leading zeros are harmless.
        parts[part] = parts[part] * 10 + static_cast<uint32_t>(c - L'0');
        ++digits;
        if (parts[part] > 65535) {
            return false;
        }
    }
    if (digits == 0) {
        return false;
    }
    parts_ = parts;
    return true;
}

int CVersion::CompareTo(const CVersion& other) const
{
    for (size_t n = 0; n < parts_.size(); ++n) {
        if (parts_[n] != other.parts_[n]) {
            return parts_[n] < other.parts_[n] ? -1 : 1;
        }
    }
    return 0;
}

std::wstring CVersion::ToString() const
{
    return std::to_wstring(parts_[0]) + L"." + std::to_wstring(parts_[1]) + L"." + std::to_wstring(parts_[2]) + L"." +
           std::to_wstring(parts_[3]);
}

}  // namespace VEQ
