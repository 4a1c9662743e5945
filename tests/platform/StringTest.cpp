#include "platform/string/String.h"

#include <gtest/gtest.h>

namespace VEQ {
namespace {

struct Utf8Row {
    const char* name;
    std::string utf8;
    std::wstring wide;
};

TEST(StringTest, ValidUtf8RoundTripsThroughWideText)
{
    const Utf8Row rows[] = {
        {"empty", "", L""},
        {"ascii", "VEQ::Broker", L"VEQ::Broker"},
        {"two-byte", "caf\xC3\xA9", L"caf\u00E9"},
        {"three-byte", "\xE2\x82\xAC 5", L"\u20AC 5"},
        {"four-byte", "\xF0\x9F\x98\x80!", L"\U0001F600!"},
        {"highest scalar", "\xF4\x8F\xBF\xBF", L"\U0010FFFF"},
        {"embedded nul", std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
        {"ascii runs between others", "ab\xC3\xA9" "cd\xE2\x82\xAC\xE2\x82\xAC" "e", L"ab\u00E9cd\u20AC\u20ACe"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(String::UTF8ToUTF16(row.utf8), row.wide) << row.name;
        EXPECT_EQ(String::UTF16ToUTF8(row.wide), row.utf8) << row.name;
    }
}

TEST(StringTest, InvalidUtf8BecomesOneReplacementPerBadByte)
{
    const Utf8Row rows[] = {
        {"lone continuation", "a\x80z", L"a\uFFFDz"},
        {"overlong slash", "\xC0\xAF", L"\uFFFD\uFFFD"},
        {"overlong three-byte", "\xE0\x80\xAF", L"\uFFFD\uFFFD\uFFFD"},
        {"truncated at end", "ok\xE2\x82", L"ok\uFFFD\uFFFD"},
        {"truncated before ascii", "\xF0\x9F" "A", L"\uFFFD\uFFFDA"},
        {"encoded surrogate", "\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},
        {"above U+10FFFF", "\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"invalid lead", "\xFF\xFE", L"\uFFFD\uFFFD"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(String::UTF8ToUTF16(row.utf8), row.wide) << row.name;
    }
}

TEST(StringTest, WideValuesThatAreNotScalarsEncodeAsReplacement)
{
    EXPECT_EQ(String::UTF16ToUTF8(std::wstring(1, static_cast<wchar_t>(0xD800))), "\xEF\xBF\xBD");
    EXPECT_EQ(String::UTF16ToUTF8(std::wstring(1, static_cast<wchar_t>(0x110000))), "\xEF\xBF\xBD");
}

TEST(StringTest, CaseInsensitiveEqualityFoldsAsciiLettersOnly)
{
    struct Row {
        std::wstring left;
        std::wstring right;
        bool equal;
    };
    const Row rows[] = {
        {L"Get-VeqTags", L"get-veqtags", true},
        {L"", L"", true},
        {L"abc", L"abcd", false},
        {L"abc", L"abd", false},
        {L"@[`{", L"`{@[", false},  // neighbours of the letter ranges must not fold
        {L"\u00C9T\u00C9", L"\u00E9t\u00E9", false},
        {L"STRASSE", L"stra\u00DFe", false},
    };
    for (const auto& row : rows) {
        const std::string message = String::UTF16ToUTF8(row.left + L" vs " + row.right);
        EXPECT_EQ(String::CaseInsesitiveEqual(row.left, row.right), row.equal) << message;
        EXPECT_EQ(String::CaseInsesitiveEqual(String::UTF16ToUTF8(row.left), String::UTF16ToUTF8(row.right)), row.equal)
            << "narrow " << message;
    }
}

TEST(StringTest, CaseInsensitiveFindReportsTheFirstMatch)
{
    EXPECT_EQ(String::CaseInsesitiveFind(L"C:/AddOnPlugins/x", L"addonplugins"), 3u);
    EXPECT_EQ(String::CaseInsesitiveFind(L"abcABC", L"C"), 2u);
    EXPECT_EQ(String::CaseInsesitiveFind(L"abc", L"abcd"), std::wstring::npos);
}

}  // namespace
}  // namespace VEQ
