// The part of vos_util that deals with calendar time.

#include "vos_util.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "vos_trace.h"

namespace
{

constexpr char MODULE[] = "vos_util";
constexpr long FIRST_YEAR = 1900;
constexpr long LAST_YEAR = 2106; // the last one that begins within 32 bits of seconds
constexpr size_t DATE_LENGTH = 19;
constexpr int64_t SECONDS_PER_DAY = 86400;

static_assert(sizeof(time_t) == sizeof(int64_t), "dates reach 2106 on every machine");

// line is that of the call that was given the date.
uint32_t invalid_date(int line)
{
    vos_trace_error(MODULE, line, "Invalid date");
    return 0;
}

// What does not fit, read as signed or as unsigned, is no date of this module.
uint32_t as_seconds(int64_t seconds, int line)
{
    return seconds < INT32_MIN || seconds > UINT32_MAX ? invalid_date(line)
                                                       : static_cast<uint32_t>(seconds);
}

bool is_within(long value, long first, long last)
{
    return value >= first && value <= last;
}

bool fields_are_valid(const tm *fields)
{
    return is_within(fields->tm_mon, 0, 11) && is_within(fields->tm_mday, 1, 31) &&
           is_within(fields->tm_hour, 0, 23) && is_within(fields->tm_min, 0, 59) &&
           is_within(fields->tm_sec, 0, 59);
}

// The warning of a date long gone is the caller's own.
bool year_is_valid(long year, const char *warning, int line)
{
    if (year >= FIRST_YEAR && year < 2000) {
        vos_trace_warning(MODULE, line, "%s", warning);
    }
    return year >= FIRST_YEAR;
}

// The number at that position of a date text; anything beyond two digits' worth is out of range
// wherever it is used.
int number_at(const char *text, size_t position)
{
    const long value = strtol(text + position, nullptr, 10);
    return is_within(value, 0, 99) ? static_cast<int>(value) : 100;
}

// Reads YYYY-MM-DD hh:mm:ss; false with a trace when it is no date.
bool parse(const char *text, const char *warning, int line, tm *fields)
{
    const long year = strtol(text, nullptr, 10);
    bool valid =
        year_is_valid(year, warning, line) && year <= LAST_YEAR && strlen(text) == DATE_LENGTH;
    if (valid) {
        *fields = {};
        fields->tm_year = static_cast<int>(year - FIRST_YEAR);
        fields->tm_mon = number_at(text, 5) - 1;
        fields->tm_mday = number_at(text, 8);
        fields->tm_hour = number_at(text, 11);
        fields->tm_min = number_at(text, 14);
        fields->tm_sec = number_at(text, 17);
        valid = fields_are_valid(fields);
    }
    if (!valid) {
        invalid_date(line);
    }
    return valid;
}

// The shell reports a failed command on standard error; nothing more can be done about it.
void run_clock_command(const char *command)
{
    [[maybe_unused]] const int status = system(command);
}

} // namespace

void vos_util_set_date(const VosDate *date)
{
    if (date == nullptr) {
        return;
    }
    char command[64];
    snprintf(command, sizeof command, "date -u %02d%02d%02d%02d%04d.%02d", date->month, date->day,
             date->hour, date->minute, date->year, date->second);
    run_clock_command(command);
    run_clock_command("hwclock -w -u");
}

void vos_util_set_time(uint32_t seconds)
{
    const time_t time = seconds;
    tm utc = {};
    gmtime_r(&time, &utc);
    const VosDate date = {static_cast<uint16_t>(utc.tm_year + FIRST_YEAR),
                          static_cast<uint8_t>(utc.tm_mon + 1),
                          static_cast<uint8_t>(utc.tm_mday),
                          static_cast<uint8_t>(utc.tm_hour),
                          static_cast<uint8_t>(utc.tm_min),
                          static_cast<uint8_t>(utc.tm_sec)};
    vos_util_set_date(&date);
}

uint32_t vos_util_parse_local_date(const char *text)
{
    constexpr int LINE = __LINE__;
    tm fields = {};
    if (!parse(text != nullptr ? text : "", "Year is less than 2006", LINE, &fields)) {
        return 0;
    }
    fields.tm_isdst = -1;
    return as_seconds(mktime(&fields), LINE);
}

uint32_t vos_util_parse_utc_date(const char *text)
{
    constexpr int LINE = __LINE__;
    tm fields = {};
    const bool empty = text == nullptr || *text == '\0';
    if (empty || !parse(text, "Year is less than 2000", LINE, &fields)) {
        return 0;
    }
    return as_seconds(timegm(&fields), LINE);
}

uint32_t vos_util_date_to_time(const VosDate *date)
{
    constexpr int LINE = __LINE__;
    if (date == nullptr || !year_is_valid(date->year, "Year is less than 2006", LINE)) {
        return invalid_date(LINE);
    }
    tm fields = {};
    fields.tm_year = static_cast<int>(date->year - FIRST_YEAR);
    fields.tm_mon = date->month - 1;
    fields.tm_mday = date->day;
    fields.tm_hour = date->hour;
    fields.tm_min = date->minute;
    fields.tm_sec = date->second;
    return fields_are_valid(&fields) ? as_seconds(timegm(&fields), LINE) : invalid_date(LINE);
}

int32_t vos_util_get_tz_offset()
{
    tm second_day = {};
    second_day.tm_year = 70;
    second_day.tm_mday = 1;
    second_day.tm_hour = 24; // the count stays positive east of UTC, too
    second_day.tm_isdst = -1;
    return static_cast<int32_t>(mktime(&second_day) - SECONDS_PER_DAY);
}

uint32_t vos_util_format_date(uint32_t seconds, char *output)
{
    const time_t time = seconds;
    tm utc = {};
    gmtime_r(&time, &utc);
    return static_cast<uint32_t>(snprintf(output, DATE_LENGTH + 1, "%04d-%02d-%02d %02d:%02d:%02d",
                                          utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                                          utc.tm_hour, utc.tm_min, utc.tm_sec));
}

uint32_t vos_util_isqrt(uint32_t value)
{
    uint32_t root = value >= 0x40000000 ? 32768 : 0;
    for (uint32_t bit = 16384; bit != 0; bit >>= 1) {
        const uint32_t candidate = root + bit;
        if (candidate * candidate <= value) {
            root = candidate;
        }
    }
    return root;
}
