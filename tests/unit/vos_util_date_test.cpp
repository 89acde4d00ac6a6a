#include <fstream>

#include "support.h"
#include "vos_util.h"

namespace
{
constexpr uint32_t MAY_2024 = 1715953500; // 2024-05-17 13:45:00

TEST(Date, TextsBecomeSecondsAndBackInEveryZone)
{
    const std::string warning = "WARNING:vos_util:Year is less than ",
                      invalid = "ERROR:vos_util:Invalid date|";
    const Table<const char *, uint32_t, std::string> rows = {
        {"2024-05-17 13:45:00", MAY_2024, ""},
        {"2024/05/17T13.45.00", MAY_2024, ""},
        {"2023-02-31 00:00:00", 1677801600, ""},
        {"2106-02-07 06:28:15", 4294967295, ""},
        {"2038-01-19 03:14:08", 2147483648, ""},
        {"1999-12-31 23:59:59", 946684799, warning + "2000|"},
        {"", 0, ""},
        {"1900-01-01 00:00:00", 0, warning + "2000|" + invalid}};
    for (const auto &[zone, offset, local] :
         Table<const char *, int32_t, uint32_t>{{"Europe/Paris", -3600, MAY_2024 - 7200},
                                                {"America/St_Johns", 12600, MAY_2024 + 9000}}) {
        setenv("TZ", zone, 1);
        tzset();
        EXPECT_EQ(vos_util_get_tz_offset(), offset) << zone;
        EXPECT_EQ(vos_util_parse_local_date("2024-05-17 13:45:00"), local) << zone;
        for (const auto &[text, seconds, lines] : rows) {
            EXPECT_EQ(lines_of([t = text, s = seconds] {
                          EXPECT_EQ(vos_util_parse_utc_date(t), s) << t;
                      }),
                      lines)
                << zone;
        }
    }
    for (const char *text : {"1899-12-31 23:59:59", "2106-02-07 06:28:16", "2024-13-01 00:00:00",
                             "2024-05-00 00:00:00", "2024-05-32 00:00:00", "2024-05-17 13:60:00",
                             "2024-05-17 24:00:00", "2024-05-17 13:45:60", "2024-05-17 13:45:0",
                             "2024-05-17 13:-5:00", "x", "99999999999999999999"}) {
        EXPECT_EQ(lines_of([text] { EXPECT_EQ(vos_util_parse_utc_date(text), 0U); }), invalid);
    }
    EXPECT_EQ(lines_of([] { EXPECT_EQ(vos_util_parse_local_date(""), 0U); }), invalid);
    EXPECT_EQ(lines_of([] { EXPECT_EQ(vos_util_date_to_time(nullptr), 0U); }), invalid);
    EXPECT_EQ(lines_of([] { vos_util_parse_local_date("1999-12-31 23:59:59"); }),
              warning + "2006|");
    for (const auto &[date, seconds, lines] : Table<VosDate, uint32_t, std::string>{
             {{2024, 5, 17, 13, 45, 0}, MAY_2024, ""},
             {{1999, 12, 31, 23, 59, 59}, 946684799, warning + "2006|"},
             {{65535, 5, 17, 13, 45, 0}, 0, invalid}}) {
        EXPECT_EQ(lines_of([d = date, s = seconds] { EXPECT_EQ(vos_util_date_to_time(&d), s); }),
                  lines);
    }
    for (const char *text : {"1970-01-01 00:00:00", "2024-05-17 13:45:00", "2106-02-07 06:28:15"}) {
        char output[20];
        EXPECT_EQ(vos_util_format_date(vos_util_parse_utc_date(text), output), 19U);
        EXPECT_STREQ(output, text);
    }
}

// The machine's own clock commands are not found: these write down how they were called.
TEST(Date, TheClocksAreSetByTheirCommands)
{
    const Scratch scratch;
    for (const char *name : {"date", "hwclock"}) {
        std::ofstream(name) << "#!/bin/sh\necho \"${0##*/} $*\" >> calls\nexit 1\n";
        std::filesystem::permissions(name, std::filesystem::perms::owner_all);
    }
    setenv("PATH", scratch.path.c_str(), 1);
    vos_util_set_time(MAY_2024 + 7);
    vos_util_set_time(~0U);
    EXPECT_EQ(content_of("calls"), "date -u 051713452024.07\nhwclock -w -u\n"
                                   "date -u 020706282106.15\nhwclock -w -u\n");
}

TEST(Isqrt, IsTheLargestRootNotAbove)
{
    for (const uint32_t root : {0U, 1U, 2U, 255U, 32767U, 32768U, 46340U, 65535U}) {
        EXPECT_EQ(vos_util_isqrt(root * root), root);
        EXPECT_EQ(vos_util_isqrt(root * root + 2 * root), root);
    }
}
} // namespace
