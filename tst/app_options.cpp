#include "app_options.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>

#include "vos_util.h"

namespace
{

constexpr int32_t DEFAULT_PACKET_SIZE = 256;
constexpr int32_t NO_COMMAND = -1;

// The same value on every machine, whatever the width of its long.
int32_t decimal(const char *text)
{
    constexpr long LOWEST = std::numeric_limits<int32_t>::min();
    constexpr long HIGHEST = std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(std::clamp(strtol(text, nullptr, 10), LOWEST, HIGHEST));
}

uint32_t hexadecimal(const char *text)
{
    return vos_util_hex_to_u32(text, static_cast<uint16_t>(strlen(text)));
}

bool fits(const char *what, size_t size, size_t limit)
{
    if (size > limit) {
        printf("%s too long: %zu bytes, at most %zu\n", what, size, limit);
    }
    return size <= limit;
}

// Each stores the arguments of its option; false, with a line printed, when they are refused.

bool store_fw_name(AppOptions *options, char **arguments)
{
    options->fw_name = arguments[0];
    return fits("firmware name", strlen(arguments[0]), APP_PATH_SIZE - 1);
}

bool store_rx_mode(AppOptions *options, char **arguments)
{
    options->rx_mode = decimal(arguments[0]);
    return true;
}

bool store_tx_frame(AppOptions *options, char **arguments)
{
    options->tx_mode = decimal(arguments[0]);
    options->tx_channel = decimal(arguments[1]);
    options->tx_type = decimal(arguments[2]);
    options->tx_power = decimal(arguments[3]);
    options->tx_sec = decimal(arguments[4]);
    options->tx_msec = decimal(arguments[5]);
    options->tx_frame = arguments[6];
    return fits("tx frame", strlen(options->tx_frame) / 2, APP_PATH_SIZE);
}

bool store_download(AppOptions *options, char **arguments)
{
    options->download_name = arguments[0];
    options->packet_size = decimal(arguments[1]);
    options->inter_packet = decimal(arguments[2]);
    return fits("file name", strlen(arguments[0]), APP_PATH_SIZE - 1);
}

bool store_command(AppOptions *options, char **arguments)
{
    options->command = decimal(arguments[0]);
    return true;
}

bool store_set_param(AppOptions *options, char **arguments)
{
    const size_t length = strlen(arguments[1]) / 2;
    if (!fits("param value", length, sizeof options->param_value)) {
        return false;
    }
    options->set_param_id = hexadecimal(arguments[0]);
    options->param_value_length = static_cast<uint32_t>(length);
    vos_util_hexstr_to_bytes(options->param_value, sizeof options->param_value, arguments[1]);
    return true;
}

bool store_get_param(AppOptions *options, char **arguments)
{
    options->get_param_id = hexadecimal(arguments[0]);
    return true;
}

struct Option {
    char letter;
    int arguments;
    const char *need;      // printed when no argument follows
    const char *need_more; // printed when fewer follow than it takes
    bool (*store)(AppOptions *options, char **arguments);
};

constexpr Option OPTIONS[] = {
    {'u', 1, "need firmware name", nullptr, store_fw_name},
    {'r', 1, "need rx mode", nullptr, store_rx_mode},
    {'t', 7, "need mode channel type power sec msec tx_frame",
     "need mode channel type power sec msec tx_frame", store_tx_frame},
    {'d', 3, "need file name", "need packet size and inter-packet delay", store_download},
    {'c', 1, "need command", nullptr, store_command},
    {'p', 2, "need param id and value", "need param value", store_set_param},
    {'g', 1, "need param id", nullptr, store_get_param},
};

constexpr const char *HELP[] = {
    "-?: print this help",
    "-u firmware_name: upgrade modem firmware",
    "-r rx_mode( ex : 16 for N2_2400 )",
    "-t tx_frame  : mode channel type power sec msec tx_frame",
    "-d filename packetsize interpacket: send endpoint upgrade file with inter-packet in 20msec",
    "-c command : request command",
    // clang-format off
    "-p param_id param_value : set parameter (hex for id and value). Ex : -p 101 0AFF to set 0x0AFF in param 0x101",
    // clang-format on
    "-g param_id  : get parameter (hex for id). Ex : -g 101 to get param 0x101",
};

void print_usage(const char *program)
{
    printf("Usage: %s -?\n", program);
}

AppOptionsResult print_help(const char *program)
{
    print_usage(program);
    for (const char *line : HELP) {
        puts(line);
    }
    return APP_OPTIONS_HELP;
}

AppOptionsResult option_error(const char *program)
{
    print_usage(program);
    return APP_OPTIONS_ERROR;
}

void set_defaults(AppOptions *options)
{
    *options = AppOptions{};
    options->packet_size = DEFAULT_PACKET_SIZE;
    options->command = NO_COMMAND;
}

const Option *find_option(char letter)
{
    const auto *found = std::find_if(std::begin(OPTIONS), std::end(OPTIONS),
                                     [letter](const Option &o) { return o.letter == letter; });
    return found != std::end(OPTIONS) ? found : nullptr;
}

// left: arguments behind the option.
bool read_option(const Option *option, int left, char **arguments, AppOptions *options)
{
    if (left < option->arguments) {
        puts(left == 0 ? option->need : option->need_more);
        return false;
    }
    return option->store(options, arguments);
}

// A delay that can't be waited for is refused where -d is the action that would run, before
// anything is started: -u has priority, and a later -d may have replaced it.
bool has_valid_delay(const AppOptions *options)
{
    if (options->fw_name != nullptr || options->inter_packet >= 0) {
        return true;
    }
    printf("inter-packet delay negative: %d\n", options->inter_packet);
    return false;
}

} // namespace

AppOptionsResult app_parse_options(int argc, char **argv, AppOptions *options)
{
    const char *program = argc > 0 ? argv[0] : "wmbusctl";
    set_defaults(options);
    int next = 1;
    while (next < argc) {
        const char *argument = argv[next++];
        if (argument[0] != '-') {
            printf("Invalid argument %s\n", argument);
            return option_error(program);
        }
        if (argument[1] == '?') {
            return print_help(program);
        }
        const Option *option = find_option(argument[1]);
        if (option == nullptr) {
            printf("Unused argument %s\n", argument);
            ++next;
        } else if (!read_option(option, argc - next, argv + next, options)) {
            return option_error(program);
        } else {
            next += option->arguments;
        }
    }
    return has_valid_delay(options) ? APP_OPTIONS_OK : option_error(program);
}
