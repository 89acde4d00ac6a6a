#include "vos_trace_file.h"
#include "vos_trace_text.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

constexpr uint32_t LEVEL_INFO = 1;
constexpr uint32_t LEVEL_DEBUG = 2;
constexpr size_t LINE_SIZE = 1024; // with the newline
constexpr size_t TEXT_SIZE = LINE_SIZE - 1;
constexpr size_t MAX_SOURCE_SIZE = 100;
constexpr size_t PRINT_SIZE = 2500;

std::atomic<uint32_t> trace_level{LEVEL_DEBUG};
std::atomic<const VosTraceFiles *> trace_files{nullptr};

// Every prefix is far shorter than a line.
struct Line {
    char *next;
    int day; // of the month
    char text[TEXT_SIZE + VOS_TRACE_SLACK];

    char *end() { return text + TEXT_SIZE; }
};

// What stands behind the stamp, kept so that it is copied whole.
struct Level {
    size_t length;
    char text[VOS_TRACE_SLACK];
};

constexpr Level FATAL{7, ":FATAL:"};
constexpr Level ERROR{7, ":ERROR:"};
constexpr Level WARNING{9, ":WARNING:"};
constexpr Level INFO{6, ":INFO:"};
constexpr Level DEBUG{7, ":DEBUG:"};
constexpr Level DUMP{6, ":DUMP:"};

// The stamp of the lines of one second, broken down once for each thread that writes some.
struct Stamp {
    time_t second;
    int day;
    size_t length;
    char text[24]; // "20261122-204128", or with a year of ten digits
};

constexpr time_t NO_TIME = std::numeric_limits<time_t>::min();
thread_local Stamp stamp{NO_TIME, 0, 0, ""};

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
    const int printed =
        snprintf(stamp.text, sizeof stamp.text, "%04d%02d%02d-%02d%02d%02d", utc.tm_year + 1900,
                 utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
    stamp.length = std::min(static_cast<size_t>(printed), sizeof stamp.text - 1);
}

void begin_line(Line *line, const Level &level, time_t now)
{
    const Stamp &current = stamp;
    if (now != current.second) {
        renew_stamp(now);
    }
    line->day = current.day;
    memcpy(line->text, current.text, sizeof current.text);
    memcpy(line->text + current.length, level.text, sizeof level.text);
    line->next = line->text + current.length + level.length;
}

// All that stands before the messages from one place within one second.
struct Prefix {
    time_t second;
    const Level *level;
    int number;
    int day;
    char source[16];
    size_t length;
    char text[64];
};

// Those of the places where the thread traced last; most threads trace from a handful, and a
// frame's lines come from five.
thread_local Prefix prefixes[32];

void begin_line_at(Line *line, const Level &level, const char *source, int number)
{
    const time_t now = time(nullptr);
    Prefix *prefix = &prefixes[static_cast<unsigned>(number) % std::size(prefixes)];
    if (prefix->number == number && prefix->second == now && prefix->level == &level &&
        strcmp(prefix->source, source) == 0) {
        memcpy(line->text, prefix->text, sizeof prefix->text);
        line->next = line->text + prefix->length;
        line->day = prefix->day;
        return;
    }
    begin_line(line, level, now);
    const size_t source_length = strnlen(source, MAX_SOURCE_SIZE);
    line->next = vos_trace_put_bytes(line->next, line->end(), source, source_length);
    *line->next++ = ':';
    line->next = vos_trace_put_decimal(line->next, line->end(), number);
    *line->next++ = ':';
    const auto length = static_cast<size_t>(line->next - line->text);
    if (source_length < sizeof prefix->source && length <= sizeof prefix->text) {
        *prefix = {now, &level, number, line->day, "", length, ""};
        memcpy(prefix->source, source, source_length);
        memcpy(prefix->text, line->text, length);
    }
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
        // As write does, without its two atomic operations for threads that may be cancelled.
        const ssize_t written = syscall(SYS_write, STDOUT_FILENO, text, length);
        if (written >= 0) {
            text += written;
            length -= static_cast<size_t>(written);
        } else if (errno != EINTR && !(errno == EAGAIN && wait_for_output())) {
            return;
        }
    }
}

// A terminal or an output that does not block may take a line in parts; no other line may come in
// between, nor what is printed beside the lines.
void write_output(const char *text, size_t length)
{
    flockfile(stdout);
    write_all(text, length);
    funlockfile(stdout);
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

VOS_PRINTF_LIKE(2, 0)
void write_message(Line *line, const char *format, va_list arguments)
{
    line->next = vos_trace_put_message(line->next, line->end(), format, arguments);
    end_line(line);
}

} // namespace

void vos_trace_fatal(const char *source, int line, const char *format, ...)
{
    Line built;
    begin_line_at(&built, FATAL, source, line);
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
    begin_line_at(&built, ERROR, source, line);
    va_list arguments;
    va_start(arguments, format);
    write_message(&built, format, arguments);
    va_end(arguments);
}

void vos_trace_warning(const char *source, int line, const char *format, ...)
{
    Line built;
    begin_line_at(&built, WARNING, source, line);
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
    begin_line(&built, INFO, time(nullptr));
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
    begin_line_at(&built, DEBUG, source, line);
    va_list arguments;
    va_start(arguments, format);
    write_message(&built, format, arguments);
    va_end(arguments);
}

void vos_trace_dump(const char *source, int line, const void *data, uint32_t length)
{
    if (trace_level.load(std::memory_order_relaxed) < LEVEL_DEBUG) {
        return;
    }
    const auto *bytes = static_cast<const uint8_t *>(data);
    do {
        Line built;
        begin_line_at(&built, DUMP, source, line);
        uint32_t written = length;
        built.next = vos_trace_put_dump(built.next, built.end(), bytes, &written);
        bytes += written;
        length -= written;
        end_line(&built);
    } while (length > 0);
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
