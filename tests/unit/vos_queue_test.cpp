#include "vos_queue.h"

#include <algorithm>
#include <bit>
#include <random>

#include "support.h"
#include "vos_mem.h"

namespace
{
char letters[] = "abcdefghijklmnopqrstuvwxyz"; // data of the lists, which own nothing of it
int match = 0;                                 // what comparison tells of equal letters

const VosQueueOps OPS = {[](const void *key, const void *data) { return key == data ? match : -1; },
                         [](void **data) { *data = nullptr; }};

TEST(Queue, AgreesWithAModel)
{
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    VosQueue *list = vos_queue_create(0, &OPS);
    std::string model;
    for (int step = 0; step < 5000 && !HasFailure(); ++step) {
        const int size = static_cast<int>(model.size());
        const auto index = static_cast<int16_t>(static_cast<int>(random() % 14) - 2);
        const auto place = static_cast<size_t>(std::clamp<int>(index, 0, size));
        char *letter = &letters[random() % 26];
        const void *there = static_cast<int>(place) < size ? &letters[model[place] - 'a'] : nullptr;
        const auto operation = random() % 4;
        if (operation == 0) {
            EXPECT_EQ(vos_queue_append(list, letter), size);
            model += *letter;
        } else if (operation == 1) {
            const int expected = index > size ? -1 : static_cast<int>(place);
            EXPECT_EQ(vos_queue_insert(list, letter, index), expected);
            model.insert(place, 1, *letter);
        } else {
            EXPECT_EQ(vos_queue_get(list, index), there);
            if (operation == 2) {
                EXPECT_EQ(vos_queue_delete(list, index), there != nullptr ? size - 1 : -1);
            } else {
                EXPECT_EQ(vos_queue_take(list, index), there);
            }
            model.erase(place, 1);
        }
        std::string backward;
        for (const VosQueueNode *node = list->tail; node != nullptr; node = node->previous) {
            backward += *static_cast<const char *>(node->data);
        }
        EXPECT_EQ(backward, std::string(model.rbegin(), model.rend())) << step << " of " << seed;
    }
    vos_queue_destroy(&list);
}

TEST(Queue, KeysMarksAndNumbers)
{
    VosQueue *list = vos_queue_create(VOS_QUEUE_UNIQUE, &OPS);
    char *a = letters;
    for (char *letter : {a, a + 1, a, a, a + 1, a}) {
        vos_queue_append(list, letter);
    }
    uint16_t *indices = vos_queue_find_all(list, a);
    EXPECT_EQ(std::vector(indices, indices + 5), (std::vector<uint16_t>{0, 2, 3, 5, 0xFFFF}));
    vos_mem_free(&indices);
    for (const int index : {0, 2, 3, 5, -1}) {
        EXPECT_EQ(vos_queue_take_mark(list, a), index);
    }
    vos_queue_unmark_all(list, a);
    EXPECT_EQ(vos_queue_take_mark(list, a), 0);
    EXPECT_EQ(vos_queue_index_of_data(list, a + 1), 1);
    EXPECT_EQ(vos_queue_index_of(list, a), -1);
    match = 1;
    EXPECT_EQ(vos_queue_append(list, a + 1), 1) << "found as a key, not added";
    EXPECT_EQ(vos_queue_find(list, a + 1), a + 1);
    fail_allocation = 1;
    EXPECT_EQ(vos_queue_insert(list, a, INT16_MAX), -2);
    EXPECT_EQ(vos_queue_count(list), 6);
    match = 0;
    vos_queue_destroy(&list);
    list = vos_queue_create(0, nullptr);
    for (const uintptr_t value : {0U, 2U, 3U}) {
        vos_queue_append(list, std::bit_cast<void *>(value));
        EXPECT_EQ(lines_of([list] { EXPECT_EQ(vos_queue_delete(list, 0), 0); }),
                  value == 0 ? "" : "ERROR:vos_queue:BAD POINTER|");
    }
    vos_queue_destroy(&list);
}
} // namespace
