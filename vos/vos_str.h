// Bounded copy and concatenation of NUL-terminated texts. No call keeps state; any thread may
// call. Only a trace line waits, for the reader of standard output. Sizes and limits count bytes. A
// null text counts as an empty one.

#ifndef VOS_STR_H
#define VOS_STR_H

#include <cstdint>

// Writes at most limit1 characters of text1, then at most limit2 of text2, then a NUL into output,
// which has room for size bytes. Returns the bytes written with the NUL. When the room runs out the
// result is size and the output is NOT terminated. 0, with the output untouched: both texts null,
// or size 0 (ERROR line).
uint32_t vos_str_concat(const char *text1, uint32_t limit1, const char *text2, uint32_t limit2,
                        char *output, uint32_t size);

// The same into a new block that the caller gives back with vos_mem_free. Null when both texts are
// null (WARNING line), when the length does not fit into 32 bits, or without memory.
char *vos_str_concat_new(const char *text1, uint32_t limit1, const char *text2, uint32_t limit2);

// Copies as much of source as fits into size bytes with its NUL; the output is always terminated.
// 1, also when the text was cut; -1 with a WARNING line when size is 0.
int vos_str_copy(const char *source, char *output, uint32_t size);

#endif
