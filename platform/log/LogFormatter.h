#pragma once
// printf-style formatting that cannot go wrong at run time: the arguments carry their types, so a
// conversion that does not fit its argument prints the argument as it is instead of reading garbage.
//
// Conversions: d i u o x X c s S f F e E g G a A p and %%, with flags, width and precision;
// length modifiers (l, ll, h, z, ...) are accepted and ignored. %s takes narrow (UTF-8) and wide
// strings alike. A conversion without an argument left, or one not listed, is copied as written;
// arguments beyond the last conversion are ignored.

#include "platform/log/LogArgument.h"

#include <span>
#include <string>
#include <string_view>

namespace VEQ {

class LogFormatter {
public:
    // The formatted line as UTF-8.
    static std::string Format(std::wstring_view format, std::span<const LogArgument> arguments);
};

}  // namespace VEQ
