// The part of vos_util that converts and takes apart texts.

#include "vos_util.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace
{

constexpr uint32_t DECIMAL_DIGITS_MAX = 10; // of 32 bits
constexpr uint32_t HEX_DIGITS_MAX = 8;

bool is_digit(char character)
{
    return character >= '0' && character <= '9';
}

bool is_line_end(char character)
{
    return character == '\r' || character == '\n';
}

unsigned char fold(char character)
{
    const auto byte = static_cast<unsigned char>(character);
    return byte >= 'A' && byte <= 'Z' ? static_cast<unsigned char>(byte + ('a' - 'A')) : byte;
}

// Where the values of "name, separator, values" begin; length when there is none.
size_t find_values(const char *text, size_t length)
{
    size_t at = 0;
    while (text[at] != '\0' && text[at] != '=' && text[at] != ':' &&
           !(text[at] == ' ' && is_digit(text[at + 1]))) {
        ++at;
    }
    if (text[at] == '\0' || at + 1 >= length) {
        return length;
    }
    return text[at + 1] == ' ' ? at + 2 : at + 1;
}

struct FieldScan {
    const char *at;
    uint32_t to_pass; // fields still before the wanted one
    bool rest;        // the wanted field is all that is left
};

// Behind a closing quote: the text may end there, with or without a line end of its own.
bool ends_here(const char *text)
{
    return strcmp(text, "") == 0 || strcmp(text, "\r") == 0 || strcmp(text, "\r\n") == 0;
}

void pass_closing_quote(FieldScan *scan)
{
    if (*scan->at == ',') {
        ++scan->at;
        --scan->to_pass;
    } else if (!ends_here(scan->at)) {
        --scan->to_pass;
        scan->at += *scan->at == '\r' ? 1 : 0;
        scan->at += *scan->at == '\n' ? 1 : 0;
        scan->rest = true;
    }
}

// Passes the fields before the wanted one, as far as the text goes.
void pass_fields(FieldScan *scan)
{
    bool quoted = false;
    while (scan->to_pass > 0 && *scan->at != '\0' && !scan->rest) {
        const char character = *scan->at++;
        if (character == '"' && quoted) {
            pass_closing_quote(scan);
            quoted = false;
        } else if (character == '"') {
            quoted = true;
        } else if (character == ',' && !quoted) {
            --scan->to_pass;
        }
    }
}

size_t rest_length(const char *text)
{
    const size_t length = strlen(text);
    const bool line_end = length >= 2 && strcmp(text + length - 2, "\r\n") == 0;
    return line_end ? length - 2 : length;
}

} // namespace

void vos_util_u32_to_hex(char *output, uint32_t value, uint32_t width)
{
    uint32_t digits = 1;
    while (digits < HEX_DIGITS_MAX && value >> 4 * digits != 0) {
        ++digits;
    }
    digits = std::max(digits, std::min(width, HEX_DIGITS_MAX));
    for (uint32_t i = digits; i > 0; --i) {
        *output++ = "0123456789ABCDEF"[value >> 4 * (i - 1) & 15];
    }
    *output = '\0';
}

char *vos_util_bytes_to_hexstr(char *output, const uint8_t *bytes, uint16_t count)
{
    char *to = output;
    *to = '\0';
    for (uint32_t i = 0; i < count; ++i, to += 2) {
        vos_util_u32_to_hex(to, bytes[i], 2);
    }
    return output;
}

int vos_util_is_hex_str(const char *text)
{
    return text != nullptr && text[strspn(text, "0123456789ABCDEFabcdef")] == '\0' ? 1 : 0;
}

int vos_util_is_dec_str(const char *text)
{
    return text != nullptr && text[strspn(text, "0123456789")] == '\0' ? 1 : 0;
}

int vos_util_is_dec_str_plus(const char *text)
{
    return vos_util_is_dec_str(text != nullptr && *text == '+' ? text + 1 : text);
}

