// A number, a size and a text up to a NUL. Outputs fit to the byte, conversions lead back.
#include "support.h"
#include "vos_util.h"

void fuzz(FuzzedDataProvider &&input)
{
    const auto value = input.ConsumeIntegral<uint32_t>();
    const auto size = input.ConsumeIntegral<uint8_t>();
    const std::string digits = &input.ConsumeRandomLengthString()[0];
    std::vector<uint8_t> bytes(digits.size() / 2);
    std::vector<char> text(digits.size() + 1);
    vos_util_hexstr_to_bytes(bytes.data(), digits.c_str());
    vos_util_bytes_to_hexstr(text.data(), bytes.data(), static_cast<uint16_t>(bytes.size()));
    assert(vos_util_is_hex_str(digits.c_str()) == 0 ||
           vos_util_strcasecmp(text.data(), digits.substr(0, 2 * bytes.size()).c_str()) == 0);
    char number[11];
    vos_util_u32_to_hex(number, value, size);
    assert(vos_util_hex_to_u32(number, static_cast<uint16_t>(strlen(number))) == value);
    assert(vos_util_utoa(value, number) == strlen(number) && vos_util_atou(number) == value);
}
