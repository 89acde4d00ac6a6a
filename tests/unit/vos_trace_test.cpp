#include "vos_trace.h"

#include "support.h"

namespace
{
TEST(Trace, LevelSelectsTheLines)
{
    const std::string all = "ERROR:m:100%d %n|WARNING:m:w|INFO:i1|DEBUG:m:d|DUMP:m:01 AB |";
    for (const char *last : {"DUMP:m:01 AB |", "w|", "i1|", "01 AB |"}) { // start, levels 0, 1, 2
        static uint32_t level = 0;
        const std::string lines = lines_of([] {
            vos_trace_error("m", 42, "%s", "100%d %n");
            vos_trace_warning("m", 42, "w");
            vos_trace_info("i%d", 1);
            vos_trace_debug("m", 42, "d");
            vos_trace_dump("m", 42, "\x01\xAB", 2);
        });
        EXPECT_EQ(lines, all.substr(0, all.find(last) + strlen(last)));
        vos_trace_set_level(level++);
    }
}

TEST(Trace, LinesArePrefixedInUtcAndCut)
{
    setenv("TZ", "XYZ-5", 1);
    tzset();
    fake_clock = {1795380088, 0};
    for (const size_t length : {0U, 996U, 997U, 998U, 5000U}) {
        const std::string message = std::string(length, 'x') + "\n"; // leaves an empty line
        const auto trace = [&message] { vos_trace_error("m", 7, "%s", message.c_str()); };
        EXPECT_EQ(output_of(trace), "20261122-204128:ERROR:m:7:" + message.substr(0, 997) + "\n");
    }
}

TEST(Trace, PrefixesAreThoseOfTheirPlaces)
{
    fake_clock = {1795380088, 0};
    for (const int line : {10, 42, -22, 10, INT_MIN}) {
        for (const std::string source :
             {"fifteen_letters", "m", "fifteen_letters", "", "16_letters_of_it"}) {
            const auto trace = [&] { vos_trace_error(source.c_str(), line, "e"); };
            EXPECT_EQ(output_of(trace),
                      "20261122-204128:ERROR:" + source + ':' + std::to_string(line) + ":e\n");
        }
    }
}

#pragma GCC diagnostic ignored "-Wformat-nonliteral"
TEST(Trace, NumbersReadAsPrintfWritesThem)
{
    for (const char *format : {"%d", "<%u>", "%x,", "%03d", "%09d%%", "%5d", "%-4d", "%02X"}) {
        for (const int number : {0, 9, 10, 99, 100, 999, 1000, 9999, 10'000, 123'456, 7'000'000,
                                 89'012'345, 1'000'000'000, INT_MAX, -1, -999, INT_MIN}) {
            char wanted[64];
            snprintf(wanted, sizeof wanted, format, number);
            EXPECT_EQ(lines_of([&] { vos_trace_info(format, number); }),
                      std::string("INFO:") + wanted + "|");
        }
    }
    const std::string text(990, 'x'); // the numbers reach the end of the line
    for (const char *format : {"%s%d%d", "%s-%x%d", "%s --%09d%d"}) {
        char wanted[1100];
        snprintf(wanted, sizeof wanted, format, text.c_str(), INT_MIN, INT_MIN);
        EXPECT_EQ(lines_of([&] { vos_trace_info(format, text.c_str(), INT_MIN, INT_MIN); }),
                  "INFO:" + std::string(wanted, 1023 - 21) + "|");
    }
}
} // namespace
