#include "harness.h"

#include <gtest/gtest.h>

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

TEST(Simulator, ReportsFramesOnceStarted)
{
    Process modem(options("--rate max --count 50"), SIMULATOR);
    modem.ignore_rest();
    run_tool("-r 16", std::vector<std::string>(50, "] on modem [a1b2c3]\n"));
}

} // namespace
} // namespace e2e
