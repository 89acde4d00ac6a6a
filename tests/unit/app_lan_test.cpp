#include <fstream>
#include <numeric>

#include "../private_mounts.h"
#include "app_lan_state.h"
#include "support.h"
#include "vos_mem.h"

namespace
{
using Handler = decltype(lan_handle_info);

// A '-' for the result -1, and the lines.
std::string handle(Handler *handler, unsigned host, const Bytes &payload)
{
    const coap_address_t from = ipv4("10.0.0." + std::to_string(host));
    const auto size = static_cast<uint32_t>(payload.size());
    int result = 0;
    const std::string lines = lines_of([&] { result = handler(&from, payload.data(), size); });
    return (result == 1 ? "" : "-") + lines;
}

std::string info_of(unsigned serial)
{
    return "010000000" + std::to_string(serial) + "00000005000000020104030607";
}

TEST(Lan, HandlersReadNoFurtherThanThePayload)
{
    const std::string info = info_of(9);
    const std::string frame = "000000000A0000000700FBFF";
    const std::string error = "ERROR:app_lan:";
    const Table<Handler *, std::string, std::string> rows = {
        // and how the lines end
        {lan_handle_info, info + "01",
         "INFO:Register new modem 9|DEBUG:app_lan:Modem 9 is in READY state|"},
        {lan_handle_info, info + "0108",
         "hw_ver:1.2, sw_ver:3.4, type:6, location:7, state:1, wakeup:8, nb RF receiver:0, "
         "RF:0/0/0/0/0/0/0|"},
        {lan_handle_info, info + "010803FF", "nb RF receiver:1, RF:ff/0/0/0/0/0/0|"},
        {lan_handle_info, info + "030809010203040506070809",
         "nb RF receiver:7, RF:1/2/3/4/5/6/7|" + error + "Unsupported state 3 for modem 9|"},
        {lan_handle_rx_msg, frame + "FFFF5003010B442D2C78",
         "|DUMP:app_lan:0B 44 2D 2C 78 |DEBUG:app_lan:Receive RF frame from EndPoint [2d 2c / 78] "
         "on modem [9]|DEBUG:app_lan:|################|################|"},
        {lan_handle_param, "0101FF0AFF",
         "INFO:Param req : 0x101 len:255, value:|WARNING:app_lan:Param value cut, announced:255 "
         "received:2|DUMP:app_lan:0A FF |"},
        {lan_handle_param, "0101", "-" + error + "Malformed param msg|"}};
    for (const auto &[handler, payload, expected] : rows) {
        const std::string seen = handle(handler, 1, unhex(payload));
        EXPECT_TRUE(seen.ends_with(expected)) << seen << " instead of " << expected;
    }
}

TEST(Lan, TableFillsFromItsEndAndKeepsWhatAnInfoDoesNotTell)
{
    uint32_t serial = 77;
    EXPECT_EQ(lan_get_modem(&serial), -1);
    for (unsigned number = 1; number <= 6; ++number) {
        const std::string seen = handle(lan_handle_info, number, unhex(info_of(number) + "01"));
        const bool full = seen.find("No more place in modem list!!!!") != std::string::npos;
        EXPECT_TRUE(full ? number == 6 : lan_state.table[5 - number].serial_number == number);
    }
    EXPECT_EQ(lan_get_modem(&serial), 1);
    EXPECT_EQ(serial, 1U);
    ModemEntry &slot = lan_state.table[3];
    slot.fw_name[0] = 'n';
    slot.stats[6].last = 9;
    fake_clock = {2'000'000'000, 0};
    handle(lan_handle_info, 3, unhex(info_of(2) + "02"));
    EXPECT_STREQ(slot.fw_name, "n");
    EXPECT_EQ(slot.stats[6].last, 9);
    EXPECT_EQ(slot.state, 2);
    EXPECT_EQ(slot.info_time, 2'000'000'000U);
    for (const auto &[port, found] : Table<uint16_t, uint32_t>{{5683, 2}, {5684, 0}}) {
        const coap_address_t shared = ipv4("10.0.0.3", port); // by two slots
        EXPECT_EQ(lan_find_modem_by_addr(&shared), found);
    }
    EXPECT_EQ(lan_count_modems(), 5);
}

TEST(Lan, StatisticsAreStoredByTheirOffsets)
{
    handle(lan_handle_info, 1, unhex(info_of(1) + "01"));
    EXPECT_EQ(handle(lan_handle_stats, 1, Bytes(53)), "-ERROR:app_lan:Malformed stats msg|");
    EXPECT_EQ(handle(lan_handle_stats, 9, Bytes(54)),
              "-ERROR:app_lan:Statistics of an unknown modem|");
    for (const auto &[announced, size] : Table<uint8_t, int>{{2, 58}, {7, 58}, {7, 54}, {9, 57}}) {
        Bytes payload(static_cast<size_t>(size));
        std::iota(payload.begin(), payload.end(), uint8_t{0});
        payload[1] = announced;
        const std::string seen = handle(lan_handle_stats, 1, payload);
        EXPECT_EQ(seen.find("ERROR:app_lan:Too much receiver channel :9|") == 0, announced == 9);
        const int n = std::min<int>(announced, 7);
        for (int k = 0; k < 7; ++k) {
            const ModemStats &stats = lan_state.table[4].stats[k];
            const int there = k < n ? 1 : 0;
            EXPECT_EQ(stats.first & 0xFF, there * (2 + 2 * k));
            EXPECT_EQ(stats.second >> 8, there * (3 + 2 * n + 2 * k));
            EXPECT_EQ(stats.bytes[2], there * (4 + 4 * n + 3 * k));
            EXPECT_EQ(stats.last, 2 + 7 * n + k < size ? there * (2 + 7 * n + k) : 0);
        }
    }
}

TEST(Lan, FirmwareForAnUnknownModemIsRemovedAgain)
{
    if (!make_mounts_private() || mount("tmpfs", "/var", "tmpfs", 0, nullptr) != 0) {
        ASSERT_EQ(getenv("CI"), nullptr);
        GTEST_SKIP() << "no mount namespace to be had";
    }
    std::ofstream("/var/fw") << "firmware";
    EXPECT_EQ(lines_of([] { EXPECT_EQ(lan_fw_upgrade(9, "/var/fw", "name"), -1); }),
              "DEBUG:app_lan:Request fw upgrade of Modem 9 (/var/fw)|"
              "ERROR:app_lan:No Modem 9 for fw upgrade(9), name:name|");
    EXPECT_EQ(content_of("/var/fw") + content_of("/var/ftp/9"), "--");
}

TEST(Lan, AMessageThatFindsNoMemoryIsNotTaken)
{
    const BodyTask task([](VosTask *self) {
        lan_state.itf_task = self;
        const coap_address_t from = ipv4("10.0.0.1");
        const uint8_t payload = 1;
        const uint32_t blocks = vos_mem_get_nbpools();
        for (fail_allocation = 1; lan_post_msg(LAN_MSG_RX_FRAME, &from, &payload, 1) == 0;) {
            EXPECT_EQ(vos_mem_get_nbpools(), blocks);
            static int nth = 1;
            fail_allocation = ++nth;
        }
        EXPECT_EQ(fail_allocation, 1) << "message, payload and list node";
        fail_allocation = 0;
        void *block = nullptr;
        vos_mem_alloc(&block, 16 * 1024 * 1024);
        EXPECT_EQ(lan_post_msg(LAN_MSG_RX_FRAME, &from, &payload, 1), 0) << "too much waits";
        vos_mem_free(&block);
        void *received = nullptr;
        EXPECT_EQ(vos_mbx_receive(self, &received, 1), 1);
        auto *msg = static_cast<LanMsg *>(received);
        vos_mem_free(&msg->payload);
        vos_mem_free(&msg);
    });
}
} // namespace
