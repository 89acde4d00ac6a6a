#include "harness.h"

#include "../private_mounts.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>

int e2e::gateway_namespace = -1;

namespace
{
// Started in the gateway's namespace, which descriptor 9 keeps; the test program runs in another.
const char *const LAY_CABLE = R"(
exec 9</proc/self/ns/net
ip link set lo up
ip link add eth0 type veth peer name modems
ip address add 10.55.0.1/24 dev eth0
ip link set eth0 up
exec unshare -n sh -ec '
    nsenter --net=/proc/self/fd/9 ip link set modems netns $$ name eth0
    ip link set lo up
    for host in 2 3 4 5 6 7; do ip address add 10.55.0.$host/24 dev eth0; done
    ip link set eth0 up
    ip route add 224.0.0.0/4 dev eth0
    until ip link show eth0 | grep -q "state UP" &&
        nsenter --net=/proc/self/fd/9 ip link show eth0 | grep -q "state UP"; do sleep 0.02; done
    E2E_GATEWAY=9 exec "$0" "$@"' "$0" "$@"
)";

// Runs this program again; comes back only where namespaces are not to be had.
void enter_namespaces(std::vector<char *> words)
{
    std::string self = std::filesystem::read_symlink("/proc/self/exe");
    std::string command[] = {"unshare", geteuid() == 0 ? "-n" : "-rUnm", "sh", "-ec", LAY_CABLE};
    if ((geteuid() != 0 || make_mounts_private()) &&
        system(("unshare " + command[1] + " ip link set lo up 2>/dev/null").c_str()) == 0) {
        words.front() = self.data();
        for (int i = 4; i >= 0; --i) {
            words.insert(words.begin(), command[i].data());
        }
        execvp("unshare", words.data());
    }
}

// Test programs that run at the same time take turns at the one port.
bool share_loopback()
{
    std::cerr << "no network namespaces here: the tests share the loopback interface\n";
    const int self = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    return getenv("CI") == nullptr && self >= 0 && flock(self, LOCK_EX) == 0;
}
} // namespace

int main(int argc, char **argv)
{
    const std::vector<char *> words(argv, argv + argc + 1);
    testing::InitGoogleTest(&argc, argv);
    if (getenv("E2E_GATEWAY") != nullptr) {
        e2e::gateway_namespace = fcntl(9, F_DUPFD_CLOEXEC, 0);
        close(9);
    } else if (!GTEST_FLAG_GET(list_tests)) {
        enter_namespaces(words);
        if (!share_loopback()) {
            return 1;
        }
    }
    // A large quarantine of the address sanitizer would look like a leak.
    const char *options = getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS",
           (std::string("quarantine_size_mb=1:") + (options == nullptr ? "" : options)).c_str(), 1);
    return RUN_ALL_TESTS();
}
