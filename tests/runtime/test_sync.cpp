// Threads, locks, conditions and the count-down latch.
#include <gtest/gtest.h>
#include <sched.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "runtime/condition.h"
#include "runtime/count_down_latch.h"
#include "runtime/lock.h"
#include "runtime/thread.h"
#include "support/test_env.h"

using namespace vq_tl;

namespace {

// The argument carries the value to return; the thread notes where it ran.
struct Job {
    uint32_t toReturn;
    uintptr_t ranOn;
    int runs;
};

uint32_t runJob(void* argument) {
    Job* job = static_cast<Job*>(argument);
    job->ranOn = Thread_getId();
    job->runs += 1;
    return job->toReturn;
}

// tryLock from another thread, past the mutex's reentry: 1 when it got the lock (and let it go), 0 when held.
int32_t tryFromOtherThread(Lock* lock) {
    int32_t acquired = -1;
    std::thread([&] {
        EXPECT_EQ(Lock_tryLock(lock, &acquired), TL_OK);
        if (acquired == 1) Lock_unlock(lock);
    }).join();
    return acquired;
}

struct Guarded {
    Lock lock;
    Condition condition;
    Guarded() {
        construct_Lock(&lock, nullptr);
        construct_Condition(&condition, nullptr);
        EXPECT_EQ(Lock_init(&lock, LOCK_KIND_RECURSIVE_MUTEX) | Condition_init(&condition, &lock), TL_OK);
    }
    ~Guarded() {
        EXPECT_EQ(destruct_Condition(&condition), TL_OK);
        EXPECT_EQ(destruct_Lock(&lock), TL_OK);
    }
};

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
    // Waits up to `millis` for `waiters` releases; a waiter that missed the last countDown is woken: failure.
    void expectReleased(const std::atomic<int>& released, int waiters, double millis) {
        const auto start = std::chrono::steady_clock::now();
        while (released.load() < waiters && vq_tl_test_millisSince(start) < millis) sched_yield();
        if (released.load() < waiters) {
            ADD_FAILURE() << "a waiter slept through the last countDown";
            Lock_lock(&latch.lock);
            Condition_signalAll(&latch.condition);
            Lock_unlock(&latch.lock);
        }
    }
};

}  // namespace

// Both joins and destruct hand back what the function returned; a second join, or one never started, nothing.
TEST(Thread, JoinAndDestructReturnTheFunctionsResult) {
    for (const uint32_t expected : {0u, 1u, 0x10000u, 0xFFFFFFFFu}) {
        Job job{expected, 0, 0}, other{6, 0, 0};
        Thread thread;
        ASSERT_EQ(construct_Thread(&thread, nullptr), TL_OK);
        uint32_t out = 9;
        EXPECT_EQ(Thread_join2(&thread, &out), TL_OK);
        EXPECT_EQ(out, 0u);
        ASSERT_EQ(Thread_start(&thread, runJob, &job), TL_OK);
        EXPECT_EQ(Thread_start(&thread, runJob, &other), TL_ERROR_STATE);
        EXPECT_EQ(Thread_join(&thread), expected);
        EXPECT_NE(job.ranOn, Thread_getId());
        ASSERT_EQ(Thread_start(&thread, runJob, &job), TL_OK);
        EXPECT_EQ(Thread_join2(&thread, &out) | Thread_join(&thread), TL_OK);
        EXPECT_EQ(out, expected);
        ASSERT_EQ(Thread_start(&thread, runJob, &job), TL_OK);
        EXPECT_EQ(destruct_Thread(&thread), expected);
        EXPECT_EQ(destruct_Thread(&thread), TL_OK);
        EXPECT_EQ(job.runs + other.runs, 3);
    }
}

// The mutex lets its owner in again and needs as many unlocks; the spin lock does not. Init switches the kind
// (the mutex goes back: LeakSanitizer), an unknown kind is refused, recycle and destruct leave no lock.
TEST(Lock, KindsReentryAndReinit) {
    Lock lock;
    construct_Lock(&lock, nullptr);
    EXPECT_EQ(Lock_init(&lock, 2), TL_ERROR_UNSUPPORTED);
    for (const int32_t recursive : {1, 0}) {
        ASSERT_EQ(Lock_init(&lock, recursive ? LOCK_KIND_RECURSIVE_MUTEX : LOCK_KIND_SPIN), TL_OK);
        ASSERT_EQ(Lock_lock(&lock), TL_OK);
        int32_t acquired = 7;
        ASSERT_EQ(Lock_tryLock(&lock, &acquired), TL_OK);
        EXPECT_EQ(acquired, recursive);
        EXPECT_EQ(recursive == 1 ? Lock_unlock(&lock) : TL_OK, TL_OK);
        EXPECT_EQ(tryFromOtherThread(&lock), 0) << "still held";
        EXPECT_EQ(Lock_unlock(&lock), TL_OK);
        EXPECT_EQ(tryFromOtherThread(&lock), 1) << recursive;
    }
    ASSERT_EQ(Lock_recycle(&lock), TL_OK);
    EXPECT_EQ(Lock_lock(&lock), TL_ERROR_STATE);
    ASSERT_EQ(Lock_init(&lock, LOCK_KIND_RECURSIVE_MUTEX), TL_OK);
    EXPECT_EQ(destruct_Lock(&lock) | destruct_Lock(&lock), TL_OK);
    EXPECT_EQ(Lock_lock(&lock), TL_ERROR_STATE);
}

