#include "app_reader.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <unistd.h>

#include "vos_task_linux.h"
#include "vos_trace.h"

namespace
{

constexpr char MODULE[] = "app_reader";
constexpr uint32_t TASK_PRIORITY = 6;

// Standard error may be a terminal that is stopped: the line is not worth waiting for.
void tell()
{
    static constexpr char LINE[] = "wmbusctl: the reader of standard output has gone\n";
    pollfd output{STDERR_FILENO, POLLOUT, 0};
    if (poll(&output, 1, 0) == 1 && write(STDERR_FILENO, LINE, sizeof LINE - 1) < 0) {
        return; // nobody reads this either
    }
}

uint32_t wait_for_end(VosTask * /*task*/, uintptr_t /*argument*/)
{
    pollfd output{STDOUT_FILENO, 0, 0};
    while (poll(&output, 1, -1) < 1) {
        if (errno != EINTR) {
            vos_trace_warning(MODULE, __LINE__, "Can't watch standard output : %s",
                              strerror(errno));
            return 0;
        }
    }
    tell();
    _exit(EXIT_FAILURE);
}

} // namespace

void app_reader_watch()
{
    if (vos_task_start(wait_for_end, TASK_PRIORITY, "app_reader", 0, VOS_THREAD_STACK_SIZE) ==
        nullptr) {
        vos_trace_fatal(MODULE, __LINE__, "Can't watch standard output");
    }
}
