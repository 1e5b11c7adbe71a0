#include <gtest/gtest.h>

#include <vector>

#include "runtime/mem_pool.h"

using namespace vq_tl;

namespace {

struct Pool {
    MemPool pool;
    Pool() { construct_MemPool(&pool, nullptr); }
    ~Pool() { EXPECT_EQ(destruct_MemPool(&pool), TL_OK); }
};

}  // namespace

// Blocks below 4 bytes take 4, the link of the free list. The largest pool
// still takes back every one of its blocks by address.
TEST(MemPool, HandsOutBlocksInAddressOrderThenRunsDry) {
    const struct {
        int32_t blockSize, count;
    } cases[] = {{1, 10}, {4, 10}, {5, 10}, {24, 10}, {5, kMemPoolMaxBlocks}, {4, kMemPoolMaxBlocks}};
    for (const auto& c : cases) {
        Pool p;
        ASSERT_EQ(MemPool_init(&p.pool, 16, 2), TL_OK);
        ASSERT_EQ(MemPool_init(&p.pool, c.blockSize, c.count), TL_OK);  // again: replaces the blocks
        const int32_t stride = c.blockSize < 5 ? 4 : c.blockSize;
        std::vector<uint8_t*> blocks;
        while (uint8_t* b = static_cast<uint8_t*>(MemPool_pop(&p.pool))) blocks.push_back(b);
        ASSERT_EQ(static_cast<int32_t>(blocks.size()), c.count) << c.blockSize;
        for (int32_t i = 1; i < c.count; ++i) ASSERT_EQ(blocks[i], blocks[0] + i * stride) << c.blockSize;
        for (int32_t i = c.count - 1; i >= 0; --i) ASSERT_EQ(MemPool_push(&p.pool, blocks[i]), TL_OK) << i;
        EXPECT_EQ(MemPool_pop(&p.pool), blocks[0]);
        EXPECT_EQ(MemPool_recycle(&p.pool), TL_OK);
        EXPECT_EQ(MemPool_pop(&p.pool), nullptr);
    }
}
