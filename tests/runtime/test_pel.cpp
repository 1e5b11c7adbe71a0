// The parallel execution layer: parameters, kernels of the three kinds,
// dependencies, events, slot exhaustion, nesting and affinity.
#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "runtime/pel.h"
#include "runtime/syscall.h"
#include "stress_count.h"
#include "support/test_env.h"

using namespace vq_tl;

namespace {

struct PelOwner {
    std::unique_ptr<Pel> pel = std::make_unique<Pel>();
    PelOwner() { EXPECT_EQ(construct_Pel(pel.get(), nullptr), TL_OK); }
    PelOwner(int32_t workers, int32_t callerParticipates, int32_t dynamicBalance) : PelOwner() {
        pel->params.numberOfWorkers = workers;
        pel->params.callerParticipates = callerParticipates;
        pel->params.dynamicBalance = dynamicBalance;
        EXPECT_EQ(Pel_init(pel.get()), TL_OK);
    }
    ~PelOwner() { EXPECT_EQ(destruct_Pel(pel.get()), TL_OK); }
    Pel* operator->() { return pel.get(); }
    Pel* get() { return pel.get(); }
};

// Every index counts its visits; a run is right when each is exactly 1.
struct Visits {
    std::vector<std::atomic<int32_t>> hits;
    std::atomic<int32_t> spin{0};  // extra work per index, to unbalance workers
    explicit Visits(int32_t n) : hits(static_cast<size_t>(n)) {}
    int32_t wrong() const {
        int32_t bad = 0;
        for (const auto& h : hits) bad += h.load() != 1 ? 1 : 0;
        return bad;
    }
};

void burn(int32_t rounds) {
    volatile int32_t sink = 0;
    for (int32_t i = 0; i < rounds; ++i) sink = sink + i;
}

uint32_t visitIndex(void* arg, int32_t index, PelWorkInfo* info) {
    Visits* v = static_cast<Visits*>(arg);
    if (info->count != static_cast<int32_t>(v->hits.size())) return TL_ERROR_GENERAL;
    v->hits[static_cast<size_t>(index)].fetch_add(1);
    // Early indices cost more, so that fixed shares finish unevenly.
    if (index % 7 == 0) burn(v->spin.load());
    return TL_OK;
}

uint32_t visitRange(void* arg, int32_t begin, int32_t end, PelWorkInfo* info) {
    uint32_t r = 0;
    for (int32_t i = begin; i < end; ++i) r |= visitIndex(arg, i, info);
    return r;
}

constexpr PelKernel kVisitIndex = PelKernel_perIndex<visitIndex>();
constexpr PelKernel kVisitRange = PelKernel_range<visitRange>();

// Records the calls of a serial run.
struct CallLog {
    std::vector<int32_t> indices;
    std::vector<int32_t> counts;
};

uint32_t logIndex(void* arg, int32_t index, PelWorkInfo* info) {
    CallLog* log = static_cast<CallLog*>(arg);
    log->indices.push_back(index);
    log->counts.push_back(info->count);
    return 1u << index;
}

uint32_t logTask(void* arg, PelWorkInfo* info) {
    CallLog* log = static_cast<CallLog*>(arg);
    log->indices.push_back(-1);
    log->counts.push_back(info->count);
    return 0x40;
}

uint32_t logRange(void* arg, int32_t begin, int32_t end, PelWorkInfo* info) {
    CallLog* log = static_cast<CallLog*>(arg);
    log->indices.push_back(begin);
    log->indices.push_back(end);
    log->counts.push_back(info->count);
    return 0x80;
}

constexpr PelKernel kLogIndex = PelKernel_perIndex<logIndex>();
constexpr PelKernel kLogTask = PelKernel_task<logTask>();
constexpr PelKernel kLogRange = PelKernel_range<logRange>();

// A task that holds its worker until the test opens the gate.
struct Gate {
    std::atomic<int32_t> open{0};
    std::atomic<int32_t> entered{0};
};

uint32_t gateTask(void* arg, PelWorkInfo*) {
    Gate* g = static_cast<Gate*>(arg);
    g->entered.fetch_add(1);
    while (g->open.load() == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
    return TL_OK;
}

constexpr PelKernel kGateTask = PelKernel_task<gateTask>();

void waitUntil(const std::atomic<int32_t>& value, int32_t atLeast) {
    while (value.load() < atLeast) std::this_thread::sleep_for(std::chrono::microseconds(200));
}

}  // namespace

TEST(Pel, DefaultsAndNullPel) {
    PelParams p{};
    EXPECT_EQ(Pel_getParams(nullptr, nullptr), TL_ERROR_PARAM);
    ASSERT_EQ(Pel_getParams(nullptr, &p), TL_OK);
    EXPECT_EQ(p.numberOfWorkers, 1);
    EXPECT_EQ(p.callerParticipates, 1);
    EXPECT_EQ(p.timeoutMillis, 3000);
    EXPECT_EQ(p.dynamicBalance, 0);
    EXPECT_EQ(Pel_getNumberOfWorkers(nullptr), 1);
    EXPECT_EQ(construct_Pel(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_Pel(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Pel_init(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Pel_getBufferSize(), 2 * 4 + 4 * 4);
    uint32_t e = 5;
    EXPECT_EQ(Pel_waitForEvents(nullptr, 1, &e), TL_OK);
    EXPECT_EQ(Pel_waitForEvents(nullptr, 0, &e), TL_ERROR_PARAM);
    EXPECT_EQ(Pel_waitForEvents(nullptr, 1, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Pel_finish(nullptr), TL_OK);
}

TEST(Pel, ConstructedButNotInitialisedDoesNothing) {
    PelOwner owner;
    CallLog log;
    uint32_t event = 7;
    EXPECT_EQ(Pel_getNumberOfWorkers(owner.get()), 1);
    EXPECT_EQ(Pel_execute(owner.get(), &kLogIndex, &log, 3), TL_OK);
    EXPECT_EQ(Pel_enqueueTask(owner.get(), &kLogTask, &log, 0, nullptr, &event), TL_OK);
    EXPECT_EQ(event, 0u);
    EXPECT_TRUE(log.indices.empty());
    EXPECT_EQ(Pel_finish(owner.get()), TL_OK);
    EXPECT_EQ(Pel_recycle(owner.get()), TL_OK);
}

TEST(Pel, SerialPathFollowsTheKind) {
    CallLog log;
    EXPECT_EQ(Pel_execute(nullptr, &kLogIndex, &log, 3), 7u);
    EXPECT_EQ(log.indices, (std::vector<int32_t>{0, 1, 2}));
    EXPECT_EQ(log.counts, (std::vector<int32_t>{3, 3, 3}));
    log = {};
    EXPECT_EQ(Pel_execute(nullptr, &kLogTask, &log, 5), 0x40u);
    EXPECT_EQ(log.indices, (std::vector<int32_t>{-1}));
    log = {};
    EXPECT_EQ(Pel_execute(nullptr, &kLogRange, &log, 9), 0x80u);
    EXPECT_EQ(log.indices, (std::vector<int32_t>{0, 9}));
    log = {};
    uint32_t event = 9;
    EXPECT_EQ(Pel_enqueueTask(nullptr, &kLogTask, &log, 0, nullptr, &event), 0x40u);
    EXPECT_EQ(event, 0u);
    EXPECT_EQ(Pel_enqueueTask(nullptr, &kLogIndex, &log, 0, nullptr, nullptr), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(Pel_enqueueKernel(nullptr, &kLogIndex, &log, 2, 0, nullptr, nullptr), 3u);
    EXPECT_EQ(Pel_execute(nullptr, &kLogIndex, &log, 0), TL_OK);
    EXPECT_EQ(Pel_execute(nullptr, nullptr, &log, 4), TL_OK);
    EXPECT_EQ(log.indices, (std::vector<int32_t>{-1, 0, 1}));
}

TEST(Pel, ArgumentChecksOfEnqueueing) {
    PelOwner owner(2, 1, 0);
    CallLog log;
    const PelKernel noEntry = {nullptr, {.index = logIndex}, PEL_KERNEL_PER_INDEX};
    for (Pel* p : {static_cast<Pel*>(nullptr), owner.get()}) {
        EXPECT_EQ(Pel_enqueueKernel(p, &kLogIndex, &log, -1, 0, nullptr, nullptr), TL_ERROR_PARAM);
        EXPECT_EQ(Pel_enqueueKernel(p, &kLogIndex, &log, 1, 2, nullptr, nullptr), TL_ERROR_PARAM);
        EXPECT_EQ(Pel_enqueueKernel(p, &noEntry, &log, 1, 0, nullptr, nullptr), TL_ERROR_PARAM);
        EXPECT_EQ(Pel_enqueueKernel(p, nullptr, &log, 1, 0, nullptr, nullptr), TL_ERROR_PARAM);
        EXPECT_EQ(Pel_enqueueTask(p, &kLogTask, &log, 1, nullptr, nullptr), TL_ERROR_PARAM);
        EXPECT_EQ(Pel_enqueueTask(p, &noEntry, &log, 0, nullptr, nullptr), TL_ERROR_PARAM);
    }
    EXPECT_TRUE(log.indices.empty());
    EXPECT_EQ(Pel_execute(owner.get(), &kLogIndex, &log, 0), TL_OK);
    EXPECT_EQ(Pel_execute(owner.get(), nullptr, &log, 3), TL_OK);
    EXPECT_EQ(Pel_execute(owner.get(), &noEntry, &log, 3), TL_ERROR_PARAM);
    uint32_t event = 0;
    uint32_t info = 0;
    uint64_t profile = 1;
    EXPECT_EQ(Pel_getEventInfo(owner.get(), event, 1, &info), TL_ERROR_PARAM);
    EXPECT_EQ(Pel_getEventInfo(owner.get(), event, 0, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Pel_getEventProfilingInfo(owner.get(), event, 4, &profile), TL_ERROR_PARAM);
    EXPECT_EQ(Pel_getEventProfilingInfo(owner.get(), event, 3, &profile), TL_OK);
    EXPECT_EQ(profile, 0u);
}

TEST(Pel, WorkerCountsAndThreads) {
    const int32_t cpus = Syscall_getNumberOfProcessors();
    const struct {
        int32_t workers, participates, pin;
        uint32_t mask;
        int32_t activeWorkers, threads, activePin;
        uint32_t activeMask;
    } cases[] = {
        {0, 1, 0, 0, std::min(cpus, 16), std::min(cpus, 16) - 1, 0, 0},
        {20, 1, 1, 0x3, 16, 15, 0, 0},  // capped, and pinning dropped
        {4, 0, 0, 0, 4, 4, 0, 0},
        {4, 1, 0, 0, 4, 3, 0, 0},
        {3, 1, 1, 0, 3, 2, 1, 0x7},  // pinned to the lowest three processors
        {1, 1, 0, 0, 1, 0, 0, 0},
    };
    for (const auto& c : cases) {
        PelOwner owner;
        owner->params.numberOfWorkers = c.workers;
        owner->params.callerParticipates = c.participates;
        owner->params.pinWorkers = c.pin;
        owner->params.affinityMask = c.mask;
        ASSERT_EQ(Pel_init(owner.get()), TL_OK) << c.workers;
        PelParams active{};
        ASSERT_EQ(Pel_getParams(owner.get(), &active), TL_OK);
        EXPECT_EQ(active.numberOfWorkers, c.activeWorkers) << c.workers;
        EXPECT_EQ(Pel_getNumberOfWorkers(owner.get()), c.activeWorkers);
        EXPECT_EQ(owner->threadCount, c.threads) << c.workers;
        EXPECT_EQ(active.pinWorkers, c.activePin);
        EXPECT_EQ(active.affinityMask, c.activeMask);
        EXPECT_EQ(owner->params.numberOfWorkers, c.workers) << "the owner's settings are kept";
        for (int32_t i = 1; i < owner->threadCount; ++i) {
            EXPECT_LT(owner->threadTable[i - 1].threadId, owner->threadTable[i].threadId);
        }
        // Worker indices: 1..n-1 for pool threads when the owner is worker 0.
        std::vector<int32_t> indices;
        for (int32_t i = 0; i < owner->threadCount; ++i) indices.push_back(owner->threadTable[i].index);
        std::sort(indices.begin(), indices.end());
        for (int32_t i = 0; i < owner->threadCount; ++i) {
            EXPECT_EQ(indices[static_cast<size_t>(i)], i + (c.participates != 0 ? 1 : 0));
        }
    }
}

TEST(Pel, CpuListRunsFromTheHighestProcessorAndRepeats) {
    PelOwner owner;
    owner->params.numberOfWorkers = 2;
    owner->params.affinityMask = 0x16;  // processors 1, 2, 4
    ASSERT_EQ(Pel_init(owner.get()), TL_OK);
    for (int32_t i = 0; i < 32; ++i) EXPECT_EQ(owner->cpuList[i], (std::vector<int>{4, 2, 1})[i % 3]);
}

TEST(Pel, FixedSharesAreBresenhamSpread) {
    const struct {
        int32_t count, workers;
        std::vector<int32_t> lengths;
    } cases[] = {
        {7, 3, {2, 2, 3}},
        {8, 3, {2, 3, 3}},
        {3, 4, {0, 1, 1, 1}},
        {4, 4, {1, 1, 1, 1}},
        {0, 2, {0, 0}},
        {10, 1, {10}},
        {17, 16, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 2}},
    };
    for (const auto& c : cases) {
        int32_t ranges[2 * 16] = {};
        Pel_partitionRanges(ranges, c.count, c.workers, 0);
        int32_t expectedStart = 0;
        for (int32_t i = 0; i < c.workers; ++i) {
            EXPECT_EQ(ranges[2 * i], expectedStart) << c.count << "/" << c.workers << " range " << i;
            EXPECT_EQ(ranges[2 * i + 1] - ranges[2 * i], c.lengths[static_cast<size_t>(i)])
                << c.count << "/" << c.workers << " range " << i;
            expectedStart = ranges[2 * i + 1];
        }
        EXPECT_EQ(expectedStart, c.count);
        Pel_partitionRanges(ranges, c.count, c.workers, 1);
        EXPECT_EQ(ranges[0], 0);
        EXPECT_EQ(ranges[1], c.count);
        for (int32_t i = 1; i < c.workers; ++i) EXPECT_EQ(ranges[2 * i + 1] - ranges[2 * i], 0);
    }
}

// The core property: under contention every index runs exactly once, for
// random sizes, worker numbers, both balancing modes and both entry shapes.
TEST(Pel, EveryIndexRunsExactlyOnce) {
    std::mt19937 random(20261121);
    const int rounds = vq_tl_test_scaled(48, 12);
    for (int round = 0; round < rounds; ++round) {
        const int32_t workers = 1 + static_cast<int32_t>(random() % 6);
        const int32_t participates = static_cast<int32_t>(random() % 2);
        const int32_t dynamic = static_cast<int32_t>(random() % 2);
        PelOwner owner(workers, participates, dynamic);
        for (int rep = 0; rep < 4; ++rep) {
            const int32_t count = 1 + static_cast<int32_t>(random() % vq_tl_test_scaled(3000, 300));
            Visits visits(count);
            visits.spin = static_cast<int32_t>(random() % 2000);
            const PelKernel* kernel = rep % 2 == 0 ? &kVisitIndex : &kVisitRange;
            ASSERT_EQ(Pel_execute(owner.get(), kernel, &visits, count), TL_OK);
            ASSERT_EQ(visits.wrong(), 0) << "workers " << workers << " participates " << participates
                                         << " dynamic " << dynamic << " count " << count;
        }
    }
}

// Several threads enqueue into one Pel at once and wait for their own events.
TEST(Pel, ConcurrentEnqueuersFromOtherThreads) {
    for (int32_t dynamic = 0; dynamic < 2; ++dynamic) {
        PelOwner owner(3, 0, dynamic);
        const int32_t perThread = stressCount(64);
        std::vector<std::thread> threads;
        std::atomic<int32_t> failures{0};
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&, t] {
                for (int32_t k = 0; k < perThread; ++k) {
                    const int32_t count = 1 + (k * 37 + t * 11) % 97;
                    Visits visits(count);
                    uint32_t event = 0;
                    if (Pel_enqueueKernel(owner.get(), &kVisitIndex, &visits, count, 0, nullptr, &event) !=
                            TL_OK ||
                        Pel_waitForEvents(owner.get(), 1, &event) != TL_OK ||
                        Pel_releaseEvent(owner.get(), event) != TL_OK || visits.wrong() != 0) {
                        failures.fetch_add(1);
                    }
                }
            });
        }
        for (auto& t : threads) t.join();
        EXPECT_EQ(failures.load(), 0) << "dynamic " << dynamic;
    }
}

namespace {

// A node of a dependency graph stamps each of its calls on one global clock
// of increments; its first and last stamps bound its run.
struct GraphRun {
    std::atomic<int32_t> clock{0};
    std::vector<std::atomic<int32_t>> first, last;
    explicit GraphRun(size_t n) : first(n), last(n) {
        for (auto& f : first) f = INT32_MAX;
        for (auto& l : last) l = -1;
    }
    void stamp(int32_t node) {
        const int32_t t = clock.fetch_add(1);
        auto& f = first[static_cast<size_t>(node)];
        auto& l = last[static_cast<size_t>(node)];
        for (int32_t v = f.load(); t < v && !f.compare_exchange_weak(v, t);) {
        }
        for (int32_t v = l.load(); t > v && !l.compare_exchange_weak(v, t);) {
        }
    }
};

struct GraphNode {
    GraphRun* run;
    int32_t node;
};

uint32_t graphTask(void* arg, PelWorkInfo*) {
    GraphNode* n = static_cast<GraphNode*>(arg);
    n->run->stamp(n->node);
    std::this_thread::yield();
    n->run->stamp(n->node);
    return TL_OK;
}

uint32_t graphIndex(void* arg, int32_t, PelWorkInfo*) {
    GraphNode* n = static_cast<GraphNode*>(arg);
    n->run->stamp(n->node);
    return TL_OK;
}

constexpr PelKernel kGraphTask = PelKernel_task<graphTask>();
constexpr PelKernel kGraphIndex = PelKernel_perIndex<graphIndex>();

// Enqueues the graph (deps[i] lists earlier nodes) and checks that each node
// ran wholly after all of its dependencies.
void runGraph(Pel* pel, const std::vector<std::vector<int32_t>>& deps, bool kernelsToo) {
    const size_t n = deps.size();
    GraphRun run(n);
    std::vector<GraphNode> nodes(n);
    std::vector<uint32_t> events(n, 0);
    for (size_t i = 0; i < n; ++i) {
        nodes[i] = {&run, static_cast<int32_t>(i)};
        std::vector<uint32_t> wait;
        for (int32_t d : deps[i]) wait.push_back(events[static_cast<size_t>(d)]);
        const bool kernel = kernelsToo && i % 3 == 1;
        const TLResult r = kernel
                               ? Pel_enqueueKernel(pel, &kGraphIndex, &nodes[i], 5,
                                                   static_cast<int32_t>(wait.size()), wait.data(), &events[i])
                               : Pel_enqueueTask(pel, &kGraphTask, &nodes[i],
                                                 static_cast<int32_t>(wait.size()), wait.data(), &events[i]);
        ASSERT_EQ(r, TL_OK) << "node " << i;
    }
    ASSERT_EQ(Pel_waitForEvents(pel, static_cast<int32_t>(n), events.data()), TL_OK);
    for (size_t i = 0; i < n; ++i) {
        uint32_t info = 1;
        EXPECT_EQ(Pel_getEventInfo(pel, events[i], 0, &info), TL_OK);
        EXPECT_EQ(info, 0u);
        EXPECT_EQ(Pel_releaseEvent(pel, events[i]), TL_OK);
        ASSERT_GE(run.last[i].load(), 0) << "node " << i << " never ran";
        for (int32_t d : deps[i]) {
            EXPECT_GT(run.first[i].load(), run.last[static_cast<size_t>(d)].load())
                << "node " << i << " ran before " << d;
        }
    }
}

}  // namespace

TEST(Pel, DependencyGraphsCompleteInAValidOrder) {
    std::mt19937 random(7);
    for (int32_t dynamic = 0; dynamic < 2; ++dynamic) {
        for (int32_t participates = 0; participates < 2; ++participates) {
            PelOwner owner(3, participates, dynamic);
            std::vector<std::vector<int32_t>> chain(40);
            for (int32_t i = 1; i < 40; ++i) chain[static_cast<size_t>(i)] = {i - 1};
            runGraph(owner.get(), chain, false);
            runGraph(owner.get(), chain, true);
            // Diamond: 0 -> 1, 2 -> 3, twice over.
            runGraph(owner.get(), {{}, {0}, {0}, {1, 2}, {3}, {3}, {4, 5}}, true);
            // Random DAG with repeated dependencies in one list.
            std::vector<std::vector<int32_t>> dag(60);
            for (int32_t i = 1; i < 60; ++i) {
                const int32_t k = static_cast<int32_t>(random() % 5);
                for (int32_t j = 0; j < k; ++j)
                    dag[static_cast<size_t>(i)].push_back(static_cast<int32_t>(random() % i));
            }
            runGraph(owner.get(), dag, true);
        }
    }
}

// 100 tasks wait on a gate; then fan-in commands each depend on all 100.
// Twelve of them need 1300 links, more than the 1024 of the table: the
// enqueuer has to wait until the gate opens and links come back.
TEST(Pel, FanInWiderThanTheLinkTable) {
    for (int32_t participates = 0; participates < 2; ++participates) {
        PelOwner owner(3, participates, 0);
        Gate gate;
        uint32_t gateEvent = 0;
        ASSERT_EQ(Pel_enqueueTask(owner.get(), &kGateTask, &gate, 0, nullptr, &gateEvent), TL_OK);
        constexpr int32_t kMiddle = 100;
        constexpr int32_t kFanIns = 12;
        GraphRun run(kMiddle + kFanIns);
        std::vector<GraphNode> nodes(kMiddle + kFanIns);
        std::vector<uint32_t> middle(kMiddle);
        for (int32_t i = 0; i < kMiddle; ++i) {
            nodes[static_cast<size_t>(i)] = {&run, i};
            ASSERT_EQ(Pel_enqueueTask(owner.get(), &kGraphTask, &nodes[static_cast<size_t>(i)], 1, &gateEvent,
                                      &middle[static_cast<size_t>(i)]),
                      TL_OK);
        }
        std::atomic<int32_t> enqueuedFanIns{0};
        std::atomic<int32_t> blockedSeen{0};
        std::thread opener([&] {
            // 100 + 9 * 100 links are taken; the tenth fan-in cannot get its
            // 100 and waits. Look once it had time to block, then open.
            waitUntil(enqueuedFanIns, 9);
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            blockedSeen = enqueuedFanIns.load() < kFanIns ? 1 : 0;
            gate.open = 1;
        });
        std::vector<uint32_t> fanIns(kFanIns);
        for (int32_t f = 0; f < kFanIns; ++f) {
            const size_t node = static_cast<size_t>(kMiddle + f);
            nodes[node] = {&run, kMiddle + f};
            EXPECT_EQ(Pel_enqueueTask(owner.get(), &kGraphTask, &nodes[node], kMiddle, middle.data(),
                                      &fanIns[static_cast<size_t>(f)]),
                      TL_OK);
            enqueuedFanIns.fetch_add(1);
        }
        opener.join();
        EXPECT_EQ(blockedSeen.load(), 1) << "the enqueuer should have waited for links";
        ASSERT_EQ(Pel_waitForEvents(owner.get(), kFanIns, fanIns.data()), TL_OK);
        int32_t lastMiddle = 0;
        for (int32_t i = 0; i < kMiddle; ++i)
            lastMiddle = std::max(lastMiddle, run.last[static_cast<size_t>(i)].load());
        for (int32_t f = 0; f < kFanIns; ++f) {
            EXPECT_GT(run.first[static_cast<size_t>(kMiddle + f)].load(), lastMiddle) << "fan-in " << f;
            EXPECT_EQ(Pel_releaseEvent(owner.get(), fanIns[static_cast<size_t>(f)]), TL_OK);
        }
        for (uint32_t e : middle) EXPECT_EQ(Pel_releaseEvent(owner.get(), e), TL_OK);
        EXPECT_EQ(Pel_releaseEvent(owner.get(), gateEvent), TL_OK);
        EXPECT_EQ(owner->freeCommands, kPelCommandCount);
    }
}

namespace {

uint32_t countTask(void* arg, PelWorkInfo*) {
    static_cast<std::atomic<int32_t>*>(arg)->fetch_add(1);
    return TL_OK;
}

constexpr PelKernel kCountTask = PelKernel_task<countTask>();

}  // namespace

// 300 commands with 256 slots. Helping: both pool threads sit in gate
// tasks, so the participating owner must run queued tasks itself to free
// slots. Waiting: the owner cannot help, the tasks are held behind a gate,
// and the enqueuer sleeps until another thread opens it.
TEST(Pel, MoreCommandsThanSlotsMakeTheEnqueuerHelpOrWait) {
    {
        PelOwner owner(3, 1, 0);
        Gate gate;
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(Pel_enqueueTask(owner.get(), &kGateTask, &gate, 0, nullptr, nullptr), TL_OK);
        }
        waitUntil(gate.entered, 2);
        std::atomic<int32_t> ran{0};
        for (int i = 0; i < 300; ++i) {
            ASSERT_EQ(Pel_enqueueTask(owner.get(), &kCountTask, &ran, 0, nullptr, nullptr), TL_OK) << i;
        }
        EXPECT_GE(ran.load(), 300 - 254) << "the owner ran tasks to free slots";
        gate.open = 1;
        ASSERT_EQ(Pel_finish(owner.get()), TL_OK);
        EXPECT_EQ(ran.load(), 300);
    }
    {
        PelOwner owner(2, 0, 0);
        Gate gate;
        uint32_t gateEvent = 0;
        ASSERT_EQ(Pel_enqueueTask(owner.get(), &kGateTask, &gate, 0, nullptr, &gateEvent), TL_OK);
        std::atomic<int32_t> ran{0};
        std::atomic<int32_t> enqueued{0};
        std::atomic<int32_t> blockedSeen{0};
        std::thread opener([&] {
            waitUntil(enqueued, 255);
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            blockedSeen = enqueued.load() < 300 ? 1 : 0;
            gate.open = 1;
        });
        for (int i = 0; i < 300; ++i) {
            ASSERT_EQ(Pel_enqueueTask(owner.get(), &kCountTask, &ran, 1, &gateEvent, nullptr), TL_OK) << i;
            enqueued.fetch_add(1);
        }
        opener.join();
        EXPECT_EQ(blockedSeen.load(), 1);
        ASSERT_EQ(Pel_finish(owner.get()), TL_OK);
        EXPECT_EQ(ran.load(), 300);
        EXPECT_EQ(Pel_releaseEvent(owner.get(), gateEvent), TL_OK);
    }
}

namespace {

struct Nested {
    Pel* pel;
    int32_t inner;
    Visits* visits;  // outer index i, inner j: cell i * inner + j
    std::atomic<int32_t> failures{0};
};

struct InnerArg {
    Nested* nested;
    int32_t outer;
};

uint32_t innerIndex(void* arg, int32_t index, PelWorkInfo*) {
    InnerArg* a = static_cast<InnerArg*>(arg);
    a->nested->visits->hits[static_cast<size_t>(a->outer * a->nested->inner + index)].fetch_add(1);
    return TL_OK;
}

constexpr PelKernel kInner = PelKernel_perIndex<innerIndex>();

uint32_t outerIndex(void* arg, int32_t index, PelWorkInfo* info) {
    Nested* n = static_cast<Nested*>(arg);
    if (info->pel != n->pel) n->failures.fetch_add(1);
    InnerArg inner{n, index};
    if (Pel_execute(n->pel, &kInner, &inner, n->inner) != TL_OK) n->failures.fetch_add(1);
    return TL_OK;
}

constexpr PelKernel kOuter = PelKernel_perIndex<outerIndex>();

}  // namespace

TEST(Pel, AKernelMayCallPelExecuteItself) {
    const struct {
        int32_t workers, participates, dynamic;
    } cases[] = {{1, 1, 0}, {1, 1, 1}, {2, 0, 0}, {2, 0, 1}, {3, 1, 0}, {3, 1, 1}, {4, 0, 1}};
    for (const auto& c : cases) {
        PelOwner owner(c.workers, c.participates, c.dynamic);
        for (int rep = 0; rep < vq_tl_test_scaled(10, 3); ++rep) {
            constexpr int32_t kOuterCount = 9;
            constexpr int32_t kInnerCount = 13;
            Visits visits(kOuterCount * kInnerCount);
            Nested nested{owner.get(), kInnerCount, &visits};
            ASSERT_EQ(Pel_execute(owner.get(), &kOuter, &nested, kOuterCount), TL_OK);
            EXPECT_EQ(nested.failures.load(), 0);
            ASSERT_EQ(visits.wrong(), 0)
                << "workers " << c.workers << " participates " << c.participates << " dynamic " << c.dynamic;
        }
    }
}

TEST(Pel, StaleEventIdsAreDetected) {
    PelOwner owner(2, 1, 0);
    std::atomic<int32_t> ran{0};
    uint32_t event = 0;
    ASSERT_EQ(Pel_enqueueTask(owner.get(), &kCountTask, &ran, 0, nullptr, &event), TL_OK);
    ASSERT_NE(event, 0u);
    ASSERT_EQ(Pel_waitForEvents(owner.get(), 1, &event), TL_OK);
    uint32_t info = 5;
    EXPECT_EQ(Pel_getEventInfo(owner.get(), event, 0, &info), TL_OK);
    EXPECT_EQ(info, 0u);
    EXPECT_EQ(Pel_retainEvent(owner.get(), event), TL_OK);  // two references now
    EXPECT_EQ(Pel_releaseEvent(owner.get(), event), TL_OK);
    EXPECT_EQ(Pel_getEventInfo(owner.get(), event, 0, &info), TL_OK) << "one reference still holds it";
    EXPECT_EQ(Pel_releaseEvent(owner.get(), event), TL_OK);
    // The slot is free: the old id is stale for every call.
    EXPECT_EQ(Pel_getEventInfo(owner.get(), event, 0, &info), TL_ERROR_STATE);
    EXPECT_EQ(Pel_releaseEvent(owner.get(), event), TL_ERROR_STATE);
    EXPECT_EQ(Pel_retainEvent(owner.get(), event), TL_ERROR_STATE);
    EXPECT_EQ(Pel_waitForEvents(owner.get(), 1, &event), TL_OK);
    EXPECT_EQ(Pel_getEventInfo(owner.get(), 0, 0, &info), TL_ERROR_STATE) << "0 is never issued";
    // Wrap the slot around: 256 further commands; an id of the same slot now
    // belongs to a newer command, and the old one stays stale.
    uint32_t newer = 0;
    for (int i = 0; i < kPelCommandCount; ++i) {
        ASSERT_EQ(Pel_enqueueTask(owner.get(), &kCountTask, &ran, 0, nullptr, &newer), TL_OK);
        ASSERT_EQ(Pel_waitForEvents(owner.get(), 1, &newer), TL_OK);
        if ((newer & 0xFFu) == (event & 0xFFu)) break;
        ASSERT_EQ(Pel_releaseEvent(owner.get(), newer), TL_OK);
    }
    ASSERT_EQ(newer & 0xFFu, event & 0xFFu);
    EXPECT_NE(newer, event);
    EXPECT_EQ(Pel_getEventInfo(owner.get(), event, 0, &info), TL_ERROR_STATE);
    EXPECT_EQ(Pel_getEventInfo(owner.get(), newer, 0, &info), TL_OK);
    EXPECT_EQ(Pel_releaseEvent(owner.get(), newer), TL_OK);
    // A dependency on a stale id is satisfied at once.
    ASSERT_EQ(Pel_enqueueTask(owner.get(), &kCountTask, &ran, 1, &event, &newer), TL_OK);
    ASSERT_EQ(Pel_waitForEvents(owner.get(), 1, &newer), TL_OK);
    EXPECT_EQ(Pel_releaseEvent(owner.get(), newer), TL_OK);
}

TEST(Pel, RunningCommandReportsNotFinishedAndTimesOutForAnIdleWaiter) {
    PelOwner owner;
    owner->params.numberOfWorkers = 2;
    owner->params.callerParticipates = 0;
    owner->params.timeoutMillis = 40;
    ASSERT_EQ(Pel_init(owner.get()), TL_OK);
    Gate gate;
    uint32_t event = 0;
    ASSERT_EQ(Pel_enqueueTask(owner.get(), &kGateTask, &gate, 0, nullptr, &event), TL_OK);
    waitUntil(gate.entered, 1);
    uint32_t info = 0;
    EXPECT_EQ(Pel_getEventInfo(owner.get(), event, 0, &info), TL_OK);
    EXPECT_EQ(info, TL_MARK_NOT_FINISHED);
    // The owner does not participate: it can only sleep, 40 ms at most.
    EXPECT_EQ(Pel_waitForEvents(owner.get(), 1, &event), TL_ERROR_TIMEOUT);
    gate.open = 1;
    TLResult r = TL_ERROR_TIMEOUT;
    for (int tries = 0; tries < 1000 && r == TL_ERROR_TIMEOUT; ++tries)
        r = Pel_waitForEvents(owner.get(), 1, &event);
    EXPECT_EQ(r, TL_OK);
    EXPECT_EQ(Pel_releaseEvent(owner.get(), event), TL_OK);
}

namespace {

uint32_t failingIndex(void* arg, int32_t index, PelWorkInfo*) {
    static_cast<std::atomic<int32_t>*>(arg)->fetch_add(1);
    return index % 5 == 3 ? (1u << (index % 4)) : 0u;  // bit 3 from index 3, bit 0 from index 8, ...
}

constexpr PelKernel kFailingIndex = PelKernel_perIndex<failingIndex>();

}  // namespace

TEST(Pel, ErrorsAreOredIntoEventsAndSkipDependents) {
    for (int32_t dynamic = 0; dynamic < 2; ++dynamic) {
        PelOwner owner(3, 1, dynamic);
        std::atomic<int32_t> calls{0};
        uint32_t failed = 0;
        ASSERT_EQ(Pel_enqueueKernel(owner.get(), &kFailingIndex, &calls, 20, 0, nullptr, &failed), TL_OK);
        // Indices 3, 8, 13, 18 return bits 3, 0, 1, 2.
        std::atomic<int32_t> dependentRan{0};
        uint32_t dependent = 0;
        ASSERT_EQ(Pel_enqueueTask(owner.get(), &kCountTask, &dependentRan, 1, &failed, &dependent), TL_OK);
        ASSERT_EQ(Pel_waitForEvents(owner.get(), 1, &dependent), TL_OK);
        uint32_t info = 0;
        ASSERT_EQ(Pel_getEventInfo(owner.get(), failed, 0, &info), TL_OK);
        EXPECT_EQ(info & 0xFu, 0xFu);
        EXPECT_EQ(calls.load(), 20) << "a failing index does not stop the others";
        ASSERT_EQ(Pel_getEventInfo(owner.get(), dependent, 0, &info), TL_OK);
        EXPECT_EQ(info, 0xFu | TL_MARK_CANCELLED);
        EXPECT_EQ(dependentRan.load(), 0);
        // A dependent enqueued after the failure completed is skipped as well.
        uint32_t late = 0;
        ASSERT_EQ(Pel_enqueueTask(owner.get(), &kCountTask, &dependentRan, 1, &failed, &late), TL_OK);
        ASSERT_EQ(Pel_waitForEvents(owner.get(), 1, &late), TL_OK);
        ASSERT_EQ(Pel_getEventInfo(owner.get(), late, 0, &info), TL_OK);
        EXPECT_EQ(info & TL_MARK_CANCELLED, TL_MARK_CANCELLED);
        EXPECT_EQ(dependentRan.load(), 0);
        for (uint32_t e : {failed, dependent, late}) EXPECT_EQ(Pel_releaseEvent(owner.get(), e), TL_OK);
        // Pel_execute drops the kernel's result with its event.
        EXPECT_EQ(Pel_execute(owner.get(), &kFailingIndex, &calls, 20), TL_OK);
    }
}

TEST(Pel, EmptyKernelStillOrdersItsDependents) {
    PelOwner owner(2, 1, 0);
    Gate gate;
    uint32_t gateEvent = 0;
    uint32_t empty = 0;
    ASSERT_EQ(Pel_enqueueTask(owner.get(), &kGateTask, &gate, 0, nullptr, &gateEvent), TL_OK);
    ASSERT_EQ(Pel_enqueueKernel(owner.get(), &kFailingIndex, nullptr, 0, 1, &gateEvent, &empty), TL_OK);
    uint32_t info = 0;
    ASSERT_EQ(Pel_getEventInfo(owner.get(), empty, 0, &info), TL_OK);
    EXPECT_EQ(info, TL_MARK_NOT_FINISHED);
    gate.open = 1;
    ASSERT_EQ(Pel_waitForEvents(owner.get(), 1, &empty), TL_OK);
    ASSERT_EQ(Pel_getEventInfo(owner.get(), empty, 0, &info), TL_OK);
    EXPECT_EQ(info, 0u);
    EXPECT_EQ(Pel_releaseEvent(owner.get(), empty), TL_OK);
    EXPECT_EQ(Pel_releaseEvent(owner.get(), gateEvent), TL_OK);
}

namespace {

struct WorkerLog {
    std::atomic<int32_t> starts{0};
    std::atomic<int32_t> ends{0};
    std::atomic<int32_t> onMainThread{0};
    std::thread::id main = std::this_thread::get_id();
};

void onStart(void* arg) {
    WorkerLog* log = static_cast<WorkerLog*>(arg);
    log->starts.fetch_add(1);
    if (std::this_thread::get_id() == log->main) log->onMainThread.fetch_add(1);
}

void onEnd(void* arg) { static_cast<WorkerLog*>(arg)->ends.fetch_add(1); }

uint32_t recordWorker(void* arg, int32_t index, PelWorkInfo* info) {
    auto* seen = static_cast<std::vector<std::atomic<int32_t>>*>(arg);
    (*seen)[static_cast<size_t>(index)] = info->workerIndex;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return TL_OK;
}

constexpr PelKernel kRecordWorker = PelKernel_perIndex<recordWorker>();

}  // namespace

TEST(Pel, WorkerCallbacksRecycleAndReinit) {
    WorkerLog log;
    PelOwner owner;
    owner->params.numberOfWorkers = 4;
    owner->params.workerStartArg = &log;
    owner->params.workerStart = onStart;
    owner->params.workerEnd = onEnd;
    ASSERT_EQ(Pel_init(owner.get()), TL_OK);
    // Each worker calls its start callback once it is counted as started,
    // so init may return a moment before the last one has run.
    waitUntil(log.starts, 3);
    // A second init recycles the first: the three joined workers ran both
    // callbacks, and four new ones start.
    owner->params.callerParticipates = 0;
    ASSERT_EQ(Pel_init(owner.get()), TL_OK);
    EXPECT_EQ(log.ends.load(), 3);
    waitUntil(log.starts, 7);
    EXPECT_EQ(log.onMainThread.load(), 0);
    std::vector<std::atomic<int32_t>> seen(16);
    for (auto& s : seen) s = -1;
    ASSERT_EQ(Pel_execute(owner.get(), &kRecordWorker, &seen, 16), TL_OK);
    for (auto& s : seen) {
        EXPECT_GE(s.load(), 0);
        EXPECT_LT(s.load(), 4);
    }
    ASSERT_EQ(Pel_recycle(owner.get()), TL_OK);
    EXPECT_EQ(log.ends.load(), 7);
    EXPECT_EQ(Pel_getNumberOfWorkers(owner.get()), 1);
    EXPECT_EQ(owner->params.numberOfWorkers, 4);
}

// The pool thread sits in a gate task, so only worker 0 can run the kernel:
// the owner, and any other thread outside the table, which counts as the owner.
TEST(Pel, ParticipatingOwnerIsWorkerZero) {
    PelOwner owner(2, 1, 1);
    Gate gate;
    ASSERT_EQ(Pel_enqueueTask(owner.get(), &kGateTask, &gate, 0, nullptr, nullptr), TL_OK);
    waitUntil(gate.entered, 1);
    std::vector<std::atomic<int32_t>> seen(6);
    for (auto& s : seen) s = -1;
    ASSERT_EQ(Pel_execute(owner.get(), &kRecordWorker, &seen, 6), TL_OK);
    for (auto& s : seen) EXPECT_EQ(s.load(), 0);
    for (auto& s : seen) s = -1;
    std::thread other([&] { EXPECT_EQ(Pel_execute(owner.get(), &kRecordWorker, &seen, 6), TL_OK); });
    other.join();
    for (auto& s : seen) EXPECT_EQ(s.load(), 0);
    gate.open = 1;
    EXPECT_EQ(Pel_finish(owner.get()), TL_OK);
}

TEST(Pel, FinishWaitsForEverything) {
    for (int32_t participates = 0; participates < 2; ++participates) {
        PelOwner owner(3, participates, 0);
        std::atomic<int32_t> ran{0};
        Visits visits(500);
        for (int i = 0; i < 100; ++i) {
            ASSERT_EQ(Pel_enqueueTask(owner.get(), &kCountTask, &ran, 0, nullptr, nullptr), TL_OK);
        }
        ASSERT_EQ(Pel_enqueueKernel(owner.get(), &kVisitIndex, &visits, 500, 0, nullptr, nullptr), TL_OK);
        ASSERT_EQ(Pel_finish(owner.get()), TL_OK);
        EXPECT_EQ(ran.load(), 100);
        EXPECT_EQ(visits.wrong(), 0);
        EXPECT_EQ(owner->freeCommands, kPelCommandCount);
    }
}

#if defined(__linux__)
namespace {

uint32_t currentMask() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) != 0) return 0;
    uint32_t mask = 0;
    for (int i = 0; i < 32; ++i) {
        if (CPU_ISSET(i, &set)) mask |= 1u << i;
    }
    return mask;
}

