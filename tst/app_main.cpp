// wmbusctl: waits for a modem to announce itself, performs the one action of the command line
// against it, then prints what the modems send until it is stopped.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include "app_lan.h"
#include "app_options.h"
#include "lan_cursor.h"
#include "vos_mem.h"
#include "vos_trace.h"
#include "vos_util.h"
#include "vos_util_linux.h"

namespace
{

constexpr char MODULE[] = "app_main";
constexpr int EXIT_OPTION_ERROR = -1; // 255 for the shell
constexpr uint32_t MODEM_POLL_TICKS = 25;
constexpr int32_t RX_MODE_N2_2400 = 16;
constexpr uint8_t N2_2400_CHANNELS = 6;

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

uint32_t wait_for_modem()
{
    uint32_t serial = 0;
    while (lan_get_modem(&serial) != 1) {
        vos_util_sleep(MODEM_POLL_TICKS);
    }
    return serial;
}

bool refuse_long_name(const char *name)
{
    vos_trace_error(MODULE, __LINE__, "File name too long, at most %d characters : %s",
                    static_cast<int>(APP_PATH_SIZE - 1), name);
    return false;
}

// Resolves a name against the working directory; false, with a trace, when it does not fit.
bool make_absolute(const char *name, char (*path)[APP_PATH_SIZE])
{
    int printed = 0;
    if (name[0] == '/') {
        printed = snprintf(*path, sizeof *path, "%s", name);
    } else {
        char *directory = getcwd(nullptr, APP_PATH_SIZE);
        if (directory == nullptr && errno == ERANGE) {
            return refuse_long_name(name);
        }
        if (directory == nullptr) {
            vos_trace_error(MODULE, __LINE__, "Can't read the working directory : %s",
                            strerror(errno));
            return false;
        }
        printed = snprintf(*path, sizeof *path, "%s/%s", directory, name);
        free(directory); // from getcwd, not a block of ours
    }
    const bool fits = printed >= 0 && static_cast<size_t>(printed) < sizeof *path;
    return fits || refuse_long_name(name);
}

void upgrade_firmware(uint32_t serial, const AppOptions *options)
{
    char path[APP_PATH_SIZE];
    if (make_absolute(options->fw_name, &path)) {
        lan_fw_upgrade(serial, path, "manual");
    }
}

void download_file(uint32_t serial, const AppOptions *options)
{
    char path[APP_PATH_SIZE];
    if (make_absolute(options->download_name, &path)) {
        lan_command(serial, LAN_COMMAND_RUN);
        lan_download_file(serial, path, static_cast<uint32_t>(options->packet_size),
                          static_cast<uint32_t>(options->inter_packet));
    }
}

void configure_receivers(uint32_t serial, const AppOptions *options)
{
    uint8_t configuration[LAN_RX_MODE_CONFIG_SIZE] = {};
    if (options->rx_mode == RX_MODE_N2_2400) {
        LanWriter writer{configuration, sizeof configuration, false};
        for (uint8_t channel = 0; channel < N2_2400_CHANNELS; ++channel) {
            lan_write_u8(&writer, RX_MODE_N2_2400);
            lan_write_u8(&writer, channel);
        }
    }
    lan_rx_mode_config(serial, configuration, sizeof configuration);
    lan_command(serial, LAN_COMMAND_RUN);
}

void transmit_frame(uint32_t serial, const AppOptions *options)
{
    lan_command(serial, LAN_COMMAND_RUN);
    uint8_t frame[APP_PATH_SIZE];
    vos_util_hexstr_to_bytes(frame, sizeof frame, options->tx_frame);
    lan_tx_frame(serial, static_cast<uint32_t>(options->tx_sec),
                 static_cast<uint16_t>(options->tx_msec), static_cast<uint32_t>(options->tx_mode),
                 static_cast<uint8_t>(options->tx_channel), static_cast<uint32_t>(options->tx_type),
                 static_cast<uint8_t>(options->tx_power), frame,
                 static_cast<uint32_t>(strlen(options->tx_frame) / 2));
}

// One action a run: the first of these whose option was given.
void perform_action(uint32_t serial, const AppOptions *options)
{
    vos_trace_info("Perform action on modem LAN:%x", serial);
    if (options->fw_name != nullptr) {
        upgrade_firmware(serial, options);
    } else if (options->download_name != nullptr) {
        download_file(serial, options);
    } else if (options->rx_mode != 0) {
        configure_receivers(serial, options);
    } else if (options->tx_frame != nullptr) {
        transmit_frame(serial, options);
    } else if (options->command != -1) {
        lan_command(serial, static_cast<uint32_t>(options->command));
    } else if (options->set_param_id != 0) {
        lan_set_param(serial, static_cast<uint16_t>(options->set_param_id), options->param_value,
                      options->param_value_length);
    } else if (options->get_param_id != 0) {
        lan_get_param(serial, static_cast<uint16_t>(options->get_param_id));
    } else {
        vos_trace_info("No action requested");
    }
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
    lan_start();
    perform_action(wait_for_modem(), &options);

    select(0, nullptr, nullptr, nullptr, nullptr);
    vos_trace_fatal(MODULE, __LINE__, "Select 0 exit, CRITICAL error \"%s\" (%d) !!!!!\n",
                    strerror(errno), errno);
}
