// Conversions and the time of day. No call keeps state or blocks; any thread may call.

#ifndef VOS_UTIL_H
#define VOS_UTIL_H

#include <cstdint>

// Value of the length hexadecimal digits of the text (upper or lower case, a leading "0x" is
// skipped and counts in length); of more than eight digits the last eight. 0 for anything else:
// no text, no digit, another character, a text shorter than length.
uint32_t vos_util_hex_to_u32(const char *text, uint16_t length);

// Turns pairs of hexadecimal digits into bytes, first digit high, and returns output; null for a
// null text. Writes at most output_size bytes, at most half the text's length (counted modulo
// 65536); an odd last digit is ignored, a pair that is not two digits gives 0. The overload
// without a size needs output to hold half the text's length.
uint8_t *vos_util_hexstr_to_bytes(uint8_t *output, uint32_t output_size, const char *text);
uint8_t *vos_util_hexstr_to_bytes(uint8_t *output, const char *text);

// The character itself when it is a hexadecimal digit, otherwise 0. character is 0 to 255.
int vos_util_is_hex_char(int character);

// Seconds since the epoch; 0, with ERROR lines, when the time can't be read.
uint32_t vos_util_get_time();

#endif
