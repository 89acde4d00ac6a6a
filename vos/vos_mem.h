// Memory: heap blocks that are counted, and a byte buffer that grows.
//
// Blocks come through an out-pointer that is null when there is no block; nothing is traced then,
// the caller decides what to report. A block is given back with vos_mem_free, never with free.
// Any thread may call; only the counters are shared, under a mutex of their own. No call blocks
// on anything but that mutex, except one that traces: it waits for the reader of standard output,
// and vos_mem_dump for the file system. A VosMemBuf is used by one thread at a time.

#ifndef VOS_MEM_H
#define VOS_MEM_H

#include <cstddef>
#include <cstdint>

// Starts the locking of the counters and sets the block count to 0; once, before the first thread
// is started. Blocks can be taken before, by the main thread alone. Without memory for the lock the
// process ends with a FATAL line.
void vos_mem_init();

// Takes size bytes, aligned for any type; the asked size stands in the 32-bit word just before
// the area. Out of memory, size 0 and a size that the header would push past 32 bits give null.
void vos_mem_alloc_block(void **out, uint32_t size);

// The same, filled with zero bytes.
void vos_mem_calloc_block(void **out, uint32_t size);

// Gives the block back and sets *block to null. A null block, or a null pointer to it, does
// nothing; neither does a call made when no block is out.
void vos_mem_free_block(void **block);

template<typename T> void vos_mem_alloc(T **out, uint32_t size)
{
    void *block = nullptr;
    vos_mem_alloc_block(&block, size);
    *out = static_cast<T *>(block);
}

template<typename T> void vos_mem_calloc(T **out, uint32_t size)
{
    void *block = nullptr;
    vos_mem_calloc_block(&block, size);
    *out = static_cast<T *>(block);
}

inline void vos_mem_free(std::nullptr_t) {}

template<typename T> void vos_mem_free(T **block)
{
    if (block != nullptr) {
        void *area = const_cast<void *>(static_cast<const volatile void *>(*block));
        vos_mem_free_block(&area);
        *block = static_cast<T *>(area);
    }
}

// Blocks handed out and not yet given back; the sum of their asked sizes in bytes; the largest
// value that sum has had.
uint32_t vos_mem_get_nbpools();
uint32_t vos_mem_get_memsize();
uint32_t vos_mem_get_maxmem();

// Writes the three counters as one line into the file at path, replacing what it held. A file
// that can't be opened is passed over without a word.
void vos_mem_dump(const char *path);

// A byte buffer that doubles its capacity when it is full.
struct VosMemBuf {
    uint32_t capacity; // size of the data block in bytes
    uint32_t room;     // bytes still free behind the capacity - room bytes held
    uint8_t *data;     // a block of this module, or null
};

// Makes a buffer with a zeroed data block of size bytes. 1, or -1 with an ERROR line: a null out
// or size 0, or no memory. When only the data block could not be had, *out holds a buffer without
// data, to be given back with vos_mem_buf_delete.
int vos_mem_buf_create(VosMemBuf **out, uint32_t size);

// Adds length bytes behind those held. 1, or -1 with an ERROR line and the buffer unchanged: a
// missing argument, length 0, no memory, a buffer that was detached (capacity 0) or one that
// would have to grow past 32 bits. source may not lie inside the buffer.
int vos_mem_buf_append(VosMemBuf *buffer, const void *source, uint32_t length);

// Gives the data and the buffer back and sets *buffer to null. 1, or -1 with an ERROR line when
// there is no buffer.
int vos_mem_buf_delete(VosMemBuf **buffer);

// Hands the data block over (the caller frees it with vos_mem_free) with the number of bytes
// held, and leaves the buffer empty, with capacity 0, still to be deleted. Always 1.
int vos_mem_buf_detach(VosMemBuf *buffer, uint8_t **data, uint32_t *length);

// A new block holding at most limit characters of the text and a NUL, or null without memory.
// The caller frees it with vos_mem_free.
char *vos_mem_strndup(const char *text, uint32_t limit);

// Length of the text, at most limit; 0 for a null text.
uint32_t vos_mem_strnlen(const char *text, uint32_t limit);

#endif
