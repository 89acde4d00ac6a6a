#include "harness.h"

#include <gtest/gtest.h>

namespace e2e
{
namespace
{
const std::string USAGE = "Usage: wmbusctl -?\n";
const std::string HELP = USAGE + R"(-?: print this help
-u firmware_name: upgrade modem firmware
-r rx_mode( ex : 16 for N2_2400 )
-t tx_frame  : mode channel type power sec msec tx_frame
-d filename packetsize interpacket: send endpoint upgrade file with inter-packet in 20msec
-c command : request command
-p param_id param_value : set parameter (hex for id and value). Ex : -p 101 0AFF to set 0x0AFF in param 0x101
-g param_id  : get parameter (hex for id). Ex : -g 101 to get param 0x101
)";
const std::string WORDS = R"(--help: print this help
--version: print the version
--modem serial : act on the modem with this serial number (hex)
--all : act on every modem, when it comes and when it starts anew, until stopped
--once : end after the action. Status 0: done, 2: failed, 3: no modem
--wait seconds : how long --once waits for the modem, and for the report of -u (60)
--at address : ask the modem at this IPv4 address for itself, act, end as --once does, beside a running wmbusctl; who listens gets the report of -u
--keep : copy the firmware of -u, which stays whatever happens
)";

TEST(CommandLine, EndsAtOnceWithMessageAndStatus)
{
    const std::string f1023(1023, 'f'), too_long = " too long: 1024 bytes, at most 1023";
    const std::pair<std::string, std::string> refused[] = {
        {"foo", "Invalid argument foo"},
        {"-uX", "need firmware name"},
        {"-r", "need rx mode"},
        {"-r 16 -c", "need command"},
        {"-d", "need file name"},
        {"-d f 64", "need packet size and inter-packet delay"},
        {"-t 16 2 0 27 1 2", "need mode channel type power sec msec tx_frame"},
        {"-p", "need param id and value"},
        {"-p 101", "need param value"},
        {"-c 3 -g", "need param id"},
        {"-u f" + f1023, "firmware name" + too_long},
        {"-d f" + f1023 + " 64 5", "file name" + too_long},
        {"-c 3 -d f 1 5 -d f 1 -2", "inter-packet delay negative: -2"},
        {"-p 1 000102030405060708090A0B0C", "param value too long: 13 bytes, at most 12"},
        {"-t 0 0 0 0 0 0 " + std::string(2050, 'A'), "tx frame too long: 1025 bytes, at most 1024"},
        {"--modem", "need serial number"},
        {"--modem 0x", "serial number not hexadecimal from 1 to FFFFFFFF: 0x"},
        {"-c 3 --once --wait", "need seconds to wait"},
        {"-c 3 --once --wait 86401", "wait not 1 to 86400 seconds: 86401"},
        {"-c 3 --modem 1 --wait 5", "--wait needs --once or --at"},
        {"--at 127.0.0.256", "not the IPv4 address of a modem: 127.0.0.256"},
        {"-c 3 --once --wait=0", "wait not 1 to 86400 seconds: 0"},
        {"--at=224.1.2.3", "not the IPv4 address of a modem: 224.1.2.3"},
        {"--all=yes -c 3", "--all takes no value: yes"},
        {"--all -c -1", "--all needs an action"},
        {"--all -u fw", "--all does not go with -u"},
        {"-c 3 --modem=0xA1 --all", "--all does not go with --modem"},
        {"--at 127.0.0.2 --all -c 3", "--all does not go with --once or --at"},
        {"-d f 1 1 --keep", "--keep needs -u"},
    };
    for (const auto &[arguments, message] : refused) {
        SCOPED_TRACE(arguments);
        Process tool(arguments);
        tool.expect(message + "\n");
        tool.expect(USAGE);
        EXPECT_EQ(tool.exit_status(), 255);
    }
    const std::pair<std::string, std::string> printed[] = {
        {"-c 3 -? foo", HELP},
        {"-u " + f1023 + " -d " + f1023 + " 64 -1 -?", HELP},
        {"--al 5 --c 3 --?=1 -c -?", "Unused argument --al\nUnused argument --c\n"
                                     "Unused argument --?=1\n" +
                                         HELP},
        {"--all --modem 1 --help foo", HELP + WORDS},
        {"-c 3 --version", "wmbusctl " WMBUSCTL_VERSION "\n"},
    };
    for (const auto &[arguments, text] : printed) {
        SCOPED_TRACE(arguments);
        Process tool(arguments);
        tool.expect(text);
        EXPECT_EQ(tool.exit_status(), 0);
    }
}
} // namespace
} // namespace e2e
