#include <numeric>

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

TEST(Lan, StatisticsAreStoredByTheirOffsets)
{
    const Bytes info = unhex("0100000001000000050000000201040306070200");
    handle(lan_handle_info, 1, info);
    EXPECT_EQ(lan_count_modems(), 1);
    fake_clock = {2'000'000'000, 0};
    EXPECT_EQ(handle(lan_handle_stats, 1, Bytes(53)), "-ERROR:app_lan:Malformed stats msg|");
    EXPECT_EQ(handle(lan_handle_stats, 9, Bytes(54)),
              "-ERROR:app_lan:Statistics of an unknown modem|");
    ModemEntry copy[MODEM_TABLE_SIZE];
    for (const auto &[announced, size] : Table<uint8_t, int>{{2, 58}, {7, 58}, {7, 54}, {9, 57}}) {
        Bytes payload(static_cast<size_t>(size));
        std::iota(payload.begin(), payload.end(), uint8_t{0});
        payload[1] = announced;
        const std::string seen = handle(lan_handle_stats, 1, payload);
        EXPECT_EQ(seen.find("ERROR:app_lan:Too much receiver channel :9|") == 0, announced == 9);
        handle(lan_handle_info, 1, info); // takes nothing of them away
        lan_get_modem_table(copy);
        const int n = std::min<int>(announced, 7);
        for (int k = 0; k < 7; ++k) {
            const ModemStats &stats = copy[4].stats[k];
            const int there = k < n ? 1 : 0;
            EXPECT_EQ(stats.first & 0xFF, there * (2 + 2 * k));
            EXPECT_EQ(stats.second >> 8, there * (3 + 2 * n + 2 * k));
            EXPECT_EQ(stats.bytes[2], there * (4 + 4 * n + 3 * k));
            EXPECT_EQ(stats.last, 2 + 7 * n + k < size ? there * (2 + 7 * n + k) : 0);
        }
    }
    EXPECT_EQ(copy[4].info_time, 2'000'000'000U);
}

TEST(Lan, AMessageIsNotTakenWhenTooMuchWaits)
{
    const BodyTask task([](VosTask *self) {
        lan_state.itf_task = self;
        const coap_address_t from = ipv4("10.0.0.1");
        void *block = nullptr;
        vos_mem_alloc(&block, 16 * 1024 * 1024);
        EXPECT_EQ(lan_post_msg(LAN_MSG_RX_FRAME, &from, nullptr, 0), 0);
        vos_mem_free(&block);
        EXPECT_EQ(lan_post_msg(LAN_MSG_RX_FRAME, &from, nullptr, 0), 1);
    });
}
} // namespace
