// Trace lines: one event, one line on standard output.
//
//   20261122-204128:ERROR:app_lan:212:Malformed info msg
//   20261122-204128:INFO:Modem INFO :protocol:1, ...
//
// A line is a UTC stamp, the level, the source name and line number (all but INFO), and the
// message. Prefix and message take at most 1023 characters, what does not fit is cut; a newline
// follows. A message that ends in a newline of its own leaves an empty line behind it.
//
// Any thread may trace at any time, from the first instruction of main on. A line is built on the
// caller's stack and leaves whole, in one write where the output takes it, so lines of several
// threads never mix. The calls block
// while standard output takes no bytes (a stopped terminal, a full pipe); they must not be made
// by a thread that may not wait for a reader. An output that is gone loses the line, silently.
//
// source is the module's name without directory or extension ("app_lan"), line is __LINE__.

#ifndef VOS_TRACE_H
#define VOS_TRACE_H

#include <cstdint>

#define VOS_PRINTF_LIKE(text, first) __attribute__((format(printf, text, first)))

// Writes the line, then ends the process with exit status 1.
[[noreturn]] void vos_trace_fatal(const char *source, int line, const char *format, ...)
    VOS_PRINTF_LIKE(3, 4);

// Written at every level.
void vos_trace_error(const char *source, int line, const char *format, ...) VOS_PRINTF_LIKE(3, 4);
void vos_trace_warning(const char *source, int line, const char *format, ...) VOS_PRINTF_LIKE(3, 4);

// Written unless the level is 0.
void vos_trace_info(const char *format, ...) VOS_PRINTF_LIKE(1, 2);

// Written when the level is 2 or more.
void vos_trace_debug(const char *source, int line, const char *format, ...) VOS_PRINTF_LIKE(3, 4);

// Writes length bytes as "%02X " each, when the level is 2 or more. Bytes that do not fit in one
// line go on in further DUMP lines, each complete with its prefix. No bytes give one line with the
// prefix alone. data may be null when length is 0.
void vos_trace_dump(const char *source, int line, const void *data, uint32_t length);

// Sets what is written: 0 FATAL, ERROR and WARNING; 1 also INFO; 2 or more everything. The level
// is 2 when the process starts. Takes effect at once in all threads.
void vos_trace_set_level(uint32_t level);

#endif
