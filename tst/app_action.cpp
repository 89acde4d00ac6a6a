#include "app_action.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "app_lan.h"
#include "lan_cursor.h"
#include "vos_trace.h"
#include "vos_util.h"

namespace
{

constexpr char MODULE[] = "app_main"; // of which this is a part
constexpr int32_t RX_MODE_N2_2400 = 16;
constexpr uint8_t N2_2400_CHANNELS = 6;

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

// False when the file can't be used, as for the next.
bool upgrade_firmware(uint32_t serial, const AppOptions *options)
{
    char path[APP_PATH_SIZE];
    return make_absolute(options->fw_name, &path) &&
           lan_fw_upgrade(serial, path, "manual", options->keep) == 1;
}

bool download_file(uint32_t serial, const AppOptions *options)
{
    char path[APP_PATH_SIZE];
    if (!make_absolute(options->download_name, &path)) {
        return false;
    }
    lan_command(serial, LAN_COMMAND_RUN);
    return lan_download_file(serial, path, static_cast<uint32_t>(options->packet_size),
                             static_cast<uint32_t>(options->inter_packet)) == 1;
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

bool perform(uint32_t serial, const AppOptions *options)
{
    switch (app_choose_action(options)) {
    case APP_UPGRADE_FIRMWARE:
        return upgrade_firmware(serial, options);
    case APP_DOWNLOAD_FILE:
        return download_file(serial, options);
    case APP_CONFIGURE_RECEIVERS:
        configure_receivers(serial, options);
        break;
    case APP_TRANSMIT_FRAME:
        transmit_frame(serial, options);
        break;
    case APP_COMMAND:
        lan_command(serial, static_cast<uint32_t>(options->command));
        break;
    case APP_SET_PARAM:
        lan_set_param(serial, static_cast<uint16_t>(options->set_param_id), options->param_value,
                      options->param_value_length);
        break;
    case APP_GET_PARAM:
        lan_get_param(serial, static_cast<uint16_t>(options->get_param_id));
        break;
    case APP_NO_ACTION:
        vos_trace_info("No action requested");
        break;
    }
    return true;
}

} // namespace

bool app_perform_action(uint32_t serial, const AppOptions *options)
{
    vos_trace_info("Perform action on modem LAN:%x", serial);
    lan_begin_action(options->all || options->once);
    const bool usable = perform(serial, options);
    const LanOutcome outcome = lan_get_outcome();
    return usable && outcome.answered == outcome.requests;
}
