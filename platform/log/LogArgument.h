#pragma once
// One argument of a log call, reduced to the few kinds the formatter knows. Strings are held by
// view: an argument lives only as long as the log call that made it.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace VEQ {
namespace LogArgumentDetail {

// Character types print as characters under %s and %c; every other integer prints as a number.
template <typename T>
inline constexpr bool IsCharacter = std::same_as<T, char> || std::same_as<T, wchar_t> || std::same_as<T, char8_t> ||
                                    std::same_as<T, char16_t> || std::same_as<T, char32_t>;

}  // namespace LogArgumentDetail

class LogArgument {
public:
    enum class Kind { Signed, Unsigned, Boolean, Character, Floating, Narrow, Wide, Pointer };

    LogArgument(bool value) : kind_(Kind::Boolean), size_(sizeof(bool)) { number_.u = value ? 1 : 0; }

    template <std::integral T>
        requires(!std::same_as<T, bool>)
    LogArgument(T value) : size_(sizeof(T))
    {
        if constexpr (LogArgumentDetail::IsCharacter<T>) {
            kind_ = Kind::Character;
            number_.u = static_cast<uint64_t>(static_cast<std::make_unsigned_t<T>>(value));
        } else if constexpr (std::is_signed_v<T>) {
            kind_ = Kind::Signed;
            number_.s = static_cast<int64_t>(value);
        } else {
            kind_ = Kind::Unsigned;
            number_.u = static_cast<uint64_t>(value);
        }
    }

    template <typename T>
        requires std::is_enum_v<T>
    LogArgument(T value) : LogArgument(static_cast<std::underlying_type_t<T>>(value))
    {
    }

    template <std::floating_point T>
    LogArgument(T value) : kind_(Kind::Floating), size_(sizeof(T))
    {
        number_.f = static_cast<double>(value);
    }

    LogArgument(const char* text) : kind_(Kind::Narrow), narrow_(text != nullptr ? text : "(null)") {}
    LogArgument(const wchar_t* text) : kind_(Kind::Wide), wide_(text != nullptr ? text : L"(null)") {}
    LogArgument(const std::string& text) : kind_(Kind::Narrow), narrow_(text) {}
    LogArgument(const std::wstring& text) : kind_(Kind::Wide), wide_(text) {}
    LogArgument(std::string_view text) : kind_(Kind::Narrow), narrow_(text) {}
    LogArgument(std::wstring_view text) : kind_(Kind::Wide), wide_(text) {}

    template <typename T>
        requires(!LogArgumentDetail::IsCharacter<std::remove_cv_t<T>>)
    LogArgument(T* pointer) : kind_(Kind::Pointer), size_(sizeof(void*))
    {
        number_.u = reinterpret_cast<uintptr_t>(pointer);
    }
    LogArgument(std::nullptr_t) : kind_(Kind::Pointer), size_(sizeof(void*)) { number_.u = 0; }

    Kind kind() const { return kind_; }
    // Size in bytes of the integer the caller passed, so that %x of -1 shows the caller's width.
    size_t size() const { return size_; }
    int64_t asSigned() const { return number_.s; }
    uint64_t asUnsigned() const { return number_.u; }
    double asFloating() const { return number_.f; }
    std::string_view narrow() const { return narrow_; }
    std::wstring_view wide() const { return wide_; }

private:
    Kind kind_ = Kind::Signed;
    size_t size_ = 0;
    union {
        int64_t s;
        uint64_t u;
        double f;
    } number_{};
    std::string_view narrow_;
    std::wstring_view wide_;
};

}  // namespace VEQ
