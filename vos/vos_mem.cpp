#include "vos_mem.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vos_fs.h"
#include "vos_trace.h"
#include "vos_util_linux.h"

namespace
{

constexpr char MODULE[] = "vos_mem";

// The area must be aligned for any type, so the header takes that much room; the asked size stands
// in its last word.
constexpr uint32_t HEADER_SIZE = alignof(max_align_t) < 8 ? 8 : alignof(max_align_t);

struct Counters {
    uint32_t blocks;
    uint32_t bytes;
    uint32_t peak;
};

Counters counters;
VosMutex *mem_mutex;

bool fits_with_header(uint32_t size)
{
    return size != 0 && size <= UINT32_MAX - HEADER_SIZE;
}

void *hand_out(void *allocation, uint32_t size)
{
    if (allocation == nullptr) {
        return nullptr;
    }
    uint8_t *area = static_cast<uint8_t *>(allocation) + HEADER_SIZE;
    memcpy(area - sizeof size, &size, sizeof size);

    vos_mutex_lock(mem_mutex);
    counters.bytes += size;
    if (counters.bytes > counters.peak) {
        counters.peak = counters.bytes;
    }
    ++counters.blocks;
    vos_mutex_unlock(mem_mutex);
    return area;
}

uint32_t read_counter(const uint32_t &counter)
{
    vos_mutex_lock(mem_mutex);
    const uint32_t value = counter;
    vos_mutex_unlock(mem_mutex);
    return value;
}

// Smallest doubling of the capacity that holds wanted bytes; 0 when there is none below 2^32.
uint32_t doubled_capacity(uint32_t capacity, uint64_t wanted)
{
    uint64_t doubled = capacity;
    while (doubled != 0 && doubled < wanted && doubled <= UINT32_MAX) {
        doubled *= 2;
    }
    return doubled <= UINT32_MAX ? static_cast<uint32_t>(doubled) : 0;
}

int grow(VosMemBuf *buffer, uint32_t length)
{
    const uint32_t held = buffer->capacity - buffer->room;
    const uint32_t capacity =
        doubled_capacity(buffer->capacity, static_cast<uint64_t>(held) + length);
    uint8_t *data = nullptr;
    vos_mem_calloc(&data, capacity);
    if (data == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Memory overflow\n");
        return -1;
    }
    if (held != 0) {
        if (buffer->data == nullptr) {
            vos_mem_free(&data);
            vos_trace_error(MODULE, __LINE__, "Invalid buffer\n");
            return -1;
        }
        memcpy(data, buffer->data, held);
    }
    vos_mem_free(&buffer->data);
    buffer->data = data;
    buffer->capacity = capacity;
    buffer->room = capacity - held;
    return 1;
}

} // namespace

void vos_mem_init()
{
    VosMutex *mutex = vos_mutex_create("mem");
    if (mutex == nullptr) {
        vos_trace_fatal(MODULE, __LINE__, "No memory for the lock of the memory counters");
    }
    counters.blocks = 0;
    mem_mutex = mutex;
}

void vos_mem_alloc_block(void **out, uint32_t size)
{
    *out = fits_with_header(size) ? hand_out(malloc(size + HEADER_SIZE), size) : nullptr;
}

void vos_mem_calloc_block(void **out, uint32_t size)
{
    *out = fits_with_header(size) ? hand_out(calloc(size + HEADER_SIZE, 1), size) : nullptr;
}

void vos_mem_free_block(void **block)
{
    if (block == nullptr || *block == nullptr) {
        return;
    }
    uint8_t *area = static_cast<uint8_t *>(*block);
    uint32_t size = 0;
    memcpy(&size, area - sizeof size, sizeof size);

    vos_mutex_lock(mem_mutex);
    counters.bytes -= size;
    if (counters.blocks == 0) {
        vos_mutex_unlock(mem_mutex);
        return;
    }
    --counters.blocks;
    vos_mutex_unlock(mem_mutex);

    free(area - HEADER_SIZE);
    *block = nullptr;
}

uint32_t vos_mem_get_nbpools()
{
    return read_counter(counters.blocks);
}

uint32_t vos_mem_get_memsize()
{
    return read_counter(counters.bytes);
}

uint32_t vos_mem_get_maxmem()
{
    return read_counter(counters.peak);
}

void vos_mem_dump(const char *path)
{
    FILE *file = vos_fs_fopen(path, "wb");
    if (file == nullptr) {
        return;
    }
    char line[109];
    vos_mutex_lock(mem_mutex);
    snprintf(line, sizeof line, "Nbpools=%d memsize=%d maxmem=%d (most recent first):\n",
             counters.blocks, counters.bytes, counters.peak);
    const bool written = fputs(line, file) != EOF;
    vos_mutex_unlock(mem_mutex);
    if (fclose(file) != 0 || !written) {
        vos_trace_error(MODULE, __LINE__, "Can't write \"%s\" : %s", path, strerror(errno));
    }
}

int vos_mem_buf_create(VosMemBuf **out, uint32_t size)
{
    if (out == nullptr || size == 0) {
        vos_trace_error(MODULE, __LINE__, "Invalid parameter\n");
        return -1;
    }
    vos_mem_calloc(out, sizeof(VosMemBuf));
    if (*out == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Memory overflow\n");
        return -1;
    }
    vos_mem_calloc(&(*out)->data, size);
    if ((*out)->data == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Memory overflow\n");
        return -1;
    }
    (*out)->capacity = size;
    (*out)->room = size;
    return 1;
}

int vos_mem_buf_append(VosMemBuf *buffer, const void *source, uint32_t length)
{
    if (buffer == nullptr || source == nullptr || length == 0) {
        vos_trace_error(MODULE, __LINE__, "Invalid parameter\n");
        return -1;
    }
    if (length > buffer->room && grow(buffer, length) != 1) {
        return -1;
    }
    memcpy(buffer->data + (buffer->capacity - buffer->room), source, length);
    buffer->room -= length;
    return 1;
}

int vos_mem_buf_delete(VosMemBuf **buffer)
{
    if (buffer == nullptr || *buffer == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Invalid parameter\n");
        return -1;
    }
    vos_mem_free(&(*buffer)->data);
    vos_mem_free(buffer);
    return 1;
}

int vos_mem_buf_detach(VosMemBuf *buffer, uint8_t **data, uint32_t *length)
{
    *data = buffer->data;
    *length = buffer->capacity - buffer->room;
    *buffer = VosMemBuf{};
    return 1;
}

char *vos_mem_strndup(const char *text, uint32_t limit)
{
    const uint32_t length = vos_mem_strnlen(text, limit);
    if (length == UINT32_MAX) {
        return nullptr;
    }
    char *copy = nullptr;
    vos_mem_alloc(&copy, length + 1);
    if (copy != nullptr) {
        if (length != 0) {
            memcpy(copy, text, length);
        }
        copy[length] = '\0';
    }
    return copy;
}

uint32_t vos_mem_strnlen(const char *text, uint32_t limit)
{
    return text == nullptr ? 0 : static_cast<uint32_t>(strnlen(text, limit));
}
