#include "vos_str.h"

#include <algorithm>
#include <cstring>

#include "vos_mem.h"
#include "vos_trace.h"

namespace
{

constexpr char MODULE[] = "vos_str";

// Copies at most limit characters of the text into at most room bytes; returns how many. No NUL.
uint32_t copy_part(char *output, uint32_t room, const char *text, uint32_t limit)
{
    const uint32_t length = vos_mem_strnlen(text, std::min(limit, room));
    if (length != 0) {
        memcpy(output, text, length);
    }
    return length;
}

} // namespace

uint32_t vos_str_concat(const char *text1, uint32_t limit1, const char *text2, uint32_t limit2,
                        char *output, uint32_t size)
{
    if (size == 0) {
        vos_trace_error(MODULE, __LINE__, "Invalid destinaton buffer");
        return 0;
    }
    if (text1 == nullptr && text2 == nullptr) {
        return 0;
    }
    uint32_t stored = copy_part(output, size, text1, limit1);
    stored += copy_part(output + stored, size - stored, text2, limit2);
    if (stored < size) {
        output[stored++] = '\0';
    }
    return stored;
}

char *vos_str_concat_new(const char *text1, uint32_t limit1, const char *text2, uint32_t limit2)
{
    if (text1 == nullptr && text2 == nullptr) {
        vos_trace_warning(MODULE, __LINE__, "Null strings");
        return nullptr;
    }
    const uint32_t length1 = vos_mem_strnlen(text1, limit1);
    const uint32_t length2 = vos_mem_strnlen(text2, limit2);
    char *joined = nullptr;
    if (length1 < UINT32_MAX - length2) {
        vos_mem_alloc(&joined, length1 + length2 + 1);
    }
    if (joined != nullptr) {
        vos_str_concat(text1, length1, text2, length2, joined, length1 + length2 + 1);
    }
    return joined;
}

int vos_str_copy(const char *source, char *output, uint32_t size)
{
    if (size == 0) {
        vos_trace_warning(MODULE, __LINE__, "No room in dst buffer");
        return -1;
    }
    output[copy_part(output, size - 1, source, UINT32_MAX)] = '\0';
    return 1;
}