uint32_t recordMask(void* arg, int32_t index, PelWorkInfo*) {
    static_cast<std::vector<std::atomic<uint32_t>>*>(arg)->at(static_cast<size_t>(index)) = currentMask();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return TL_OK;
}

constexpr PelKernel kRecordMask = PelKernel_perIndex<recordMask>();

}  // namespace

TEST(Pel, PinnedWorkersRunOnTheirProcessorAndTheCallerIsRestored) {
    const uint32_t allowed = currentMask();
    uint32_t two = 0;
    for (int i = 0; i < 32 && __builtin_popcount(two) < 2; ++i) {
        if ((allowed >> i) & 1u) two |= 1u << i;
    }
    if (__builtin_popcount(two) < 2) GTEST_SKIP() << "fewer than two usable processors";
    // On a thread of its own, so that the test program keeps its processors.
    std::thread owner([&] {
        PelOwner pel;
        pel->params.numberOfWorkers = 2;
        pel->params.pinWorkers = 1;
        pel->params.affinityMask = two;
        pel->params.restoreMask = two;
        ASSERT_EQ(Pel_init(pel.get()), TL_OK);
        std::vector<std::atomic<uint32_t>> masks(24);
        ASSERT_EQ(Pel_execute(pel.get(), &kRecordMask, &masks, 24), TL_OK);
        for (auto& m : masks) {
            EXPECT_EQ(__builtin_popcount(m.load()), 1) << std::hex << m.load();
            EXPECT_NE(m.load() & two, 0u);
        }
        EXPECT_EQ(currentMask(), two) << "the helping caller gets restoreMask back";
    });
    owner.join();
}
#endif
