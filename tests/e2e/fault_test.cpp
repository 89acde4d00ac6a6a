#include "harness.h"

#include "../private_mounts.h"

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>

namespace e2e
{
namespace
{
namespace fs = std::filesystem;
const std::string PLACED = "/var/ftp/a1b2c3";
const std::string ACTION = "Perform action", SERVING = "Start CoAP server";

// The tool of faults.cpp beside a modem that answers whatever it is asked.
struct Fault : testing::Test {
    void SetUp() override
    {
        if (gateway_namespace < 0 || getenv("E2E_PROGRAMS") != nullptr) {
            GTEST_SKIP() << "needs namespaces, and this build's own tool";
        }
        ASSERT_TRUE(mount_empty("/var"));
        ASSERT_TRUE(mount_empty("/tmp"));
        setenv("E2E_PROGRAMS", WMBUSCTL_FAULTS, 1);
    }
    void TearDown() override { unsetenv("E2E_PROGRAMS"); }

    void modem()
    {
        Peer peer;
        for (Bytes answer; !served;) {
            const Bytes request = peer.receive(milliseconds(20));
            if (request.size() > 4 && request[0] == encode(CON, 0, 0)[0] && !deaf.exchange(false)) {
                answer = encode(ACK, request[1] == GET ? CONTENT : CHANGED, 0, "", "", "id\1v");
                answer.replace(2, 2, request, 2, 2);
            } else if (request.empty() && unknown) {
                peer.send(encode(NON, POST, 1, "", "info_ind", info()));
            }
            answer.empty() ? void() : peer.reply(answer); // the first may have found no memory
            refused = refused || (request.size() > 1 && request[1] == char(UNAVAILABLE));
        }
    }

