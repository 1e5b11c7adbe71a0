#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
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

TEST(MemPool, RefusesWhatIsNotItsOwn) {
    Pool p;
    EXPECT_EQ(MemPool_init(&p.pool, 4, kMemPoolMaxBlocks + 1), TL_ERROR_PARAM);
    EXPECT_EQ(MemPool_init(&p.pool, 0, 4), TL_ERROR_PARAM);
    EXPECT_EQ(MemPool_init(&p.pool, 8, 0), TL_ERROR_PARAM);
    ASSERT_EQ(MemPool_init(&p.pool, 8, 4), TL_OK);
    uint8_t* block = static_cast<uint8_t*>(MemPool_pop(&p.pool));
    int outside = 0;
    for (void* wrong : {static_cast<void*>(nullptr), static_cast<void*>(&outside),
                        static_cast<void*>(block + 3), static_cast<void*>(block + 8 * 4)}) {
        EXPECT_EQ(MemPool_push(&p.pool, wrong), TL_ERROR_PARAM) << wrong;
    }
    EXPECT_EQ(MemPool_push(&p.pool, block), TL_OK);
}

// The change counter is what makes a compare-and-swap with a stale head fail
// after the same block has come back to the top (pop A, pop B, push A).
TEST(MemPool, CounterTellsARecycledTopApart) {
    Pool p;
    ASSERT_EQ(MemPool_init(&p.pool, 8, 4), TL_OK);
    const uint32_t before = p.pool.head.load();
    void* a = MemPool_pop(&p.pool);
    ASSERT_NE(MemPool_pop(&p.pool), nullptr);
    ASSERT_EQ(MemPool_push(&p.pool, a), TL_OK);
    const uint32_t after = p.pool.head.load();
    EXPECT_EQ(after >> 12, before >> 12);
    EXPECT_NE(after, before);
    // The stale head would install B's successor although B is taken.
    uint32_t stale = before;
    EXPECT_FALSE(p.pool.head.compare_exchange_strong(stale, 0u));
}

// Threads pop, own, scribble over and push back blocks; no block may be held
// by two threads at once and none may be lost.
TEST(MemPool, ConcurrentPopPushKeepsEveryBlockExactlyOnce) {
    for (int32_t blockSize : {5, 16}) {
        Pool p;
        const int32_t count = 6;  // fewer blocks than would-be holders keeps the list contended
        ASSERT_EQ(MemPool_init(&p.pool, blockSize, count), TL_OK);
        std::vector<std::atomic<int>> owners(count);
        for (auto& o : owners) o.store(-1);
        std::atomic<int> conflicts{0};
        std::vector<std::thread> workers;
        for (int t = 0; t < 4; ++t) {
            workers.emplace_back([&, t] {
                for (int i = 0; i < 20000; ++i) {
                    uint8_t* block = static_cast<uint8_t*>(MemPool_pop(&p.pool));
                    if (block == nullptr) continue;
                    const int index = static_cast<int>((block - p.pool.blocks) / blockSize);
                    int expected = -1;
                    if (!owners[index].compare_exchange_strong(expected, t)) conflicts.fetch_add(1);
                    for (int k = 0; k < blockSize; ++k)
                        __atomic_store_n(block + k, uint8_t(t), __ATOMIC_RELAXED);
                    owners[index].store(-1);
                    MemPool_push(&p.pool, block);
                }
            });
        }
        for (auto& w : workers) w.join();
        EXPECT_EQ(conflicts.load(), 0);
        std::set<void*> seen;
        while (void* block = MemPool_pop(&p.pool)) EXPECT_TRUE(seen.insert(block).second);
        EXPECT_EQ(static_cast<int32_t>(seen.size()), count);
    }
}
