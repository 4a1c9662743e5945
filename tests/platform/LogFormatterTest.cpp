#include "platform/log/LogFormatter.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>

namespace VEQ {
namespace {

template <typename... Args>
std::string Format(const wchar_t* format, const Args&... args)
{
    const std::array<LogArgument, sizeof...(Args)> arguments{LogArgument(args)...};
    return LogFormatter::Format(format, arguments);
}

enum class Side { Elevated = 1, User = 2 };

struct Row {
    const char* what;
    std::string actual;
    std::string expected;
};

void Check(std::initializer_list<Row> rows)
{
    for (const Row& row : rows) {
        EXPECT_EQ(row.actual, row.expected) << row.what;
    }
}

TEST(LogFormatterTest, StringConversionsTakeNarrowAndWideText)
{
    const std::string narrow = "abc";
    const std::wstring wide = L"caf\u00E9";
    const char* nullText = nullptr;
    Check({
        {"std::string", Format(L"[%s]", narrow), "[abc]"},
        {"const char*", Format(L"[%s]", "abc"), "[abc]"},
        {"std::wstring as UTF-8", Format(L"[%s]", wide), "[caf\xC3\xA9]"},
        {"const wchar_t*", Format(L"[%ls]", L"x\U0001F600"), "[x\xF0\x9F\x98\x80]"},
        {"null pointer", Format(L"[%s]", nullText), "[(null)]"},
        {"wide format text", Format(L"\u00E9 %s", "z"), "\xC3\xA9 z"},
        {"precision counts characters", Format(L"[%.3s]", wide), "[caf]"},
        {"precision keeps a character whole", Format(L"[%.4s]", wide), "[caf\xC3\xA9]"},
        {"width pads by characters", Format(L"[%6s]", wide), "[  caf\xC3\xA9]"},
        {"left aligned", Format(L"[%-5s]", narrow), "[abc  ]"},
    });
}

TEST(LogFormatterTest, IntegerConversionsTakeAnyIntegerBoolAndEnum)
{
    Check({
        {"int", Format(L"%d", -42), "-42"},
        {"%i", Format(L"%i", 7), "7"},
        {"unsigned", Format(L"%u", 4000000000u), "4000000000"},
        {"%ld of int64 min", Format(L"%ld", std::numeric_limits<int64_t>::min()), "-9223372036854775808"},
        {"%lu of uint64 max", Format(L"%lu", std::numeric_limits<uint64_t>::max()), "18446744073709551615"},
        {"%d of a large unsigned does not wrap", Format(L"%d", std::numeric_limits<uint64_t>::max()),
         "18446744073709551615"},
        {"%x", Format(L"%x", 255), "ff"},
        {"%X with zero padding", Format(L"%06X", 0xBEEF), "00BEEF"},
        {"%x of int -1 has the int's width", Format(L"%x", -1), "ffffffff"},
        {"%x of int8 -1", Format(L"%x", int8_t{-1}), "ff"},
        {"%u of long long -1", Format(L"%u", -1LL), "18446744073709551615"},
        {"bool", Format(L"%d %d", true, false), "1 0"},
        {"enum class", Format(L"%d", Side::User), "2"},
        {"size_t", Format(L"%u", sizeof(int32_t)), "4"},
        {"width", Format(L"[%5d]", 42), "[   42]"},
        {"zero padded", Format(L"[%05d]", -42), "[-0042]"},
        {"left aligned", Format(L"[%-4d]", 42), "[42  ]"},
        {"char as number", Format(L"%d", 'A'), "65"},
        {"uint8 as number", Format(L"%d", uint8_t{200}), "200"},
    });
}

TEST(LogFormatterTest, FloatingAndCharacterConversions)
{
    Check({
        {"%f", Format(L"%f", 1.5), "1.500000"},
        {"precision", Format(L"%.2f", 3.14159), "3.14"},
        {"width and zero", Format(L"%08.3f", 3.14159), "0003.142"},
        {"%f of an int", Format(L"%.1f", 2), "2.0"},
        {"%g", Format(L"%g", 0.25f), "0.25"},
        {"%c narrow", Format(L"%c", 'A'), "A"},
        {"%c wide", Format(L"%c", L'\u00E9'), "\xC3\xA9"},
    });
}

TEST(LogFormatterTest, MismatchedArgumentsPrintAsTheyAre)
{
    int value = 0;
    Check({
        {"number for %s", Format(L"%s", 17), "17"},
        {"bool for %s", Format(L"%s", true), "true"},
        {"double for %s", Format(L"%s", 1.5), "1.5"},
        {"char for %s", Format(L"%s", 'x'), "x"},
        {"text for %d", Format(L"%d", "abc"), "abc"},
        {"wide text for %x", Format(L"%x", std::wstring(L"w")), "w"},
        {"text for %f", Format(L"%f", std::string("n/a")), "n/a"},
        {"pointer for %s", Format(L"%s", &value).substr(0, 2), "0x"},
        {"null pointer for %p", Format(L"%p", nullptr), "(nil)"},
    });
}

TEST(LogFormatterTest, ConversionsWithoutArgumentsAndExtraArgumentsAreHarmless)
{
    Check({
        {"too few arguments", Format(L"%s and %5d", "x"), "x and %5d"},
        {"no arguments", Format(L"%s: Init"), "%s: Init"},
        {"extra arguments ignored", Format(L"%s", "a", 1, 2.0), "a"},
        {"percent", Format(L"100%% of %d", 3), "100% of 3"},
        {"unknown conversion kept, argument not used", Format(L"%q %s", "x"), "%q x"},
        {"unfinished conversion at the end", Format(L"50%", 1), "50%"},
        {"unfinished conversion with flags", Format(L"%s %-0", "a"), "a %-0"},
        {"empty format", Format(L"", 1), ""},
        {"huge width is capped", std::to_string(Format(L"%99999999d", 1).size()), "1024"},
    });
}

}  // namespace
}  // namespace VEQ
