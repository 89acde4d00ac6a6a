#include "harness.h"

#include "sim_noise.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <random>

namespace e2e
{
namespace
{
struct Load : testing::Test, Idle {
    long resident() const // kilobytes
    {
        const std::string status = tool.proc_file("/status");
        return std::stol(status.substr(status.find("VmRSS:") + 6));
    }
};

TEST_F(Load, ServerNeverWaitsForStandardOutputAndAllItTookIsPrintedInOrder)
{
    std::vector<int> codes; // of the answers
    tool.pause_reading(true);
    const long before = resident();
    for (std::size_t sent = 0; codes.size() < 40'000;) { // at most eight are unanswered at a time
        for (; sent < 40'000 && sent < codes.size() + 8; ++sent) {
            modem.send(encode(CON, PUT, static_cast<int>(sent), little_endian(sent, 2),
                              "rx_msg_req", frame(numbered(static_cast<std::uint32_t>(sent)))));
        }
        const Bytes answer = modem.receive(milliseconds(1000));
        ASSERT_GE(answer.size(), 2U) << "frame " << codes.size() << " is not answered";
        const int code = static_cast<std::uint8_t>(answer[1]), id = static_cast<int>(codes.size());
        ASSERT_EQ(hex(answer), hex(encode(ACK, code, id, little_endian(codes.size(), 2))));
        codes.push_back(code);
    }
    const auto refused = std::find(codes.begin(), codes.end(), UNAVAILABLE) - codes.begin();
    EXPECT_GT(refused, 32'768);
    EXPECT_LT(refused, 40'000);
    EXPECT_EQ(std::count(codes.begin(), codes.end(), VALID), refused);
    EXPECT_LT(resident(), 5 * before) << "kilobytes"; // with sanitizers, both are larger
    tool.pause_reading(false);
    for (std::uint32_t number = 0; number < codes.size() && !HasFailure(); ++number) {
        if (codes[number] == VALID) {
            tool.expect(frame_lines(numbered(number)));
        } else {
            EXPECT_EQ(codes[number], UNAVAILABLE);
        }
    }
    modem.report("rx_msg_req", frame(numbered(1)));
    tool.expect(frame_lines(numbered(1)));
}

TEST_F(Load, MutatedDatagramsDoNoHarm)
{
    const auto number = [](const char *name, unsigned long otherwise) {
        const char *given = getenv(name);
        return given != nullptr ? std::stoul(given) : otherwise;
    };
    const unsigned long count = number("E2E_MUTATIONS", 20'000);
    const unsigned long seed = number("E2E_SEED", std::random_device{}());
    std::cout << "E2E_SEED=" << seed << " E2E_MUTATIONS=" << count << '\n';
    sim::Noise noise(SERIAL, static_cast<std::uint32_t>(seed));
    tool.ignore_rest();
    long warm = 0;
    for (unsigned long i = 0; i <= count && !HasFailure(); ++i) {
        const sim::Bytes datagram = noise.next();
        modem.send({datagram.begin(), datagram.end()});
        if (i % 4 == 0) { // a leak would show
            modem.send(encode(NON, PUT, 7, "", "rx_msg_req", frame(Bytes(1000, 'x'))));
        }
        if (i % 32 == 0 || i == count) { // the server catches up
            const Bytes token = little_endian(i, 4), settled = encode(ACK, NOT_FOUND, 6, token);
            modem.send(encode(CON, GET, 6, token, "none"));
            for (Bytes answer; answer.substr(0, 8) != settled;) {
                answer = modem.receive();
                ASSERT_NE(answer, "") << "the server is silent";
            }
        }
        if (i % 4096 == 0 || i == count) { // so does the printing
            const Bytes marker = numbered(0x80000000 + static_cast<std::uint32_t>(i));
            const std::string lines = frame_lines(marker);
            modem.report("rx_msg_req", frame(marker));
            tool.skip_to(lines.substr(lines.find("EndPoint ["), 36), milliseconds(20'000));
        }
        if (i == count / 4) {
            warm = resident();
        }
    }
    EXPECT_LT(resident() - warm, 3072) << "kilobytes more";
}
} // namespace
} // namespace e2e
