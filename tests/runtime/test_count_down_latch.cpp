#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "runtime/count_down_latch.h"
#include "runtime_helpers.h"

using namespace vq_tl;
using namespace vq_tl_test;

namespace {

struct Latch {
    CountDownLatch latch;
    explicit Latch(int32_t count) {
        construct_CountDownLatch(&latch, nullptr);
        EXPECT_EQ(CountDownLatch_init(&latch, count), TL_OK);
    }
    ~Latch() { EXPECT_EQ(destruct_CountDownLatch(&latch), TL_OK); }
    int32_t count() {
        int32_t count = -1;
        EXPECT_EQ(CountDownLatch_getCount(&latch, &count), TL_OK);
        return count;
    }
    // Waits up to `millis` for `waiters` releases. A waiter that slept through
    // the last countDown would never come back: it is woken by hand, and the test fails.
    void expectReleased(const std::atomic<int>& released, int waiters, double millis) {
        const auto start = std::chrono::steady_clock::now();
        while (released.load() < waiters && millisSince(start) < millis) sched_yield();
        if (released.load() < waiters) {
            ADD_FAILURE() << "a waiter slept through the last countDown";
            Lock_lock(&latch.lock);
            Condition_signalAll(&latch.condition);
            Lock_unlock(&latch.lock);
        }
    }
};

}  // namespace

// Counted down to zero the latch stays there; init sets it again on the same
// record. Timed waits run out, at once for a limit below 0.
TEST(CountDownLatch, CountsDownToZeroAndStaysThere) {
    Latch l(0);
    EXPECT_EQ(CountDownLatch_init(&l.latch, -1), TL_ERROR_PARAM);
    for (const int32_t start : {0, 1, 3}) {
        ASSERT_EQ(CountDownLatch_init(&l.latch, start), TL_OK);
        for (int32_t step = 0; step < start + 2; ++step) {
            EXPECT_EQ(l.count(), step < start ? start - step : 0);
            EXPECT_EQ(CountDownLatch_awaitMillis(&l.latch, 0), step < start ? TL_ERROR_TIMEOUT : TL_OK);
            EXPECT_EQ(CountDownLatch_countDown(&l.latch), TL_OK);
        }
        EXPECT_EQ(CountDownLatch_await(&l.latch), TL_OK);
    }
    ASSERT_EQ(CountDownLatch_init(&l.latch, 1), TL_OK);
    for (const int32_t millis : {30, -7}) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(CountDownLatch_awaitMillis(&l.latch, millis), TL_ERROR_TIMEOUT);
        EXPECT_TRUE(millis < 0 ? millisSince(start) < 1000 : millisSince(start) >= 29.5) << millis;
    }
}

// Workers write their own slot of `work` and count down; waiters, once
// released, read every slot. The latch must order those writes before the
// reads (ThreadSanitizer checks it), and no waiter may sleep through the last
// countDown. Waiters start first on even rounds, workers on odd ones.
TEST(CountDownLatch, ReleasesEveryWaiterAfterTheLastCountDownInManyRounds) {
    for (int round = 0; round < vq_tl_test_scaled(300, 19) && !HasFailure(); ++round) {
        Latch l(4);
        int work[4] = {};
        std::atomic<int> nextWorker{0}, released{0}, wrong{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 7; ++i) {
            if ((round & 1) == 0 ? i < 3 : i >= 4) {
                threads.emplace_back([&] {
                    const TLResult r = round & 1 ? CountDownLatch_awaitMillis(&l.latch, 60000)
                                                 : CountDownLatch_await(&l.latch);
                    wrong.fetch_add(r != TL_OK || work[0] + work[1] + work[2] + work[3] != 10 ? 1 : 0);
                    released.fetch_add(1);
                });
            } else {
                threads.emplace_back([&] {
                    const int index = nextWorker.fetch_add(1);
                    work[index] = index + 1;
                    wrong.fetch_add(CountDownLatch_countDown(&l.latch) != TL_OK ? 1 : 0);
                });
            }
        }
        l.expectReleased(released, 3, 20000.0);
        for (std::thread& t : threads) t.join();
        EXPECT_EQ(wrong.load(), 0) << "round " << round;
        EXPECT_EQ(l.count(), 0);
    }
}
