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
    const struct {
        std::string arguments, printed;
        int status;
    } cases[] = {
        {"foo", "Invalid argument foo\n" + USAGE, 255},
        {"-c 3 4", "Invalid argument 4\n" + USAGE, 255},
        {"-p 101 0A FF -?", "Invalid argument FF\n" + USAGE, 255},
        {"-u", "need firmware name\n" + USAGE, 255},
        {"-uX", "need firmware name\n" + USAGE, 255},
        {"-r", "need rx mode\n" + USAGE, 255},
        {"-r 16 -c", "need command\n" + USAGE, 255},
        {"-d", "need file name\n" + USAGE, 255},
        {"-?", HELP, 0},
        {"-c 3 -? foo", HELP, 0},
        {"-x 5 -?", "Unused argument -x\n" + HELP, 0},
    };
    for (const auto &[arguments, printed, status] : cases) {
        SCOPED_TRACE(arguments);
        Process tool(arguments);
        tool.expect(printed);
        EXPECT_EQ(tool.exit_status(), status);
    }
}

TEST(CommandLine, RefusesMissingArguments)
{
    for (const char *arguments : {"-d f", "-d f 64", "-t", "-t 16 2 0 27 1", "-t 16 2 0 27 1 2",
                                  "-p", "-p 101", "-g", "-c 3 -g"}) {
        SCOPED_TRACE(arguments);
        Process tool(arguments);
        tool.expect("need ");
        tool.skip_to("\n" + USAGE);
        EXPECT_EQ(tool.exit_status(), 255);
    }
}
} // namespace
} // namespace e2e
