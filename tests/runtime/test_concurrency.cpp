// Threads, locks, conditions and the count-down latch; both queues against a sequential model, and a
// producer-consumer exchange.
#include <gtest/gtest.h>
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "runtime/concurrent_linked_queue.h"
#include "runtime/condition.h"
#include "runtime/count_down_latch.h"
#include "runtime/linked_blocking_queue.h"
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

void* itemOf(uintptr_t value) { return reinterpret_cast<void*>(value); }

// Random offers and polls against std::deque; `way` picks among the calls. fillFirst offers come first.
template <typename Offer, typename Poll, typename Size>
void matchModel(uint32_t seed, size_t capacity, int steps, Offer offer, Poll poll, Size size,
                int fillFirst = 0) {
    std::mt19937 random(seed);
    std::deque<uintptr_t> model;
    for (uintptr_t step = 1; step <= static_cast<uintptr_t>(steps); ++step) {
        const uint32_t r = random();
        if (fillFirst > 0 ? step <= static_cast<uintptr_t>(fillFirst) : r % 2 == 0) {
            ASSERT_EQ(offer(itemOf(step), r / 2), model.size() < capacity) << "step " << step;
            if (model.size() < capacity) model.push_back(step);
        } else {
            ASSERT_EQ(poll(r / 2), model.empty() ? nullptr : itemOf(model.front())) << "step " << step;
            if (!model.empty()) model.pop_front();
        }
        ASSERT_EQ(size(), static_cast<int32_t>(model.size())) << "step " << step;
    }
}

// Producers send items naming producer and sequence; consumers check each item comes once, every producer's
// in order, and the size within the capacity, until each takes a stop mark. Started by turns: no head start.
struct ExchangeShape {
    int32_t producers, consumers, capacity, perProducer;
};

template <typename Send, typename Receive, typename Size>
void runExchange(const ExchangeShape& s, Send send, Receive receive, Size size) {
    SCOPED_TRACE(testing::Message() << s.producers << " producers, " << s.consumers << " consumers, capacity "
                                    << s.capacity);
    static char stopMark;
    const int32_t each = vq_tl_test_scaled(s.perProducer, s.perProducer / 16);
    std::vector<std::atomic<uint8_t>> seen(static_cast<size_t>(s.producers * each));
    std::atomic<int32_t> faults{0};
    std::vector<std::thread> producers, consumers;
    for (int32_t i = 0; i < std::max(s.producers, s.consumers); ++i) {
        if (i < s.consumers) {
            consumers.emplace_back([&, i] {
                std::vector<int32_t> next(static_cast<size_t>(s.producers), 0);
                for (uint32_t n = 0;; ++n) {
                    const int32_t count = (n & 255) == 0 ? size() : 0;
                    if (count < 0 || count > s.capacity) faults.fetch_add(1);
                    void* const item = receive(i);
                    if (item == &stopMark) return;
                    if (item == nullptr) {
                        sched_yield();
                        continue;
                    }
                    const uintptr_t v = reinterpret_cast<uintptr_t>(item) - 1;
                    const size_t p = v / each;
                    if (p >= next.size() || seen[v].exchange(1) != 0 ||
                        static_cast<int32_t>(v % each) < next[p]) {
                        faults.fetch_add(1);
                    }
                    if (p < next.size()) next[p] = static_cast<int32_t>(v % each) + 1;
                }
            });
        }
        if (i < s.producers) {
            producers.emplace_back([&, i] {
                for (int32_t k = 1; k <= each; ++k) {
                    while (!send(itemOf(static_cast<uintptr_t>(i * each + k)), i)) sched_yield();
                }
            });
        }
    }
    for (std::thread& t : producers) t.join();
    for (size_t i = 0; i < consumers.size(); ++i) {
        while (!send(&stopMark, 0)) sched_yield();
    }
    for (std::thread& t : consumers) t.join();
    EXPECT_EQ(faults.load(), 0);
    EXPECT_EQ(std::count_if(seen.begin(), seen.end(), [](auto& x) { return x.load() == 0; }), 0) << "lost";
    EXPECT_EQ(size(), 0);
}

struct Clq {
    ConcurrentLinkedQueue q;
    explicit Clq(int32_t capacity) {
        construct_ConcurrentLinkedQueue(&q, nullptr);
        EXPECT_EQ(ConcurrentLinkedQueue_init(&q, capacity), TL_OK);
    }
    ~Clq() { EXPECT_EQ(destruct_ConcurrentLinkedQueue(&q), TL_OK); }
};

// Short names for the calls under test.
constexpr auto put = LinkedBlockingQueue_put;
constexpr auto offer = LinkedBlockingQueue_offer;
constexpr auto offerMillis = LinkedBlockingQueue_offerMillis;
constexpr auto take = LinkedBlockingQueue_take;
constexpr auto poll = LinkedBlockingQueue_poll;
constexpr auto pollMillis = LinkedBlockingQueue_pollMillis;

