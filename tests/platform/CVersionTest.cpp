#include "platform/util/CVersion.h"
#include "platform/string/String.h"

#include <gtest/gtest.h>

#include <tuple>
#include <utility>

namespace VEQ {
namespace {

TEST(CVersionTest, ParsesOneToFourDecimalParts)
{
    const std::pair<const wchar_t*, const wchar_t*> valid[] = {
        {L"1.2.3.4", L"1.2.3.4"}, {L"7", L"7.0.0.0"}, {L"1.10", L"1.10.0.0"}, {L"65535.0.0.65535", L"65535.0.0.65535"},
        {L"01.002", L"1.2.0.0"},  {L"0.0.0.0", L"0.0.0.0"}, {L"00065535", L"65535.0.0.0"},
    };
    for (const auto& [text, canonical] : valid) {
        CVersion version;
        EXPECT_TRUE(version.Parse(text)) << String::UTF16ToUTF8(text);
        EXPECT_EQ(version.ToString(), canonical) << String::UTF16ToUTF8(text);
    }
}

TEST(CVersionTest, RefusesAnythingElseAndKeepsWhatItHad)
{
    for (const wchar_t* text : {L"", L".", L"1.", L".1", L"1..2", L"1.2.3.4.5", L"65536", L"1.99999", L"-1", L"+1",
                                L" 1", L"1 ", L"1.2a", L"9999999999", L"4294967297", L"\u0661", L"1,2"}) {
        CVersion version;
        ASSERT_TRUE(version.Parse(L"5.5"));
        EXPECT_FALSE(version.Parse(text)) << String::UTF16ToUTF8(text);
        EXPECT_EQ(version.ToString(), L"5.5.0.0") << "a failed parse keeps the version: " << String::UTF16ToUTF8(text);
    }
    EXPECT_EQ(CVersion().ToString(), L"0.0.0.0") << "a version never parsed";
}

TEST(CVersionTest, ComparesPartByPart)
{
    const std::tuple<const wchar_t*, const wchar_t*, int> rows[] = {
        {L"1.10", L"1.9", 1},       {L"1.2", L"1.2.0.0", 0},           {L"1.2.3.4", L"1.2.3.5", -1},
        {L"0.0.0.1", L"0", 1},      {L"2", L"1.65535.65535.65535", 1}, {L"1.2.3.4", L"1.2.3.4", 0},
        {L"1.0.10", L"1.0.9.65535", 1},
    };
    for (const auto& [left, right, order] : rows) {
        CVersion a;
        CVersion b;
        ASSERT_TRUE(a.Parse(left) && b.Parse(right)) << String::UTF16ToUTF8(left) << ", " << String::UTF16ToUTF8(right);
        EXPECT_EQ(a.CompareTo(b), order) << String::UTF16ToUTF8(left) << " vs " << String::UTF16ToUTF8(right);
        EXPECT_EQ(b.CompareTo(a), -order) << String::UTF16ToUTF8(right) << " vs " << String::UTF16ToUTF8(left);
    }
}

}  // namespace
}  // namespace VEQ
