// Two texts, each up to a NUL, a number and a size. Outputs fit to the byte, conversions lead back.
#include "support.h"
#include "vos_str.h"
#include "vos_util.h"

void fuzz(FuzzedDataProvider &&input)
{
    const auto value = input.ConsumeIntegral<uint32_t>();
    const auto size = input.ConsumeIntegral<uint8_t>();
    const std::string one = &input.ConsumeRandomLengthString()[0];
    const std::string two = &input.ConsumeRandomLengthString()[0];
    std::vector<uint8_t> bytes(one.size() / 2);
    std::vector<char> text(one.size() + 1);
    vos_util_hexstr_to_bytes(bytes.data(), one.c_str());
    vos_util_bytes_to_hexstr(text.data(), bytes.data(), static_cast<uint16_t>(bytes.size()));
    assert(vos_util_is_hex_str(one.c_str()) == 0 ||
           vos_util_strcasecmp(text.data(), one.substr(0, 2 * bytes.size()).c_str()) == 0);
    char digits[11];
    vos_util_u32_to_hex(digits, value, size);
    assert(vos_util_hex_to_u32(digits, static_cast<uint16_t>(strlen(digits))) == value);
    assert(vos_util_utoa(value, digits) == strlen(digits) && vos_util_atou(digits) == value);
    std::vector<char> cut(size + 1U);
    vos_util_get_field(text.data(), one.c_str(), size % 8);
    vos_util_get_field(cut.data(), size + 1U, one.c_str(), size % 8);
    assert(std::string(text.data()).substr(0, size) == cut.data());
    vos_str_concat(one.c_str(), size, two.c_str(), UINT32_MAX, cut.data(), size);
    assert((one.substr(0, size) + two).substr(0, size) == cut.data());
}