    // What the tool prints until it is at rest or has ended.
    std::string run(const std::string &arguments, const std::string &fault, const std::string &from)
    {
        SCOPED_TRACE(arguments + " with " + fault);
        setenv("FAULT", (fault + ' ' + from).c_str(), 1);
        fs::create_directory("/var/ftp");
        fs::remove(PLACED);
        fault.starts_with("rename") ? fs::create_symlink("/dev/full", PLACED) : void();
        std::ofstream(PLACED) << "earlier";
        std::ofstream("/tmp/fw") << std::string(128, 'f');
        unknown = true;
        served = false;
        deaf = fault.starts_with("clock"); // to the first request
        const std::jthread answering(&Fault::modem, this);
        Process tool(arguments);
        tool.ignore_rest();
        std::string printed = from.empty() ? "" : tool.skip_to(from);
        unknown = from != ACTION;
        printed += tool.skip_to("harmed\n", milliseconds(10'000));
        served = true;
        if (printed.find("Ended") != Bytes::npos) {
            EXPECT_EQ(tool.exit_status(), printed.find("FATAL") != Bytes::npos ? 1 : -1);
        } else if (printed.find("End of thread") == Bytes::npos) {
            Peer(2).report("rx_msg_req", frame(numbered(7)));
        }
        return tool.errors() + printed;
    }
    std::atomic<bool> unknown, served, deaf, refused;
};

bool tells_of_a_fault(const std::string &all)
{
    const auto told = {"ERROR:", "FATAL:",   "WARN",     "EMERG",
                       "CRIT",   "RES:0.00", ": malloc", "no context"};
    return std::any_of(told.begin(), told.end(),
                       [&](const char *text) { return all.find(text) != Bytes::npos; });
}

TEST_F(Fault, OfAnyAllocationEndsInARefusalOrAnError)
{
    const std::vector<std::pair<std::string, int>> requests = {
        {"", 0},        {"-c 3", 1}, {"-r 16", 2},           {"-t 1 2 3 4 5 6 AA", 2},
        {"-p 1 0A", 1}, {"-g 1", 1}, {"-d /tmp/fw 64 0", 3}, {"-u /tmp/fw", 1}};
    for (const auto &[arguments, wanted] : requests) {
        std::string all;
        for (int nth = 1; !all.ends_with("unharmed\n") && !HasFailure(); ++nth) {
            all = run(arguments, text("alloc %d 1 12", nth), arguments.empty() ? "" : ACTION);
            const bool placed = all.find("name:manual, size:128") != Bytes::npos;
            const bool upgrade = arguments.starts_with("-u");
            const std::string there = content_of(PLACED);
            EXPECT_TRUE(placed ? there.size() == 128
                               : fs::exists("/tmp/fw") != upgrade &&
                                     (there == "earlier" || (upgrade && there == "-")));
            int done = 0;
            for (std::size_t at = 0; (at = all.find("RES:2.0", at)) != Bytes::npos; ++at) {
                ++done;
            }
            EXPECT_TRUE(done == wanted || tells_of_a_fault(all)) << nth << all;
        }
        EXPECT_FALSE(tells_of_a_fault(all)) << "without one:" << all;
    }
}

TEST_F(Fault, OfAnyAllocationOfTheServerIsOutlivedOrFatal)
{
    for (int nth = 1; nth <= 60; ++nth) {
        run("-c 3", text("alloc %d 1 12", nth), SERVING);
    }
    EXPECT_TRUE(refused) << "no report was answered with 5.03";
}

TEST_F(Fault, OfACallIsToldOrOvercome)
{
    const std::string done = "COAP RES:2.04\n", none = "COAP RES:0.00\n";
    const std::string lost = "Can not move fw file /tmp/fw to /var/ftp/a1b2c3\n";
    const struct {
        std::string fault, arguments, printed, from{ACTION};
    } cases[] = {
        {"write 1 9 4", "-c 3", SERVING, ""},
        {"epoll_wait 1 3 4", "-c 3", done, ""},
        {"epoll_wait 1 3 4", "-c 3", done},
        {"epoll_wait 1 3 12", "-c 3", done},
        {"select 1 1 4", "-c 3", done, ""},
        {"select 1 1 4", "", "FATAL:app_main:Select 0 exit, CRITICAL error \"Interrupted system"},
        {"signal 1 1 22", "-c 3", "WARNING:app_main:can't set signal catcher\n", ""},
        {"signal 2 1 22", "-u " + std::string(1023, 'x'), "catcher for the file-size limit\n", ""},
        {"getcwd 1 1 34", "-u fw", "File name too long, at most 1023 characters : fw\n"},
        {"pthread_create 1 1 11", "-c 3", "FATAL:app_lan:Can't start all of the LAN tasks", ""},
        {"pthread_create 3 1 11", "-c 3", "FATAL:app_lan:Can't start all of the LAN tasks", ""},
        {"pthread_create 1 1 11", "--all -c 3", "FATAL:app_reader:Can't watch standard output", ""},
        {"send 1 1 101", "-c 3", none},
        {"sendmsg 1 3 1", "-c 3", done, ""},
        {"recv 1 3 12", "-c 3", done},
        {"socket 1 1 24", "-c 3", none},
        {"getsockname 1 99999 9", "-c 3", "ERROR:coap_client:Can't find the socket on port 0\n"},
        {"bind 1 1 98", "", "no context available for interface '0.0.0.0'\n", ""},
        {"bind 1 1 98", "--all -c 3", "FATAL:app_lan:Can't listen on port 5683", ""},
        {"ioctl 2 1 19", "-c 3", done, ""},
        {"setsockopt 1 99 12", "-c 3", "Can't filter socket : Cannot allocate memory\n", ""},
        {"clock 1 9999999 0", "-c 3", done}, // repeats the request
        {"getcwd 1 1 13", "-u fw", "ERROR:app_main:Can't read the working directory : Permission"},
        {"fopen64 1 1 24", "-d /tmp/fw 64 0", "Can't open file for download(/tmp/fw) : Too many"},
        {"fread 1 1 0", "-d /tmp/fw 64 0", "Can't read file for download(/tmp/fw) : Bad file"},
        {"fread 1 1 0", "-u /tmp/fw", lost},
        {"fsync 1 1 22", "-u /tmp/fw", done},
        {"fsync 1 1 5", "-u /tmp/fw", lost},
        {"rename 1 2 1", "-u /tmp/fw", done},    // the copy replaces the link
        {"openat64 1 1 95", "-u /tmp/fw", done}, // no files without a name
        {"openat64 1 2 95", "-u /tmp/fw", lost},
        {"linkat 1 1 17", "-u /tmp/fw", done}, // somebody else took the name
        {"linkat 1 1 5", "-u /tmp/fw", lost},
        {"fdopen 1 1 12", "-u /tmp/fw", lost}};
    for (const auto &[fault, arguments, printed, from] : cases) {
        const std::string all = run(arguments, fault, from);
        EXPECT_TRUE(all.find(printed) != Bytes::npos && all.ends_with(", harmed\n"))
            << fault << all;
        EXPECT_EQ(std::distance(fs::directory_iterator("/var/ftp"), {}), printed != lost)
            << fault << all;
    }
    for (const std::string call : {"clock_gettime", "recvmsg", "getifaddrs"}) {
        EXPECT_EQ(system(("nm -D --defined-only " WMBUSCTL_TOOL " | grep -qw " + call).c_str()), 0)
            << "the tool does not take the place of " << call;
    }
}
} // namespace
} // namespace e2e
