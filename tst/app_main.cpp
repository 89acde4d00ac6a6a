// wmbusctl: waits for a modem to announce itself, performs the one action of the command line
// against it, then prints what the modems send until it is stopped. With the long options it acts
// on every modem, or on a chosen one, and ends with a result.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include "app_action.h"
#include "app_lan.h"
#include "app_options.h"
#include "app_reader.h"
#include "app_watch.h"
#include "coap_client.h"
#include "coap_report.h"
#include "coap_server.h"
#include "vos_mem.h"
#include "vos_trace.h"
#include "vos_util_linux.h"

namespace
{

constexpr char MODULE[] = "app_main";
constexpr int EXIT_OPTION_ERROR = -1; // 255 for the shell
constexpr int EXIT_NOT_DONE = 2;
constexpr int EXIT_NO_MODEM = 3;
constexpr uint32_t MODEM_POLL_TICKS = 25;

// A socket that took the number of a closed standard stream would get what is printed there.
void open_standard_streams()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", O_RDWR) != descriptor) {
            vos_trace_warning(MODULE, __LINE__, "can't open /dev/null : %s", strerror(errno));
        }
    }
}

// A reader that went away, and a file that may not grow, cost what is printed, not the tool.
void ignore_output_signals()
{
    if (signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
        vos_trace_warning(MODULE, __LINE__, "can't set signal catcher");
    }
    if (signal(SIGXFSZ, SIG_IGN) == SIG_ERR) {
        vos_trace_warning(MODULE, __LINE__, "can't set signal catcher for the file-size limit");
    }
}

bool asks_at_address(const AppOptions *options)
{
    return options->at.s_addr != INADDR_ANY;
}

void warn_of_other_listener()
{
    if (coap_server_is_port_taken()) {
        vos_trace_warning(MODULE, __LINE__,
                          "Another program listens on port %d as well: one takes from the other",
                          LAN_COAP_PORT);
    }
}

uint32_t wait_for_modem(const AppOptions *options)
{
    uint32_t serial = options->modem;
    if (serial != 0) {
        app_watch_wait_for_modem(&serial, 0);
        return serial;
    }
    while (lan_get_modem(&serial) != 1) {
        vos_util_sleep(MODEM_POLL_TICKS);
    }
    return serial;
}

[[noreturn]] void act_on_all(const AppOptions *options)
{
    for (;;) {
        const uint32_t serial = app_watch_take_due();
        const bool done = app_perform_action(serial, options);
        app_watch_end_action(serial, done);
        if (!done) {
            vos_trace_warning(MODULE, __LINE__,
                              "Action on modem %x failed, tried again when it announces itself",
                              serial);
        }
    }
}

uint32_t wait_of(const AppOptions *options)
{
    return options->wait != 0 ? options->wait : APP_DEFAULT_WAIT;
}

// False with a trace, as for the next.
bool is_installed(uint32_t serial, const AppOptions *options)
{
    const AppInstall report = app_watch_wait_for_install(serial, wait_of(options));
    if (report == APP_INSTALL_NONE) {
        vos_trace_error(MODULE, __LINE__, "No report of the installation within %u seconds",
                        wait_of(options));
    }
    return report == APP_INSTALL_OK;
}

int act_once(const AppOptions *options)
{
    uint32_t serial = options->modem;
    if (!app_watch_wait_for_modem(&serial, wait_of(options))) {
        vos_trace_error(MODULE, __LINE__, "No modem within %u seconds", wait_of(options));
        return EXIT_NO_MODEM;
    }
    bool done = app_perform_action(serial, options);
    if (done && app_choose_action(options) == APP_UPGRADE_FIRMWARE) {
        done = is_installed(serial, options);
    }
    return done ? EXIT_SUCCESS : EXIT_NOT_DONE;
}

int act_at_address(const AppOptions *options)
{
    coap_address_t address;
    coap_address_init(&address);
    address.size = sizeof address.addr.sin;
    address.addr.sin.sin_family = AF_INET;
    address.addr.sin.sin_addr = options->at;

    coap_client_limit_wait(wait_of(options));
    const uint32_t code = lan_request_info(&address);
    coap_client_limit_wait(UINT32_MAX);
    lan_drain();
    uint32_t serial = 0;
    if (lan_get_modem(&serial) != 1) {
        if (code == 0) {
            vos_trace_error(MODULE, __LINE__, "No modem has answered");
            return EXIT_NO_MODEM;
        }
        vos_trace_error(MODULE, __LINE__, "What has answered is no modem");
        return EXIT_NOT_DONE;
    }
    if (options->modem != 0 && options->modem != serial) {
        vos_trace_error(MODULE, __LINE__, "The modem is %x, not %x", serial, options->modem);
        return EXIT_NOT_DONE;
    }
    return app_perform_action(serial, options) ? EXIT_SUCCESS : EXIT_NOT_DONE;
}

// All that was taken is printed; what comes now is refused, so that its sender knows.
int finish(int status)
{
    lan_close();
    lan_drain();
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    open_standard_streams();
    // A trace line leaves in one write all the same, and none is lost or doubled by an output that
    // takes a part of it.
    setvbuf(stdout, nullptr, _IONBF, 0);

    AppOptions options;
    switch (app_parse_options(argc, argv, &options)) {
    case APP_OPTIONS_HELP:
        return EXIT_SUCCESS;
    case APP_OPTIONS_ERROR:
        return EXIT_OPTION_ERROR;
    case APP_OPTIONS_OK:
        break;
    }

    ignore_output_signals();
    vos_mem_init();
    if (options.all || options.once) {
        app_reader_watch();
        lan_require_server();
    }
    if (options.all || options.once || options.modem != 0) {
        coap_client_take_separate_answers();
        app_watch_start();
    }
    if (asks_at_address(&options)) {
        coap_report_start();
        lan_start_tasks();
        return finish(act_at_address(&options));
    }
    warn_of_other_listener();
    lan_start();
    if (options.all) {
        act_on_all(&options);
    }
    if (options.once) {
        return finish(act_once(&options));
    }
    app_perform_action(wait_for_modem(&options), &options);

    select(0, nullptr, nullptr, nullptr, nullptr);
    vos_trace_fatal(MODULE, __LINE__, "Select 0 exit, CRITICAL error \"%s\" (%d) !!!!!\n",
                    strerror(errno), errno);
}
