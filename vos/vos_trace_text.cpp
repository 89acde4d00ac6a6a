#include "vos_trace_text.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace
{

constexpr char HEX_DIGITS[] = "0123456789abcdef";
constexpr size_t MAX_NUMBER_SIZE = 11; // "-2147483648"
static_assert(MAX_NUMBER_SIZE <= VOS_TRACE_SLACK);

// "00" to "99"
struct PairTable {
    char text[100][2];
};

constexpr PairTable make_pair_table()
{
    PairTable table{};
    for (unsigned pair = 0; pair < 100; ++pair) {
        table.text[pair][0] = static_cast<char>('0' + pair / 10);
        table.text[pair][1] = static_cast<char>('0' + pair % 10);
    }
    return table;
}

constexpr PairTable PAIR_TABLE = make_pair_table();

constexpr uint32_t DUMP_SIZE = 3; // characters a byte

// "00 ", "01 " to "FF "; each is moved as one word.
struct DumpTable {
    char text[256][DUMP_SIZE + 1];
};

constexpr DumpTable make_dump_table()
{
    constexpr char DIGITS[] = "0123456789ABCDEF";
    DumpTable table{};
    for (unsigned byte = 0; byte < 256; ++byte) {
        table.text[byte][0] = DIGITS[byte / 16];
        table.text[byte][1] = DIGITS[byte % 16];
        table.text[byte][2] = ' ';
    }
    return table;
}

constexpr DumpTable DUMP_TABLE = make_dump_table();

char *write_pair(char *next, uint32_t value)
{
    memcpy(next, PAIR_TABLE.text[value], 2);
    return next + 2;
}

// Below 1000, as most numbers are.
char *write_small(char *next, uint32_t value)
{
    if (value >= 100) {
        *next++ = static_cast<char>('0' + value / 100);
        return write_pair(next, value % 100);
    }
    if (value >= 10) {
        return write_pair(next, value);
    }
    *next = static_cast<char>('0' + value);
    return next + 1;
}

// From 1000 on.
char *write_large(char *next, uint32_t value)
{
    size_t count = 4;
    for (const uint32_t power :
         {10'000U, 100'000U, 1'000'000U, 10'000'000U, 100'000'000U, 1'000'000'000U}) {
        count += value >= power ? 1 : 0;
    }
    char *place = next + count;
    while (value >= 10) {
        place -= 2;
        write_pair(place, value % 100);
        value /= 100;
    }
    if (place != next) {
        *next = static_cast<char>('0' + value);
    }
    return next + count;
}

char *write_decimal(char *next, uint32_t value)
{
    return value < 1000 ? write_small(next, value) : write_large(next, value);
}

char *write_signed(char *next, int value)
{
    const auto bits = static_cast<uint32_t>(value);
    if (value < 0) {
        *next++ = '-';
    }
    return write_decimal(next, value < 0 ? 0 - bits : bits);
}

char *write_hex(char *next, uint32_t value)
{
    unsigned shift = 0;
    while (shift < 28 && value >> shift >= 16) {
        shift += 4;
    }
    *next++ = HEX_DIGITS[value >> shift];
    while (shift != 0) {
        shift -= 4;
        *next++ = HEX_DIGITS[value >> shift & 15];
    }
    return next;
}

// As "%0Nd" does, for a width of one digit.
char *write_padded(char *next, int value, size_t width)
{
    char *behind = write_signed(next, value);
    const auto size = static_cast<size_t>(behind - next);
    if (size >= width) {
        return behind;
    }
    char *digits = next + (value < 0 ? 1 : 0);
    memmove(digits + width - size, digits, static_cast<size_t>(behind - digits));
    memset(digits, '0', width - size);
    return next + width;
}

// Null when the format has a conversion that is not known here.
char *put_plain(char *next, char *end, const char *format, va_list arguments)
{
    for (;;) {
        const char *percent = strchrnul(format, '%');
        next = vos_trace_put_bytes(next, end, format, static_cast<size_t>(percent - format));
        if (*percent == '\0') {
            return next;
        }
        format = percent + 2;
        if (percent[1] == 'd') {
            next = std::min(write_signed(next, va_arg(arguments, int)), end);
        } else if (percent[1] == 's') {
            const char *string = va_arg(arguments, const char *);
            string = string != nullptr ? string : "(null)";
            next = vos_trace_put_bytes(next, end, string, strlen(string));
        } else if (percent[1] == 'x') {
            next = std::min(write_hex(next, va_arg(arguments, uint32_t)), end);
        } else if (percent[1] == 'u') {
            next = std::min(write_decimal(next, va_arg(arguments, uint32_t)), end);
        } else if (percent[1] == '0' && percent[2] >= '1' && percent[2] <= '9' &&
                   percent[3] == 'd') {
            const auto width = static_cast<size_t>(percent[2] - '0');
            next = std::min(write_padded(next, va_arg(arguments, int), width), end);
            format = percent + 4;
        } else {
            return nullptr;
        }
    }
}

} // namespace

char *vos_trace_put_bytes(char *next, char *end, const char *bytes, size_t count)
{
    const size_t fitting = std::min(count, static_cast<size_t>(end - next));
    return static_cast<char *>(mempcpy(next, bytes, fitting));
}

char *vos_trace_put_decimal(char *next, char *end, int number)
{
    return std::min(write_signed(next, number), end);
}

char *vos_trace_put_dump(char *next, char *end, const uint8_t *bytes, uint32_t *count)
{
    const auto room = static_cast<uint32_t>(end - next);
    *count = std::min(*count, room / DUMP_SIZE);
#pragma GCC unroll 8
    for (uint32_t i = 0; i < *count; ++i) {
        memcpy(next, DUMP_TABLE.text[bytes[i]], sizeof DUMP_TABLE.text[0]);
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
    const int printed = vsnprintf(next, room + 1, format, arguments);
    return next + (printed > 0 ? std::min(room, static_cast<size_t>(printed)) : 0);
}
