// Takes texts apart from their start.

#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

namespace frames
{

constexpr bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// As wmbusctl prints a serial number: lower case, without leading zeros.
inline std::string hex_text(uint32_t number)
{
    char digits[8];
    const auto [end, error] = std::to_chars(digits, digits + sizeof digits, number, 16);
    return {digits, end};
}

[[gnu::always_inline]] inline bool skip(std::string_view &text, std::string_view start)
{
    if (!text.starts_with(start)) {
        return false;
    }
    text.remove_prefix(start.size());
    return true;
}

// Takes a number from the start of the text; false when there is none in these limits.
template<typename Number>
[[gnu::always_inline]] inline bool take_number(std::string_view &text, Number least, Number most,
                                               Number &number, int base = 10)
{
    const auto [stop, error] =
        std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || number < least || number > most) {
        return false;
    }
    text.remove_prefix(static_cast<size_t>(stop - text.data()));
    return true;
}

} // namespace frames
