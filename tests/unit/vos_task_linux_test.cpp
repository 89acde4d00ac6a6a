#include "vos_task_linux.h"

#include <latch>
#include <thread>

#include "support.h"
#include "vos_mem.h"

namespace
{
int send_number(VosTask *task, uint32_t number, decltype(vos_mbx_send) *send = vos_mbx_send)
{
    uint32_t *block = nullptr;
    vos_mem_alloc(&block, sizeof *block);
    *block = number;
    void *message = block;
    const int sent = send(task, &message);
    sent == 1 ? void() : vos_mem_free(&block);
    return sent;
}

uint32_t receive_number(VosTask *task)
{
    void *message = nullptr;
    EXPECT_EQ(vos_mbx_receive(task, &message, 0), 1);
    const uint32_t number = *static_cast<uint32_t *>(message);
    vos_mem_free(&message);
    return number;
}

TEST(Task, ComesBackThoughItsThreadIsRefused)
{
    static auto &tasks = *new std::vector<VosTask *>; // for ever
    refuse_threads = true;
    EXPECT_TRUE(lines_of([] {
                    tasks.push_back(vos_task_create(nullptr, 6, "x", 0, 1 << 18));
                }).starts_with("Can't create thread 11, Resource temporarily unavailable|"));
    EXPECT_NE(tasks.back(), nullptr);
}

TEST(Task, RunsBehindTheBarrierAndFreesWhatIsLeft)
{
    std::ostringstream id;
    const std::string lines = lines_of([&id] {
        std::latch sent(1);
        const auto body = [&sent](VosTask *self) {
            EXPECT_NE(pthread_equal(self->thread, pthread_self()), 0);
            EXPECT_EQ(vos_task_count(), 2U);
            sent.wait();
            EXPECT_EQ(receive_number(self), 1U);
        };
        const BodyTask task(body, 1);
        EXPECT_EQ(send_number(task.handle, 1) + send_number(task.handle, 2), 2);
        id << task.handle;
        sent.count_down();
    });
    EXPECT_EQ(new_blocks(), 0U);
    const std::string begin = "ERROR:vos_task_linux:Can't set stack size=1 errno=22 errstr:Invalid "
                              "argument|INFO:Thread \"body\" created, id=" +
                              id.str();
    const std::string end = " min_stack_size=16384|INFO:End of thread=" + id.str() + "|";
    EXPECT_TRUE(lines.starts_with(begin) && lines.ends_with(end)) << lines;
}

TEST(Mailbox, WaitsAndRefuses)
{
    const BodyTask task([](VosTask *self) {
        void *untouched = self;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(vos_mbx_receive(self, &untouched, 5), 0);
        EXPECT_EQ(vos_mbx_receive_ms(self, &untouched, 100), 0);
        EXPECT_EQ(untouched, self);
        const auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_TRUE(waited > std::chrono::milliseconds(190) && waited < std::chrono::seconds(3));
        EXPECT_EQ(send_number(self, 1, vos_mbx_send_limited), 0) << "the limit is 0 at first";
        vos_mbx_set_limit(self, 2);
        for (int waiting = 0; waiting < VOS_QUEUE_MAX; ++waiting) {
            ASSERT_EQ(send_number(self, 1, waiting < 2 ? vos_mbx_send_limited : vos_mbx_send), 1);
        }
        EXPECT_EQ(send_number(self, 1, vos_mbx_send_limited) + send_number(self, 1), 0) << "full";
    });
}

TEST(Mailbox, WakeUpsWithoutAMessageAreTracedAndEndNoWait)
{
    void *message = nullptr;
    const std::string lines = lines_of([&message] {
        const BodyTask task([&message](VosTask *self) {
            EXPECT_EQ(vos_mbx_receive(self, &message, 500), 1);
            EXPECT_EQ(vos_mbx_receive_blocking(self, &message), 1);
        });
        for (int sent = 0; sent < 2; ++sent) {
            for (int i = 0; i < 100; ++i) { // whenever it begins to wait
                pthread_cond_signal(&task.handle->condition);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            EXPECT_EQ(vos_mbx_send(task.handle, &message), 1);
        }
    });
    EXPECT_NE(lines.find("|ERROR:vos_task_linux:cond_timedwait:0|"), std::string::npos) << lines;
    EXPECT_NE(lines.find("|ERROR:vos_task_linux:pthread_cond_wait|"), std::string::npos) << lines;
}
} // namespace
