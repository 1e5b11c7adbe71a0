#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "runtime/linked_blocking_queue.h"
#include "runtime_helpers.h"

using namespace vq_tl;
using namespace vq_tl_test;

namespace {

// Short names for the calls under test.
constexpr auto put = LinkedBlockingQueue_put;
constexpr auto offer = LinkedBlockingQueue_offer;
constexpr auto offerMillis = LinkedBlockingQueue_offerMillis;
constexpr auto take = LinkedBlockingQueue_take;
constexpr auto poll = LinkedBlockingQueue_poll;
constexpr auto pollMillis = LinkedBlockingQueue_pollMillis;

struct Queue {
    LinkedBlockingQueue q;
    explicit Queue(int32_t capacity) {
        construct_LinkedBlockingQueue(&q, nullptr);
        EXPECT_EQ(LinkedBlockingQueue_init(&q, capacity), TL_OK);
    }
    ~Queue() {
        while (poll(&q) != nullptr) {
        }
        EXPECT_EQ(destruct_LinkedBlockingQueue(&q), TL_OK);
    }
};

}  // namespace

// A queue with items is neither destroyed nor recycled nor resized.
TEST(LinkedBlockingQueue, RefusalsChangeNothing) {
    LinkedBlockingQueue q;
    ASSERT_EQ(construct_LinkedBlockingQueue(&q, nullptr), TL_OK);
    for (const int32_t capacity : {0, 268435452})
        EXPECT_EQ(LinkedBlockingQueue_init(&q, capacity), TL_ERROR_PARAM);
    int a = 0;
    ASSERT_EQ(LinkedBlockingQueue_init(&q, 3), TL_OK);
    ASSERT_EQ(put(&q, &a), 1);
    EXPECT_EQ(put(&q, nullptr) + offer(&q, nullptr) + offerMillis(&q, nullptr, 5), 0);
    EXPECT_EQ(destruct_LinkedBlockingQueue(&q), TL_ERROR_STATE);
    EXPECT_EQ(LinkedBlockingQueue_recycle(&q), TL_ERROR_STATE);
    EXPECT_EQ(LinkedBlockingQueue_init(&q, 5), TL_ERROR_STATE);
    EXPECT_EQ(take(&q), &a);
    ASSERT_EQ(LinkedBlockingQueue_init(&q, 5), TL_OK);  // drained: init again with another size
    EXPECT_EQ(LinkedBlockingQueue_getCapacity(&q), 5);
    EXPECT_EQ(destruct_LinkedBlockingQueue(&q) | destruct_LinkedBlockingQueue(&q), TL_OK);
}

// Every capacity passes its ring of capacity + 2 nodes many times over.
TEST(LinkedBlockingQueue, MatchesASimpleQueueUnderRandomOperations) {
    for (const int32_t capacity : {1, 2, 3, 7}) {
        SCOPED_TRACE(capacity);
        Queue f(capacity);
        matchModel(
            20190326u, capacity, 8000,
            [&](void* item, uint32_t way) {
                const int32_t millis = way % 3 == 2 ? -1 : 0;
                return (way % 3 == 0 ? offer(&f.q, item) : offerMillis(&f.q, item, millis)) == 1;
            },
            [&](uint32_t way) { return way % 2 ? poll(&f.q) : pollMillis(&f.q, -5); },
            [&] { return LinkedBlockingQueue_size(&f.q); });
    }
}

// Timed calls on a full or empty queue run out, at once for a limit below 0.
// A blocked put waits for a take; a blocked take or long poll returns as soon
// as an item arrives, not when its limit runs out.
TEST(LinkedBlockingQueue, TimedAndBlockingCalls) {
    int a = 0, b = 0;
    for (const int32_t millis : {30, -5}) {
        Queue f(1);
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(pollMillis(&f.q, millis), nullptr);
        const double emptyWait = millisSince(start);
        ASSERT_EQ(offer(&f.q, &a), 1);
        start = std::chrono::steady_clock::now();
        EXPECT_EQ(offerMillis(&f.q, &b, millis), 0);
        const double fullWait = millisSince(start);
        ASSERT_EQ(take(&f.q), &a);
        for (const double waited : {emptyWait, fullWait})
            EXPECT_TRUE(millis < 0 ? waited < 1000 : waited >= 29.5) << waited;
    }
    for (const int mode : {0, 1, 2}) {  // put, take, pollMillis of 20 s
        Queue f(1);
        ASSERT_TRUE(mode != 0 || offer(&f.q, &a) == 1);
        std::atomic<void*> got{nullptr};
        std::thread blocked([&] {
            if (mode == 0) got = put(&f.q, &b) == 1 ? &b : nullptr;
            if (mode == 1) got = take(&f.q);
            if (mode == 2) got = pollMillis(&f.q, 20000);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(got.load(), nullptr) << "mode " << mode << " did not block";
        const auto start = std::chrono::steady_clock::now();
        void* const moved = mode == 0 ? take(&f.q) : put(&f.q, &a) ? &a : nullptr;
        EXPECT_EQ(moved, &a) << "mode " << mode;
        blocked.join();
        EXPECT_LT(millisSince(start), 10000.0) << "mode " << mode;
        EXPECT_EQ(got.load(), mode == 0 ? &b : &a) << "mode " << mode;
        EXPECT_EQ(poll(&f.q), mode == 0 ? &b : nullptr) << "mode " << mode;
    }
}

// Producers and consumers use the blocking, timed and immediate calls by turns.
TEST(LinkedBlockingQueue, ExchangeLosesNothingAndKeepsEachProducersOrder) {
    for (const ExchangeShape& shape : {ExchangeShape{4, 4, 8, 15000}, ExchangeShape{1, 1, 1, 5000},
                                       ExchangeShape{2, 5, 3, 10000}, ExchangeShape{5, 2, 64, 6000}}) {
        Queue f(shape.capacity);
        runExchange(
            shape,
            [&](void* item, int32_t way) {
                return (way % 3 == 0   ? put(&f.q, item)
                        : way % 3 == 1 ? offerMillis(&f.q, item, 2)
                                       : offer(&f.q, item)) == 1;
            },
            [&](int32_t way) {
                return way % 3 == 0 ? take(&f.q) : way % 3 == 1 ? pollMillis(&f.q, 2) : poll(&f.q);
            },
            [&] { return LinkedBlockingQueue_size(&f.q); });
    }
}
