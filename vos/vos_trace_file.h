// Between the two halves of vos_trace, the lines and the files; nobody else includes this.

#ifndef VOS_TRACE_FILE_H
#define VOS_TRACE_FILE_H

#include <cstddef>
#include <ctime>

#include "vos_trace.h"

// What the lines call of the files, once there is a trace directory. A program that never asks for
// one is linked without the files.
struct VosTraceFiles {
    void (*write_line)(const char *text, size_t length, int day); // day of the month of its stamp
    void (*close)();
};

// Has every further line go through files as well. Any thread; takes effect at once.
void vos_trace_set_files(const VosTraceFiles *files);

// What the stamps of lines and the names of files are made of.
tm vos_trace_utc_now();

// Writes the text to standard output as it is, between two lines; over 2500 bytes are cut.
void vos_trace_print(const char *format, ...) VOS_PRINTF_LIKE(1, 2);

#endif
