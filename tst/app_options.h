// The command line of the tool.

#ifndef APP_OPTIONS_H
#define APP_OPTIONS_H

#include <cstdint>
#include <netinet/in.h>

constexpr uint32_t APP_PATH_SIZE = 1024;      // absolute file name with its NUL; also a tx frame
constexpr uint32_t APP_PARAM_VALUE_SIZE = 12; // bytes of a parameter value

constexpr uint32_t APP_DEFAULT_WAIT = 60; // seconds

// What was given, or the defaults that stand for an option not given. Texts point into argv.
struct AppOptions {
    const char *fw_name;
    int32_t rx_mode;
    int32_t tx_mode;
    int32_t tx_channel;
    int32_t tx_type;
    int32_t tx_power;
    int32_t tx_sec;
    int32_t tx_msec;
    const char *tx_frame; // hexadecimal digits, at most 2 * APP_PATH_SIZE + 1
    const char *download_name;
    int32_t packet_size;  // bytes
    int32_t inter_packet; // ticks of 20 ms; negative only beside a firmware name
    int32_t command;
    uint32_t set_param_id;
    uint8_t param_value[APP_PARAM_VALUE_SIZE];
    uint32_t param_value_length;
    uint32_t get_param_id;
    uint32_t modem; // serial number of the modem to act on; 0: whichever is first
    bool all;
    bool once; // with an address as well
    bool keep;
    uint32_t wait; // seconds; 0 when not given
    in_addr at;    // address of the modem to ask; INADDR_ANY: none
};

enum AppAction {
    APP_NO_ACTION,
    APP_UPGRADE_FIRMWARE,
    APP_DOWNLOAD_FILE,
    APP_CONFIGURE_RECEIVERS,
    APP_TRANSMIT_FRAME,
    APP_COMMAND,
    APP_SET_PARAM,
    APP_GET_PARAM,
};

enum AppOptionsResult { APP_OPTIONS_OK, APP_OPTIONS_HELP, APP_OPTIONS_ERROR };

// Reads the command line into *options, which it first sets to the defaults. Prints what is wrong
// (error), or the usage or version that was asked for (help), on standard output.
AppOptionsResult app_parse_options(int argc, char **argv, AppOptions *options);

// The action of a run: of those whose options were given, the first of the list above.
AppAction app_choose_action(const AppOptions *options);

#endif
