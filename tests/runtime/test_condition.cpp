#include <gtest/gtest.h>
#include <time.h>

#include <chrono>
#include <thread>
#include <vector>

#include "runtime/condition.h"
#include "runtime/lock.h"
#include "runtime_helpers.h"

using namespace vq_tl;
using namespace vq_tl_test;

namespace {

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

}  // namespace

TEST(Condition, TimedWaitRunsOutAfterItsTime) {
    Guarded g;
    // A limit above one second whose millisecond part, added to the clock's
    // nanoseconds now, passes the next full second: the deadline needs both
    // the seconds part and the carry out of the nanoseconds. 2 ms of margin
    // for the time until the wait reads the clock.
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int32_t carrying = 1000 + (1002 - static_cast<int32_t>(now.tv_nsec / 1000000)) % 1000;
    for (const int32_t millis : {-20, 0, 30, carrying}) {
        ASSERT_EQ(Lock_lock(&g.lock), TL_OK);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Condition_awaitMillis(&g.condition, millis), TL_ERROR_TIMEOUT) << millis;
        const double waited = millisSince(start);
        EXPECT_EQ(Lock_unlock(&g.lock), TL_OK);
        // A negative or zero limit must not turn into a wait of seconds.
        EXPECT_TRUE(millis <= 0 ? waited < 1000 : waited >= millis - 0.5) << millis << ": " << waited;
    }
}

// Waiters sleep until `released` reaches their ticket; the main thread
// releases them one signal at a time or all at once. A single signal may wake
// the wrong ticket, so each release signals until its holder is awake.
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
