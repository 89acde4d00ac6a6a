#include "harness.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace e2e
{
namespace
{
const std::string SIMULATOR = WMBUSCTL_SIM;

std::string options(const std::string &more)
{
    return "--address " + address(1) + " --announce-to " + address(0) + " --announce-every 1 " +
           more;
}

// Runs the tool beside a simulated modem until it has printed the lines, in this order.
void run_tool(const std::string &arguments, const std::vector<std::string> &printed)
{
    Process tool(arguments);
    tool.ignore_rest();
    for (const std::string &line : printed) {
        tool.skip_to(line, milliseconds(10'000));
    }
}

TEST(Simulator, KeepsAParameterFromOneRunToTheNext)
{
    Process modem(options("--rate 0 --serial beef"), SIMULATOR);
    modem.ignore_rest();
    run_tool("-p 101 0AFF", {"INFO:Perform action on modem LAN:beef\n", "COAP RES:2.04\n"});
    run_tool("-g 101", {"INFO:Param req : 0x101 len:2, value:\n", "DUMP:app_lan:0A FF \n"});
}

TEST(Dissector, ShowsWhatGoesOverTheWire)
{
    const std::string tshark = "/usr/bin/tshark";
    if (access(tshark.c_str(), X_OK) != 0) {
        ASSERT_EQ(getenv("CI"), nullptr);
        GTEST_SKIP() << "no tshark to be had";
    }
    Process wire("-l -i any -f udp -X lua_script:" WMBUSCTL_DISSECTOR " -Y wmbusctl -T fields"
                 " -e coap.code -e wmbusctl.resource -e wmbusctl.serial -e wmbusctl.param_value"
                 " -e wmbusctl.mode -e wmbusctl.endpoint -e _ws.lua.error",
                 tshark);
    wire.ignore_rest();
    Process modem(options("--rate max --count 1"), SIMULATOR);
    modem.ignore_rest();
    wire.skip_to("2\tinfo_ind\t0x00a1b2c3\t\t\t\t\n", milliseconds(20'000));
    run_tool("-p 101 0AFF", {"COAP RES:2.04\n"});
    wire.skip_to("2\tconfig_set_param_req\t\t0aff\t\t\t\n", milliseconds(20'000));
    run_tool("-g 101", {"DUMP:app_lan:0A FF \n"});
    wire.skip_to("69\tconfig_get_param_req\t\t0aff\t\t\t\n", milliseconds(20'000));
    run_tool("-r 16", {"] on modem [a1b2c3]\n"});
    wire.skip_to("2\trx_mode_config_req\t\t\t16,16,16,16,16,16,0\t\t\n", milliseconds(20'000));
    wire.skip_to("3\trx_msg_req\t\t\t\t", milliseconds(20'000));
}

} // namespace
} // namespace e2e
