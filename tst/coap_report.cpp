#include "coap_report.h"

#include <algorithm>
#include <coap3/coap.h>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "coap_release.h"
#include "vos_trace.h"

namespace
{

constexpr char MODULE[] = "coap_report";
constexpr int LIBRARY_EXIT = -1;
constexpr size_t LINE_SIZE = 512; // below PIPE_BUF: a pipe takes such a line whole or not at all

// Standard error opened once more, without blocking, when it is a pipe or a terminal. The flag
// belongs to an open file, so setting it on the descriptor itself would reach whoever shares it.
int report_descriptor = STDERR_FILENO;

bool takes_bytes(int descriptor)
{
    pollfd output{descriptor, POLLOUT, 0};
    return poll(&output, 1, 0) == 1;
}

void report(coap_log_t level, const char *message)
{
    static constexpr const char *LEVELS[] = {"EMERG", "ALERT",  "CRIT", "ERR",
                                             "WARN",  "NOTICE", "INFO", "DEBUG"};
    const auto index = std::min<size_t>(static_cast<size_t>(level), std::size(LEVELS) - 1);
    char line[LINE_SIZE];
    const int printed = snprintf(line, sizeof line, "%s %s", LEVELS[index], message);
    auto length = std::min<size_t>(static_cast<size_t>(std::max(printed, 0)), sizeof line - 1);
    if (length == sizeof line - 1) {
        line[length - 1] = '\n';
    }
    if (takes_bytes(report_descriptor) && write(report_descriptor, line, length) < 0) {
        return; // nobody reads the library's messages: nobody to tell
    }
}

// The library ends the process by itself, and silently, when a table of its own finds no memory.
void report_end(int status, void * /*argument*/)
{
    if (status != LIBRARY_EXIT) {
        return;
    }
    if (takes_bytes(STDOUT_FILENO)) {
        vos_trace_fatal(MODULE, __LINE__, "No memory for a table of the CoAP library");
    }
    // The line would wait for its reader, and the process with it.
    report(COAP_LOG_EMERG, "no memory for a table of the library\n");
    _exit(EXIT_FAILURE);
}

} // namespace

void coap_report_start()
{
    if (on_exit(report_end, nullptr) != 0) {
        vos_trace_warning(MODULE, __LINE__, "Can't watch for the end of the process");
    }
    struct statx status = {};
    if (statx(STDERR_FILENO, "", AT_EMPTY_PATH, STATX_TYPE, &status) == 0 &&
        (S_ISFIFO(status.stx_mode) || S_ISCHR(status.stx_mode))) {
        const int reopened = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (reopened >= 0) {
            report_descriptor = reopened;
        }
    }
    coap_set_log_handler(report);
    coap_set_log_level(COAP_LOG_WARN);
}
