#include "wmbusctl_frames_time.h"

#include "wmbusctl_frames_text.h"

#include <algorithm>
#include <chrono>

namespace frames
{

namespace
{

using namespace std::chrono;

constexpr int64_t DAY = 86400;

// The text has digits only.
unsigned number_of(std::string_view digits)
{
    unsigned number = 0;
    for (const char c : digits) {
        number = number * 10 + static_cast<unsigned>(c - '0');
    }
    return number;
}

int64_t seconds_of(std::string_view date, unsigned hour, unsigned minute, unsigned second)
{
    const year_month_day day(year(static_cast<int>(number_of(date.substr(0, 4)))),
                             month(number_of(date.substr(4, 2))),
                             std::chrono::day(number_of(date.substr(6, 2))));
    if (!day.ok() || day.year() < year(1970) || hour > 23 || minute > 59 || second > 60) {
        return TIME_UNKNOWN;
    }
    const auto days = sys_days(day).time_since_epoch().count();
    return int64_t{days} * DAY + int64_t{hour} * 3600 + int64_t{minute} * 60 + second;
}

void append_pair(std::string &out, unsigned number)
{
    out += static_cast<char>('0' + number / 10 % 10);
    out += static_cast<char>('0' + number % 10);
}

} // namespace

int64_t parse_stamp(std::string_view stamp)
{
    return seconds_of(stamp.substr(0, 8), number_of(stamp.substr(9, 2)),
                      number_of(stamp.substr(11, 2)), number_of(stamp.substr(13, 2)));
}

bool parse_time(std::string_view text, int64_t &seconds, uint32_t &milliseconds)
{
    constexpr std::string_view FORM = "0000-00-00T00:00:00.000Z";
    constexpr size_t FRACTION_AT = 19;
    std::string whole(text);
    if (whole.size() == FRACTION_AT + 1) {
        whole.insert(FRACTION_AT, ".000");
    }
    const auto fits = [](char c, char form) { return form == '0' ? is_digit(c) : c == form; };
    if (!std::equal(whole.begin(), whole.end(), FORM.begin(), FORM.end(), fits)) {
        return false;
    }
    const auto number_at = [&](size_t at, size_t size) {
        return number_of(std::string_view(whole).substr(at, size));
    };
    seconds = seconds_of(whole.substr(0, 4) + whole.substr(5, 2) + whole.substr(8, 2),
                         number_at(11, 2), number_at(14, 2), number_at(17, 2));
    milliseconds = number_at(20, 3);
    return seconds != TIME_UNKNOWN;
}

void append_time(std::string &out, int64_t seconds, char separator)
{
    const year_month_day date(sys_days(days(static_cast<int>(seconds / DAY))));
    const auto of_day = static_cast<unsigned>(seconds % DAY);
    const auto year = static_cast<unsigned>(int{date.year()});
    append_pair(out, year / 100);
    append_pair(out, year % 100);
    out += '-';
    append_pair(out, unsigned{date.month()});
    out += '-';
    append_pair(out, unsigned{date.day()});
    out += separator;
    append_pair(out, of_day / 3600);
    out += ':';
    append_pair(out, of_day / 60 % 60);
    out += ':';
    append_pair(out, of_day % 60);
}

void append_milliseconds(std::string &out, uint32_t milliseconds)
{
    out += '.';
    out += static_cast<char>('0' + milliseconds / 100 % 10);
    append_pair(out, milliseconds % 100);
}

} // namespace frames
