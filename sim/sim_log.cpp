#include "sim_log.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <unistd.h>

namespace sim
{

namespace
{

constexpr size_t TEXT_SIZE = 1000;

bool detail_wanted = false;

SIM_PRINTF_LIKE(1, 0) std::string format_text(const char *format, va_list arguments)
{
    char text[TEXT_SIZE];
    const int length = vsnprintf(text, sizeof text, format, arguments);
    return length < 0 ? std::string(format) : std::string(text);
}

std::string clock_text()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    const auto seconds = static_cast<time_t>(milliseconds / 1000);
    tm utc{};
    gmtime_r(&seconds, &utc);
    return make_text("%02d:%02d:%02d.%03d", utc.tm_hour, utc.tm_min, utc.tm_sec,
                     static_cast<int>(milliseconds % 1000));
}

void write_line(const std::string &who, std::string text)
{
    // Texts of peers, file names among them, must not steer the terminal.
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
    const std::string line = clock_text() + " " + who + " " + text + "\n";
    // A log that nobody takes any more is no reason to stop being a modem.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

} // namespace

void log_set_verbose(bool verbose)
{
    detail_wanted = verbose;
}

std::string make_text(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string text = format_text(format, arguments);
    va_end(arguments);
    return text;
}

void log_event(const std::string &who, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    write_line(who, format_text(format, arguments));
    va_end(arguments);
}

void log_detail(const std::string &who, const char *format, ...)
{
    if (!detail_wanted) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    write_line(who, format_text(format, arguments));
    va_end(arguments);
}

} // namespace sim
