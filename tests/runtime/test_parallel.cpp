// The parallel execution layer (kernels of the three kinds, balancing, dependencies, events, exhausted
// tables, nesting and failures), and fork, join and execute on both engines of ParallelExecutor and on none.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
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
        EXPECT_EQ(Pel_enqueueKernel(p, &kFailingIndex, &calls, 1, 2, nullptr, nullptr), TL_ERROR_PARAM);
        EXPECT_EQ(Pel_enqueueKernel(p, &noEntry, &calls, 1, 0, nullptr, nullptr), TL_ERROR_PARAM);
        EXPECT_EQ(Pel_enqueueTask(p, &kCountTask, &calls, 1, nullptr, nullptr), TL_ERROR_PARAM);
    }
    EXPECT_EQ(calls.load(), 20 + 1 + 1 + 9);
    EXPECT_EQ(owner->freeCommands, kPelCommandCount);
}

TEST(Pel, FixedSharesAreBresenhamSpread) {
    const struct {
        int32_t count, workers;
        std::vector<int32_t> lengths;
    } cases[] = {
        // clang-format off
        {7, 3, {2, 2, 3}}, {8, 3, {2, 3, 3}}, {3, 4, {0, 1, 1, 1}}, {4, 4, {1, 1, 1, 1}}, {0, 2, {0, 0}}, {10, 1, {10}},
        {17, 16, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 2}},
        // clang-format on
    };
    for (const auto& c : cases) {
        for (const int32_t dynamic : {0, 1}) {  // dynamic: all in the first range, the others empty
            int32_t ranges[2 * 16] = {};
            Pel_partitionRanges(ranges, c.count, c.workers, dynamic);
            std::vector<int32_t> lengths;
            for (int32_t i = 0; i < c.workers; ++i) {
                EXPECT_EQ(ranges[2 * i], i == 0 || dynamic ? 0 : ranges[2 * i - 1])
                    << c.count << "/" << c.workers;
                lengths.push_back(ranges[2 * i + 1] - ranges[2 * i]);
            }
            std::vector<int32_t> want(c.lengths.size(), 0);
            want[0] = c.count;
            EXPECT_EQ(lengths, dynamic ? want : c.lengths) << c.count << "/" << c.workers;
        }
    }
}

// Under contention every index runs once, for random sizes and workers, both balancings, all shapes, nesting.
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
        ASSERT_EQ(Pel_finish(owner.get()), TL_OK);
        EXPECT_EQ(ran.load(), links ? 0 : 300);
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

TEST(ParallelExecutor, RefusalsAndTheCallingThread) {
    EXPECT_EQ(ParallelExecutor_getBufferSize(1, 1, 1 << 30, 4), -1) << "beyond 31 bits";
    Executor x(POOL, 0, 0);
    EXPECT_EQ(ParallelExecutor_init(&x.e, 4, 4), TL_ERROR_PARAM) << "nobody would work";
    // No executor: the work runs at once on the calling thread.
    uint32_t out[3] = {}, result = 9;
    MixArgs a{5, 2, out};
    EXPECT_EQ(ParallelExecutor_fork(nullptr, mixTask, &a, sizeof(a)), 4u);
    EXPECT_EQ(out[2], mix(7));
    EXPECT_EQ(ParallelExecutor_execute(nullptr, mixShare, out, 3, &result), TL_OK);
    EXPECT_EQ(result, 0x4000u);
    EXPECT_EQ(out[0], mix(3));
    EXPECT_EQ(ParallelExecutor_execute(nullptr, mixShare, out, 0, nullptr), TL_OK);
    EXPECT_EQ(out[0], mix(1)) << "one share on the calling thread";
}

// Same outputs and or'ed results on every engine; forks copy arguments; a count of 0 is a share per worker.
TEST(ParallelExecutor, EnginesAgreeOnForkJoinAndExecute) {
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
            for (args.index = 0; args.index < tasks; ++args.index) {
                ASSERT_TRUE(ParallelExecutor_fork(x.get(), mixTask, &args, sizeof(args)) == TL_OK ||
                            engine == NONE);
            }
            args.seed = 0;  // too late to matter: the tasks have their copies
            ASSERT_EQ(ParallelExecutor_join2(x.get(), &results[0]), TL_OK);
            ASSERT_EQ(ParallelExecutor_execute(x.get(), mixShare, &got[tasks], shares, &results[1]), TL_OK);
            if (engine == NONE) {
                for (int32_t i = 0; i < tasks; ++i) results[0] |= 1u << (i % 12);
                want = got;
                std::copy(results, results + 2, wantResults);
            }
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
    EXPECT_EQ(ParallelExecutor_join(&x.e), TL_OK);
    EXPECT_EQ(gCounter.load(), 128);
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
        ASSERT_EQ(ParallelExecutor_join(&x.e), TL_OK);
        EXPECT_EQ(gCounter.load(), accepted);
        EXPECT_EQ(ParallelExecutor_getNumberOfTasks(&x.e), 0);
    }
}
