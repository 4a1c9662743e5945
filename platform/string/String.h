#pragma once
// Text helpers. Narrow strings are UTF-8; wide strings are std::wstring (UTF-32 on Linux).

#include <string>
#include <string_view>
#include <vector>

namespace VEQ {

class String {
public:
    // Invalid input sequences become U+FFFD instead of failing.
    static std::wstring UTF8ToUTF16(const std::string& text);
    static std::string UTF16ToUTF8(const std::wstring& text);
    // The same conversion, appended to out.
    static void AppendUTF8(std::string& out, std::wstring_view text);

    // Letter case is ignored for ASCII letters only, like the registry and the file names compared with it.
    static bool CaseInsesitiveEqual(const std::string& left, const std::string& right);
    static bool CaseInsesitiveEqual(const std::wstring& left, const std::wstring& right);
    static size_t CaseInsesitiveFind(const std::wstring& haystack, const std::wstring& needle);
    static bool CaseInsensitiveStartsWith(const std::wstring& text, const std::wstring& prefix);

    static std::wstring ToLower(std::wstring text);
    static std::string ToLower(std::string text);
    static bool StartsWith(const std::wstring& text, const std::wstring& prefix);
    static bool EndsWith(const std::wstring& text, const std::wstring& suffix);
    static std::wstring Replace(std::wstring text, const std::wstring& from, const std::wstring& to);
    static std::vector<std::string> Split(const std::string& text, char separator);
};

}  // namespace VEQ
