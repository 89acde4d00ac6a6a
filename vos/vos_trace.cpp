#include "vos_trace_file.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

namespace
{

constexpr uint32_t LEVEL_INFO = 1;
constexpr uint32_t LEVEL_DEBUG = 2;
constexpr size_t LINE_SIZE = 1024; // with the newline
constexpr size_t TEXT_SIZE = LINE_SIZE - 1;
constexpr size_t DUMP_BYTE_SIZE = 3;
constexpr size_t PRINT_SIZE = 2500;

std::atomic<uint32_t> trace_level{LEVEL_DEBUG};
std::atomic<const VosTraceFiles *> trace_files{nullptr};
pthread_mutex_t output_mutex = PTHREAD_MUTEX_INITIALIZER;

struct Line {
    size_t length;
    int day; // of the month
    char text[LINE_SIZE];
};

// Room that a formatted print may use: it needs one more byte for the NUL, which the newline
// overwrites later.
size_t room_for_print(const Line *line)
{
    return LINE_SIZE - line->length;
}

void advance(Line *line, int printed)
{
    if (printed > 0) {
        line->length = std::min(line->length + static_cast<size_t>(printed), TEXT_SIZE);
    }
}

void begin_line(Line *line, const char *level)
{
    const tm utc = vos_trace_utc_now();
    line->length = 0;
    line->day = utc.tm_mday;
    advance(line,
            snprintf(line->text, LINE_SIZE, "%04d%02d%02d-%02d%02d%02d:%s:", utc.tm_year + 1900,
                     utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, level));
}

void begin_line_at(Line *line, const char *level, const char *source, int number)
{
    begin_line(line, level);
    advance(line, snprintf(line->text + line->length, room_for_print(line), "%.100s:%d:", source,
                           number));
}

// Waits until standard output takes bytes again; false when it never will.
bool wait_for_output()
{
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    return poll(&output, 1, -1) >= 0 || errno == EINTR;
}

void write_all(const char *text, size_t length)
{
    while (length > 0) {
        const ssize_t written = write(STDOUT_FILENO, text, length);
        if (written >= 0) {
            text += written;
            length -= static_cast<size_t>(written);
        } else if (errno != EINTR && !(errno == EAGAIN && wait_for_output())) {
            return;
        }
    }
}

// A terminal or an output that does not block may take a line in parts; no other line may come in
// between.
void write_output(const char *text, size_t length)
{
    pthread_mutex_lock(&output_mutex);
    write_all(text, length);
    pthread_mutex_unlock(&output_mutex);
}

void end_line(Line *line)
{
    line->text[line->length] = '\n';
    const VosTraceFiles *files = trace_files.load(std::memory_order_acquire);
    if (files != nullptr) {
        files->write_line(line->text, line->length + 1, line->day);
    }
    write_output(line->text, line->length + 1);
}

VOS_PRINTF_LIKE(2, 0)
void write_message(Line *line, const char *format, va_list arguments)
{
    advance(line, vsnprintf(line->text + line->length, room_for_print(line), format, arguments));
    end_line(line);
}

} // namespace

void vos_trace_fatal(const char *source, int line, const char *format, ...)
{
    Line built;
    begin_line_at(&built, "FATAL", source, line);
    va_list arguments;
    va_start(arguments, format);
    write_message(&built, format, arguments);
    va_end(arguments);
    const VosTraceFiles *files = trace_files.load(std::memory_order_acquire);
    if (files != nullptr) {
        files->close();
    }
    exit(EXIT_FAILURE);
}

void vos_trace_error(const char *source, int line, const char *format, ...)
{
    Line built;
    begin_line_at(&built, "ERROR", source, line);
    va_list arguments;
    va_start(arguments, format);
    write_message(&built, format, arguments);
    va_end(arguments);
}

void vos_trace_warning(const char *source, int line, const char *format, ...)
{
    Line built;
    begin_line_at(&built, "WARNING", source, line);
    va_list arguments;
    va_start(arguments, format);
    write_message(&built, format, arguments);
    va_end(arguments);
}

void vos_trace_info(const char *format, ...)
{
    if (trace_level.load(std::memory_order_relaxed) < LEVEL_INFO) {
        return;
    }
    Line built;
    begin_line(&built, "INFO");
    va_list arguments;
    va_start(arguments, format);
    write_message(&built, format, arguments);
    va_end(arguments);
}

void vos_trace_debug(const char *source, int line, const char *format, ...)
{
    if (trace_level.load(std::memory_order_relaxed) < LEVEL_DEBUG) {
        return;
    }
    Line built;
    begin_line_at(&built, "DEBUG", source, line);
    va_list arguments;
    va_start(arguments, format);
    write_message(&built, format, arguments);
    va_end(arguments);
}

void vos_trace_dump(const char *source, int line, const void *data, uint32_t length)
{
    static constexpr char DIGITS[] = "0123456789ABCDEF";

    if (trace_level.load(std::memory_order_relaxed) < LEVEL_DEBUG) {
        return;
    }
    const auto *bytes = static_cast<const uint8_t *>(data);
    do {
        Line built;
        begin_line_at(&built, "DUMP", source, line);
        while (length > 0 && built.length + DUMP_BYTE_SIZE <= TEXT_SIZE) {
            built.text[built.length++] = DIGITS[*bytes >> 4];
            built.text[built.length++] = DIGITS[*bytes & 15];
            built.text[built.length++] = ' ';
            ++bytes;
            --length;
        }
        end_line(&built);
    } while (length > 0);
}

tm vos_trace_utc_now()
{
    const time_t now = time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    return utc;
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
