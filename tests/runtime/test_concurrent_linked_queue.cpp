#include <gtest/gtest.h>

#include "runtime/concurrent_linked_queue.h"
#include "runtime_helpers.h"

using namespace vq_tl;
using namespace vq_tl_test;

namespace {

struct Queue {
    ConcurrentLinkedQueue q;
    explicit Queue(int32_t capacity) {
        construct_ConcurrentLinkedQueue(&q, nullptr);
        EXPECT_EQ(ConcurrentLinkedQueue_init(&q, capacity), TL_OK);
    }
    ~Queue() { EXPECT_EQ(destruct_ConcurrentLinkedQueue(&q), TL_OK); }
};

}  // namespace

TEST(ConcurrentLinkedQueue, RefusalsChangeNothing) {
    Queue f(1);
    for (const int32_t capacity : {0, kClqMaxCapacity + 1})
        EXPECT_EQ(ConcurrentLinkedQueue_init(&f.q, capacity), TL_ERROR_PARAM) << capacity;
    EXPECT_EQ(ConcurrentLinkedQueue_offer(&f.q, nullptr), 0);
    EXPECT_EQ(ConcurrentLinkedQueue_size(&f.q), 0);
}

// Far beyond 4096 changes of every tagged word: the counters wrap. The largest
// ring uses every bit of the slot index.
TEST(ConcurrentLinkedQueue, MatchesASimpleQueueUnderRandomOperations) {
    for (const int32_t capacity : {1, 2, 5, 16, kClqMaxCapacity}) {
        SCOPED_TRACE(capacity);
        Queue f(capacity);
        const bool full = capacity == kClqMaxCapacity;  // fill it, then drain it
        matchModel(
            262144u, capacity, full ? 2 * capacity + 2 : 12000,
            [&](void* item, uint32_t) { return ConcurrentLinkedQueue_offer(&f.q, item) == 1; },
            [&](uint32_t) { return ConcurrentLinkedQueue_poll(&f.q); },
            [&] { return ConcurrentLinkedQueue_size(&f.q); }, full ? capacity + 1 : 0);
    }
}

TEST(ConcurrentLinkedQueue, HeadCounterTellsAReusedSlotApartAndWrapsAfter4096Changes) {
    // Capacity 1: the dummy alternates between slots 0 and 1, so every second
    // poll leaves head on the slot it started on. Only the counter differs;
    // its 12 bits come round after 4096 polls.
    Queue f(1);
    const uint32_t start = f.q.head.load();
    for (uint32_t polls = 1; polls <= 4096; ++polls) {
        ASSERT_EQ(ConcurrentLinkedQueue_offer(&f.q, itemOf(polls)), 1);
        ASSERT_EQ(ConcurrentLinkedQueue_poll(&f.q), itemOf(polls));
        const uint32_t head = f.q.head.load();
        ASSERT_EQ(Clq_slotOf(head), Clq_slotOf(start) ^ (polls & 1)) << polls;
        ASSERT_EQ(Clq_counterOf(head), (Clq_counterOf(start) + polls) & 0xFFFu) << polls;
    }
}

// Small rings recycle slots constantly. With more threads than cores a
// stalled thread can sleep through 4096 changes of a tagged word, so the
// many-thread shapes use rings large enough that the same slot coming back
// with the same counter stays out of reach; the one-to-one shape cannot get
// that far ahead of a stalled partner.
TEST(ConcurrentLinkedQueue, ExchangeLosesNothingAndKeepsEachProducersOrder) {
    for (const ExchangeShape& shape : {ExchangeShape{4, 4, 1024, 15000}, ExchangeShape{1, 1, 4, 40000},
                                       ExchangeShape{2, 2, 256, 20000}, ExchangeShape{3, 1, 256, 10000}}) {
        Queue f(shape.capacity);
        runExchange(
            shape, [&](void* item, int32_t) { return ConcurrentLinkedQueue_offer(&f.q, item) == 1; },
            [&](int32_t) { return ConcurrentLinkedQueue_poll(&f.q); },
            [&] { return ConcurrentLinkedQueue_size(&f.q); });
    }
}
