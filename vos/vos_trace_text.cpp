#include "vos_trace_text.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace
{

constexpr char HEX_DIGITS[] = "0123456789ABCDEF";
constexpr uint32_t DUMP_SIZE = 3; // characters a byte

char *put_bytes(char *next, char *end, const char *bytes, size_t count)
{
    const size_t fitting = std::min(count, static_cast<size_t>(end - next));
    return static_cast<char *>(mempcpy(next, bytes, fitting));
}

template<typename T> char *put_number(char *next, char *end, T value, int base)
{
    return std::min(std::to_chars(next, next + VOS_TRACE_SLACK, value, base).ptr, end);
}

// As "%0Nd" does with a number that is not negative, for a width of one digit.
char *put_padded(char *next, char *end, int value, ptrdiff_t width)
{
    char *behind = std::to_chars(next, next + VOS_TRACE_SLACK, value).ptr;
    const ptrdiff_t zeros = width - (behind - next);
    if (zeros > 0) {
        memmove(next + zeros, next, static_cast<size_t>(behind - next));
        memset(next, '0', static_cast<size_t>(zeros));
        behind = next + width;
    }
    return std::min(behind, end);
}

bool is_padded(const char *percent)
{
    return percent[1] == '0' && percent[2] >= '1' && percent[2] <= '9' && percent[3] == 'd';
}

// Null when the format has a conversion that is not known here.
char *put_plain(char *next, char *end, const char *format, va_list arguments)
{
    for (;;) {
        const char *percent = strchrnul(format, '%');
        next = put_bytes(next, end, format, static_cast<size_t>(percent - format));
        if (*percent == '\0') {
            return next;
        }
        format = percent + 2;
        if (percent[1] == 'd') {
            next = put_number(next, end, va_arg(arguments, int), 10);
        } else if (percent[1] == 's') {
            const char *string = va_arg(arguments, const char *);
            next = vos_trace_put_text(next, end, string != nullptr ? string : "(null)");
        } else if (percent[1] == 'x') {
            next = put_number(next, end, va_arg(arguments, uint32_t), 16);
        } else if (percent[1] == 'u') {
            next = put_number(next, end, va_arg(arguments, uint32_t), 10);
        } else if (is_padded(percent)) {
            const int value = va_arg(arguments, int);
            if (value < 0) {
                return nullptr;
            }
            next = put_padded(next, end, value, percent[2] - '0');
            format = percent + 4;
        } else {
            return nullptr;
        }
    }
}

} // namespace

char *vos_trace_put_text(char *next, char *end, const char *text)
{
    return put_bytes(next, end, text, strlen(text));
}

char *vos_trace_put_place(char *next, char *end, const char *source, int number)
{
    next = vos_trace_put_text(next, end, source);
    *next++ = ':'; // at worst in the slack
    next = std::to_chars(next, next + VOS_TRACE_SLACK - 2, number).ptr;
    *next++ = ':';
    return std::min(next, end);
}

char *vos_trace_put_dump(char *next, char *end, const uint8_t *bytes, uint32_t *count)
{
    *count = std::min(*count, static_cast<uint32_t>(end - next) / DUMP_SIZE);
    for (uint32_t i = 0; i < *count; ++i) {
        next[0] = HEX_DIGITS[bytes[i] >> 4];
        next[1] = HEX_DIGITS[bytes[i] & 15];
        next[2] = ' ';
        next += DUMP_SIZE;
    }
    return next;
}

char *vos_trace_put_message(char *next, char *end, const char *format, va_list arguments)
{
    va_list copy;
    va_copy(copy, arguments);
    char *behind = put_plain(next, end, format, copy);
    va_end(copy);
    if (behind != nullptr) {
        return behind;
    }
    const auto room = static_cast<size_t>(end - next);
    *next = '\0'; // an error may leave the room as it was
    vsnprintf(next, room + 1, format, arguments);
    return next + strnlen(next, room);
}