// A plain counter under the lock: ThreadSanitizer reports too weak an ordering, the sum lost updates.
TEST(Lock, FourThreadsNeverOverlapAndLoseNoUpdate) {
    const int each = vq_tl_test_scaled(20000, 1250);
    for (const int32_t kind : {LOCK_KIND_RECURSIVE_MUTEX, LOCK_KIND_SPIN}) {
        Lock lock;
        construct_Lock(&lock, nullptr);
        ASSERT_EQ(Lock_init(&lock, kind), TL_OK);
        long long counter = 0;
        std::atomic<int> inside{0}, faults{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < each; ++i) {
                    faults.fetch_add(
                        Lock_lock(&lock) != TL_OK || inside.fetch_add(1, std::memory_order_relaxed) != 0 ? 1
                                                                                                         : 0);
                    counter += 1;
                    inside.fetch_sub(1, std::memory_order_relaxed);
                    faults.fetch_add(Lock_unlock(&lock) != TL_OK ? 1 : 0);
                }
            });
        }
        for (std::thread& t : threads) t.join();
        EXPECT_EQ(faults.load(), 0) << kind;
        EXPECT_EQ(counter, 4LL * each) << kind;
        EXPECT_EQ(destruct_Lock(&lock), TL_OK);
    }
}

TEST(Condition, TimedWaitRunsOutAfterItsTime) {
    Guarded g;
    // A limit above one second whose millisecond part, added to the clock's nanoseconds now, passes the next
    // second: the deadline needs the seconds and the carry out of the nanoseconds. 2 ms of margin.
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int32_t carrying = 1000 + (1002 - static_cast<int32_t>(now.tv_nsec / 1000000)) % 1000;
    for (const int32_t millis : {-20, 0, 30, carrying}) {
        ASSERT_EQ(Lock_lock(&g.lock), TL_OK);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Condition_awaitMillis(&g.condition, millis), TL_ERROR_TIMEOUT) << millis;
        const double waited = vq_tl_test_millisSince(start);
        EXPECT_EQ(Lock_unlock(&g.lock), TL_OK);
        // A negative or zero limit must not turn into a wait of seconds.
        EXPECT_TRUE(millis <= 0 ? waited < 1000 : waited >= millis - 0.5) << millis << ": " << waited;
    }
}

// Waiters sleep until `released` reaches their ticket; the main thread releases them one signal at a time or
// all at once. A single signal may wake the wrong ticket, so each release signals until its holder is awake.
TEST(Condition, SignalWakesWaitersAndSignalAllWakesEveryOne) {
    constexpr int kWaiters = 4;
    for (const bool all : {false, true}) {
        Guarded g;
        int released = 0, arrived = 0, woken = 0;  // under g.lock
        std::vector<std::thread> waiters;
        for (int i = 0; i < kWaiters; ++i) {
            waiters.emplace_back([&] {
                TLResult r = Lock_lock(&g.lock);
                const int ticket = arrived++;
                while (r == TL_OK && released <= ticket) r = Condition_await(&g.condition);
                woken += 1;
                EXPECT_EQ(r | Lock_unlock(&g.lock), TL_OK);
            });
        }
        auto pause = [&] {
            EXPECT_EQ(Lock_unlock(&g.lock), TL_OK);
            std::this_thread::yield();
            EXPECT_EQ(Lock_lock(&g.lock), TL_OK);
        };
        ASSERT_EQ(Lock_lock(&g.lock), TL_OK);
        while (arrived < kWaiters) pause();
        if (all) released = kWaiters;
        EXPECT_EQ(all ? Condition_signalAll(&g.condition) : TL_OK, TL_OK);
        for (int i = 1; !all && i <= kWaiters; ++i) {
            for (released = i; woken < i; pause()) EXPECT_EQ(Condition_signal(&g.condition), TL_OK);
        }
        EXPECT_EQ(Lock_unlock(&g.lock), TL_OK);
        for (std::thread& t : waiters) t.join();
        EXPECT_EQ(woken, kWaiters);
    }
}

// Counted down to zero the latch stays there; init sets it again. Timed waits run out, at once below 0.
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
        EXPECT_TRUE(millis < 0 ? vq_tl_test_millisSince(start) < 1000 : vq_tl_test_millisSince(start) >= 29.5)
            << millis;
    }
}

// Workers fill their slot of `work` and count down; released waiters read every slot, which the latch must
// order after the writes (ThreadSanitizer checks); no waiter may miss the last countDown.
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
