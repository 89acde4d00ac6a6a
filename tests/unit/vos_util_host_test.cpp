#include <algorithm>
#include <csignal>
#include <fstream>
#include <malloc.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "support.h"
#include "vos_mem.h"
#include "vos_task_linux.h"
#include "vos_util_linux.h"

namespace
{
TEST(System, RunsTheCommandCleanly)
{
    const Scratch scratch;
    const int inherited = dup2(STDERR_FILENO, 99);
    const auto numbers = {SIGINT, SIGHUP, SIGQUIT, SIGABRT, SIGTERM, SIGTSTP};
    std::ranges::for_each(numbers, [](int number) { signal(number, SIG_IGN); });
    signal(SIGPIPE, SIG_DFL); // who started this may ignore it
    const std::string lines = lines_of([] {
        vos_util_system("ls /proc/self/fd > fds; grep SigIgn /proc/$$/status > signals; "
                        "until grep SigIgn:.*6$ /proc/$PPID/status; do :; done >> signals;"
                        "awk '/PPid/ {print $2}' /proc/$PPID/status > parent; exit 3");
        vos_util_system(nullptr);
    });
    std::ranges::for_each(numbers, [](int number) { signal(number, SIG_DFL); });
    EXPECT_TRUE(lines.starts_with("INFO:wait end of system call(")) << lines;
    EXPECT_TRUE(lines.ends_with("exit 3\"|") && lines.find('|') == lines.size() - 1) << lines;
    EXPECT_EQ(content_of("fds").find("99"), std::string::npos) << inherited;
    EXPECT_EQ(content_of("signals"), "SigIgn:\t0000000000000000\nSigIgn:\t0000000000000006\n");
    EXPECT_EQ(content_of("parent"), std::to_string(getpid()) + "\n") << "a shell of its own below";
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left";
}

TEST(System, GivesUpOnACommandAndCollectsItLater)
{
    short_sleeps = true;
    const std::string abort = "|ERROR:vos_util_linux:abort system call:sleep 2|";
    const std::string reset = abort + "ERROR:vos_util_linux:too much system call failure, reset|";
    static int aborted = 0; // in this process, as the module counts
    for (int i = 0; i < 11; ++i) {
        const std::string lines = lines_of([] { vos_util_system("sleep 2"); });
        const bool tenth = ++aborted == 10;
        EXPECT_TRUE(lines.ends_with(tenth ? reset : abort)) << "nothing else happens";
        EXPECT_EQ(vos_task_count(), 1U);
    }
    EXPECT_EQ(slept, 11ULL * 1199 * 100'000) << "microseconds of pauses";
    EXPECT_GT(new_blocks(), 0U);
    short_sleeps = false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    lines_of([] { vos_util_system("exit 3"); });
    EXPECT_EQ(new_blocks(), 0U);
    siginfo_t child;
    EXPECT_EQ(waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT), -1) << "one was left";
}

TEST(Find, TheFirstLineWithTheText)
{
    const Scratch scratch;
    std::ofstream("f") << "one\n" << std::string(1000, 'x') << "two\r\ntwo three\nfour";
    for (const auto &[path, text, line] :
         Table<const char *, const char *, const char *>{{"f", "two t", "two three\n"},
                                                         {"f", "four", "four"},
                                                         {"g", "x", nullptr},
                                                         {".", "x", nullptr},
                                                         {nullptr, "x", nullptr},
                                                         {"f", nullptr, nullptr}}) {
        char *found = vos_util_find_in_file(path, text);
        EXPECT_STREQ(found, line);
        EXPECT_LT(found != nullptr ? malloc_usable_size(found) : 0, 40U) << "more than the line";
        free(found);
    }
}

TEST(Ping, SendsARequestAndJudgesTheFirstMessage)
{
    const std::string header(20, 'E');
    const std::string failed = "DEBUG:vos_util_linux:Ping error on 192.0.2.1|";
    for (const auto &[answer, result, lines] : Table<std::string, int, std::string>{
             {header + std::string(8, '\0'), 1, ""},
             {header + std::string("\0\1", 2), -1, failed},
             {header + "\3" + std::string(50, '\0'), -1, failed},
             {header, -1, failed},
             {"none", -5, "DEBUG:vos_util_linux:Ping timeout on 192.0.2.1|"}}) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0); // takes any address to send to
        raw_socket = ends[0];
        if (answer != "none") {
            EXPECT_GT(send(ends[1], answer.data(), answer.size(), 0), 0);
        }
        EXPECT_EQ(lines_of([r = result] { EXPECT_EQ(vos_util_ping("192.0.2.1", 0), r); }), lines);
        char request[9];
        EXPECT_EQ(recv(ends[1], request, sizeof request, 0), 8);
        EXPECT_EQ(memcmp(request, "\x08\0\xF7\xFF\0\0\0\0", 8), 0);
        EXPECT_EQ(recv(ends[1], request, 1, 0), 0) << "left open";
        close(ends[1]);
    }
    raw_socket = -1; // refused, as without the right
    EXPECT_EQ(lines_of([] { EXPECT_EQ(vos_util_ping("192.0.2.1", 0), -1); }),
              "ERROR:vos_util_linux:ping: Can't create socket|");
}
} // namespace
