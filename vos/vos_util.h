// Conversions, texts, dates and timers. Any thread may call; nothing but the timers keeps state,
// and nothing blocks unless it says so. Texts end in a NUL and are bytes, not characters of a
// locale. An output must not overlap an input. A call that traces waits for the line's reader.

#ifndef VOS_UTIL_H
#define VOS_UTIL_H

#include <atomic>
#include <cstdint>

struct VosTask;

// Hexadecimal and decimal numbers.

// Value of the length hexadecimal digits of the text (upper or lower case, a leading "0x" is
// skipped and counts in length); of more than eight digits the last eight. 0 for anything else:
// no text, no digit, another character, a text shorter than length.
uint32_t vos_util_hex_to_u32(const char *text, uint16_t length);

// Turns pairs of hexadecimal digits into bytes, first digit high, and returns output; null for a
// null text. Writes at most output_size bytes, at most half the text's length (counted modulo
// 65536); an odd last digit is ignored, a pair that is not two digits gives 0. The overload
// without a size needs output to hold half the text's length.
uint8_t *vos_util_hexstr_to_bytes(uint8_t *output, uint32_t output_size, const char *text);
uint8_t *vos_util_hexstr_to_bytes(uint8_t *output, const char *text);

// The character itself when it is a hexadecimal digit, otherwise 0. character is 0 to 255.
int vos_util_is_hex_char(int character);

// Writes value in upper-case hexadecimal digits: padded with zeros to width (at most 8), never cut,
// at least one. output has room for 9 bytes.
void vos_util_u32_to_hex(char *output, uint32_t value, uint32_t width);

// Writes count bytes as two upper-case hexadecimal digits each and returns output, which has room
// for 2 * count + 1 bytes.
char *vos_util_bytes_to_hexstr(char *output, const uint8_t *bytes, uint16_t count);

// Writes value in decimal and returns output, which has room for 12 bytes ("-2147483648").
char *vos_util_itoa(int32_t value, char *output);

// Writes value in decimal and returns the number of digits, 1 to 10. output has room for 11 bytes.
uint32_t vos_util_utoa(uint32_t value, char *output);

// Value, modulo 2^32, of the decimal digits that the text begins with; 0 when there is none (a
// sign or a space is no digit) or no text.
uint32_t vos_util_atou(const char *text);

// 1 when the text holds nothing but hexadecimal digits, or decimal digits, or decimal digits
// behind one '+' that may be missing; also for an empty text. 0 otherwise, and for a null one.
int vos_util_is_hex_str(const char *text);
int vos_util_is_dec_str(const char *text);
int vos_util_is_dec_str_plus(const char *text);

// 1 when the text, or its first limit characters, are printable ASCII (0x20 to 0x7E); also for none
// of them. 0 otherwise, and for a null text.
int vos_util_is_printable(const char *text, uint32_t limit);

// Texts. Only the letters A to Z have a case.

// 0 when the texts are equal but for case; otherwise the difference of the first bytes (0 to 255,
// upper case counted as lower) that differ, a's minus b's. -1 when either text is null. The second
// one looks at limit bytes at most.
int vos_util_strcasecmp(const char *a, const char *b);
int vos_util_strncasecmp(const char *a, const char *b, uint32_t limit);

// Which of the keywords, a list of texts closed by nullptr, the text begins with but for case: 1
// for the first of the list and so on, 0 for none. An empty keyword begins every text.
int vos_util_match_keyword(const char *text, ...) __attribute__((sentinel));

// Change the text in place; nothing for a null one.
void vos_util_to_upper(char *text);
void vos_util_to_lower(char *text);

// Copies the first limit characters of the text, or all, but for carriage returns and line feeds,
// and returns output, which has room for them and a NUL: min(limit, the text's length) + 1 bytes.
// A limit of 0 or less gives an empty text. Null, with the output untouched, for a null text.
char *vos_util_strip_crlf(char *output, const char *text, int32_t limit);

// Copies one of the comma-separated values of a line of the form name, separator, values, as in
// "K: 21,99": number 1 (or less) is 21, number 2 is 99. The separator is the first '=' or ':', or
// the first space before a decimal digit; one space behind it is skipped. A value in double quotes
// may hold commas and comes without the quotes. A value ends at a comma, a carriage return or the
// end of the text. Where something else follows a closing quote, the text behind it (and behind a
// line end there), without its own carriage return and line feed, is the one value that is left.
//
// Returns output, or null when there is no such value (the output is empty then) or no text (the
// output is untouched). What does not fit into output_size bytes with a NUL is cut. The overload
// without a size needs output to hold the text's length + 1. Of texts over 65535 bytes only values
// that begin within the length modulo 65536 are found.
char *vos_util_get_field(char *output, uint32_t output_size, const char *text, int32_t number);
char *vos_util_get_field(char *output, const char *text, int32_t number);

