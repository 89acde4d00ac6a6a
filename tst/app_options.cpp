#include "app_options.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <string_view>

#include "vos_util.h"

namespace
{

constexpr int32_t DEFAULT_PACKET_SIZE = 256;
constexpr int32_t NO_COMMAND = -1;
constexpr size_t MAX_SERIAL_DIGITS = 8;
constexpr long MAX_WAIT = 86'400; // seconds, a day

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

// A serial number of 0 would be that of a modem that is not known.
bool store_modem(AppOptions *options, char **arguments)
{
    const char *text = arguments[0];
    const char *digits = strncmp(text, "0x", 2) == 0 ? text + 2 : text;
    const size_t length = strspn(digits, "0123456789abcdefABCDEF");
    const bool valid = digits[length] == '\0' && length <= MAX_SERIAL_DIGITS;
    options->modem = valid ? hexadecimal(digits) : 0;
    if (options->modem == 0) {
        printf("serial number not hexadecimal from 1 to FFFFFFFF: %s\n", text);
    }
    return options->modem != 0;
}

bool store_all(AppOptions *options, char ** /*arguments*/)
{
    options->all = true;
    return true;
}

bool store_once(AppOptions *options, char ** /*arguments*/)
{
    options->once = true;
    return true;
}

bool store_keep(AppOptions *options, char ** /*arguments*/)
{
    options->keep = true;
    return true;
}

bool store_wait(AppOptions *options, char **arguments)
{
    char *end = nullptr;
    const long seconds = strtol(arguments[0], &end, 10);
    const bool valid = end != arguments[0] && *end == '\0' && seconds >= 1 && seconds <= MAX_WAIT;
    if (!valid) {
        printf("wait not 1 to %ld seconds: %s\n", MAX_WAIT, arguments[0]);
    }
    options->wait = valid ? static_cast<uint32_t>(seconds) : 0;
    return valid;
}

bool store_at(AppOptions *options, char **arguments)
{
    options->once = true;
    const bool valid = inet_pton(AF_INET, arguments[0], &options->at) == 1 &&
                       options->at.s_addr != INADDR_ANY && options->at.s_addr != INADDR_BROADCAST &&
                       !IN_MULTICAST(ntohl(options->at.s_addr));
    if (!valid) {
        printf("not the IPv4 address of a modem: %s\n", arguments[0]);
    }
    return valid;
}

// Those that print something and end the run at once; they store nothing.

void print_usage(const char *program)
{
    printf("Usage: %s -?\n", program);
}

void print_letters(const char *program);
void print_all_help(const char *program);
void print_version(const char *program);

struct Option {
    const char *name; // a letter, or a word that two dashes stand before
    int arguments;
    const char *need;      // printed when no argument follows
    const char *need_more; // printed when fewer follow than it takes
    bool (*store)(AppOptions *options, char **arguments);
    void (*print)(const char *program); // in its place
};

constexpr Option OPTIONS[] = {
    {"?", 0, nullptr, nullptr, nullptr, print_letters},
    {"u", 1, "need firmware name", nullptr, store_fw_name, nullptr},
    {"r", 1, "need rx mode", nullptr, store_rx_mode, nullptr},
    {"t", 7, "need mode channel type power sec msec tx_frame",
     "need mode channel type power sec msec tx_frame", store_tx_frame, nullptr},
    {"d", 3, "need file name", "need packet size and inter-packet delay", store_download, nullptr},
    {"c", 1, "need command", nullptr, store_command, nullptr},
    {"p", 2, "need param id and value", "need param value", store_set_param, nullptr},
    {"g", 1, "need param id", nullptr, store_get_param, nullptr},
    {"help", 0, nullptr, nullptr, nullptr, print_all_help},
    {"version", 0, nullptr, nullptr, nullptr, print_version},
    {"modem", 1, "need serial number", nullptr, store_modem, nullptr},
    {"all", 0, nullptr, nullptr, store_all, nullptr},
    {"once", 0, nullptr, nullptr, store_once, nullptr},
    {"wait", 1, "need seconds to wait", nullptr, store_wait, nullptr},
    {"at", 1, "need address", nullptr, store_at, nullptr},
    {"keep", 0, nullptr, nullptr, store_keep, nullptr},
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

constexpr const char *WORDS_HELP[] = {
    "--help: print this help",
    "--version: print the version",
    "--modem serial : act on the modem with this serial number (hex)",
    "--all : act on every modem, when it comes and when it starts anew, until stopped",
    "--once : end after the action. Status 0: done, 2: failed, 3: no modem",
    "--wait seconds : how long --once waits for the modem, and for the report of -u (60)",
    // clang-format off
    "--at address : ask the modem at this IPv4 address for itself, act, end as --once does, beside a running wmbusctl; who listens gets the report of -u",
    // clang-format on
    "--keep : copy the firmware of -u, which stays whatever happens",
};

void print_letters(const char *program)
{
    print_usage(program);
    for (const char *line : HELP) {
        puts(line);
    }
}

void print_all_help(const char *program)
{
    print_letters(program);
    for (const char *line : WORDS_HELP) {
        puts(line);
    }
}

void print_version(const char * /*program*/)
{
    puts("wmbusctl " WMBUSCTL_VERSION);
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

// An argument taken apart.
struct Found {
    const Option *option; // null: none of ours
    char *value;          // what stands behind the word's equals sign; null: none
};

// Of a word with one dash only its first letter counts; two dashes want the whole word.
Found find_option(char *argument)
{
    const bool is_word = argument[1] == '-';
    char *equals = is_word ? strchr(argument, '=') : nullptr;
    const size_t word_length =
        equals != nullptr ? static_cast<size_t>(equals - argument) - 2 : strlen(argument + 1) - 1;
    const std::string_view name(argument + (is_word ? 2 : 1), is_word ? word_length : 1);
    const auto *found =
        std::find_if(std::begin(OPTIONS), std::end(OPTIONS), [=](const Option &option) {
            return name == option.name && is_word == (option.name[1] != '\0');
        });
    return {found != std::end(OPTIONS) ? found : nullptr, equals != nullptr ? equals + 1 : nullptr};
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

bool read_word(const Option *option, char *value, AppOptions *options)
{
    if (option->arguments == 0) {
        printf("--%s takes no value: %s\n", option->name, value);
        return false;
    }
    return option->store(options, &value);
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

// What can't be had together, or not alone.
bool go_together(const AppOptions *options)
{
    const AppAction action = app_choose_action(options);
    const struct {
        bool wrong;
        const char *text;
    } rules[] = {
        {options->all && action == APP_NO_ACTION, "--all needs an action"},
        {options->all && action == APP_UPGRADE_FIRMWARE, "--all does not go with -u"},
        {options->all && options->modem != 0, "--all does not go with --modem"},
        {options->all && options->once, "--all does not go with --once or --at"},
        {options->wait != 0 && !options->once, "--wait needs --once or --at"},
        {options->keep && action != APP_UPGRADE_FIRMWARE, "--keep needs -u"},
    };
    for (const auto &rule : rules) {
        if (rule.wrong) {
            puts(rule.text);
            return false;
        }
    }
    return true;
}

} // namespace

AppAction app_choose_action(const AppOptions *options)
{
    if (options->fw_name != nullptr) {
        return APP_UPGRADE_FIRMWARE;
    }
    if (options->download_name != nullptr) {
        return APP_DOWNLOAD_FILE;
    }
    if (options->rx_mode != 0) {
        return APP_CONFIGURE_RECEIVERS;
    }
    if (options->tx_frame != nullptr) {
        return APP_TRANSMIT_FRAME;
    }
    if (options->command != NO_COMMAND) {
        return APP_COMMAND;
    }
    if (options->set_param_id != 0) {
        return APP_SET_PARAM;
    }
    return options->get_param_id != 0 ? APP_GET_PARAM : APP_NO_ACTION;
}

AppOptionsResult app_parse_options(int argc, char **argv, AppOptions *options)
{
    const char *program = argc > 0 ? argv[0] : "wmbusctl";
    set_defaults(options);
    int next = 1;
    while (next < argc) {
        char *argument = argv[next++];
        if (argument[0] != '-') {
            printf("Invalid argument %s\n", argument);
            return option_error(program);
        }
        const auto [option, value] = find_option(argument);
        if (option == nullptr) {
            printf("Unused argument %s\n", argument);
            ++next;
        } else if (value != nullptr) {
            if (!read_word(option, value, options)) {
                return option_error(program);
            }
        } else if (option->print != nullptr) {
            option->print(program);
            return APP_OPTIONS_HELP;
        } else if (!read_option(option, argc - next, argv + next, options)) {
            return option_error(program);
        } else {
            next += option->arguments;
        }
    }
    return has_valid_delay(options) && go_together(options) ? APP_OPTIONS_OK
                                                            : option_error(program);
}
