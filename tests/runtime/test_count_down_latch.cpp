#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "runtime/count_down_latch.h"
#include "runtime/thread.h"
#include "stress_count.h"

using namespace vq_tl;

TEST(CountDownLatch, BadArgumentsAndUninitialisedLatch) {
    CountDownLatch latch;
    int32_t count = -1;
    EXPECT_EQ(construct_CountDownLatch(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_CountDownLatch(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(CountDownLatch_init(nullptr, 1), TL_ERROR_PARAM);
    EXPECT_EQ(CountDownLatch_await(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(CountDownLatch_awaitMillis(nullptr, 1), TL_ERROR_PARAM);
    EXPECT_EQ(CountDownLatch_countDown(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(CountDownLatch_getCount(nullptr, &count), TL_ERROR_PARAM);
    ASSERT_EQ(construct_CountDownLatch(&latch, nullptr), TL_OK);
    EXPECT_EQ(CountDownLatch_getCount(&latch, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(CountDownLatch_init(&latch, -1), TL_ERROR_PARAM);
    // Constructed only: a latch at zero, which never blocks.
    EXPECT_EQ(CountDownLatch_getCount(&latch, &count), TL_OK);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(CountDownLatch_await(&latch), TL_OK);
    EXPECT_EQ(CountDownLatch_countDown(&latch), TL_OK);
    EXPECT_EQ(destruct_CountDownLatch(&latch), TL_OK);
    EXPECT_EQ(destruct_CountDownLatch(&latch), TL_OK);
    EXPECT_EQ(CountDownLatch_getBufferSize(), 8);
}

TEST(CountDownLatch, CountsDownToZeroAndStaysThere) {
    CountDownLatch latch;
    construct_CountDownLatch(&latch, nullptr);
    for (const int32_t start : {0, 1, 3}) {
        ASSERT_EQ(CountDownLatch_init(&latch, start), TL_OK);  // again on the same record
        int32_t count = -1;
        for (int32_t step = 0; step < start + 2; ++step) {
            ASSERT_EQ(CountDownLatch_getCount(&latch, &count), TL_OK);
            EXPECT_EQ(count, step < start ? start - step : 0);
            EXPECT_EQ(CountDownLatch_awaitMillis(&latch, 0), step < start ? TL_ERROR_TIMEOUT : TL_OK);
            EXPECT_EQ(CountDownLatch_countDown(&latch), TL_OK);
        }
        EXPECT_EQ(CountDownLatch_await(&latch), TL_OK);
    }
    EXPECT_EQ(destruct_CountDownLatch(&latch), TL_OK);
}

TEST(CountDownLatch, TimedWaitRunsOut) {
    CountDownLatch latch;
    construct_CountDownLatch(&latch, nullptr);
    ASSERT_EQ(CountDownLatch_init(&latch, 1), TL_OK);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CountDownLatch_awaitMillis(&latch, 30), TL_ERROR_TIMEOUT);
    EXPECT_GE(millisSince(start), 29.5);
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(CountDownLatch_awaitMillis(&latch, -7), TL_ERROR_TIMEOUT);
    EXPECT_LT(millisSince(start), 1000.0);
    EXPECT_EQ(destruct_CountDownLatch(&latch), TL_OK);
}

namespace {

// Workers write their own slot of `work` and count down; waiters, once
// released, read every slot. The latch must order those writes before the
// reads (ThreadSanitizer checks it), and no waiter may sleep through the
// last countDown.
constexpr int kWorkers = 4;
constexpr int kWaiters = 3;

struct Round {
    CountDownLatch latch;
    int work[kWorkers];
    std::atomic<int> nextWorker;
    std::atomic<int> released;
    std::atomic<int> wrongSums;
    bool timed;
};

uint32_t worker(void* argument) {
    Round* r = static_cast<Round*>(argument);
    const int index = r->nextWorker.fetch_add(1);
    r->work[index] = index + 1;
    return CountDownLatch_countDown(&r->latch);
}

uint32_t waiter(void* argument) {
    Round* r = static_cast<Round*>(argument);
    const TLResult result =
        r->timed ? CountDownLatch_awaitMillis(&r->latch, 60000) : CountDownLatch_await(&r->latch);
    int sum = 0;
    for (int i = 0; i < kWorkers; ++i) sum += r->work[i];
    if (sum != kWorkers * (kWorkers + 1) / 2) r->wrongSums.fetch_add(1);
    r->released.fetch_add(1);
    return result;
}

}  // namespace

TEST(CountDownLatch, ReleasesEveryWaiterAfterTheLastCountDownInManyRounds) {
    const int rounds = stressCount(300);
    for (int round = 0; round < rounds; ++round) {
        Round r{};
        r.timed = (round & 1) != 0;
        construct_CountDownLatch(&r.latch, nullptr);
        ASSERT_EQ(CountDownLatch_init(&r.latch, kWorkers), TL_OK);
        Thread threads[kWorkers + kWaiters];
        for (int i = 0; i < kWorkers + kWaiters; ++i) {
            construct_Thread(&threads[i], nullptr);
            // Waiters first on even rounds, workers first on odd ones.
            const bool isWaiter = (round & 1) == 0 ? i < kWaiters : i >= kWorkers;
            ASSERT_EQ(Thread_start(&threads[i], isWaiter ? waiter : worker, &r), TL_OK);
        }
        // A waiter that slept through the signal would never come back;
        // after a generous limit it is woken by hand and the round fails.
        const auto start = std::chrono::steady_clock::now();
        while (r.released.load() < kWaiters && millisSince(start) < 20000.0) sched_yield();
        if (r.released.load() < kWaiters) {
            ADD_FAILURE() << "round " << round << ": a waiter missed the release";
            Lock_lock(&r.latch.lock);
            Condition_signalAll(&r.latch.condition);
            Lock_unlock(&r.latch.lock);
        }
        for (Thread& t : threads) EXPECT_EQ(destruct_Thread(&t), TL_OK);
        EXPECT_EQ(r.wrongSums.load(), 0);
        int32_t count = -1;
        EXPECT_EQ(CountDownLatch_getCount(&r.latch, &count), TL_OK);
        EXPECT_EQ(count, 0);
        EXPECT_EQ(destruct_CountDownLatch(&r.latch), TL_OK);
        if (HasFailure()) break;
    }
}

TEST(CountDownLatch, ACountDownBetweenAWaitersLookAndItsLockIsNotLost) {
    // The waiter sees a positive count outside the lock, then finds the lock
    // taken: the test holds it and counts down to zero meanwhile (the lock is
    // recursive, so countDown's own locking passes and its signal finds
    // nobody). The waiter must look at the count again once it has the lock
    // instead of sleeping for a signal that has come and gone.
    Round r{};
    for (int i = 0; i < kWorkers; ++i) r.work[i] = i + 1;
    construct_CountDownLatch(&r.latch, nullptr);
    ASSERT_EQ(CountDownLatch_init(&r.latch, 1), TL_OK);
    ASSERT_EQ(Lock_lock(&r.latch.lock), TL_OK);
    Thread thread;
    construct_Thread(&thread, nullptr);
    ASSERT_EQ(Thread_start(&thread, waiter, &r), TL_OK);
    // Long enough for the waiter to be blocked on the lock; if it is not
    // there yet the test is merely less strict this time.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(CountDownLatch_countDown(&r.latch), TL_OK);
    ASSERT_EQ(Lock_unlock(&r.latch.lock), TL_OK);
    const auto start = std::chrono::steady_clock::now();
    while (r.released.load() < 1 && millisSince(start) < 5000.0) sched_yield();
    if (r.released.load() < 1) {
        ADD_FAILURE() << "the waiter slept through the last countDown";
        Lock_lock(&r.latch.lock);
        Condition_signalAll(&r.latch.condition);
        Lock_unlock(&r.latch.lock);
    }
    EXPECT_EQ(destruct_Thread(&thread), TL_OK);
    EXPECT_EQ(r.wrongSums.load(), 0);
    EXPECT_EQ(destruct_CountDownLatch(&r.latch), TL_OK);
}

TEST(CountDownLatch, ConcurrentCountDownsNeverGoBelowZero) {
    // More countDowns than the count, from several threads at once.
    constexpr int kThreads = 4;
    const int perThread = stressCount(2000);
    CountDownLatch latch;
    construct_CountDownLatch(&latch, nullptr);
    ASSERT_EQ(CountDownLatch_init(&latch, kThreads * perThread / 2), TL_OK);
    struct Arg {
        CountDownLatch* latch;
        int times;
    } arg{&latch, perThread};
    Thread threads[kThreads];
    for (Thread& t : threads) {
        construct_Thread(&t, nullptr);
        ASSERT_EQ(Thread_start(
                      &t,
                      [](void* a) -> uint32_t {
                          Arg* arg = static_cast<Arg*>(a);
                          TLResult r = TL_OK;
                          for (int i = 0; i < arg->times; ++i) r |= CountDownLatch_countDown(arg->latch);
                          return r;
                      },
                      &arg),
                  TL_OK);
    }
    EXPECT_EQ(CountDownLatch_await(&latch), TL_OK);
    for (Thread& t : threads) EXPECT_EQ(destruct_Thread(&t), TL_OK);
    int32_t count = -1;
    EXPECT_EQ(CountDownLatch_getCount(&latch, &count), TL_OK);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(destruct_CountDownLatch(&latch), TL_OK);
}
