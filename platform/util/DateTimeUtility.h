#pragma once
// Dates as the back end writes them, in UTC (docs/http.md, "Warranty tags").

#include <cstdint>
#include <string>

namespace VEQ {

class DateTimeUtility {
public:
    // Seconds since 1970 of an ISO 8601 date: "YYYY-MM-DD", optionally followed by "T" or a
    // blank and "hh:mm" or "hh:mm:ss", optional fractions, and an optional "Z" or "+hh:mm"/"-hh:mm"
    // offset (none: UTC). 0 for anything else, including dates that do not exist.
    static int64_t ConvertStringToTimeTMInGMT(const std::wstring& text);
    // Now, in seconds since 1970.
    static int64_t GetCurrentGmtDatetime();
    // "YYYY-MM-DD hh:mm:ss" in UTC.
    static std::string convertGMTTimeToString(int64_t seconds);
};

}  // namespace VEQ
