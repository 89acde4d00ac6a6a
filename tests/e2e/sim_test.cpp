#include "harness.h"

#include <gtest/gtest.h>

namespace e2e
{
namespace
{
TEST(Simulator, KeepsAParameterFromOneRunToTheNext)
{
    Process modem("--address " + address(1) + " --announce-to " + address(0) +
                      " --announce-every 1 --rate 0 --serial beef",
                  WMBUSCTL_SIM);
    modem.ignore_rest();
    const std::pair<std::string, std::vector<std::string>> runs[] = {
        {"-p 101 0AFF", {"INFO:Perform action on modem LAN:beef\n", "COAP RES:2.04\n"}},
        {"-g 101", {"INFO:Param req : 0x101 len:2, value:\n", "DUMP:app_lan:0A FF \n"}}};
    for (const auto &[arguments, printed] : runs) {
        Process tool(arguments);
        tool.ignore_rest();
        for (const std::string &line : printed) {
            tool.skip_to(line, milliseconds(10'000));
        }
    }
}
} // namespace
} // namespace e2e
