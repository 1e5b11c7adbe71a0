// The parallel execution layer (kernels, balancing, dependencies, events, full tables, nesting, failures);
// fork, join and execute on every engine; threads, locks, conditions, the latch; both queues against a model.
#include <gtest/gtest.h>
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "runtime/concurrent_linked_queue.h"
#include "runtime/condition.h"
#include "runtime/count_down_latch.h"
#include "runtime/linked_blocking_queue.h"
#include "runtime/lock.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "runtime/thread.h"
#include "support/owned.h"
#include "support/test_env.h"

using namespace vq_tl;

namespace {

struct PelOwner {
    std::unique_ptr<Pel> pel = std::make_unique<Pel>();
    PelOwner(int32_t workers, int32_t callerParticipates, int32_t dynamicBalance) {
        EXPECT_EQ(construct_Pel(pel.get(), nullptr), TL_OK);
        pel->params.numberOfWorkers = workers;
        pel->params.callerParticipates = callerParticipates;
        pel->params.dynamicBalance = dynamicBalance;
        EXPECT_EQ(Pel_init(pel.get()), TL_OK);
    }
    ~PelOwner() { EXPECT_EQ(destruct_Pel(pel.get()), TL_OK); }
    Pel* operator->() { return pel.get(); }
    Pel* get() { return pel.get(); }
};

// Each cell counts its visits: right when each is 1 and no call saw a wrong count. Nested: i visits 13 i on.
struct Visits {
    std::vector<std::atomic<int32_t>> hits;
    std::atomic<int32_t> failures{0};
    int32_t spin = 0;  // extra work on every seventh cell, so that fixed shares finish unevenly
    explicit Visits(int32_t n) : hits(static_cast<size_t>(n)) {}
    bool right() const {
        return failures.load() == 0 &&
               std::all_of(hits.begin(), hits.end(), [](auto& h) { return h.load() == 1; });
    }
    void visit(int32_t cell, int32_t count, const PelWorkInfo* info) {
        failures.fetch_add(info->count != count ? 1 : 0);
        hits[static_cast<size_t>(cell)].fetch_add(1);
        volatile int32_t sink = 0;
        for (int32_t i = cell % 7 == 0 ? spin : 0; i > 0; --i) sink = sink + i;
    }
};

struct Cells {
    Visits* visits;
    int32_t base;
};

uint32_t visitIndex(void* arg, int32_t index, PelWorkInfo* info) {
    static_cast<Visits*>(arg)->visit(index, static_cast<int32_t>(static_cast<Visits*>(arg)->hits.size()),
                                     info);
    return TL_OK;
}

uint32_t visitRange(void* arg, int32_t begin, int32_t end, PelWorkInfo* info) {
    for (int32_t i = begin; i < end; ++i) visitIndex(arg, i, info);
    return TL_OK;
}

uint32_t innerIndex(void* arg, int32_t index, PelWorkInfo* info) {
    static_cast<Cells*>(arg)->visits->visit(static_cast<Cells*>(arg)->base + index, 13, info);
    return TL_OK;
}

constexpr PelKernel kInner = PelKernel_perIndex<innerIndex>();

uint32_t outerIndex(void* arg, int32_t index, PelWorkInfo* info) {
    Cells cells{static_cast<Visits*>(arg), 13 * index};
    const bool ok = info->pel != nullptr && Pel_execute(info->pel, &kInner, &cells, 13) == TL_OK;
    cells.visits->failures.fetch_add(ok ? 0 : 1);
    return TL_OK;
}

void waitUntil(const std::atomic<int32_t>& value, int32_t atLeast) {
    while (value.load() < atLeast) std::this_thread::sleep_for(std::chrono::microseconds(200));
}

// A task that holds its worker until the test opens the gate.
uint32_t gateTask(void* arg, PelWorkInfo*) {
    waitUntil(*static_cast<std::atomic<int32_t>*>(arg), 1);
    return TL_OK;
}

uint32_t countTask(void* arg, PelWorkInfo*) {
    static_cast<std::atomic<int32_t>*>(arg)->fetch_add(1);
    return TL_OK;
}

// Counts its calls; index 3 returns bit 3, index 8 bit 0, 13 bit 1, 18 bit 2.
uint32_t failingIndex(void* arg, int32_t index, PelWorkInfo*) {
    if (arg != nullptr) static_cast<std::atomic<int32_t>*>(arg)->fetch_add(1);
    return index % 5 == 3 ? (1u << (index % 4)) : 0u;
}

constexpr PelKernel kVisitIndex = PelKernel_perIndex<visitIndex>();
constexpr PelKernel kVisitRange = PelKernel_range<visitRange>();
constexpr PelKernel kOuter = PelKernel_perIndex<outerIndex>();
constexpr PelKernel kGateTask = PelKernel_task<gateTask>();
constexpr PelKernel kCountTask = PelKernel_task<countTask>();
constexpr PelKernel kFailingIndex = PelKernel_perIndex<failingIndex>();

enum Engine { NONE, PEL, PEL_DYNAMIC, POOL, POOL_CALLER_WORKS };
const char* const kEngineNames[] = {"none", "pel", "pel-dynamic", "pool", "pool-caller-works"};

// An executor of one engine, with its Pel where it has one; pools of `threads` (3) without affinity.
struct Executor {
    Pel pel;
    ParallelExecutor e;
    ParallelExecutor* get() { return engine == NONE ? nullptr : &e; }
    Engine engine;
    Executor(Engine engine, int32_t threads = 3, int32_t callerWorks = 0) : engine(engine) {
        construct_Pel(&pel, nullptr);
        construct_ParallelExecutor(&e, nullptr);
        e.setAffinity = 0;
        e.numberOfThreads = engine == POOL_CALLER_WORKS ? 1 : threads;
        e.callerWorks = engine == POOL_CALLER_WORKS ? 1 : callerWorks;
        if (engine != PEL && engine != PEL_DYNAMIC) return;
        pel.params.numberOfWorkers = 4;
        pel.params.callerParticipates = 0;  // as the session sets it
        pel.params.dynamicBalance = engine == PEL_DYNAMIC ? 1 : 0;
        EXPECT_EQ(Pel_init(&pel), TL_OK);
        e.pel = &pel;
    }
    ~Executor() {
        EXPECT_EQ(destruct_ParallelExecutor(&e), TL_OK);
        EXPECT_EQ(destruct_Pel(&pel), TL_OK);
    }
};

// A forked task's arguments, copied at fork time.
struct MixArgs {
    uint32_t seed;
    int32_t index;
    uint32_t* out;
};

uint32_t mix(uint32_t x) {
    x = (x ^ (x >> 16)) * 0x7FEB352Du;
    x = (x ^ (x >> 15)) * 0x846CA68Bu;
    return x ^ (x >> 16);
}

uint32_t mixTask(void* arguments) {
    const MixArgs* a = static_cast<const MixArgs*>(arguments);
    a->out[a->index] = mix(a->seed + static_cast<uint32_t>(a->index));
    return 1u << (a->index % 12);  // non-error bits, or'ed by join
}

uint32_t mixShare(void* arg, int32_t index, int32_t count) {
    static_cast<uint32_t*>(arg)[index] = mix(static_cast<uint32_t>(index * 131 + count));
    return index == count - 1 ? 0x4000u : 0u;
}

std::atomic<int32_t> gCounter{0};

uint32_t countForkTask(void*) {
    gCounter.fetch_add(1);
    return TL_OK;
}

// Shares of execute add 1000 + their index to a sum of their count.
uint32_t countShare(void* arg, int32_t index, int32_t count) {
    static_cast<std::atomic<int32_t>*>(arg)[count].fetch_add(1000 + index);
    return TL_OK;
}

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

struct Clq : vq_tl_test::Owned<ConcurrentLinkedQueue, construct_ConcurrentLinkedQueue,
                               destruct_ConcurrentLinkedQueue> {
    explicit Clq(int32_t capacity) { EXPECT_EQ(ConcurrentLinkedQueue_init(this, capacity), TL_OK); }
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

// No pel: all runs at once on the caller (a task once), results or'ed. Refusals run nothing, hold no slot.
TEST(Pel, SerialPathAndRefusals) {
    std::atomic<int32_t> calls{0};
    uint32_t event = 9;
    Visits visits(9);
    EXPECT_EQ(Pel_execute(nullptr, &kVisitRange, &visits, 9), TL_OK);
    EXPECT_TRUE(visits.right());
    EXPECT_EQ(Pel_execute(nullptr, &kFailingIndex, &calls, 20), 0xFu);
    EXPECT_EQ(Pel_execute(nullptr, &kCountTask, &calls, 5), TL_OK);
    EXPECT_EQ(Pel_enqueueTask(nullptr, &kCountTask, &calls, 0, nullptr, &event), TL_OK);
    EXPECT_EQ(event, 0u);
    EXPECT_EQ(Pel_enqueueKernel(nullptr, &kFailingIndex, &calls, 9, 0, nullptr, nullptr), 0x9u);
    EXPECT_EQ(Pel_enqueueTask(nullptr, &kFailingIndex, &calls, 0, nullptr, nullptr), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(calls.load(), 20 + 1 + 1 + 9);
    PelOwner owner(2, 1, 0);
    const PelKernel noEntry = {nullptr, {.index = failingIndex}, PEL_KERNEL_PER_INDEX};
    for (Pel* p : {static_cast<Pel*>(nullptr), owner.get()}) {
        EXPECT_EQ(Pel_enqueueKernel(p, &kFailingIndex, &calls, -1, 0, nullptr, nullptr), TL_ERROR_PARAM);
        EXPECT_EQ(Pel_enqueueKernel(p, &noEntry, &calls, 1, 0, nullptr, nullptr), TL_ERROR_PARAM);
    }
    EXPECT_EQ(calls.load(), 20 + 1 + 1 + 9);
    EXPECT_EQ(owner->freeCommands, kPelCommandCount);
}

// Under contention every index runs once, for random sizes and workers, both balancings, all shapes, nesting.
// (How fixed shares split the indices beyond that decides only the balance: a matter for the benchmarks.)
TEST(Pel, EveryIndexRunsExactlyOnce) {
    std::mt19937 random(20261121);
    for (int round = 0; round < vq_tl_test_scaled(48, 12); ++round) {
        const int32_t workers = 1 + static_cast<int32_t>(random() % 6);
        const int32_t participates = static_cast<int32_t>(random() % 2),
                      dynamic = static_cast<int32_t>(random() % 2);
        PelOwner owner(workers, participates, dynamic);
        for (int rep = 0; rep < 4; ++rep) {
            const int32_t count =
                rep == 3 ? 9 : 1 + static_cast<int32_t>(random() % vq_tl_test_scaled(3000, 300));
            Visits visits(rep == 3 ? 9 * 13 : count);
            visits.spin = static_cast<int32_t>(random() % 2000);
            const PelKernel* kernel = rep == 3 ? &kOuter : rep == 1 ? &kVisitRange : &kVisitIndex;
            ASSERT_EQ(Pel_execute(owner.get(), kernel, &visits, count), TL_OK);
            ASSERT_TRUE(visits.right()) << "workers " << workers << " participates " << participates
                                        << " dynamic " << dynamic << " rep " << rep << " count " << count;
        }
    }
}

namespace {

// A graph node stamps each of its calls on one global clock; its first and last stamps bound its run.
struct GraphNode {
    std::atomic<int32_t>* clock;
    std::atomic<int32_t> first{INT32_MAX}, last{-1};
    void stamp() {
        const int32_t t = clock->fetch_add(1);
        for (int32_t v = first.load(); t < v && !first.compare_exchange_weak(v, t);) {
        }
        for (int32_t v = last.load(); t > v && !last.compare_exchange_weak(v, t);) {
        }
    }
};

uint32_t graphTask(void* arg, PelWorkInfo*) {
    static_cast<GraphNode*>(arg)->stamp();
    std::this_thread::yield();
    static_cast<GraphNode*>(arg)->stamp();
    return TL_OK;
}

uint32_t graphIndex(void* arg, int32_t, PelWorkInfo*) {
    static_cast<GraphNode*>(arg)->stamp();
    return TL_OK;
}

constexpr PelKernel kGraphTask = PelKernel_task<graphTask>();
constexpr PelKernel kGraphIndex = PelKernel_perIndex<graphIndex>();

// Enqueues the graph (every third node a kernel of 5 indices); each node must run after its dependencies.
void runGraph(Pel* pel, const std::vector<std::vector<int32_t>>& deps) {
    const size_t n = deps.size();
    std::atomic<int32_t> clock{0};
    std::vector<GraphNode> nodes(n);
    std::vector<uint32_t> events(n, 0);
    for (size_t i = 0; i < n; ++i) {
        nodes[i].clock = &clock;
        std::vector<uint32_t> wait;
        for (int32_t d : deps[i]) wait.push_back(events[static_cast<size_t>(d)]);
        const int32_t w = static_cast<int32_t>(wait.size());
        ASSERT_EQ(i % 3 == 1 ? Pel_enqueueKernel(pel, &kGraphIndex, &nodes[i], 5, w, wait.data(), &events[i])
                             : Pel_enqueueTask(pel, &kGraphTask, &nodes[i], w, wait.data(), &events[i]),
                  TL_OK);
    }
    ASSERT_EQ(Pel_waitForEvents(pel, static_cast<int32_t>(n), events.data()), TL_OK);
    for (size_t i = 0; i < n; ++i) {
        uint32_t info = 1;
        EXPECT_EQ(Pel_getEventInfo(pel, events[i], 0, &info), TL_OK);
        EXPECT_EQ(info, 0u);
        EXPECT_EQ(Pel_releaseEvent(pel, events[i]), TL_OK);
        ASSERT_GE(nodes[i].last.load(), 0) << "node " << i << " never ran";
        for (int32_t d : deps[i]) {
            EXPECT_GT(nodes[i].first.load(), nodes[static_cast<size_t>(d)].last.load())
                << i << " ran before " << d;
        }
    }
}

}  // namespace

TEST(Pel, DependencyGraphsCompleteInAValidOrder) {
    std::mt19937 random(7);
    for (int32_t mode = 0; mode < 4; ++mode) {
        PelOwner owner(3, mode & 1, mode >> 1);
        std::vector<std::vector<int32_t>> dag(60);  // repeated dependencies in one list too
        for (int32_t i = 1; i < 60; ++i) {
            for (int32_t j = static_cast<int32_t>(random() % 5); j > 0; --j) {
                dag[static_cast<size_t>(i)].push_back(static_cast<int32_t>(random() % i));
            }
        }
        runGraph(owner.get(), dag);
    }
}

// 256 command slots and 1024 dependency links, the pool held in a gate task: the enqueuer sleeps until
// another thread opens the gate, with 300 tasks waiting on the gate for slots, or with fan-ins of 100
// dependencies for links (100 + 9 * 100 are taken; the tenth cannot get its 100). The opener waits 30 ms.
TEST(Pel, ExhaustedTablesMakeTheEnqueuerWait) {
    for (int32_t variant = 0; variant < 3; ++variant) {
        const bool links = variant > 0;
        PelOwner owner(3, variant == 2 ? 1 : 0, 0);
        std::atomic<int32_t> gate{0};
        uint32_t gateEvent = 0;
        ASSERT_EQ(Pel_enqueueTask(owner.get(), &kGateTask, &gate, 0, nullptr, &gateEvent), TL_OK);
        std::atomic<int32_t> clock{0}, ran{0}, enqueued{0}, blocked{0};
        std::vector<GraphNode> nodes(112);
        std::vector<uint32_t> middle(100, 0);
        for (int32_t i = 0; i < 112; ++i) {
            nodes[static_cast<size_t>(i)].clock = &clock;
            ASSERT_TRUE(!links || i >= 100 ||
                        Pel_enqueueTask(owner.get(), &kGraphTask, &nodes[static_cast<size_t>(i)], 1,
                                        &gateEvent, &middle[static_cast<size_t>(i)]) == TL_OK);
        }
        std::thread opener([&] {
            waitUntil(enqueued, links ? 9 : 255);
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            blocked = enqueued.load() < (links ? 12 : 300) ? 1 : 0;
            gate = 1;
        });
        for (int32_t i = 0; i < (links ? 12 : 300); ++i, enqueued.fetch_add(1)) {
            EXPECT_EQ(links ? Pel_enqueueTask(owner.get(), &kGraphTask, &nodes[static_cast<size_t>(100 + i)],
                                              100, middle.data(), nullptr)
                            : Pel_enqueueTask(owner.get(), &kCountTask, &ran, 1, &gateEvent, nullptr),
                      TL_OK);
        }
        opener.join();
        EXPECT_EQ(blocked.load(), 1) << "variant " << variant;
        EXPECT_TRUE(Pel_finish(owner.get()) == TL_OK && ran.load() == (links ? 0 : 300));
        int32_t lastMiddle = 0;
        for (int32_t i = 0; i < 100; ++i)
            lastMiddle = std::max(lastMiddle, nodes[static_cast<size_t>(i)].last.load());
        for (int32_t i = 100; links && i < 112; ++i)
            EXPECT_GT(nodes[static_cast<size_t>(i)].first.load(), lastMiddle);
        for (uint32_t e : middle) EXPECT_EQ(e == 0 ? TL_OK : Pel_releaseEvent(owner.get(), e), TL_OK);
        EXPECT_EQ(Pel_releaseEvent(owner.get(), gateEvent), TL_OK);
        EXPECT_EQ(owner->freeCommands, kPelCommandCount);
    }
}

TEST(Pel, ErrorsAreOredIntoEventsAndCancelDependents) {
    for (int32_t dynamic = 0; dynamic < 2; ++dynamic) {
        PelOwner owner(3, 1, dynamic);
        std::atomic<int32_t> calls{0}, dependentRan{0};
        uint32_t events[3] = {}, info[3] = {};  // the failing kernel, a dependent, a late dependent
        ASSERT_EQ(Pel_enqueueKernel(owner.get(), &kFailingIndex, &calls, 20, 0, nullptr, &events[0]), TL_OK);
        ASSERT_EQ(Pel_enqueueTask(owner.get(), &kCountTask, &dependentRan, 1, &events[0], &events[1]), TL_OK);
        ASSERT_EQ(Pel_waitForEvents(owner.get(), 2, events), TL_OK);
        // Enqueued after the failure completed: skipped as well.
        ASSERT_EQ(Pel_enqueueTask(owner.get(), &kCountTask, &dependentRan, 1, &events[0], &events[2]), TL_OK);
        ASSERT_EQ(Pel_waitForEvents(owner.get(), 1, &events[2]), TL_OK);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(Pel_getEventInfo(owner.get(), events[i], 0, &info[i]), TL_OK);
        EXPECT_EQ(info[0], 0xFu);
        EXPECT_EQ(info[1], 0xFu | TL_MARK_CANCELLED);
        EXPECT_EQ(info[2], 0xFu | TL_MARK_CANCELLED);
        EXPECT_EQ(calls.load(), 20) << "a failing index does not stop the others";
        EXPECT_EQ(dependentRan.load(), 0);
        for (uint32_t e : events) EXPECT_EQ(Pel_releaseEvent(owner.get(), e), TL_OK);
        // Pel_execute drops the kernel's result with its event.
        EXPECT_EQ(Pel_execute(owner.get(), &kFailingIndex, &calls, 20), TL_OK);
    }
}

namespace {

// A kernel held at a gate; it notes that it has ended as its last act.
struct Late {
    std::atomic<int32_t> gate{0}, ended{0};
};

uint32_t lateBody(Late* late) {
    waitUntil(late->gate, 1);
    late->ended.store(1);
    return TL_OK;
}

uint32_t lateIndex(void* arg, int32_t, PelWorkInfo*) { return lateBody(static_cast<Late*>(arg)); }
uint32_t lateShare(void* arg, int32_t, int32_t) { return lateBody(static_cast<Late*>(arg)); }
uint32_t lateTask(void* arguments) { return lateBody(*static_cast<Late* const*>(arguments)); }

constexpr PelKernel kLateIndex = PelKernel_perIndex<lateIndex>();

}  // namespace

// A kernel that outlasts the Pel's wait limit (20 ms here; its gate opens 200 ms after the wait begins, and
// the caller, outside the pool, cannot help): each wait after which the caller may free what the kernel
// touches returns only once the kernel has ended, and answers TL_ERROR_TIMEOUT all the same.
TEST(Pel, WaitsThatRunOutStillEndWithTheKernels) {
    using Wait = TLResult (*)(Pel*, ParallelExecutor*, Late*);
    const struct {
        const char* name;
        Wait wait;
    } cases[] = {
        {"Pel_waitForEventsToEnd",
         [](Pel* pel, ParallelExecutor*, Late* late) {
             uint32_t event = 0;
             TLResult r = Pel_enqueueKernel(pel, &kLateIndex, late, 1, 0, nullptr, &event);
             if (r == TL_OK) r = Pel_waitForEventsToEnd(pel, 1, &event);
             Pel_releaseEvent(pel, event);
             return r;
         }},
        {"Pel_execute",
         [](Pel* pel, ParallelExecutor*, Late* late) { return Pel_execute(pel, &kLateIndex, late, 1); }},
        {"ParallelExecutor_execute",
         [](Pel*, ParallelExecutor* x, Late* late) {
             return ParallelExecutor_execute(x, lateShare, late, 1, nullptr);
         }},
        {"ParallelExecutor_join",
         [](Pel*, ParallelExecutor* x, Late* late) {
             const TLResult r = ParallelExecutor_fork(x, lateTask, &late, sizeof late);
             return r == TL_OK ? ParallelExecutor_join(x) : r;
         }},
    };
    for (const auto& c : cases) {
        Pel pel;
        construct_Pel(&pel, nullptr);
        pel.params.numberOfWorkers = 2;
        pel.params.callerParticipates = 0;
        pel.params.timeoutMillis = 20;
        ASSERT_EQ(Pel_init(&pel), TL_OK);
        ParallelExecutor x;
        construct_ParallelExecutor(&x, nullptr);
        x.setAffinity = 0;
        x.numberOfThreads = 1;
        x.pel = &pel;
        ASSERT_EQ(ParallelExecutor_init(&x, 4, 4), TL_OK);
        Late late;
        std::atomic<int32_t> waiting{0};
        std::thread opener([&] {
            waitUntil(waiting, 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            late.gate.store(1);
        });
        waiting.store(1);
        const TLResult r = c.wait(&pel, &x, &late);
        const int32_t endedAtReturn = late.ended.load();
        opener.join();
        EXPECT_EQ(r, TL_ERROR_TIMEOUT) << c.name;
        EXPECT_EQ(endedAtReturn, 1) << c.name;
        EXPECT_EQ(destruct_ParallelExecutor(&x), TL_OK) << c.name;
        EXPECT_EQ(destruct_Pel(&pel), TL_OK) << c.name;
    }
}

// Same outputs and or'ed results on every engine; forks copy arguments; a count of 0 is a share per worker.
// Without an executor the work runs at once on the calling thread: a fork returns its task's result.
TEST(ParallelExecutor, EnginesAgreeOnForkJoinAndExecute) {
    EXPECT_EQ(ParallelExecutor_getBufferSize(1, 1, 1 << 30, 4), -1) << "beyond 31 bits";
    Executor none(POOL, 0, 0);
    EXPECT_EQ(ParallelExecutor_init(&none.e, 4, 4), TL_ERROR_PARAM) << "nobody would work";
    std::mt19937 random(42);
    for (int round = 0; round < vq_tl_test_scaled(16, 1); ++round) {
        const uint32_t seed = random();
        const int32_t tasks = 1 + static_cast<int32_t>(random() % 48),
                      shares = 1 + static_cast<int32_t>(random() % 40);
        std::vector<uint32_t> want(static_cast<size_t>(tasks + shares)), got(want.size());
        uint32_t wantResults[2] = {}, results[2] = {};
        for (const Engine engine : {NONE, PEL, PEL_DYNAMIC, POOL, POOL_CALLER_WORKS}) {
            SCOPED_TRACE(kEngineNames[engine]);
            Executor x(engine);
            ASSERT_TRUE(engine == NONE || ParallelExecutor_init(&x.e, 16, 64) == TL_OK);
            MixArgs args{seed, 0, got.data()};
            uint32_t forked = 0;
            for (args.index = 0; args.index < tasks; ++args.index) {
                const uint32_t r = ParallelExecutor_fork(x.get(), mixTask, &args, sizeof(args));
                ASSERT_EQ(r, engine == NONE ? 1u << (args.index % 12) : TL_OK);
                forked |= r;
            }
            args.seed = 0;  // too late to matter: the tasks have their copies
            ASSERT_EQ(ParallelExecutor_join2(x.get(), &results[0]), TL_OK);
            results[0] |= forked;
            ASSERT_EQ(ParallelExecutor_execute(x.get(), mixShare, &got[tasks], shares, &results[1]), TL_OK);
            EXPECT_EQ(results[1], 0x4000u);
            if (engine == NONE) want = got, std::copy(results, results + 2, wantResults);
            EXPECT_EQ(got[tasks], mix(static_cast<uint32_t>(shares)));
            EXPECT_EQ(got, want);
            EXPECT_EQ(results[0], wantResults[0]);
            EXPECT_EQ(results[1], wantResults[1]);
            const int32_t n = std::array{1, 4, 4, 3, 2}[engine];
            std::atomic<int32_t> sums[17] = {};
            EXPECT_EQ(ParallelExecutor_execute(x.get(), countShare, sums, 0, &results[1]), TL_OK);
            EXPECT_EQ(sums[n].load(), 1000 * n + n * (n - 1) / 2);
            std::fill(got.begin(), got.end(), 0u);
            results[0] = results[1] = 0;
        }
    }
}

// Twice the queue capacity of places between joins; forks from several threads, every event released.
TEST(ParallelExecutor, PelEnginePlacesAndForksFromSeveralThreads) {
    Executor x(PEL);
    ASSERT_EQ(ParallelExecutor_init(&x.e, 16, 64), TL_OK);
    gCounter = 0;
    for (int i = 0; i < 128; ++i)
        ASSERT_EQ(ParallelExecutor_fork(&x.e, countForkTask, nullptr, 0), TL_OK) << i;
    EXPECT_EQ(ParallelExecutor_fork(&x.e, countForkTask, nullptr, 0), TL_ERROR_STATE);
    EXPECT_TRUE(ParallelExecutor_join(&x.e) == TL_OK && gCounter.load() == 128);
    EXPECT_EQ(ParallelExecutor_join(&x.e), TL_OK) << "nothing forked";
    std::vector<uint32_t> out(120, 0);
    std::vector<std::thread> threads;
    for (int32_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (MixArgs a{9, t * 30, out.data()}; a.index < t * 30 + 30; ++a.index) {
                EXPECT_EQ(ParallelExecutor_fork(&x.e, mixTask, &a, sizeof(a)), TL_OK);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(ParallelExecutor_join2(&x.e, nullptr), TL_OK);
    for (uint32_t i = 0; i < 120; ++i) EXPECT_EQ(out[i], mix(9u + i));
    EXPECT_EQ(x.pel.freeCommands, kPelCommandCount) << "every event was released";
}

// A small pool with a working caller: forks beyond the waiting queue are refused, the finished queue fills up
// while the caller helps, and join still accounts for every accepted task exactly once.
TEST(ParallelExecutor, FullQueuesLoseNoTask) {
    Executor x(POOL, 1, 1);
    ASSERT_EQ(ParallelExecutor_init(&x.e, 2, 3), TL_OK);
    for (int round = 0; round < vq_tl_test_scaled(50, 3); ++round) {
        gCounter = 0;
        int32_t accepted = 0;
        for (int i = 0; i < 20; ++i) {
            const TLResult r = ParallelExecutor_fork(&x.e, countForkTask, nullptr, 0);
            ASSERT_TRUE(r == TL_OK || r == TL_ERROR_STATE) << r;
            accepted += r == TL_OK ? 1 : 0;
        }
        EXPECT_LT(accepted, 20) << "20 forks cannot all fit";
        EXPECT_TRUE(ParallelExecutor_join(&x.e) == TL_OK && gCounter.load() == accepted);
        EXPECT_EQ(ParallelExecutor_getNumberOfTasks(&x.e), 0);
    }
}

// Both joins and destruct hand back what the function returned; a second join, or one never started, nothing.
TEST(Thread, JoinAndDestructReturnTheFunctionsResult) {
    for (const uint32_t expected : {0u, 1u, 0x10000u, 0xFFFFFFFFu}) {
        Job job{expected, 0, 0}, other{6, 0, 0};
        Thread thread;
        ASSERT_EQ(construct_Thread(&thread, nullptr), TL_OK);
        uint32_t out = 9;
        EXPECT_TRUE(Thread_join2(&thread, &out) == TL_OK && out == 0u);
        ASSERT_EQ(Thread_start(&thread, runJob, &job), TL_OK);
        EXPECT_EQ(Thread_start(&thread, runJob, &other), TL_ERROR_STATE);
        EXPECT_EQ(Thread_join(&thread), expected);
        EXPECT_NE(job.ranOn, Thread_getId());
        ASSERT_EQ(Thread_start(&thread, runJob, &job), TL_OK);
        EXPECT_TRUE((Thread_join2(&thread, &out) | Thread_join(&thread)) == TL_OK && out == expected);
        ASSERT_EQ(Thread_start(&thread, runJob, &job), TL_OK);
        EXPECT_EQ(destruct_Thread(&thread), expected);
        EXPECT_EQ(destruct_Thread(&thread), TL_OK);
        EXPECT_EQ(job.runs + other.runs, 3);
    }
}

// The mutex lets its owner in again and needs as many unlocks; the spin lock does not. Init switches the kind
// (the mutex goes back: LeakSanitizer), an unknown kind is refused, recycle and destruct leave no lock. Under
// each kind four threads raise a counter: ThreadSanitizer reports too weak an ordering, the sum lost updates.
TEST(Lock, KindsReentryExclusionAndReinit) {
    Lock lock;
    construct_Lock(&lock, nullptr);
    EXPECT_EQ(Lock_init(&lock, 2), TL_ERROR_UNSUPPORTED);
    const int each = vq_tl_test_scaled(20000, 1250);
    for (const int32_t recursive : {1, 0}) {
        ASSERT_EQ(Lock_init(&lock, recursive ? LOCK_KIND_RECURSIVE_MUTEX : LOCK_KIND_SPIN), TL_OK);
        ASSERT_EQ(Lock_lock(&lock), TL_OK);
        int32_t acquired = 7;
        EXPECT_TRUE(Lock_tryLock(&lock, &acquired) == TL_OK && acquired == recursive);
        EXPECT_EQ(recursive == 1 ? Lock_unlock(&lock) : TL_OK, TL_OK);
        EXPECT_EQ(tryFromOtherThread(&lock), 0) << "still held";
        EXPECT_EQ(Lock_unlock(&lock), TL_OK);
        EXPECT_EQ(tryFromOtherThread(&lock), 1) << recursive;
        long long counter = 0;
        std::atomic<int> inside{0}, faults{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < each; ++i) {
                    faults.fetch_add(Lock_lock(&lock) != TL_OK ||
                                     inside.fetch_add(1, std::memory_order_relaxed) != 0);
                    counter += 1;
                    inside.fetch_sub(1, std::memory_order_relaxed);
                    faults.fetch_add(Lock_unlock(&lock) != TL_OK);
                }
            });
        }
        for (std::thread& t : threads) t.join();
        EXPECT_TRUE(faults.load() == 0 && counter == 4LL * each) << recursive << ": " << faults.load();
    }
    ASSERT_EQ(Lock_recycle(&lock), TL_OK);
    EXPECT_EQ(Lock_lock(&lock), TL_ERROR_STATE);
    ASSERT_EQ(Lock_init(&lock, LOCK_KIND_RECURSIVE_MUTEX), TL_OK);
    EXPECT_EQ(destruct_Lock(&lock) | destruct_Lock(&lock), TL_OK);
    EXPECT_EQ(Lock_lock(&lock), TL_ERROR_STATE);
}

// Timed waits run out after their limit, at once for 0 or below: a condition nobody signals, a latch at 1, an
// empty queue's poll, a full one's offer; for the condition also a limit whose millisecond part, added to the
// clock's nanoseconds now, passes the next second, so the deadline needs the carry. 2 ms of margin.
TEST(TimedWaits, RunOutAfterTheirLimit) {
    Guarded g;
    Latch l(1);
    Lbq empty(1), full(1);
    int a = 0;
    ASSERT_EQ(offer(&full.q, &a), 1);
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int32_t carrying = 1000 + (1002 - static_cast<int32_t>(now.tv_nsec / 1000000)) % 1000;
    const std::function<bool(int32_t)> waits[] = {
        [&](int32_t millis) {
            const bool out = Lock_lock(&g.lock) == TL_OK &&
                             Condition_awaitMillis(&g.condition, millis) == TL_ERROR_TIMEOUT;
            return Lock_unlock(&g.lock) == TL_OK && out;
        },
        [&](int32_t millis) { return CountDownLatch_awaitMillis(&l.latch, millis) == TL_ERROR_TIMEOUT; },
        [&](int32_t millis) { return pollMillis(&empty.q, millis) == nullptr; },
        [&](int32_t millis) { return offerMillis(&full.q, &a, millis) == 0; }};
    for (size_t w = 0; w < std::size(waits); ++w) {
        for (const int32_t millis : {-20, 0, 30, w == 0 ? carrying : 30}) {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_TRUE(waits[w](millis)) << w << " " << millis;
            const double waited = vq_tl_test_millisSince(start);
            EXPECT_TRUE(millis <= 0 ? waited < 1000 : waited >= millis - 0.5)
                << w << " " << millis << ": " << waited;
        }
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

// Counted down to zero the latch stays there; init sets it again.
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

// Far beyond 4096 changes of every tagged word, so the counters wrap; the largest ring uses every index bit.
TEST(ConcurrentLinkedQueue, MatchesASimpleQueueUnderRandomOperations) {
    for (const int32_t capacity : {1, 2, 5, 16, kClqMaxCapacity}) {
        SCOPED_TRACE(capacity);
        Clq f(capacity);
        const bool full = capacity == kClqMaxCapacity;  // fill it, then drain it
        matchModel(
            262144u, capacity, full ? 2 * capacity + 2 : 12000,
            [&](void* item, uint32_t) { return ConcurrentLinkedQueue_offer(&f, item) == 1; },
            [&](uint32_t) { return ConcurrentLinkedQueue_poll(&f); },
            [&] { return ConcurrentLinkedQueue_size(&f); }, full ? capacity + 1 : 0);
    }
}

TEST(ConcurrentLinkedQueue, HeadCounterTellsAReusedSlotApartAndWrapsAfter4096Changes) {
    // Capacity 1: the dummy alternates between slots 0 and 1, so every second poll leaves head on the slot it
    // started on. Only the counter differs; its 12 bits wrap after 4096 polls. Refusals first.
    Clq f(1);
    for (const int32_t capacity : {0, kClqMaxCapacity + 1})
        EXPECT_EQ(ConcurrentLinkedQueue_init(&f, capacity), TL_ERROR_PARAM) << capacity;
    EXPECT_EQ(ConcurrentLinkedQueue_offer(&f, nullptr), 0);
    const uint32_t start = f.head.load();
    for (uint32_t polls = 1; polls <= 4096; ++polls) {
        ASSERT_EQ(ConcurrentLinkedQueue_offer(&f, itemOf(polls)), 1);
        ASSERT_EQ(ConcurrentLinkedQueue_poll(&f), itemOf(polls));
        const uint32_t head = f.head.load();
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
            shape, [&](void* item, int32_t) { return ConcurrentLinkedQueue_offer(&f, item) == 1; },
            [&](int32_t) { return ConcurrentLinkedQueue_poll(&f); },
            [&] { return ConcurrentLinkedQueue_size(&f); });
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
    EXPECT_EQ(destruct_LinkedBlockingQueue(&q), TL_ERROR_STATE);
    EXPECT_EQ(LinkedBlockingQueue_recycle(&q), TL_ERROR_STATE);
    EXPECT_EQ(LinkedBlockingQueue_init(&q, 5), TL_ERROR_STATE);
    EXPECT_EQ(take(&q), &a);
    ASSERT_EQ(LinkedBlockingQueue_init(&q, 5), TL_OK);  // drained: init again with another size
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

// A blocked put waits for a take; a blocked take or long poll returns as soon as an item arrives, not when
// its limit runs out.
TEST(LinkedBlockingQueue, BlockingCalls) {
    int a = 0, b = 0;
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
