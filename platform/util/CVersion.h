#pragma once
// A four-part version "a.b.c.d" as file versions are written; missing trailing parts count as 0.

#include <array>
#include <cstdint>
#include <string>

namespace VEQ {

class CVersion {
public:
    CVersion() = default;

    // Takes one to four dot-separated decimal parts, each at most 65535, nothing else around
    // them. False, leaving the version as it was, for anything else.
    bool Parse(const std::wstring& text);
    // Negative, zero or positive as this version is older than, equal to or newer than other,
    // part by part from the first.
    int CompareTo(const CVersion& other) const;
    std::wstring ToString() const;

private:
    std::array<uint32_t, 4> parts_{};
};

}  // namespace VEQ
