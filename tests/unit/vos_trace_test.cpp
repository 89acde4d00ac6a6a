#include "vos_trace.h"

#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <stdio_ext.h>
#include <thread>

#include "support.h"

namespace
{
TEST(Trace, LevelSelectsTheLines)
{
    const std::string all = "ERROR:m:100%d %n|WARNING:m:w|INFO:i1|DEBUG:m:d|DUMP:m:01 AB |";
    uint32_t level = 0;
    for (const char *last : {"DUMP:m:01 AB |", "w|", "i1|", "01 AB |"}) { // start, levels 0, 1, 2
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
    const std::string stamp = "20261122-204128:";
    for (const size_t length : {0U, 996U, 997U, 998U, 5000U}) {
        const std::string message = std::string(length, 'x') + "\n"; // leaves an empty line
        const auto trace = [&message] { vos_trace_error("m", 7, "%s", message.c_str()); };
        EXPECT_EQ(output_of(trace), stamp + "ERROR:m:7:" + message.substr(0, 997) + "\n");
    }
    for (const size_t length : {983U, 984U, 986U, 987U, 5000U}) { // to the end of the line, past it
        const std::string source(length, 's');
        const std::string whole = std::string(stamp).append("DUMP:").append(source);
        const std::string prefix = (whole + ":-2147483648:").substr(0, 1023);
        const std::string bytes = length == 983  ? "01 02 "
                                  : length > 986 ? ""
                                                 : "01 \n" + prefix + "02 ";
        EXPECT_EQ(output_of([&] { vos_trace_dump(source.c_str(), INT_MIN, "\1\2", 2); }),
                  prefix + bytes + "\n");
    }
}

// A pipe in place of standard output; with O_DIRECT every write can be read by itself. A terminal
// takes a part of a line, when there is no room for more.
struct OutputPipe {
    OutputPipe(int flags, int mode, bool is_terminal = false)
    {
        if (is_terminal) {
            termios raw{};
            cfmakeraw(&raw);
            EXPECT_EQ(openpty(&ends[0], &ends[1], nullptr, &raw, nullptr), 0);
            fcntl(ends[1], F_SETFL, O_NONBLOCK);
        } else {
            EXPECT_EQ(pipe2(ends, flags | O_NONBLOCK | O_CLOEXEC), 0);
        }
        stdout = fdopen(ends[1], "w");
        setvbuf(stdout, nullptr, mode, BUFSIZ);
    }
    ~OutputPipe()
    {
        fclose(std::exchange(stdout, before));
        close(ends[0]);
    }
    std::string read_once() const
    {
        std::string text(70'000, '\0');
        const ssize_t size = read(ends[0], text.data(), text.size());
        return text.substr(0, static_cast<size_t>(std::max<ssize_t>(size, 0)));
    }
    FILE *before = stdout;
    int ends[2];
};

TEST(Trace, ALineIsOneWriteBehindWhatWasPrintedBefore)
{
    fake_clock = {1795380088, 0};
    const std::string begin = "20261122-204128:INFO:", part(4000, 'p'); // fills a buffer nearly
    for (const int mode : {_IOLBF, _IOFBF, _IONBF}) {
        std::vector<std::string> writes, wanted;
        {
            const OutputPipe pipe(O_DIRECT, mode);
            for (const size_t size : {3U, 10U, 1002U}) {
                const std::string text = "a\n" + std::string(size - 3, 'x') + "\n";
                vos_trace_info("%s", text.c_str());
                fputs(part.c_str(), stdout);
                errno = EAGAIN;
                vos_trace_info("%s", text.c_str());
                EXPECT_EQ(errno, EAGAIN) << "is still the caller's";
                for (const std::string &one : {begin + text + "\n", part, begin + text + "\n"}) {
                    writes.push_back(pipe.read_once());
                    wanted.push_back(one);
                }
            }
        }
        EXPECT_EQ(writes, wanted) << mode;
    }
    const OutputPipe pipe(0, _IOLBF);
    const int whole = dup(pipe.ends[1]);
    dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), pipe.ends[1]);
    vos_trace_info("lost");
    dup2(whole, pipe.ends[1]);
    vos_trace_info("printed");
    EXPECT_EQ(pipe.read_once(), begin + "printed\n");
}

TEST(Trace, NothingIsLostOrTornWhenTheReaderIsSlow)
{
    fake_clock = {1795380088, 0};
    for (const int mode : {_IOLBF, _IOFBF, _IONBF}) {
        std::string wanted, printed;
        {
            const OutputPipe pipe(0, mode, mode == _IONBF);
            const std::jthread writer([&wanted] {
                for (int i = 0; i <= 500; ++i) {
                    const std::string text =
                        i < 500 ? std::to_string(i) + std::string(900, 'x') : "end";
                    wanted += "20261122-204128:INFO:" + text + "\n";
                    vos_trace_info("%s", text.c_str());
                }
            });
            pollfd readable = {pipe.ends[0], POLLIN, 0};
            while (!printed.ends_with("end\n") && poll(&readable, 1, 5000) == 1) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
                printed += pipe.read_once();
            }
        }
        EXPECT_TRUE(printed == wanted) << mode;
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
    for (const auto &[format, text] : Table<const char *, const char *>{
             {"50 %", "50 "}, {"a %d %", "a 7 "}, {"%c|", "\a|"}, {"%s|", "(null)|"}}) {
        const int number = strchr(format, 's') != nullptr ? 0 : 7;
        EXPECT_EQ(output_of([&, f = format] { vos_trace_info(f, number, 0, 0); }).substr(21),
                  std::string(text) + "\n");
    }
    EXPECT_EQ(output_of([] { vos_trace_info("a%cb%d", 0, 1); }).substr(21), "a\n");
    const std::string text(990, 'x'); // the numbers reach the end of the line
    for (const char *format : {"%s%d%d", "%s-%x%d", "%s --%09d%d"}) {
        char wanted[1100];
        snprintf(wanted, sizeof wanted, format, text.c_str(), INT_MIN, INT_MIN);
        EXPECT_EQ(lines_of([&] { vos_trace_info(format, text.c_str(), INT_MIN, INT_MIN); }),
                  "INFO:" + std::string(wanted, 1023 - 21) + "|");
    }
}
} // namespace
