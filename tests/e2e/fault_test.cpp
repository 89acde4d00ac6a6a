#include "harness.h"

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <atomic>
#include <filesystem>
#include <fstream>

namespace e2e
{
namespace
{
namespace fs = std::filesystem;
const std::string ACTION = "Perform action";

// The tool of faults.cpp beside a modem that answers whatever it is asked.
struct Fault : testing::Test {
    void SetUp() override
    {
        if (gateway_namespace < 0 || getenv("E2E_PROGRAMS") != nullptr) {
            GTEST_SKIP() << "needs namespaces, and this build's own tool";
        }
        ASSERT_EQ(mount("tmpfs", "/var", "tmpfs", 0, nullptr), 0);
        ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, nullptr), 0);
        setenv("E2E_PROGRAMS", WMBUSCTL_FAULTS, 1);
    }
    void TearDown() override { unsetenv("E2E_PROGRAMS"); }

    void modem()
    {
        Peer peer;
        for (Bytes answer; !served;) {
            const Bytes request = peer.receive(milliseconds(20));
            if (request.size() > 4 && request[0] == encode(CON, 0, 0)[0] && !deaf.exchange(false)) {
                answer = encode(ACK, CHANGED, 0).replace(2, 2, request, 2, 2);
            } else if (request.empty() && unknown) {
                peer.send(encode(NON, POST, 1, "", "info_ind", info()));
            }
            answer.empty() ? void() : peer.reply(answer); // the first may have found no memory
        }
    }

    // What the tool prints until it is at rest or has ended.
    std::string run(const std::string &arguments, const std::string &fault, const std::string &from)
    {
        SCOPED_TRACE(arguments + " with " + fault);
        setenv("FAULT", (fault + ' ' + from).c_str(), 1);
        fs::remove_all("/var/ftp");
        std::ofstream("/tmp/fw") << std::string(128, 'f');
        unknown = true;
        served = false;
        deaf = fault.starts_with("clock"); // to the first request
        const std::jthread answering(&Fault::modem, this);
        Process tool(arguments);
        tool.ignore_rest();
        std::string printed = from.empty() ? "" : tool.skip_to(from);
        unknown = from.empty();
        printed += tool.skip_to("harmed\n", milliseconds(10'000));
        served = true;
        if (printed.find("Ended") != Bytes::npos) { // the library's tables end it with 255
            EXPECT_EQ(tool.exit_status(), printed.find("FATAL") != Bytes::npos ? 1 : 255);
        } else if (printed.find("End of thread") == Bytes::npos) {
            Peer(2).report("rx_msg_req", frame(numbered(7)));
        }
        return printed;
    }
    std::atomic<bool> unknown, served, deaf;
};

TEST_F(Fault, OfAnyAllocationEndsInARefusalOrAnError)
{
    for (const std::string arguments : {"", "-c 3", "-r 16", "-t 1 2 3 4 5 6 AA", "-p 1 0A", "-g 1",
                                        "-d /tmp/fw 64 0", "-u /tmp/fw"}) {
        std::string all;
        for (int nth = 1; !all.ends_with("unharmed\n") && !HasFailure(); ++nth) {
            all = run(arguments, text("alloc %d 1 12", nth), arguments.empty() ? "" : ACTION);
            const bool placed = all.find("name:manual, size:128") != Bytes::npos;
            const bool upgrade = arguments.starts_with("-u");
            EXPECT_TRUE(placed
                            ? fs::file_size("/var/ftp/a1b2c3") == 128
                            : fs::exists("/tmp/fw") != upgrade && !fs::exists("/var/ftp/a1b2c3"));
        }
    }
}

TEST_F(Fault, OfACallIsToldOrOvercome)
{
    const std::string done = "COAP RES:2.04\n", none = "COAP RES:0.00\n";
    const std::string lost = "Can not move fw file /tmp/fw to /var/ftp/a1b2c3\n";
    const struct {
        std::string fault, arguments, printed, from{ACTION};
    } cases[] = {
        {"write 1 3 4", "-c 3", done, ""},
        {"write 1 3 11", "-c 3", done, ""},
        {"short 1 99 0", "-c 3", done, ""},
        {"epoll_wait 1 3 4", "-c 3", done, ""},
        {"epoll_wait 1 3 9", "-c 3", done, ""},
        {"epoll_wait 1 3 4", "-c 3", done},
        {"epoll_wait 1 3 12", "-c 3", done},
        {"select 1 1 4", "-c 3", done, ""},
        {"select 1 1 4", "", "FATAL:app_main:Select 0 exit, CRITICAL error \"Interrupted system"},
        {"signal 1 1 22", "-c 3", "WARNING:app_main:can't set signal catcher\n", ""},
        {"pthread_create 1 1 11", "-c 3", "Can't create thread 11, Resource temporarily", ""},
        {"send 1 1 101", "-c 3", none},
        {"socket 1 1 24", "-c 3", none},
        {"getsockname 1 99999 9", "-c 3", "ERROR:coap_client:Can't find the socket on port 0\n"},
        {"setsockopt 1 99 12", "-c 3", "Can't filter socket : Cannot allocate memory\n", ""},
        {"clock 9 9999999 3600", "-c 3", done},
        {"clock 9 9999999 -3600", "-c 3", done},
        {"getcwd 1 1 13", "-u fw", "ERROR:app_main:Can't read the working directory : Permission"},
        {"fopen64 1 1 24", "-d /tmp/fw 64 0", "Can't open file for download(/tmp/fw) : Too many"},
        {"fsync 1 1 22", "-u /tmp/fw", done},
        {"fsync 1 1 5", "-u /tmp/fw", lost},
        {"rename 2 1 5", "-u /tmp/fw", lost},
        {"fdopen 1 1 12", "-u /tmp/fw", lost}};
    for (const auto &[fault, arguments, printed, from] : cases) {
        const std::string all = run(arguments, fault, from);
        EXPECT_TRUE(all.find(printed) != Bytes::npos && all.ends_with(", harmed\n"))
            << fault << all;
    }
}
} // namespace
} // namespace e2e
