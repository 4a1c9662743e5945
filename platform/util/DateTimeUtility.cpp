#include "platform/util/DateTimeUtility.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace VEQ {
namespace {

bool Digits(const std::wstring& text, size_t at, size_t count, int& value)
{
    if (at + count > text.size()) {
        return false;
    }
    value = 0;
    for (size_t i = at; i < at + count; ++i) {
        if (text[i] < L'0' || text[i] > L'9') {
            return false;
        }
        value = value * 10 + (text[i] - L'0');
    }
    return true;
}

// Reads "hh:mm[:ss[.fff]]" at position; moves position past it.
bool ReadTime(const std::wstring& text, size_t& position, int& hour, int& minute, int& second)
{
    if (!Digits(text, position, 2, hour) || position + 2 >= text.size() || text[position + 2] != L':' ||
        !Digits(text, position + 3, 2, minute)) {
        return false;
    }
    position += 5;
    second = 0;
    if (position < text.size() && text[position] == L':') {
        if (!Digits(text, position + 1, 2, second)) {
            return false;
        }
        position += 3;
        if (position < text.size() && text[position] == L'.') {
            ++position;
            const size_t start = position;
            while (position < text.size() && text[position] >= L'0' && text[position] <= L'9') {
                ++position;
            }
            if (position == start) {
                return false;
            }
        }
    }
    return hour < 24 && minute < 60 && second < 61;
}

// "Z", "+hh:mm", "-hh:mm" or nothing at position; the offset in seconds east of UTC.
bool ReadZone(const std::wstring& text, size_t position, int64_t& offset)
{
    offset = 0;
    if (position == text.size()) {
        return true;
    }
    if (text[position] == L'Z' && position + 1 == text.size()) {
        return true;
    }
    int hours = 0;
    int minutes = 0;
    if ((text[position] != L'+' && text[position] != L'-') || position + 6 != text.size() ||
        !Digits(text, position + 1, 2, hours) || text[position + 3] != L':' || !Digits(text, position + 4, 2, minutes) ||
        hours > 23 || minutes > 59) {
        return false;
    }
    offset = (text[position] == L'-' ? -1 : 1) * (hours * 3600 + minutes * 60);
    return true;
}

}  // namespace

int64_t DateTimeUtility::ConvertStringToTimeTMInGMT(const std::wstring& text)
{
    int year = 0;
    int month = 0;
    int day = 0;
    if (!Digits(text, 0, 4, year) || text.size() < 10 || text[4] != L'-' || !Digits(text, 5, 2, month) ||
        text[7] != L'-' || !Digits(text, 8, 2, day)) {
        return 0;
    }
    size_t position = 10;
    int hour = 0;
    int minute = 0;
    int second = 0;
    if (position < text.size() && (text[position] == L'T' || text[position] == L' ')) {
        ++position;
        if (!ReadTime(text, position, hour, minute, second)) {
            return 0;
        }
    }
    int64_t offset = 0;
    if (!ReadZone(text, position, offset)) {
        return 0;
    }
    using namespace std::chrono;
    const year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                              std::chrono::day(static_cast<unsigned>(day))};
    if (!date.ok()) {
        return 0;
    }
    const int64_t days = sys_days(date).time_since_epoch().count();
    return days * 86400 + hour * 3600 + minute * 60 + second - offset;
}

int64_t DateTimeUtility::GetCurrentGmtDatetime()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string DateTimeUtility::convertGMTTimeToString(int64_t seconds)
{
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    if (gmtime_r(&time, &parts) == nullptr) {
        return {};
    }
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

}  // namespace VEQ
