#include "harness.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace e2e
{
namespace
{
TEST(Filter, WritesAFrameOfTheRealTool)
{
    Peer modem;
    FILE *filter =
        popen("timeout 8 " WMBUSCTL_TOOL " | " WMBUSCTL_FRAMES " --format hex 2>&1", "re");
    do { // until it hears
        modem.send(encode(NON, POST, 1, "", "info_ind", info()), address(6));
    } while (modem.receive(milliseconds(100)).empty());
    const Bytes data(1365, 'x'); // 1400 bytes in all
    modem.send(encode(NON, PUT, 2, "", "rx_msg_req", frame(data)), address(6));
    char line[4000] = "";
    EXPECT_TRUE(fscanf(filter, " %3999s", line) == 1 && strspn(line, "78") == 2 * data.size())
        << line;
    EXPECT_EQ(pclose(filter), 0);
}

// Standard output and error of a shell command, and its status behind them.
std::string result_of(const std::string &command)
{
    FILE *shell = popen(("{ " + command + "; echo \"status $?\"; } 2>&1").c_str(), "re");
    std::string all;
    for (char part[4000]; fgets(part, sizeof part, shell) != nullptr;) {
        all += part;
    }
    pclose(shell);
    return all;
}

std::string record(int number)
{
    return R"({"time":"2026-11-22T21:20:40Z","frame":"0B4421064030201001077A0)" +
           std::to_string(number) + "\"}";
}

TEST(Filter, TakesFilesAndOptions)
{
    const std::string name = "wmbusctl-frames: ",
                      help = "Try 'wmbusctl-frames --help'.\nstatus 2\n";
    const std::string first = "0B4421064030201001077A01\n", second = "0B4421064030201001077A02\n";
    const struct {
        std::string arguments, expected;
    } cases[] = {
        {"--format hex r1 - r2", first + "0244\n" + second + "status 0\n"},
        {"--format hex - r1 r1 --unique 1",
         "0244\n" + first + name + "repeated frames left out: 1\nstatus 0\n"},
        {"--format=hex --strict", name + "frames of a wrong length left out: 1\nstatus 0\n"},
        {"--format hex r1 none r2",
         first + name + "none: No such file or directory\n" + second + "status 1\n"},
        {"--format hex /", name + "/: Is a directory\nstatus 1\n"},
        {"--events --modem 1 r1 r1", "status 0\n"},
        {"--format table --endpoint 10203040 r1 r2 | tail -1", // in the year 1970 by the gateway
         "AQA 10203040   1 Water     0      2 21:20:40    0s    0   0    0    0   0\nstatus 0\n"},
        {"--version | sed 's/[0-9.]*$/V/'", "wmbusctl-frames V\nstatus 0\n"},
        {"-h | head -1", "Usage: wmbusctl | wmbusctl-frames [OPTION]... [FILE]...\nstatus 0\n"},
        {"--unique 0", name + "--unique: '0' is not a number of seconds from 1 to 86400\n" + help},
        {"--format xml",
         name + "--format: 'xml' is not json, hex, csv, rtlwmbus or table\n" + help},
        {"--format csv --events", name + "--events goes with --format json only\n" + help},
        {"--modem 1x",
         name + "--modem: '1x' is not a serial number of 1 to 8 hexadecimal digits\n" + help},
        {"-x", std::string(WMBUSCTL_FRAMES) + ": invalid option -- 'x'\n" + help}};
    char folder[] = "/tmp/wmbusctl-e2e-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string in = std::string("cd ") + folder + "; ";
    for (const int number : {1, 2}) {
        result_of(in + text("echo '%s' > r%d", record(number).c_str(), number));
    }
    for (const auto &[arguments, expected] : cases) {
        std::string command = in + R"(echo '{"frame":"0244"}' | )" WMBUSCTL_FRAMES " ";
        command += arguments;
        EXPECT_EQ(result_of(command), expected) << arguments;
    }
    result_of(std::string("rm -r ") + folder);
}

// What comes from the terminal until the text is there, or nothing more.
std::string read_until(int terminal, const std::string &wanted)
{
    std::string all;
    char part[4000];
    while (wanted.empty() || all.find(wanted) == std::string::npos) {
        const ssize_t size = read(terminal, part, sizeof part);
        if (size <= 0) {
            break;
        }
        all.append(part, static_cast<size_t>(size));
    }
    return all;
}

TEST(Filter, LeavesTheTerminalAsItWas)
{
    const std::string enter = "\033[?1049h\033[?25l", leave = "\033[?25h\033[?1049l";
    const std::string cut = "AQA 10203040   1 Wate     0 ", whole = "AQA 10203040   1 Water";
    for (const int signal : {SIGINT, SIGTERM}) {
        winsize window{6, 30, 0, 0};
        int terminal = -1, input[2];
        ASSERT_EQ(pipe2(input, O_CLOEXEC), 0);
        const pid_t child = forkpty(&terminal, nullptr, nullptr, &window);
        if (child == 0) {
            dup2(input[0], STDIN_FILENO);
            alarm(20);
            execl(WMBUSCTL_FRAMES, WMBUSCTL_FRAMES, "--format", "table", nullptr);
            _exit(127);
        }
        close(input[0]);
        std::string seen = read_until(terminal, "Meters: 0");
        EXPECT_EQ(seen.find(enter), 0) << seen;
        const std::string line = record(1) + '\n';
        ASSERT_EQ(write(input[1], line.data(), line.size()), ssize_t(line.size()));
        seen = read_until(terminal, cut);
        EXPECT_NE(seen.find("\033[KMeters: 1, frames: 1, last: 20\r\r\n"), Bytes::npos) << seen;
        window.ws_col = 90;
        EXPECT_EQ(ioctl(terminal, TIOCSWINSZ, &window), 0);
        seen = read_until(terminal, whole);
        kill(child, signal); // while the input goes on
        seen = read_until(terminal, "");
        EXPECT_NE(seen.find(leave + "Meters: 1, frames: 1, last: 2026-11-22 21:20:40 UTC\r\n"),
                  Bytes::npos)
            << seen;
        EXPECT_EQ(seen.find('\033', seen.find(leave) + leave.size()), Bytes::npos) << seen;
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, signal == SIGINT ? 0 : signal);
        close(input[1]);
        close(terminal);
    }
}
} // namespace
} // namespace e2e
