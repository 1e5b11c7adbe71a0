#include <gtest/gtest.h>
#include <sched.h>
#include <time.h>

#include <chrono>
#include <cstring>

#include "runtime/condition.h"
#include "runtime/lock.h"
#include "runtime/thread.h"
#include "stress_count.h"

using namespace vq_tl;

namespace {

struct Guarded {
    Lock lock;
    Condition condition;
};

void initGuarded(Guarded* g, int32_t kind = LOCK_KIND_RECURSIVE_MUTEX) {
    construct_Lock(&g->lock, nullptr);
    construct_Condition(&g->condition, nullptr);
    ASSERT_EQ(Lock_init(&g->lock, kind), TL_OK);
    ASSERT_EQ(Condition_init(&g->condition, &g->lock), TL_OK);
}

void destroyGuarded(Guarded* g) {
    EXPECT_EQ(destruct_Condition(&g->condition), TL_OK);
    EXPECT_EQ(destruct_Lock(&g->lock), TL_OK);
}

}  // namespace

TEST(Condition, UninitialisedRecordsAnswerStateButSignalAllIsHarmless) {
    Condition constructed;
    ASSERT_EQ(construct_Condition(&constructed, nullptr), TL_OK);
    Condition zeroed;
    std::memset(&zeroed, 0, sizeof zeroed);
    for (Condition* c : {&constructed, &zeroed}) {
        EXPECT_EQ(Condition_await(c), TL_ERROR_STATE);
        EXPECT_EQ(Condition_awaitMillis(c, 5), TL_ERROR_STATE);
        EXPECT_EQ(Condition_signal(c), TL_ERROR_STATE);
        EXPECT_EQ(Condition_signalAll(c), TL_OK);
    }
    EXPECT_EQ(constructed.await(&constructed), TL_ERROR_STATE);
    EXPECT_EQ(constructed.awaitMillis(&constructed, 5), TL_ERROR_STATE);
    EXPECT_EQ(constructed.signal(&constructed), TL_ERROR_STATE);
    EXPECT_EQ(constructed.signalAll(&constructed), TL_OK);
    EXPECT_EQ(constructed.destroy, nullptr);
    EXPECT_EQ(destruct_Condition(&constructed), TL_OK);
    EXPECT_EQ(destruct_Condition(&constructed), TL_OK);
}

