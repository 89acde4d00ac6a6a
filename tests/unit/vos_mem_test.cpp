#include "vos_mem.h"

#include "support.h"
#include "vos_util_linux.h"

namespace
{
TEST(Mem, CountsBlocksAndBytes)
{
    const Scratch scratch;
    const uint32_t blocks = vos_mem_get_nbpools(), before = vos_mem_get_memsize();
    const uint32_t size = vos_mem_get_maxmem() - before + 100; // more than there ever was
    void *large = nullptr;
    void *fifty = nullptr;
    vos_mem_alloc(&large, size);
    vos_mem_calloc(&fifty, 50);
    vos_mem_free(&large);
    vos_mem_free(&large); // null by now
    vos_mem_free(nullptr);
    EXPECT_EQ(vos_mem_get_maxmem() - vos_mem_get_memsize(), size);
    vos_mem_dump("dump");
    char expected[100];
    snprintf(expected, sizeof expected, "Nbpools=%u memsize=%u maxmem=%u (most recent first):\n",
             blocks + 1, before + 50, before + size + 50);
    EXPECT_EQ(content_of("dump"), expected);
    vos_mem_free(&fifty);
    EXPECT_EQ(new_blocks(), 0U);
}

TEST(Mem, BlocksAreAlignedAndCarryTheirSize)
{
    for (const uint32_t size : {1U, 7U, 8U, 65U, 0U, 0xFFFFFFFCU, UINT32_MAX}) {
        uint8_t *block = nullptr;
        vos_mem_calloc(&block, size);
        EXPECT_EQ(block != nullptr, size > 0 && size < 100);
        if (block != nullptr) {
            EXPECT_EQ(memcmp(block - sizeof size, &size, sizeof size), 0);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(max_align_t), 0U);
            EXPECT_EQ(Bytes(block, block + size), Bytes(size));
            vos_mem_free(&block);
        }
    }
    const std::vector<char> open = {'a', 'b', 'c'}; // no NUL: only the limit ends it
    for (const uint32_t limit : {0U, 2U, 3U}) {
        char *copy = vos_mem_strndup(open.data(), limit);
        EXPECT_EQ(copy, std::string("abc", limit));
        vos_mem_free(&copy);
    }
}

TEST(MemBuf, GrowsByDoublingWithin32Bits)
{
    VosMemBuf *buffer = nullptr;
    EXPECT_EQ(vos_mem_buf_create(&buffer, 4), 1);
    for (const std::string bytes : {"abc", "0123456789", "xyz"}) { // exactly full at the end
        EXPECT_EQ(vos_mem_buf_append(buffer, bytes.data(), static_cast<uint32_t>(bytes.size())), 1);
        EXPECT_EQ(buffer->capacity, bytes == "abc" ? 4U : 16U);
    }
    uint8_t *data = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(vos_mem_buf_detach(buffer, &data, &length), 1);
    EXPECT_EQ(std::string(data, data + length), "abc0123456789xyz");
    vos_mem_free(&data);
    EXPECT_EQ(lines_of([&] {
                  VosMemBuf one = {1, 0, nullptr};
                  VosMemBuf large = {0xC0000000, 16, nullptr};
                  EXPECT_EQ(vos_mem_buf_append(buffer, "a", 1), -1) << "detached";
                  EXPECT_EQ(vos_mem_buf_append(&one, "a", UINT32_MAX), -1);
                  EXPECT_EQ(vos_mem_buf_append(&large, "a", 17), -1);
                  EXPECT_EQ(large.room, 16U);
              }),
              "ERROR:vos_mem:Memory overflow||ERROR:vos_mem:Memory overflow||"
              "ERROR:vos_mem:Memory overflow||");
    EXPECT_EQ(vos_mem_buf_delete(&buffer), 1);
    EXPECT_EQ(new_blocks(), 0U);
}
} // namespace
