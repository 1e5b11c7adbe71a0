#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "runtime/mem_pool.h"

using namespace vq_tl;

namespace {

struct Pool {
    Env env{};
    MemPool pool;
    Pool() { construct_MemPool(&pool, &env); }
    ~Pool() { destruct_MemPool(&pool); }
};

}  // namespace

TEST(MemPool, BufferSizeRules) {
    struct Case {
        int32_t blockSize, blockCount, expected;
    };
    const Case cases[] = {
        {1, 10, 40},  {4, 10, 40}, {5, 10, 50},          {0, 10, -1},
        {-3, 10, -1}, {8, 0, -1},  {4, 262144, 1048576}, {4, 262145, -1},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(MemPool_getBufferSize(c.blockSize, c.blockCount), c.expected)
            << c.blockSize << " x " << c.blockCount;
    }
}

TEST(MemPool, InitRejectsWhatSizeRejects) {
    Pool p;
    EXPECT_EQ(MemPool_init(&p.pool, 4, 262145), TL_ERROR_PARAM);
    EXPECT_EQ(MemPool_init(&p.pool, 0, 4), TL_ERROR_PARAM);
    EXPECT_EQ(MemPool_init(nullptr, 4, 4), TL_ERROR_PARAM);
    EXPECT_EQ(MemPool_init(&p.pool, 4, 262144), TL_OK);
    EXPECT_EQ(MemPool_pop(nullptr), nullptr);
}

TEST(MemPool, HandsOutBlocksInAddressOrderThenRunsDry) {
    for (int32_t blockSize : {1, 4, 5, 24}) {
        Pool p;
        const int32_t count = 10;
        ASSERT_EQ(MemPool_init(&p.pool, blockSize, count), TL_OK);
        const int32_t stride = blockSize < 5 ? 4 : blockSize;
        uint8_t* first = static_cast<uint8_t*>(MemPool_pop(&p.pool));
        ASSERT_NE(first, nullptr);
        for (int32_t i = 1; i < count; ++i) {
            EXPECT_EQ(static_cast<uint8_t*>(MemPool_pop(&p.pool)), first + i * stride) << blockSize;
        }
        EXPECT_EQ(MemPool_pop(&p.pool), nullptr);
        EXPECT_EQ(MemPool_push(&p.pool, first + 3 * stride), TL_OK);
        EXPECT_EQ(MemPool_pop(&p.pool), first + 3 * stride);
        EXPECT_EQ(MemPool_pop(&p.pool), nullptr);
    }
}

TEST(MemPool, RefusesPointersThatAreNotItsBlocks) {
    Pool p;
    ASSERT_EQ(MemPool_init(&p.pool, 8, 4), TL_OK);
    uint8_t* block = static_cast<uint8_t*>(MemPool_pop(&p.pool));
    int outside = 0;
    EXPECT_EQ(MemPool_push(&p.pool, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(MemPool_push(&p.pool, &outside), TL_ERROR_PARAM);
    EXPECT_EQ(MemPool_push(&p.pool, block + 3), TL_ERROR_PARAM);
    EXPECT_EQ(MemPool_push(&p.pool, block + 8 * 4), TL_ERROR_PARAM);
    EXPECT_EQ(MemPool_push(&p.pool, block), TL_OK);
}

TEST(MemPool, ReinitReplacesTheBlocks) {
    Pool p;
    ASSERT_EQ(MemPool_init(&p.pool, 16, 2), TL_OK);
    ASSERT_EQ(MemPool_init(&p.pool, 16, 3), TL_OK);
    int n = 0;
    while (MemPool_pop(&p.pool) != nullptr) ++n;
    EXPECT_EQ(n, 3);
    EXPECT_EQ(MemPool_recycle(&p.pool), TL_OK);
    EXPECT_EQ(MemPool_pop(&p.pool), nullptr);
}

// The change counter is what makes a compare-and-swap with a stale head fail
// after the same block has come back to the top (pop A, pop B, push A).
TEST(MemPool, CounterTellsARecycledTopApart) {
    Pool p;
    ASSERT_EQ(MemPool_init(&p.pool, 8, 4), TL_OK);
    const uint32_t before = p.pool.head.load();
    void* a = MemPool_pop(&p.pool);
    void* b = MemPool_pop(&p.pool);
    ASSERT_NE(b, nullptr);
    ASSERT_EQ(MemPool_push(&p.pool, a), TL_OK);
    const uint32_t after = p.pool.head.load();
    EXPECT_EQ(static_cast<int32_t>(after) >> 12, static_cast<int32_t>(before) >> 12);
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
        const int threads = 4;
        const int rounds = 20000;
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                for (int i = 0; i < rounds; ++i) {
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