TEST(Condition, BadArguments) {
    Lock lock;
    Condition condition;
    construct_Lock(&lock, nullptr);
    construct_Condition(&condition, nullptr);
    EXPECT_EQ(construct_Condition(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_Condition(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Condition_init(nullptr, &lock), TL_ERROR_PARAM);
    EXPECT_EQ(Condition_init(&condition, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Condition_await(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Condition_awaitMillis(nullptr, 1), TL_ERROR_PARAM);
    EXPECT_EQ(Condition_signal(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Condition_signalAll(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Condition_getBufferSize(), 4);
}

TEST(Condition, WaitNeedsAnInitialisedMutexLock) {
    // The condition may be set up before its lock; a wait then finds no mutex.
    Guarded g;
    construct_Lock(&g.lock, nullptr);
    construct_Condition(&g.condition, nullptr);
    ASSERT_EQ(Condition_init(&g.condition, &g.lock), TL_OK);
    EXPECT_EQ(Condition_await(&g.condition), TL_ERROR_STATE);
    EXPECT_EQ(Condition_awaitMillis(&g.condition, 1), TL_ERROR_STATE);
    ASSERT_EQ(Lock_init(&g.lock, LOCK_KIND_SPIN), TL_OK);
    EXPECT_EQ(Condition_await(&g.condition), TL_ERROR_STATE);
    ASSERT_EQ(Lock_init(&g.lock, LOCK_KIND_RECURSIVE_MUTEX), TL_OK);
    ASSERT_EQ(Lock_lock(&g.lock), TL_OK);
    EXPECT_EQ(Condition_awaitMillis(&g.condition, 1), TL_ERROR_TIMEOUT);
    EXPECT_EQ(Lock_unlock(&g.lock), TL_OK);
    destroyGuarded(&g);
}

namespace {

// A limit above one second whose millisecond part, added to the clock's
// nanoseconds now, passes the next full second: the deadline needs both the
// seconds part and the carry out of the nanoseconds.
int32_t millisCarryingIntoSeconds() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int32_t nowMillis = static_cast<int32_t>(now.tv_nsec / 1000000);
    return 1000 + (1002 - nowMillis) % 1000;  // 2 ms of margin for the time until the wait reads the clock
}

}  // namespace

TEST(Condition, TimedWaitRunsOutAfterItsTime) {
    Guarded g;
    initGuarded(&g);
    const int32_t carrying = millisCarryingIntoSeconds();
    const struct {
        int32_t millis;
        double atLeast;
    } cases[] = {{-20, 0.0}, {0, 0.0}, {30, 30.0}, {carrying, static_cast<double>(carrying)}};
    for (const auto& c : cases) {
        ASSERT_EQ(Lock_lock(&g.lock), TL_OK);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Condition_awaitMillis(&g.condition, c.millis), TL_ERROR_TIMEOUT) << c.millis;
        const double waited = millisSince(start);
        EXPECT_EQ(Lock_unlock(&g.lock), TL_OK);
        EXPECT_GE(waited, c.atLeast - 0.5) << c.millis;
        // A negative or zero limit must not turn into a wait of seconds.
        if (c.millis <= 0) {
            EXPECT_LT(waited, 1000.0) << c.millis;
        }
    }
    destroyGuarded(&g);
}

namespace {

// A counting handshake: waiters sleep until `released` reaches their
// ticket, the main thread releases them one signal at a time or all at once.
struct Gate {
    Guarded g;
    int released;  // under g.lock
    int arrived;   // under g.lock
    int woken;     // under g.lock
};

uint32_t gateWaiter(void* argument) {
    Gate* gate = static_cast<Gate*>(argument);
    TLResult r = Lock_lock(&gate->g.lock);
    const int ticket = gate->arrived++;
    while (r == TL_OK && gate->released <= ticket) r = Condition_await(&gate->g.condition);
    gate->woken += 1;
    return r | Lock_unlock(&gate->g.lock);
}

int arrivedCount(Gate* gate) {
    Lock_lock(&gate->g.lock);
    const int n = gate->arrived;
    Lock_unlock(&gate->g.lock);
    return n;
}

}  // namespace

TEST(Condition, SignalWakesWaitersAndSignalAllWakesEveryOne) {
    constexpr int kWaiters = 4;
    for (const bool all : {false, true}) {
        Gate gate{};
        initGuarded(&gate.g);
        Thread threads[kWaiters];
        for (Thread& t : threads) {
            construct_Thread(&t, nullptr);
            ASSERT_EQ(Thread_start(&t, gateWaiter, &gate), TL_OK);
        }
        while (arrivedCount(&gate) < kWaiters) sched_yield();
        ASSERT_EQ(Lock_lock(&gate.g.lock), TL_OK);
        if (all) {
            gate.released = kWaiters;
            EXPECT_EQ(Condition_signalAll(&gate.g.condition), TL_OK);
        } else {
            // A single signal may wake the wrong ticket, so every release
            // signals until that ticket holder has counted itself woken.
            for (int i = 1; i <= kWaiters; ++i) {
                gate.released = i;
                while (gate.woken < i) {
                    EXPECT_EQ(Condition_signal(&gate.g.condition), TL_OK);
                    EXPECT_EQ(Lock_unlock(&gate.g.lock), TL_OK);
                    ASSERT_EQ(Lock_lock(&gate.g.lock), TL_OK);
                }
            }
        }
        EXPECT_EQ(Lock_unlock(&gate.g.lock), TL_OK);
        for (Thread& t : threads) EXPECT_EQ(destruct_Thread(&t), TL_OK);
        EXPECT_EQ(gate.woken, kWaiters);
        destroyGuarded(&gate.g);
    }
}