int vos_util_is_printable(const char *text, uint32_t limit)
{
    if (text == nullptr) {
        return 0;
    }
    for (; limit > 0 && *text != '\0'; --limit, ++text) {
        if (*text < 0x20 || *text > 0x7E) {
            return 0;
        }
    }
    return 1;
}

char *vos_util_itoa(int32_t value, char *output)
{
    const auto bits = static_cast<uint32_t>(value);
    if (value < 0) {
        *output = '-';
        vos_util_utoa(0 - bits, output + 1);
    } else {
        vos_util_utoa(bits, output);
    }
    return output;
}

uint32_t vos_util_utoa(uint32_t value, char *output)
{
    char backwards[DECIMAL_DIGITS_MAX];
    uint32_t count = 0;
    do {
        backwards[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    std::reverse_copy(backwards, backwards + count, output);
    output[count] = '\0';
    return count;
}

uint32_t vos_util_atou(const char *text)
{
    uint32_t value = 0;
    for (; text != nullptr && is_digit(*text); ++text) {
        value = value * 10 + static_cast<uint32_t>(*text - '0');
    }
    return value;
}

int vos_util_strcasecmp(const char *a, const char *b)
{
    return vos_util_strncasecmp(a, b, UINT32_MAX);
}

int vos_util_strncasecmp(const char *a, const char *b, uint32_t limit)
{
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    int difference = 0;
    for (; limit > 0; --limit, ++a, ++b) {
        difference = fold(*a) - fold(*b);
        if (difference != 0 || *a == '\0') {
            break;
        }
    }
    return difference;
}

int vos_util_match_keyword(const char *text, ...)
{
    va_list keywords;
    va_start(keywords, text);
    int position = 0;
    int match = 0;
    while (match == 0) {
        const char *keyword = va_arg(keywords, const char *);
        if (keyword == nullptr) {
            break;
        }
        ++position;
        const auto length = static_cast<uint32_t>(strlen(keyword));
        match = vos_util_strncasecmp(text, keyword, length) == 0 ? position : 0;
    }
    va_end(keywords);
    return match;
}

void vos_util_to_upper(char *text)
{
    for (; text != nullptr && *text != '\0'; ++text) {
        if (*text >= 'a' && *text <= 'z') {
            *text = static_cast<char>(*text - ('a' - 'A'));
        }
    }
}

void vos_util_to_lower(char *text)
{
    for (; text != nullptr && *text != '\0'; ++text) {
        *text = static_cast<char>(fold(*text));
    }
}

char *vos_util_strip_crlf(char *output, const char *text, int32_t limit)
{
    if (text == nullptr) {
        return nullptr;
    }
    char *to = output;
    for (; limit > 0 && *text != '\0'; --limit, ++text) {
        if (!is_line_end(*text)) {
            *to++ = *text;
        }
    }
    *to = '\0';
    return output;
}

char *vos_util_get_field(char *output, uint32_t output_size, const char *text, int32_t number)
{
    if (text == nullptr || output_size == 0) {
        return nullptr;
    }
    output[0] = '\0';
    const auto length = static_cast<uint16_t>(strlen(text));
    const size_t values = find_values(text, length);
    if (values >= length) {
        return nullptr;
    }
    FieldScan scan = {text + values, number > 1 ? static_cast<uint32_t>(number) - 1 : 0, false};
    pass_fields(&scan);
    if (scan.to_pass != 0) {
        return nullptr;
    }
    size_t size = 0;
    if (scan.rest) {
        size = rest_length(scan.at);
    } else if (scan.at >= text + length) {
        return nullptr;
    } else if (*scan.at == '"') {
        size = strcspn(++scan.at, "\"");
    } else {
        size = strcspn(scan.at, ",\r");
    }
    size = std::min<size_t>(size, output_size - 1);
    memcpy(output, scan.at, size);
    output[size] = '\0';
    return output;
}

char *vos_util_get_field(char *output, const char *text, int32_t number)
{
    return vos_util_get_field(output, UINT32_MAX, text, number);
}