// Time. Points in time are seconds since 1970-01-01 00:00:00 UTC in 32 bits: unsigned, they reach
// from then to 2106-02-07 06:28:15. Dates before 1970, back to 1901-12-13 20:45:52, can be parsed,
// too: they give the value that read as signed is their negative number of seconds. What goes the
// other way, a date written or a clock set, reads the seconds as unsigned.

struct VosDate {
    uint16_t year; // in full, from 1900
    uint8_t month; // 1 to 12
    uint8_t day;   // 1 to 31; days past the end of the month go on in the next one
    uint8_t hour;
    uint8_t minute;
    uint8_t second; // 0 to 59
};

// Seconds since the epoch; 0, with ERROR lines, when the time can't be read.
uint32_t vos_util_get_time();

// The seconds of a date text of 19 characters, YYYY-MM-DD hh:mm:ss (any characters serve as
// separators), read in the time zone of the process or as UTC. 0, with the ERROR line "Invalid
// date" (its line number tells which of the three calls it was), for any other text; but 0 without
// a trace from the UTC variant for an empty or null one. A year before 2000 gets a WARNING line. Of
// a local hour that comes twice, when summer time ends, either is meant.
uint32_t vos_util_parse_local_date(const char *text);
uint32_t vos_util_parse_utc_date(const char *text);

// The same of a date record, read as UTC.
uint32_t vos_util_date_to_time(const VosDate *date);

// Seconds to add to local time to have UTC: negative east of Greenwich. It is the zone's offset at
// the beginning of 1970, which is standard time in most zones, but may not be today's.
int32_t vos_util_get_tz_offset();

// Writes the seconds as YYYY-MM-DD hh:mm:ss in UTC and returns 19. output has room for 20 bytes.
uint32_t vos_util_format_date(uint32_t seconds, char *output);

// Sets the system clock, then the hardware clock (kept in UTC), by the commands date and hwclock;
// blocks until both have ended. It takes root. Whether they did it is not told: compare the time.
// set_date does nothing for a null date and does not check its fields.
void vos_util_set_date(const VosDate *date);
void vos_util_set_time(uint32_t seconds);

// Largest number whose square is not above value.
uint32_t vos_util_isqrt(uint32_t value);

// Timers. A timer is a task of its own that calls a function after a period, once or again and
// again. The period counts from the start, or from the return of the callback before, in ticks of
// 20 ms of the system clock (setting the clock moves the expiry); expiries of a periodic timer are
// thus the period and the callback's running time apart.
//
// The handle is the caller's variable, empty at first: VosTimer timer{}. It holds the task while
// the timer runs and is cleared by the timer's thread some time after a stop, so it must live
// until then; a start before is refused, as the old timer still runs. Read it, don't write it.
//
// The callback runs in the timer's thread and may make any of these calls, for its own timer, too.
// It must guard what it shares. Any thread may call, also several for one timer: commands take
// effect in the order in which they were given, after a callback that is running. The calls don't
// wait for that, nor for one another but for a moment; only a start and a refusal wait, for the
// reader of their trace line. All return 1 when they did their work; 0 with a DEBUG line when the
// timer is not running (start: when it runs, or the address is null, or it could not be started),
// or with an ERROR line when the command could not be sent.
using VosTimer = std::atomic<VosTask *>;
using VosTimerCallback = void (*)(uintptr_t argument);

// Starts the timer: callback(argument), if there is a callback, after period ticks (0: never), and
// again after each further period unless periodic is 0. A timer that is not periodic stays, idle,
// to be restarted or stopped.
int vos_util_start_timer(VosTimer *timer, uint8_t periodic, uint32_t period,
                         VosTimerCallback callback, uintptr_t argument);

int vos_util_suspend_timer(VosTimer *timer); // no expiry until it is restarted or changed
int vos_util_restart_timer(VosTimer *timer); // a full period from now
int vos_util_change_timer(VosTimer *timer, uint8_t periodic, uint32_t period,
                          VosTimerCallback callback, uintptr_t argument); // and restart
int vos_util_stop_timer(VosTimer *timer);                                 // end its task

#endif
