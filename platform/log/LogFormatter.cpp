#include "platform/log/LogFormatter.h"

#include "platform/string/String.h"

#include <algorithm>
#include <cstdio>

namespace VEQ {
namespace {

// Widths beyond this are typos, not layouts; capping them keeps one log line from eating memory.
constexpr int kLongestField = 1024;

struct Conversion {
    std::string flags;
    int width = -1;
    int precision = -1;
    char type = 0;
};

bool IsOneOf(wchar_t c, std::wstring_view set)
{
    return set.find(c) != std::wstring_view::npos;
}

size_t CodePoints(std::string_view utf8)
{
    return static_cast<size_t>(std::count_if(utf8.begin(), utf8.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

// Byte length of the first count code points of utf8.
size_t PrefixBytes(std::string_view utf8, size_t count)
{
    size_t seen = 0;
    for (size_t i = 0; i < utf8.size(); ++i) {
        if ((static_cast<unsigned char>(utf8[i]) & 0xC0) != 0x80) {
            if (seen == count) {
                return i;
            }
            ++seen;
        }
    }
    return utf8.size();
}

void AppendWide(std::string& out, std::wstring_view text)
{
    String::AppendUTF8(out, text);
}

bool IsPlain(const Conversion& conversion)
{
    return conversion.width < 0 && conversion.precision < 0;
}

void AppendCodePoint(std::string& out, uint64_t code)
{
    const wchar_t character = static_cast<wchar_t>(code > 0x10FFFF ? 0xFFFD : code);
    AppendWide(out, std::wstring_view(&character, 1));
}

// Text conversions: precision cuts, width pads with blanks, '-' pads on the right.
void AppendField(std::string& out, std::string_view text, const Conversion& conversion, bool applyPrecision)
{
    if (applyPrecision && conversion.precision >= 0) {
        text = text.substr(0, PrefixBytes(text, static_cast<size_t>(conversion.precision)));
    }
    const size_t length = CodePoints(text);
    const size_t width = conversion.width > 0 ? static_cast<size_t>(conversion.width) : 0;
    const size_t padding = width > length ? width - length : 0;
    const bool left = conversion.flags.find('-') != std::string::npos;
    if (!left) {
        out.append(padding, ' ');
    }
    out += text;
    if (left) {
        out.append(padding, ' ');
    }
}

template <typename Value>
void AppendPrintf(std::string& out, const Conversion& conversion, const char* lengthModifier, char type, Value value)
{
    std::string printfFormat = "%" + conversion.flags;
    if (conversion.width >= 0) {
        printfFormat += std::to_string(conversion.width);
    }
    if (conversion.precision >= 0) {
        printfFormat += "." + std::to_string(conversion.precision);
    }
    printfFormat += lengthModifier;
    printfFormat += type;
    char buffer[128];
    const int needed = std::snprintf(buffer, sizeof buffer, printfFormat.c_str(), value);
    if (needed < 0) {
        return;
    }
    if (static_cast<size_t>(needed) < sizeof buffer) {
        out.append(buffer, static_cast<size_t>(needed));
        return;
    }
    std::string large(static_cast<size_t>(needed) + 1, '\0');
    std::snprintf(large.data(), large.size(), printfFormat.c_str(), value);
    large.resize(static_cast<size_t>(needed));
    out += large;
}

bool IsInteger(const LogArgument& argument)
{
    switch (argument.kind()) {
    case LogArgument::Kind::Signed:
    case LogArgument::Kind::Unsigned:
    case LogArgument::Kind::Boolean:
    case LogArgument::Kind::Character:
        return true;
    default:
        return false;
    }
}

// The caller's bits, as printf would see them for %u and %x: -1 of an int is ffffffff.
uint64_t AsUnsignedOfItsWidth(const LogArgument& argument)
{
    if (argument.kind() != LogArgument::Kind::Signed || argument.size() >= sizeof(uint64_t)) {
        return argument.asUnsigned();
    }
    const uint64_t mask = (uint64_t{1} << (8 * argument.size())) - 1;
    return static_cast<uint64_t>(argument.asSigned()) & mask;
}

// The argument in its natural written form, for %s and for conversions that do not fit it.
void AppendAsText(std::string& out, const LogArgument& argument, const Conversion& conversion)
{
    const Conversion plain{conversion.flags, conversion.width, -1, 's'};
    switch (argument.kind()) {
    case LogArgument::Kind::Narrow:
        if (IsPlain(conversion)) {
            out += argument.narrow();  // the common case, without counting code points
        } else {
            AppendField(out, argument.narrow(), conversion, true);
        }
        return;
    case LogArgument::Kind::Wide:
        if (IsPlain(conversion)) {
            AppendWide(out, argument.wide());
        } else {
            std::string text;
            AppendWide(text, argument.wide());
            AppendField(out, text, conversion, true);
        }
        return;
    case LogArgument::Kind::Boolean:
        AppendField(out, argument.asUnsigned() != 0 ? "true" : "false", conversion, true);
        return;
    case LogArgument::Kind::Character: {
        std::string character;
        AppendCodePoint(character, argument.asUnsigned());
        AppendField(out, character, plain, false);
        return;
    }
    case LogArgument::Kind::Signed:
        AppendField(out, std::to_string(argument.asSigned()), plain, false);
        return;
    case LogArgument::Kind::Unsigned:
        AppendField(out, std::to_string(argument.asUnsigned()), plain, false);
        return;
    case LogArgument::Kind::Floating: {
        std::string number;
        AppendPrintf(number, Conversion{}, "", 'g', argument.asFloating());
        AppendField(out, number, plain, false);
        return;
    }
    case LogArgument::Kind::Pointer: {
        std::string number;
        AppendPrintf(number, Conversion{}, "", 'p', reinterpret_cast<void*>(argument.asUnsigned()));
        AppendField(out, number, plain, false);
        return;
    }
    }
}

void AppendConversion(std::string& out, const Conversion& conversion, const LogArgument& argument)
{
    const char type = conversion.type;
    if (type == 's' || type == 'S') {
        AppendAsText(out, argument, conversion);
        return;
    }
    if (type == 'c') {
        if (IsInteger(argument)) {
            std::string character;
            AppendCodePoint(character, argument.asUnsigned());
            AppendField(out, character, conversion, false);
        } else {
            AppendAsText(out, argument, conversion);
        }
        return;
    }
    if (type == 'd' || type == 'i') {
        if (argument.kind() == LogArgument::Kind::Unsigned) {
            AppendPrintf(out, conversion, "ll", 'u', static_cast<unsigned long long>(argument.asUnsigned()));
        } else if (IsInteger(argument)) {
            AppendPrintf(out, conversion, "ll", 'd', static_cast<long long>(argument.asSigned()));
        } else {
            AppendAsText(out, argument, conversion);
        }
        return;
    }
    if (type == 'u' || type == 'x' || type == 'X' || type == 'o') {
        if (IsInteger(argument) || argument.kind() == LogArgument::Kind::Pointer) {
            AppendPrintf(out, conversion, "ll", type, static_cast<unsigned long long>(AsUnsignedOfItsWidth(argument)));
        } else {
            AppendAsText(out, argument, conversion);
        }
        return;
    }
    if (type == 'p') {
        if (IsInteger(argument) || argument.kind() == LogArgument::Kind::Pointer) {
            AppendPrintf(out, conversion, "", 'p', reinterpret_cast<void*>(argument.asUnsigned()));
        } else {
            AppendAsText(out, argument, conversion);
        }
        return;
    }
    // f F e E g G a A
    if (argument.kind() == LogArgument::Kind::Floating) {
        AppendPrintf(out, conversion, "", type, argument.asFloating());
    } else if (argument.kind() == LogArgument::Kind::Unsigned) {
        AppendPrintf(out, conversion, "", type, static_cast<double>(argument.asUnsigned()));
    } else if (IsInteger(argument)) {
        AppendPrintf(out, conversion, "", type, static_cast<double>(argument.asSigned()));
    } else {
        AppendAsText(out, argument, conversion);
    }
}

// Reads a number of at most kLongestField from format at position; -1 when there are no digits.
int ReadNumber(std::wstring_view format, size_t& position)
{
    int value = -1;
    while (position < format.size() && format[position] >= L'0' && format[position] <= L'9') {
        value = std::min((value < 0 ? 0 : value) * 10 + (format[position] - L'0'), kLongestField);
        ++position;
    }
    return value;
}

}  // namespace

std::string LogFormatter::Format(std::wstring_view format, std::span<const LogArgument> arguments)
{
    std::string out;
    out.reserve(format.size() + 32 * arguments.size());
    size_t next = 0;
    size_t literalStart = 0;
    size_t position = 0;
    while (position < format.size()) {
        if (format[position] != L'%') {
            ++position;
            continue;
        }
        const size_t start = position++;
        Conversion conversion;
        while (position < format.size() && IsOneOf(format[position], L"-+ #0")) {
            conversion.flags += static_cast<char>(format[position++]);
        }
        conversion.width = ReadNumber(format, position);
        if (position < format.size() && format[position] == L'.') {
            ++position;
            conversion.precision = std::max(ReadNumber(format, position), 0);
        }
        while (position < format.size() && IsOneOf(format[position], L"hlLqjzt")) {
            ++position;
        }
        if (position >= format.size()) {
            break;  // an unfinished conversion at the end stays in the literal tail
        }
        const wchar_t type = format[position++];
        if (type == L'%') {
            AppendWide(out, format.substr(literalStart, start - literalStart));
            out += '%';
            literalStart = position;
            continue;
        }
        if (!IsOneOf(type, L"diuoxXcsSfFeEgGaAp") || next >= arguments.size()) {
            continue;  // copied as written, together with the literal text around it
        }
        AppendWide(out, format.substr(literalStart, start - literalStart));
        conversion.type = static_cast<char>(type);
        AppendConversion(out, conversion, arguments[next++]);
        literalStart = position;
    }
    AppendWide(out, format.substr(literalStart));
    return out;
}

}  // namespace VEQ
