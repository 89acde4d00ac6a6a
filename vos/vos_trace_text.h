// Building a line's text in a fixed room. Part of vos_trace; nobody else includes this.
//
// Each call writes at next, and gives the place behind what it wrote, at most end: the text is cut
// there. The room itself goes on for VOS_TRACE_SLACK bytes behind end, where it may scribble.
// Nothing here blocks or allocates.

#ifndef VOS_TRACE_TEXT_H
#define VOS_TRACE_TEXT_H

#include <cstdarg>
#include <cstddef>

#include "vos_trace.h"

constexpr size_t VOS_TRACE_SLACK = 16; // room for 32 bits in digits, and some signs

char *vos_trace_put_text(char *next, char *end, const char *text);

// As "%s:%d:".
char *vos_trace_put_place(char *next, char *end, const char *source, int number);

// As "%02X " each; *count becomes the number of bytes that fitted whole.
char *vos_trace_put_dump(char *next, char *end, const uint8_t *bytes, uint32_t *count);

// What vsnprintf writes for the format, up to a NUL or to a conversion that fails. Most lines use
// nothing but %d, %u, %x, the first with a width as in %03d, and %s: these are written here, in a
// small part of its time.
char *vos_trace_put_message(char *next, char *end, const char *format, va_list arguments)
    VOS_PRINTF_LIKE(3, 0);

#endif
