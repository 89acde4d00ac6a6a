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

TEST(CommandLine, EndsAtOnceWithMessageAndStatus)
{
    const std::string f1023(1023, 'f'), too_long = " too long: 1024 bytes, at most 1023";
    const std::pair<std::string, std::string> refused[] = {
        {"foo", "Invalid argument foo"},
        {"-c 3 4", "Invalid argument 4"},
        {"-p 101 0A FF -?", "Invalid argument FF"},
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
    };
    for (const auto &[arguments, message] : refused) {
        SCOPED_TRACE(arguments);
        Process tool(arguments);
        tool.expect(message + "\n");
        tool.expect(USAGE);
        EXPECT_EQ(tool.exit_status(), 255);
    }
    const std::string accepted = "-u " + f1023 + " -d " + f1023 + " 64 -1 -?";
    for (const auto &arguments : std::vector<std::string>{"-c 3 -? foo", "-x 5 -?", accepted}) {
        SCOPED_TRACE(arguments);
        Process tool(arguments);
        tool.expect((arguments[1] == 'x' ? "Unused argument -x\n" : "") + HELP);
        EXPECT_EQ(tool.exit_status(), 0);
    }
}
} // namespace
} // namespace e2e
