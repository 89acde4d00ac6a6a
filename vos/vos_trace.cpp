#include "vos_trace_file.h"
#include "vos_trace_text.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <poll.h>
#include <stdio_ext.h>

namespace
{

constexpr uint32_t LEVEL_INFO = 1;
constexpr uint32_t LEVEL_DEBUG = 2;
constexpr size_t TEXT_SIZE = 1023; // of a line, before its newline
constexpr size_t UNBUFFERED = 1;   // size of the buffer of such a stream
constexpr size_t PRINT_SIZE = 2500;

std::atomic<uint32_t> trace_level{LEVEL_DEBUG};
std::atomic<const VosTraceFiles *> trace_files{nullptr};

struct Line {
    char *next;
    int day; // of the month
    char text[TEXT_SIZE + VOS_TRACE_SLACK];

    char *end() { return text + TEXT_SIZE; }
};

// The stamp of the lines of one second, broken down once for each thread that writes some.
struct Stamp {
    time_t second;
    int day;
    char text[72]; // "20261122-204128"; room for any six numbers
};

constexpr time_t NO_TIME = std::numeric_limits<time_t>::min();
thread_local Stamp stamp{NO_TIME, 0, ""};

tm broken_down(time_t now)
{
    tm utc{};
    gmtime_r(&now, &utc);
    return utc;
}

void renew_stamp(time_t now)
{
    const tm utc = broken_down(now);
    stamp.second = now;
    stamp.day = utc.tm_mday;
    snprintf(stamp.text, sizeof stamp.text, "%04d%02d%02d-%02d%02d%02d", utc.tm_year + 1900,
             utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

// Without a source the line tells of no place.
void begin_line(Line *line, const char *level, const char *source, int number)
{
    const time_t now = time(nullptr);
    if (now != stamp.second) {
        renew_stamp(now);
    }
    line->day = stamp.day;
    line->next = vos_trace_put_text(line->text, line->end(), stamp.text);
    line->next = vos_trace_put_text(line->next, line->end(), level);
    if (source != nullptr) {
        line->next = vos_trace_put_place(line->next, line->end(), source, number);
    }
}

// Waits until the stream, which does not block, takes bytes again; false when it never will.
bool wait_for(FILE *stream)
{
    pollfd output{fileno_unlocked(stream), POLLOUT, 0};
    return output.fd >= 0 && (poll(&output, 1, -1) >= 0 || errno == EINTR);
}

// Writes the text, of which an unbuffered stream may take a part: how much is returned. The C
// library forgets what a buffer could not hand on, so such a stream has taken the text whole or not
// at all.
size_t write_once(FILE *stream, const char *text, size_t length)
{
    const size_t buffer_size = __fbufsize(stream);
    if (buffer_size == UNBUFFERED) {
        return fwrite_unlocked(text, 1, length, stream);
    }
    // A line-buffered stream breaks up at its newlines what is the first thing it is given.
    const size_t begun = buffer_size == 0 && putc_unlocked(*text, stream) != EOF ? 1 : 0;
    fwrite_unlocked(text + begun, 1, length - begun, stream);
    fflush_unlocked(stream);
    if (ferror_unlocked(stream) == 0) {
        return length;
    }
    __fpurge(stream); // or it might come out later, a second time
    return 0;
}

// Hands the text to the system whole. What is refused for the moment is written again; a reader
// that is gone, or a full disk, loses it.
void write_whole(FILE *stream, const char *text, size_t length)
{
    do {
        clearerr_unlocked(stream);
        errno = 0;
        const size_t written = write_once(stream, text, length);
        text += written;
        length -= written;
    } while (length != 0 && (errno == EINTR || (errno == EAGAIN && wait_for(stream))));
}

// The stream's lock keeps the lines of other threads out while a text is written in parts, and what
// is printed beside the lines.
void write_output(const char *text, size_t length)
{
    const int error = errno; // the caller may tell of it in its next line
    FILE *stream = stdout;
    flockfile(stream);
    if (__fpending(stream) != 0 && wait_for(stream)) { // what is refused would be forgotten
        fflush_unlocked(stream);                       // the text might not fit behind it
    }
    write_whole(stream, text, length);
    funlockfile(stream);
    errno = error;
}

void end_line(Line *line)
{
    *line->next = '\n';
    const auto length = static_cast<size_t>(line->next + 1 - line->text);
    const VosTraceFiles *files = trace_files.load(std::memory_order_acquire);
    if (files != nullptr) {
        files->write_line(line->text, length, line->day);
    }
    write_output(line->text, length);
}

VOS_PRINTF_LIKE(4, 0)
void write_line(const char *level, const char *source, int number, const char *format,
                va_list arguments)
{
    Line line;
    begin_line(&line, level, source, number);
    line.next = vos_trace_put_message(line.next, line.end(), format, arguments);
    end_line(&line);
}

} // namespace

void vos_trace_fatal(const char *source, int line, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    write_line(":FATAL:", source, line, format, arguments);
    va_end(arguments);
    const VosTraceFiles *files = trace_files.load(std::memory_order_acquire);
    if (files != nullptr) {
        files->close();
    }
    exit(EXIT_FAILURE);
}

void vos_trace_error(const char *source, int line, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    write_line(":ERROR:", source, line, format, arguments);
    va_end(arguments);
}

void vos_trace_warning(const char *source, int line, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    write_line(":WARNING:", source, line, format, arguments);
    va_end(arguments);
}

void vos_trace_info(const char *format, ...)
{
    if (trace_level.load(std::memory_order_relaxed) < LEVEL_INFO) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    write_line(":INFO:", nullptr, 0, format, arguments);
    va_end(arguments);
}

void vos_trace_debug(const char *source, int line, const char *format, ...)
{
    if (trace_level.load(std::memory_order_relaxed) < LEVEL_DEBUG) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    write_line(":DEBUG:", source, line, format, arguments);
    va_end(arguments);
}

void vos_trace_dump(const char *source, int line, const void *data, uint32_t length)
{
    if (trace_level.load(std::memory_order_relaxed) < LEVEL_DEBUG) {
        return;
    }
    const auto *bytes = static_cast<const uint8_t *>(data);
    uint32_t written = 0;
    do {
        Line built;
        begin_line(&built, ":DUMP:", source, line);
        written = length;
        built.next = vos_trace_put_dump(built.next, built.end(), bytes, &written);
        bytes += written;
        length -= written;
        end_line(&built);
    } while (length > 0 && written > 0); // a long source may leave no room for any
}

tm vos_trace_utc_now()
{
    return broken_down(time(nullptr));
}

void vos_trace_set_files(const VosTraceFiles *files)
{
    trace_files.store(files, std::memory_order_release);
}

void vos_trace_print(const char *format, ...)
{
    char text[PRINT_SIZE];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length > 0) {
        write_output(text, std::min(static_cast<size_t>(length), sizeof text - 1));
    }
}

void vos_trace_set_level(uint32_t level)
{
    trace_level.store(level, std::memory_order_relaxed);
}
