#include "vos_util.h"

#include <cstring>
#include <ctime>

#include "vos_trace.h"

namespace
{

constexpr char MODULE[] = "vos_util";

uint32_t digit_value(int digit)
{
    return static_cast<uint32_t>(digit <= '9' ? digit - '0' : (digit | 0x20) - 'a' + 10);
}

} // namespace

uint32_t vos_util_hex_to_u32(const char *text, uint16_t length)
{
    if (text == nullptr) {
        return 0;
    }
    // A text may be shorter than length: nothing behind its NUL is looked at.
    uint16_t index = length >= 2 && text[0] == '0' && text[1] == 'x' ? 2 : 0;
    uint32_t value = 0;
    for (; index < length; ++index) {
        const int character = static_cast<unsigned char>(text[index]);
        if (vos_util_is_hex_char(character) == 0) {
            return 0;
        }
        value = value << 4 | digit_value(character);
    }
    return value;
}

uint8_t *vos_util_hexstr_to_bytes(uint8_t *output, uint32_t output_size, const char *text)
{
    if (text == nullptr) {
        return nullptr;
    }
    const uint32_t pairs = static_cast<uint16_t>(strlen(text)) / 2U;
    for (uint32_t i = 0; i < pairs && i < output_size; ++i, text += 2) {
        output[i] = static_cast<uint8_t>(vos_util_hex_to_u32(text, 2));
    }
    return output;
}

uint8_t *vos_util_hexstr_to_bytes(uint8_t *output, const char *text)
{
    return vos_util_hexstr_to_bytes(output, UINT32_MAX, text);
}

int vos_util_is_hex_char(int character)
{
    const bool digit = (character >= '0' && character <= '9') ||
                       (character >= 'a' && character <= 'f') ||
                       (character >= 'A' && character <= 'F');
    return digit ? character : 0;
}

uint32_t vos_util_get_time()
{
    time_t now = time(nullptr);
    if (now < 0) {
        vos_trace_error(MODULE, __LINE__, "time request failed %ld", static_cast<long>(now));
        now = time(nullptr);
    }
    if (now < 0) {
        vos_trace_error(MODULE, __LINE__, "time request failed once again %ld",
                        static_cast<long>(now));
        now = 0;
    }
    return static_cast<uint32_t>(now);
}
