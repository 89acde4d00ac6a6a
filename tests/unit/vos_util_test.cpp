#include "vos_util.h"

#include <thread>

#include "support.h"
#include "vos_mem.h"
#include "vos_util_linux.h"

namespace
{
TEST(Hex, TextToNumberAndBytes)
{
    const auto number = [](const char *text) {
        return vos_util_hex_to_u32(text, static_cast<uint16_t>(strlen(text)));
    };
    EXPECT_EQ(number("0x1A2b"), 0x1A2BU);
    EXPECT_EQ(number("1234567890"), 0x34567890U);
    for (const char *text : {"", "0x", "0X12", "12g4", "z234567890"}) {
        EXPECT_EQ(number(text), 0U) << text;
    }
    EXPECT_EQ(vos_util_hex_to_u32("123", 2), 0x12U);
    EXPECT_EQ(vos_util_hex_to_u32("1", 2), 0U) << "shorter than told";
    Bytes output(2, 7); // and not one byte further
    EXPECT_EQ(vos_util_hexstr_to_bytes(output.data(), 2, "0a1B223"), output.data());
    EXPECT_EQ(output, (Bytes{0x0A, 0x1B}));
    vos_util_hexstr_to_bytes(output.data(), "0xz1");
    EXPECT_EQ(output, (Bytes{0, 0}));
}

TEST(Time, FailsToZeroAndCarriesDeadlinesIntoTheSeconds)
{
    const Table<suseconds_t, uint32_t, time_t, long> rows = {
        {980'000, 1, 11, 0},
        {979'999, 1, 10, 999'999'000},
        {0, 214'748'364, 4'294'977, 280'000'000}};
    for (const auto &[microseconds, ticks, seconds, nanoseconds] : rows) {
        fake_clock = {10, microseconds};
        for (const timespec end : {vos_util_deadline(ticks), vos_util_deadline_ms(20 * ticks)}) {
            EXPECT_EQ(end.tv_sec, seconds);
            EXPECT_EQ(end.tv_nsec, nanoseconds);
        }
    }
    fake_clock = {-1, 0};
    EXPECT_EQ(lines_of([] { EXPECT_EQ(vos_util_get_time(), 0U); }),
              "ERROR:vos_util:time request failed -1|"
              "ERROR:vos_util:time request failed once again -1|");
}

template<typename T> bool waits(T *object)
{
    const VosMutexGuard guard(&object->mutex);
    return object->waiting == 1;
}

TEST(Waiting, EndsByTimeByAPostOrByAllBits)
{
    VosSignal *signal = vos_signal_create("s");
    VosEventFlags *flags = vos_event_create("f");
    uint32_t bits = 0;
    vos_signal_post(signal); // lost
    vos_event_assign(flags, 5);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(vos_signal_wait(signal, 5) + vos_event_wait(flags, 5, 3, &bits), 0);
    vos_util_sleep(5);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(290));
    EXPECT_EQ(bits, 5U);
    std::jthread other([signal, flags] {
        EXPECT_TRUE(wait_until([signal] { return waits(signal); }));
        vos_signal_post(signal);
        EXPECT_TRUE(wait_until([flags] { return waits(flags); }));
        vos_event_assign(flags, 8); // nothing: a thread waits
        vos_event_set(flags, 1);
        EXPECT_TRUE(waits(flags));
        vos_event_set(flags, 6);
    });
    EXPECT_EQ(vos_signal_wait(signal, 0), 1);
    EXPECT_EQ(vos_event_wait(flags, 0, 3, &bits), 1);
    EXPECT_EQ(bits, 7U);
    other = std::jthread([flags]() mutable {
        EXPECT_TRUE(wait_until([flags] { return waits(flags); }));
        vos_event_delete(&flags);
    });
    EXPECT_EQ(vos_event_wait(flags, 0, 1, &bits), 2);
    EXPECT_EQ(bits, 0U) << "cleared by the wait before";
    vos_signal_destroy(&signal);
    EXPECT_EQ(vos_signal_wait(signal, 0), 1) << "nothing to wait for";
    vos_event_delete(&(flags = vos_event_create("f"))); // at once: nobody waits
    EXPECT_EQ(vos_event_wait(flags, 0, 1, &bits), 1) << "nothing to wait for";
    VosMutex *mutex = vos_mutex_create("m");
    vos_mutex_destroy(&mutex);
    EXPECT_TRUE(flags == nullptr && mutex == nullptr && new_blocks() == 0);
}
} // namespace
