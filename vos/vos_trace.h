// Trace lines: one event, one line on standard output, and in a file where one is asked for.
//
//   20261122-204128:ERROR:app_lan:212:Malformed info msg
//   20261122-204128:INFO:Modem INFO :protocol:1, ...
//
// A line is a UTC stamp, the level, the source name and line number (all but INFO), and the
// message. Prefix and message take at most 1023 characters, what does not fit is cut; a newline
// follows. A message that ends in a newline of its own leaves an empty line behind it.
//
// Any thread may trace at any time, from the first instruction of main on. A line is built on the
// caller's stack and goes through stdout, wherever the program has put it: behind what was printed
// there before, whole, in one write where the output takes it, and flushed. So lines of several
// threads never mix. The calls block while standard output takes no bytes (a stopped terminal, a
// full pipe); they must not be made by a thread that may not wait for a reader. An output that is
// gone or full loses the line, silently. One that does not block is waited for. Where such an
// output is no pipe it may take a part of a line first: an unbuffered stdout goes on behind the
// part, with a buffer the line is written again. errno stays as it is, the error indicator of
// stdout tells of the last line.
//
// A conversion of the format that fails ends the message before it, and so does a NUL of a "%c".
// source is the module's name without directory or extension ("app_lan"), line is __LINE__.

#ifndef VOS_TRACE_H
#define VOS_TRACE_H

#include <cstdint>

#define VOS_PRINTF_LIKE(text, first) __attribute__((format(printf, text, first)))

// Writes the line, closes the trace file, and ends the process with exit status 1.
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
// line go on in further DUMP lines, each complete with its prefix; where a long source leaves no
// room for any, they are left out. No bytes give one line with the prefix alone. data may be null
// when length is 0.
void vos_trace_dump(const char *source, int line, const void *data, uint32_t length);

// Sets what is written: 0 FATAL, ERROR and WARNING; 1 also INFO; 2 or more everything. The level
// is 2 when the process starts. Takes effect at once in all threads.
void vos_trace_set_level(uint32_t level);

// Trace files. After vos_trace_init every line is also written to a file, before it goes to
// standard output, and is in the file when the call returns; the calls that trace then block on the
// file system, too, and must not be made while stdout is locked (flockfile). Files are kept in one
// of two ways:
//
//   by size   (file count N > 0) DIRECTORY/BASE-YYYYMMDD-hhmmss, named by the UTC time of its
//             opening, with _xxxx of hexadecimal digits behind it where such a file is there
//             already. A line that brings the file to the file size or past it is its last one.
//             Opening a file deletes the oldest files whose names begin with BASE until it is the
//             Nth; so keep nothing else of that name there.
//   by day    (file count 0) DIRECTORY/BASE.txt, emptied when it is opened: by the first line of
//             the process, too. The first line whose day of the month (UTC) is another renames it
//             BASE-YYYYMMDD.txt by the date of its opening and begins a new one. It replaces a
//             file of that name, which is there when the clock was set back over midnight.
//
// A file that can't be opened is reported on standard output ("trace file open error : REASON") and
// ends the trace files until the next vos_trace_init. A line that can't be stored (a full disk) is
// left out of the file, never cut, and does not count towards its size; the first one of a file is
// reported ("trace file write error : REASON"). A daily file that can't be renamed is reported and
// lost. Standard output has every line.

// Sets the trace directory, ROOT/SUBDIR, which is created when ROOT is there (its parents are not),
// and the base name, 1 to 32 characters ("traceagent" until set; any other text or null leaves it).
// Directory, with a '/' behind each of its two names, and base name have room for 1007 characters
// together; backslashes become slashes. The names are copied. The first line opens the file. After
// a second call the open file goes on until it is full, by day while directory and base name stay
// the same; the next file is then opened in the new directory.
//
// Without such a root, or with a null name, a path too long, or no memory, the directory is left as
// it is (a base name that fits is taken); it then says "trace path invalid, use stdout" unless
// there are trace files already. Call it before other threads use the calls below; lines may be
// traced meanwhile.
void vos_trace_init(const char *root, const char *subdir, const char *base_name);

// Number of files kept, 10 until set; 0: by day. To be set before vos_trace_init.
void vos_trace_set_file_count(uint32_t count);

// Bytes that end a file, 100000 until set; looked at with every line. Not used by day.
void vos_trace_set_file_size(uint32_t size);

// Hands what is buffered to the system: nothing is, a line is stored when its call returns.
void vos_trace_flush();

// Closes the file and ends the trace files, until the next vos_trace_init.
void vos_trace_close();

// Closes the file (by day: renames it as at midnight) and opens the next one.
void vos_trace_new_file();

// The trace directory while there are trace files, and the names given to vos_trace_init, each with
// a '/' at its end; null without. The texts live until the next vos_trace_init.
const char *vos_trace_get_dir();
const char *vos_trace_get_root();
const char *vos_trace_get_subdir();

#endif
