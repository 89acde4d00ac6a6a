#include "vos_util_timer.h"

#include <bit>
#include <fcntl.h>
#include <future>
#include <thread>
#include <unistd.h>

#include "support.h"
#include "vos_task_linux.h"
#include "vos_util_linux.h"

namespace
{
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct Expiries {
    VosTimer timer{};
    std::atomic<int> begun{0}, count{0};               // callbacks, and those that have ended
    int stop_at = -1;                                  // the callback that ends the timer
    milliseconds busy{0};                              // what a callback takes
    Clock::time_point end = Clock::now();              // of the last callback
    Clock::duration shortest = Clock::duration::max(); // time to the next one
    ~Expiries()
    {
        EXPECT_TRUE(wait_until([this] { return timer == nullptr && vos_task_count() == 1; }));
    }
    uintptr_t argument() { return std::bit_cast<uintptr_t>(this); }
};

void on_expiry(uintptr_t argument)
{
    auto *self = std::bit_cast<Expiries *>(argument);
    ++self->begun;
    self->shortest = std::min(self->shortest, Clock::now() - self->end);
    std::this_thread::sleep_for(self->busy);
    self->end = Clock::now();
    if (++self->count == self->stop_at) {
        EXPECT_EQ(vos_util_stop_timer(&self->timer), 1);
    }
}

TEST(Timer, CommandsTakeEffectInTheirOrder)
{
    Expiries e;
    const auto change = [&e](uint8_t periodic, uint32_t ticks, VosTimerCallback call) {
        return vos_util_change_timer(&e.timer, periodic, ticks, call, e.argument());
    };
    EXPECT_EQ(vos_util_start_timer(&e.timer, 0, 2, on_expiry, e.argument()), 1);
    EXPECT_EQ(vos_util_start_timer(&e.timer, 0, 1, on_expiry, e.argument()), 0) << "runs already";
    EXPECT_TRUE(wait_until([&e] { return e.count == 1; }));
    vos_util_sleep(5);
    EXPECT_EQ(e.count, 1) << "once only";
    e.busy = milliseconds(100);
    EXPECT_EQ(vos_util_restart_timer(&e.timer), 1);
    EXPECT_TRUE(wait_until([&e] { return e.begun == 2; }));
    EXPECT_EQ(vos_util_restart_timer(&e.timer), 1) << "armed again right behind the callback";
    EXPECT_TRUE(wait_until([&e] { return e.count == 3; }));
    e.busy = milliseconds(0);
    EXPECT_EQ(change(1, 1, on_expiry), 1);
    EXPECT_TRUE(wait_until([&e] { return e.count >= 6; }));
    EXPECT_EQ(vos_util_suspend_timer(&e.timer), 1);
    int suspended = 0;
    EXPECT_TRUE(wait_until([&] {
        suspended = e.count;
        vos_util_sleep(5);
        return e.count == suspended;
    }));
    fail_allocation = 1;
    EXPECT_EQ(change(1, 1, on_expiry), 0) << "no memory";
    EXPECT_EQ(change(0, 0, on_expiry), 1);
    vos_util_sleep(5);
    EXPECT_EQ(e.count, suspended) << "a period of 0 never ends";
    EXPECT_EQ(change(0, 1, nullptr), 1);
    vos_util_sleep(3); // it expires with nobody to call
    e.stop_at = suspended + 50;
    e.busy = milliseconds(2);
    e.shortest = Clock::duration::max();
    EXPECT_EQ(change(1, 1, on_expiry), 1);
    EXPECT_TRUE(wait_until([&e] { return e.timer == nullptr; }));
    EXPECT_EQ(e.count, e.stop_at);
    EXPECT_GE(e.shortest, std::chrono::microseconds(19'900)) << "deadlines are cut to microseconds";
    EXPECT_LE(e.shortest, milliseconds(25)) << "no wake-up of so many was in time";
}

TEST(Timer, AStartWhoseLineWaitsForItsReaderKeepsNobodyWaiting)
{
    Expiries running, started;
    EXPECT_EQ(vos_util_start_timer(&running.timer, 0, 0, nullptr, 0), 1);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const auto room = static_cast<size_t>(fcntl(ends[1], F_SETPIPE_SZ, 4096));
    Bytes full(room);
    EXPECT_EQ(write(ends[1], full.data(), room), static_cast<ssize_t>(room));
    FILE *before = std::exchange(stdout, fdopen(ends[1], "w"));
    std::future<int> start = std::async([&started] {
        return vos_util_start_timer(&started.timer, 1, 1, on_expiry, started.argument());
    });
    const bool called = wait_until([&started] { return started.count > 0; });
    std::future<int> stop = std::async([&running] { return vos_util_stop_timer(&running.timer); });
    const auto in_time = stop.wait_for(std::chrono::seconds(5));
    const auto start_waits = start.wait_for(milliseconds(0));
    EXPECT_EQ(read(ends[0], full.data(), room), static_cast<ssize_t>(room));
    EXPECT_EQ(start.get() + stop.get() + vos_util_stop_timer(&started.timer), 3);
    wait_until([] { return vos_task_count() == 1; });
    fclose(std::exchange(stdout, before));
    close(ends[0]);
    EXPECT_TRUE(called && in_time == std::future_status::ready);
    EXPECT_EQ(start_waits, std::future_status::timeout) << "the pipe was not full";
}

TEST(Timer, ReportsWhatItRefuses)
{
    const std::string refused = lines_of([] {
        VosTimer timer{};
        EXPECT_EQ(vos_util_suspend_timer(&timer) + vos_util_restart_timer(&timer), 0);
        EXPECT_EQ(vos_util_change_timer(&timer, 0, 1, nullptr, 0), 0);
        EXPECT_EQ(vos_util_stop_timer(&timer), 0);
        EXPECT_EQ(vos_util_start_timer(nullptr, 0, 1, nullptr, 0), 0);
    });
    EXPECT_EQ(refused, "DEBUG:vos_util:vos_util_suspend_timer is not started|"
                       "DEBUG:vos_util:vos_util_restart_timer is not started|"
                       "DEBUG:vos_util:vos_util_restart_timer is not started|"
                       "DEBUG:vos_util:vos_util_stop_timer already stopped|"
                       "DEBUG:vos_util:vos_util_start_timer refused|");
    VosTimer timer{};
    for (const bool threads : {true, false}) {
        fail_allocation = threads ? 1 : 0;
        refuse_threads = !threads;
        const std::string lines =
            lines_of([&timer] { EXPECT_EQ(vos_util_start_timer(&timer, 0, 1, nullptr, 0), 0); });
        EXPECT_TRUE(lines.ends_with("DEBUG:vos_util:vos_util_start_timer refused|")) << lines;
        EXPECT_TRUE(timer == nullptr);
    }
    refuse_threads = false;
    EXPECT_EQ(new_blocks(), 0U) << "a task that never ran was left";
}

TEST(Timer, SurvivesStartsAndStopsFromManyThreads)
{
    static std::atomic<int> started;
    started = 0;
    output_of([] {
        Expiries e;
        std::vector<std::jthread> callers(4);
        for (std::jthread &caller : callers) {
            caller = std::jthread([&e] {
                while (started < 100) {
                    started += vos_util_start_timer(&e.timer, 1, 1, on_expiry, e.argument());
                    vos_util_restart_timer(&e.timer);
                    vos_util_stop_timer(&e.timer);
                }
            });
        }
        callers.clear();
        vos_util_stop_timer(&e.timer);
    });
    EXPECT_EQ(new_blocks(), 0U);
}
} // namespace