struct Lbq {
    LinkedBlockingQueue q;
    explicit Lbq(int32_t capacity) {
        construct_LinkedBlockingQueue(&q, nullptr);
        EXPECT_EQ(LinkedBlockingQueue_init(&q, capacity), TL_OK);
    }
    ~Lbq() {
        while (poll(&q) != nullptr) {
        }
        EXPECT_EQ(destruct_LinkedBlockingQueue(&q), TL_OK);
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

TEST(ConcurrentLinkedQueue, RefusalsChangeNothing) {
    Clq f(1);
    for (const int32_t capacity : {0, kClqMaxCapacity + 1})
        EXPECT_EQ(ConcurrentLinkedQueue_init(&f.q, capacity), TL_ERROR_PARAM) << capacity;
    EXPECT_EQ(ConcurrentLinkedQueue_offer(&f.q, nullptr), 0);
    EXPECT_EQ(ConcurrentLinkedQueue_size(&f.q), 0);
}

// Far beyond 4096 changes of every tagged word, so the counters wrap; the largest ring uses every index bit.
TEST(ConcurrentLinkedQueue, MatchesASimpleQueueUnderRandomOperations) {
    for (const int32_t capacity : {1, 2, 5, 16, kClqMaxCapacity}) {
        SCOPED_TRACE(capacity);
        Clq f(capacity);
        const bool full = capacity == kClqMaxCapacity;  // fill it, then drain it
        matchModel(
            262144u, capacity, full ? 2 * capacity + 2 : 12000,
            [&](void* item, uint32_t) { return ConcurrentLinkedQueue_offer(&f.q, item) == 1; },
            [&](uint32_t) { return ConcurrentLinkedQueue_poll(&f.q); },
            [&] { return ConcurrentLinkedQueue_size(&f.q); }, full ? capacity + 1 : 0);
    }
}

TEST(ConcurrentLinkedQueue, HeadCounterTellsAReusedSlotApartAndWrapsAfter4096Changes) {
    // Capacity 1: the dummy alternates between slots 0 and 1, so every second poll leaves head on the slot it
    // started on. Only the counter differs; its 12 bits come round after 4096 polls.
    Clq f(1);
    const uint32_t start = f.q.head.load();
    for (uint32_t polls = 1; polls <= 4096; ++polls) {
        ASSERT_EQ(ConcurrentLinkedQueue_offer(&f.q, itemOf(polls)), 1);
        ASSERT_EQ(ConcurrentLinkedQueue_poll(&f.q), itemOf(polls));
        const uint32_t head = f.q.head.load();
        ASSERT_EQ(Clq_slotOf(head), Clq_slotOf(start) ^ (polls & 1)) << polls;
        ASSERT_EQ(Clq_counterOf(head), (Clq_counterOf(start) + polls) & 0xFFFu) << polls;
    }
}

// Small rings recycle slots constantly. With more threads than cores a stalled thread can sleep through 4096
// changes of a tagged word, so the many-thread shapes use rings large enough that the same slot coming back
// with the same counter stays out of reach; one-to-one cannot get that far ahead.
TEST(ConcurrentLinkedQueue, ExchangeLosesNothingAndKeepsEachProducersOrder) {
    for (const ExchangeShape& shape : {ExchangeShape{4, 4, 1024, 15000}, ExchangeShape{1, 1, 4, 40000},
                                       ExchangeShape{2, 2, 256, 20000}, ExchangeShape{3, 1, 256, 10000}}) {
        Clq f(shape.capacity);
        runExchange(
            shape, [&](void* item, int32_t) { return ConcurrentLinkedQueue_offer(&f.q, item) == 1; },
            [&](int32_t) { return ConcurrentLinkedQueue_poll(&f.q); },
            [&] { return ConcurrentLinkedQueue_size(&f.q); });
    }
}

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
        Lbq f(capacity);
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

// Timed calls on a full or empty queue run out, at once for a limit below 0. A blocked put waits for a take;
// a blocked take or long poll returns as soon as an item arrives, not when its limit runs out.
TEST(LinkedBlockingQueue, TimedAndBlockingCalls) {
    int a = 0, b = 0;
    for (const int32_t millis : {30, -5}) {
        Lbq f(1);
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(pollMillis(&f.q, millis), nullptr);
        const double emptyWait = vq_tl_test_millisSince(start);
        ASSERT_EQ(offer(&f.q, &a), 1);
        start = std::chrono::steady_clock::now();
        EXPECT_EQ(offerMillis(&f.q, &b, millis), 0);
        const double fullWait = vq_tl_test_millisSince(start);
        ASSERT_EQ(take(&f.q), &a);
        for (const double waited : {emptyWait, fullWait})
            EXPECT_TRUE(millis < 0 ? waited < 1000 : waited >= 29.5) << waited;
    }
    for (const int mode : {0, 1, 2}) {  // put, take, pollMillis of 20 s
        Lbq f(1);
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
        EXPECT_LT(vq_tl_test_millisSince(start), 10000.0) << "mode " << mode;
        EXPECT_EQ(got.load(), mode == 0 ? &b : &a) << "mode " << mode;
        EXPECT_EQ(poll(&f.q), mode == 0 ? &b : nullptr) << "mode " << mode;
    }
}

// Producers and consumers use the blocking, timed and immediate calls by turns.
TEST(LinkedBlockingQueue, ExchangeLosesNothingAndKeepsEachProducersOrder) {
    for (const ExchangeShape& shape : {ExchangeShape{4, 4, 8, 15000}, ExchangeShape{1, 1, 1, 5000},
                                       ExchangeShape{2, 5, 3, 10000}, ExchangeShape{5, 2, 64, 6000}}) {
        Lbq f(shape.capacity);
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
