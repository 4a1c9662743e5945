#include "platform/string/String.h"

#include <algorithm>

namespace VEQ {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

template <typename Char>
Char LowerAscii(Char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<Char>(c - 'A' + 'a') : c;
}

template <typename Text>
bool EqualIgnoringCase(const Text& left, const Text& right)
{
    if (left.size() != right.size()) {
        return false;
    }
    for (size_t i = 0; i < left.size(); ++i) {
        if (LowerAscii(left[i]) != LowerAscii(right[i])) {
            return false;
        }
    }
    return true;
}

// Length of the UTF-8 sequence introduced by lead byte, 0 when it cannot start one.
size_t SequenceLength(unsigned char lead)
{
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) return 2;
    if (lead >= 0xE0 && lead <= 0xEF) return 3;
    if (lead >= 0xF0 && lead <= 0xF4) return 4;
    return 0;
}

bool IsValidScalar(char32_t c)
{
    return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
}

void AppendUtf8(std::string& out, char32_t c)
{
    if (!IsValidScalar(c)) {
        c = kReplacement;
    }
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

}  // namespace

std::wstring String::UTF8ToUTF16(const std::string& text)
{
    std::wstring out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const size_t length = SequenceLength(lead);
        if (length == 1) {
            out += static_cast<wchar_t>(lead);
            ++i;
            continue;
        }
        bool valid = length != 0 && i + length <= text.size();
        char32_t c = valid ? (lead & (0xFF >> (length + 1))) : 0;
        for (size_t k = 1; valid && k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            valid = (next & 0xC0) == 0x80;
            c = (c << 6) | (next & 0x3F);
        }
        const char32_t minimum = length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
        if (valid && c >= minimum && IsValidScalar(c)) {
            out += static_cast<wchar_t>(c);
            i += length;
        } else {
            out += static_cast<wchar_t>(kReplacement);
            ++i;
        }
    }
    return out;
}

std::string String::UTF16ToUTF8(const std::wstring& text)
{
    std::string out;
    AppendUTF8(out, text);
    return out;
}

void String::AppendUTF8(std::string& out, std::wstring_view text)
{
    out.reserve(out.size() + text.size());
    size_t i = 0;
    while (i < text.size()) {
        // A run of ASCII goes in at once: nearly all text here is ASCII.
        size_t end = i;
        while (end < text.size() && static_cast<char32_t>(text[end]) < 0x80) {
            ++end;
        }
        if (end > i) {
            const size_t at = out.size();
            out.resize(at + (end - i));
            std::transform(text.begin() + static_cast<std::ptrdiff_t>(i), text.begin() + static_cast<std::ptrdiff_t>(end),
                           out.begin() + static_cast<std::ptrdiff_t>(at), [](wchar_t c) { return static_cast<char>(c); });
            i = end;
            continue;
        }
        AppendUtf8(out, static_cast<char32_t>(text[i++]));
    }
}

bool String::CaseInsesitiveEqual(const std::string& left, const std::string& right)
{
    return EqualIgnoringCase(left, right);
}

bool String::CaseInsesitiveEqual(const std::wstring& left, const std::wstring& right)
{
    return EqualIgnoringCase(left, right);
}

size_t String::CaseInsesitiveFind(const std::wstring& haystack, const std::wstring& needle)
{
    auto it = std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end(),
                          [](wchar_t a, wchar_t b) { return LowerAscii(a) == LowerAscii(b); });
    return it == haystack.end() && !needle.empty() ? std::wstring::npos
                                                   : static_cast<size_t>(it - haystack.begin());
}

bool String::CaseInsensitiveStartsWith(const std::wstring& text, const std::wstring& prefix)
{
    return text.size() >= prefix.size() && EqualIgnoringCase(text.substr(0, prefix.size()), prefix);
}

std::wstring String::ToLower(std::wstring text)
{
    std::transform(text.begin(), text.end(), text.begin(), LowerAscii<wchar_t>);
    return text;
}

std::string String::ToLower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), LowerAscii<char>);
    return text;
}

bool String::StartsWith(const std::wstring& text, const std::wstring& prefix)
{
    return text.starts_with(prefix);
}

bool String::EndsWith(const std::wstring& text, const std::wstring& suffix)
{
    return text.ends_with(suffix);
}

std::wstring String::Replace(std::wstring text, const std::wstring& from, const std::wstring& to)
{
    if (from.empty()) {
        return text;
    }
    for (size_t at = text.find(from); at != std::wstring::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::vector<std::string> String::Split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t at = text.find(separator); at != std::string::npos; at = text.find(separator, start)) {
        parts.push_back(text.substr(start, at - start));
        start = at + 1;
    }
    parts.push_back(text.substr(start));
    return parts;
}

}  // namespace VEQ
