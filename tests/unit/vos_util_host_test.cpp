#include <arpa/inet.h>
#include <fcntl.h>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

#include "support.h"
#include "vos_util_linux.h"

namespace
{
using std::chrono::steady_clock;

TEST(System, RunsTheCommandCleanly)
{
    const Scratch scratch;
    const int inherited = dup2(STDERR_FILENO, 77);
    signal(SIGTERM, SIG_IGN);
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    const auto start = steady_clock::now();
    const std::string lines = lines_of([] {
        vos_util_system("ls /proc/self/fd > fds; grep Sig /proc/self/status > signals; exit 3");
        vos_util_system(nullptr);
    });
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_TRUE(lines.starts_with("INFO:wait end of system call(")) << lines;
    EXPECT_TRUE(lines.ends_with("exit 3\"|") && lines.find('|') == lines.size() - 1) << lines;
    EXPECT_EQ(content_of("fds").find("77"), std::string::npos) << inherited;
    EXPECT_NE(content_of("signals").find("SigBlk:\t0000000000000000"), std::string::npos);
    EXPECT_EQ(content_of("signals").find("4000\n"), std::string::npos)
        << "SIGTERM is ignored still";
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left";
}

TEST(System, GivesUpOnACommandButLeavesNoZombie)
{
    short_sleeps = true;
    const std::string lines = lines_of([] {
        for (int i = 0; i < 11; ++i) {
            vos_util_system("sleep 2");
        }
    });
    size_t aborted = 0;
    for (size_t at = 0; (at = lines.find("ERROR:vos_util_linux:abort system call:sleep 2|", at)) !=
                        std::string::npos;
         ++at) {
        const bool reset =
            lines.find("|ERROR:vos_util_linux:too much system call failure, reset|", at) == at + 46;
        EXPECT_EQ(reset, ++aborted == 10);
    }
    EXPECT_EQ(aborted, 11U);
    EXPECT_TRUE(wait_until([] { return waitpid(-1, nullptr, WNOHANG) == -1; }))
        << "nobody waits for it";
}

TEST(Find, TheFirstLineWithTheText)
{
    const Scratch scratch;
    std::ofstream("f") << "one\n" << std::string(1000, 'x') << "two\r\ntwo three\nfour";
    for (const auto &[path, text, line] :
         Table<const char *, const char *, const char *>{{"f", "two t", "two three\n"},
                                                         {"f", "four", "four"},
                                                         {"f", "", "one\n"},
                                                         {"f", "five", nullptr},
                                                         {"g", "x", nullptr},
                                                         {".", "x", nullptr},
                                                         {nullptr, "x", nullptr},
                                                         {"f", nullptr, nullptr}}) {
        char *found = vos_util_find_in_file(path, text);
        EXPECT_STREQ(found, line);
        free(found);
    }
}

// The raw socket is a UDP one that the answer was sent to already.
TEST(Ping, JudgesTheFirstMessage)
{
    const std::string header(20, 'E');
    const std::string failed = "DEBUG:vos_util_linux:Ping error on 192.0.2.1|";
    for (const auto &[answer, result, lines] : Table<std::string, int, std::string>{
             {header + std::string(8, '\0'), 1, ""},
             {header + std::string("\0\1 ", 4), -1, failed},
             {header + "\3" + std::string(50, '\0'), -1, failed},
             {header, -1, failed},
             {"", -1, failed},
             {"none", -5, "DEBUG:vos_util_linux:Ping timeout on 192.0.2.1|"}}) {
        raw_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in own = {};
        socklen_t size = sizeof own;
        own.sin_family = AF_INET;
        own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto *address = reinterpret_cast<sockaddr *>(&own);
        ASSERT_EQ(::bind(raw_socket, address, size) + getsockname(raw_socket, address, &size), 0);
        if (answer != "none") {
            sendto(raw_socket, answer.data(), answer.size(), 0, address, size);
        }
        EXPECT_EQ(lines_of([r = result] { EXPECT_EQ(vos_util_ping("192.0.2.1", 0), r); }), lines);
        EXPECT_EQ(fcntl(raw_socket, F_GETFD), -1) << "left open";
    }
    raw_socket = -1; // refused, as without the right
    EXPECT_EQ(lines_of([] { EXPECT_EQ(vos_util_ping("192.0.2.1", 0), -1); }),
              "ERROR:vos_util_linux:ping: Can't create socket|");
}
} // namespace
