// Fork, join and execute on both engines of ParallelExecutor, and on none.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "runtime/syscall.h"
#include "stress_count.h"

using namespace vq_tl;

namespace {

enum Engine { ENGINE_NONE, ENGINE_PEL, ENGINE_PEL_DYNAMIC, ENGINE_POOL, ENGINE_POOL_CALLER_WORKS };

const char* engineName(Engine e) {
    switch (e) {
        case ENGINE_NONE: return "none";
        case ENGINE_PEL: return "pel";
        case ENGINE_PEL_DYNAMIC: return "pel-dynamic";
        case ENGINE_POOL: return "pool";
        case ENGINE_POOL_CALLER_WORKS: return "pool-caller-works";
    }
    return "?";
}

// An executor of one engine, with its Pel where it has one.
struct ExecutorOwner {
    std::unique_ptr<Pel> pel;
    std::unique_ptr<ParallelExecutor> executor;
    ParallelExecutor* get() { return executor.get(); }

    explicit ExecutorOwner(Engine engine, int32_t queueCapacity = 64) {
        if (engine == ENGINE_NONE) return;
        executor = std::make_unique<ParallelExecutor>();
        EXPECT_EQ(construct_ParallelExecutor(executor.get(), nullptr), TL_OK);
        executor->setAffinity = 0;
        if (engine == ENGINE_PEL || engine == ENGINE_PEL_DYNAMIC) {
            pel = std::make_unique<Pel>();
            EXPECT_EQ(construct_Pel(pel.get(), nullptr), TL_OK);
            pel->params.numberOfWorkers = 4;
            pel->params.callerParticipates = 0;  // as the session sets it
            pel->params.dynamicBalance = engine == ENGINE_PEL_DYNAMIC ? 1 : 0;
            EXPECT_EQ(Pel_init(pel.get()), TL_OK);
            executor->pel = pel.get();
        } else {
            executor->numberOfThreads = engine == ENGINE_POOL ? 3 : 1;
            executor->callerWorks = engine == ENGINE_POOL_CALLER_WORKS ? 1 : 0;
        }
        EXPECT_EQ(ParallelExecutor_init(executor.get(), 16, queueCapacity), TL_OK);
    }
    ~ExecutorOwner() {
        if (executor) {
            EXPECT_EQ(destruct_ParallelExecutor(executor.get()), TL_OK);
        }
        if (pel) {
            EXPECT_EQ(destruct_Pel(pel.get()), TL_OK);
        }
    }
};

constexpr Engine kEngines[] = {ENGINE_NONE, ENGINE_PEL, ENGINE_PEL_DYNAMIC, ENGINE_POOL,
                               ENGINE_POOL_CALLER_WORKS};

// A task's arguments, copied at fork time.
struct MixArgs {
    uint32_t seed;
    int32_t index;
    uint32_t* out;
};

uint32_t mix(uint32_t x) {
    x ^= x >> 16;
    x *= 0x7FEB352Du;
    x ^= x >> 15;
    x *= 0x846CA68Bu;
    return x ^ (x >> 16);
}

uint32_t mixTask(void* arguments) {
    const MixArgs* a = static_cast<const MixArgs*>(arguments);
    a->out[a->index] = mix(a->seed + static_cast<uint32_t>(a->index));
    return 1u << (a->index % 12);  // non-error bits, or'ed by join
}

uint32_t mixShare(void* arg, int32_t index, int32_t count) {
    uint32_t* out = static_cast<uint32_t*>(arg);
    out[index] = mix(static_cast<uint32_t>(index * 131 + count));
    return index == count - 1 ? 0x4000u : 0u;
}

std::atomic<int32_t> gCounter{0};

uint32_t countTask(void* arguments) {
    (void)arguments;
    gCounter.fetch_add(1);
    return TL_OK;
}

}  // namespace

TEST(ParallelExecutor, BufferSize) {
    const struct {
        int32_t maxThreads, queueCapacity, argumentSize, maxTasks, size;
    } cases[] = {
        {1, 1, 0, 0, 104},   {4, 64, 16, 10, 1424}, {0, 64, 16, 10, -1},    {4, 0, 16, 10, -1},
        {4, 64, -1, 10, -1}, {4, 64, 16, -1, -1},   {1, 1, 1 << 30, 4, -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ParallelExecutor_getBufferSize(c.maxThreads, c.queueCapacity, c.argumentSize, c.maxTasks),
                  c.size)
            << c.maxThreads << " " << c.queueCapacity << " " << c.argumentSize << " " << c.maxTasks;
    }
}

TEST(ParallelExecutor, ConstructionAndInitArguments) {
    ParallelExecutor e;
    EXPECT_EQ(construct_ParallelExecutor(nullptr, nullptr), TL_ERROR_PARAM);
    ASSERT_EQ(construct_ParallelExecutor(&e, nullptr), TL_OK);
    EXPECT_EQ(e.numberOfThreads, -1);
    EXPECT_EQ(e.callerWorks, 0);
    EXPECT_EQ(e.setAffinity, 1);
    EXPECT_EQ(ParallelExecutor_init(nullptr, 1, 1), TL_ERROR_PARAM);
    EXPECT_EQ(ParallelExecutor_init(&e, 0, 1), TL_ERROR_PARAM);
    EXPECT_EQ(ParallelExecutor_init(&e, 1, 0), TL_ERROR_PARAM);
    e.numberOfThreads = 0;
    EXPECT_EQ(ParallelExecutor_init(&e, 4, 4), TL_ERROR_PARAM) << "nobody would work";
    // Not initialised: fork is refused, join and the views have nothing.
    EXPECT_EQ(ParallelExecutor_fork(&e, countTask, nullptr, 0), TL_ERROR_STATE);
    EXPECT_EQ(ParallelExecutor_join(&e), TL_OK);
    EXPECT_EQ(ParallelExecutor_getNumberOfTasks(&e), -1);
    EXPECT_EQ(destruct_ParallelExecutor(&e), TL_OK);
    EXPECT_EQ(destruct_ParallelExecutor(nullptr), TL_ERROR_PARAM);
}

TEST(ParallelExecutor, NullExecutorRunsOnTheCallingThread) {
    gCounter = 0;
    EXPECT_EQ(ParallelExecutor_fork(nullptr, countTask, nullptr, 0), TL_OK);
    EXPECT_EQ(gCounter.load(), 1);
    uint32_t out[3] = {};
    MixArgs a{5, 2, out};
    EXPECT_EQ(ParallelExecutor_fork(nullptr, mixTask, &a, sizeof(a)), 4u);
    EXPECT_EQ(out[2], mix(7));
    EXPECT_EQ(ParallelExecutor_fork(nullptr, nullptr, &a, sizeof(a)), TL_ERROR_PARAM);
    EXPECT_EQ(ParallelExecutor_fork(nullptr, mixTask, nullptr, 4), TL_ERROR_PARAM);
    EXPECT_EQ(ParallelExecutor_join(nullptr), TL_OK);
    uint32_t result = 9;
    EXPECT_EQ(ParallelExecutor_execute(nullptr, mixShare, out, 3, &result), TL_OK);
    EXPECT_EQ(result, 0x4000u);
    EXPECT_EQ(out[0], mix(3));
    EXPECT_EQ(ParallelExecutor_execute(nullptr, mixShare, out, 0, nullptr), TL_OK);
    EXPECT_EQ(out[0], mix(1)) << "one share on the calling thread";
}

// The same tasks give the same outputs and the same or'ed results on every
// engine; forked arguments are copies.
TEST(ParallelExecutor, EnginesAgreeOnForkJoinAndExecute) {
    std::mt19937 random(42);
    for (int round = 0; round < stressCount(16); ++round) {
        const uint32_t seed = random();
        const int32_t tasks = 1 + static_cast<int32_t>(random() % 48);
        const int32_t shares = 1 + static_cast<int32_t>(random() % 40);
        std::vector<uint32_t> reference;
        uint32_t referenceResult = 0;
        std::vector<uint32_t> referenceShares;
        uint32_t referenceShareResult = 0;
        for (Engine engine : kEngines) {
            ExecutorOwner owner(engine);
            std::vector<uint32_t> out(static_cast<size_t>(tasks), 0);
            MixArgs args{seed, 0, out.data()};
            for (int32_t i = 0; i < tasks; ++i) {
                args.index = i;
                const TLResult r = ParallelExecutor_fork(owner.get(), mixTask, &args, sizeof(args));
                ASSERT_TRUE(r == TL_OK || engine == ENGINE_NONE) << engineName(engine);
            }
            args.seed = 0;  // too late to matter: the tasks have their copies
            uint32_t result = 0;
            ASSERT_EQ(ParallelExecutor_join2(owner.get(), &result), TL_OK) << engineName(engine);
            std::vector<uint32_t> shareOut(static_cast<size_t>(shares), 0);
            uint32_t shareResult = 0;
            ASSERT_EQ(ParallelExecutor_execute(owner.get(), mixShare, shareOut.data(), shares, &shareResult),
                      TL_OK);
            if (engine == ENGINE_NONE) {
                reference = out;
                for (int32_t i = 0; i < tasks; ++i) referenceResult |= 1u << (i % 12);
                referenceShares = shareOut;
                referenceShareResult = shareResult;
                continue;
            }
            EXPECT_EQ(out, reference) << engineName(engine);
            EXPECT_EQ(result, referenceResult) << engineName(engine);
            EXPECT_EQ(shareOut, referenceShares) << engineName(engine);
            EXPECT_EQ(shareResult, referenceShareResult) << engineName(engine);
        }
    }
}

namespace {

struct ShareLog {
    std::vector<std::atomic<int32_t>> hits;
    std::atomic<int32_t> wrongCount{0};
    int32_t expectedCount;
    ShareLog(int32_t n, int32_t expected) : hits(static_cast<size_t>(n)), expectedCount(expected) {}
};

uint32_t logShare(void* arg, int32_t index, int32_t count) {
    ShareLog* log = static_cast<ShareLog*>(arg);
    if (count != log->expectedCount || index < 0 || index >= static_cast<int32_t>(log->hits.size())) {
        log->wrongCount.fetch_add(1);
        return TL_ERROR_GENERAL;
    }
    log->hits[static_cast<size_t>(index)].fetch_add(1);
    return TL_OK;
}

}  // namespace

TEST(ParallelExecutor, ExecuteWithoutCountTakesOneSharePerWorker) {
    const struct {
        Engine engine;
        int32_t workers;
    } cases[] = {{ENGINE_PEL, 4}, {ENGINE_POOL, 3}, {ENGINE_POOL_CALLER_WORKS, 2}};
    for (const auto& c : cases) {
        ExecutorOwner owner(c.engine);
        ShareLog log(c.workers, c.workers);
        uint32_t result = 1;
        ASSERT_EQ(ParallelExecutor_execute(owner.get(), logShare, &log, 0, &result), TL_OK);
        EXPECT_EQ(result, 0u);
        EXPECT_EQ(log.wrongCount.load(), 0) << engineName(c.engine);
        for (auto& h : log.hits) EXPECT_EQ(h.load(), 1) << engineName(c.engine);
    }
}

TEST(ParallelExecutor, PelEngineHasTwiceTheQueueCapacityOfPlaces) {
    ExecutorOwner owner(ENGINE_PEL, 64);
    gCounter = 0;
    for (int i = 0; i < 128; ++i)
        ASSERT_EQ(ParallelExecutor_fork(owner.get(), countTask, nullptr, 0), TL_OK) << i;
    EXPECT_EQ(ParallelExecutor_fork(owner.get(), countTask, nullptr, 0), TL_ERROR_STATE);
    EXPECT_EQ(ParallelExecutor_join(owner.get()), TL_OK);
    EXPECT_EQ(gCounter.load(), 128);
    EXPECT_EQ(owner.get()->pelTasks->forkCount, 0);
    EXPECT_EQ(ParallelExecutor_join(owner.get()), TL_OK) << "nothing forked";
    EXPECT_EQ(ParallelExecutor_fork(owner.get(), countTask, nullptr, 0), TL_OK) << "places are free again";
    EXPECT_EQ(ParallelExecutor_join(owner.get()), TL_OK);
    EXPECT_EQ(owner.pel->freeCommands, kPelCommandCount) << "every event was released";
}

TEST(ParallelExecutor, PelEngineForksFromSeveralThreads) {
    ExecutorOwner owner(ENGINE_PEL, 64);
    constexpr int32_t kThreads = 4;
    constexpr int32_t kEach = 30;
    std::vector<uint32_t> out(kThreads * kEach, 0);
    std::vector<std::thread> threads;
    std::atomic<int32_t> failures{0};
    for (int32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int32_t i = 0; i < kEach; ++i) {
                MixArgs a{9, t * kEach + i, out.data()};
                if (ParallelExecutor_fork(owner.get(), mixTask, &a, sizeof(a)) != TL_OK)
                    failures.fetch_add(1);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(ParallelExecutor_join2(owner.get(), nullptr), TL_OK);
    for (int32_t i = 0; i < kThreads * kEach; ++i)
        EXPECT_EQ(out[static_cast<size_t>(i)], mix(9u + static_cast<uint32_t>(i)));
}

TEST(ParallelExecutor, ForkAfterShutdownIsCancelled) {
    for (Engine engine : {ENGINE_PEL, ENGINE_POOL, ENGINE_POOL_CALLER_WORKS}) {
        ExecutorOwner owner(engine);
        EXPECT_EQ(ParallelExecutor_shutdown(owner.get()), TL_OK);
        EXPECT_EQ(ParallelExecutor_fork(owner.get(), countTask, nullptr, 0), TL_MARK_CANCELLED)
            << engineName(engine);
        EXPECT_EQ(ParallelExecutor_join(owner.get()), TL_OK);
    }
}

namespace {

std::atomic<int32_t> gGateOpen{0};
std::atomic<int32_t> gGateEntered{0};

uint32_t gateTask(void* arguments) {
    (void)arguments;
    gGateEntered.fetch_add(1);
    while (gGateOpen.load() == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
    return TL_OK;
}

}  // namespace

// The single pool thread is held in a gate; three tasks wait behind it and
// are cancelled by shutdown without running.
TEST(ParallelExecutor, ShutdownCancelsWaitingTasks) {
    ParallelExecutor e;
    construct_ParallelExecutor(&e, nullptr);
    e.numberOfThreads = 1;
    e.setAffinity = 0;
    ASSERT_EQ(ParallelExecutor_init(&e, 4, 8), TL_OK);
    gGateOpen = 0;
    gGateEntered = 0;
    gCounter = 0;
    ASSERT_EQ(ParallelExecutor_fork(&e, gateTask, nullptr, 0), TL_OK);
    while (gGateEntered.load() == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
    for (int i = 0; i < 3; ++i) ASSERT_EQ(ParallelExecutor_fork(&e, countTask, nullptr, 0), TL_OK);
    EXPECT_EQ(ParallelExecutor_getNumberOfTasks(&e), 4);
    EXPECT_EQ(ParallelExecutor_getNumberOfWaitingTasks(&e), 3);
    EXPECT_EQ(ParallelExecutor_shutdown(&e), TL_OK);
    EXPECT_EQ(ParallelExecutor_getNumberOfWaitingTasks(&e), 0);
    EXPECT_EQ(ParallelExecutor_getNumberOfFinishedTasks(&e), 3);
    gGateOpen = 1;
    EXPECT_EQ(ParallelExecutor_join(&e), TL_MARK_CANCELLED);
    EXPECT_EQ(gCounter.load(), 0);
    EXPECT_EQ(ParallelExecutor_getNumberOfTasks(&e), 0);
    EXPECT_EQ(destruct_ParallelExecutor(&e), TL_OK);
}

TEST(ParallelExecutor, TaskObjectsBelongToThePoolEngine) {
    {
        ExecutorOwner owner(ENGINE_PEL);
        ParallelExecutor* e = owner.get();
        ParallelExecutorTask fake{};
        EXPECT_EQ(ParallelExecutor_newTask(e, countTask, nullptr, 0), nullptr);
        EXPECT_EQ(ParallelExecutor_newTask_v1(e, countTask, 8), nullptr);
        EXPECT_EQ(ParallelExecutor_fork_v1(e, &fake), TL_ERROR_UNSUPPORTED);
        EXPECT_EQ(ParallelExecutor_deleteTask(e, &fake), TL_ERROR_UNSUPPORTED);
        EXPECT_EQ(ParallelExecutor_put(e, &fake), 0);
        EXPECT_EQ(ParallelExecutor_offer(e, &fake), 0);
        EXPECT_EQ(ParallelExecutor_offerMillis(e, &fake, 1), 0);
        EXPECT_EQ(ParallelExecutor_take(e), nullptr);
        EXPECT_EQ(ParallelExecutor_poll(e), nullptr);
        EXPECT_EQ(ParallelExecutor_pollMillis(e, 1), nullptr);
        EXPECT_EQ(ParallelExecutor_getNumberOfTasks(e), -1);
        EXPECT_EQ(ParallelExecutor_getNumberOfWaitingTasks(e), -1);
        EXPECT_EQ(ParallelExecutor_getNumberOfFinishedTasks(e), -1);
    }
    {
        ExecutorOwner owner(ENGINE_POOL);
        ParallelExecutor* e = owner.get();
        uint32_t out[4] = {};
        MixArgs a{3, 1, out};
        // Through the queue view: the pool runs it, the owner takes it back.
        ParallelExecutorTask* task = ParallelExecutor_newTask(e, mixTask, &a, sizeof(a));
        ASSERT_NE(task, nullptr);
        a.index = 3;
        EXPECT_EQ(ParallelExecutor_put(e, task), 1);
        EXPECT_EQ(ParallelExecutor_take(e), task);
        EXPECT_EQ(task->result, 2u);
        EXPECT_EQ(out[1], mix(4));
        EXPECT_EQ(out[3], 0u);
        EXPECT_EQ(ParallelExecutor_deleteTask(e, task), TL_OK);
        // A task with room for arguments, filled in place, forked and joined.
        task = ParallelExecutor_newTask_v1(e, mixTask, sizeof(MixArgs));
        ASSERT_NE(task, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(task->arguments) % alignof(std::max_align_t), 0u);
        std::memcpy(task->arguments, &a, sizeof(a));
        EXPECT_EQ(ParallelExecutor_fork_v1(e, task), TL_OK);
        EXPECT_EQ(ParallelExecutor_join(e), 8u);
        EXPECT_EQ(out[3], mix(6));
        EXPECT_EQ(ParallelExecutor_pollMillis(e, 1), nullptr);
    }
}

TEST(ParallelExecutor, PoolThreadTarget) {
    const int32_t cpus = Syscall_getNumberOfProcessors();
    const struct {
        int32_t numberOfThreads, callerWorks, maxThreads, queueCapacity, expected;
    } cases[] = {
        {-1, 0, 16, 64, std::min(cpus, 16)},
        {-1, 1, 16, 64, std::min(cpus - 1, 16)},
        {5, 0, 3, 64, 3},  // table size
        {5, 1, 16, 4, 3},  // queue capacity minus the working caller
        {0, 1, 4, 4, 0},   // the caller alone
    };
    for (const auto& c : cases) {
        ParallelExecutor e;
        construct_ParallelExecutor(&e, nullptr);
        e.numberOfThreads = c.numberOfThreads;
        e.callerWorks = c.callerWorks;
        e.setAffinity = 0;
        ASSERT_EQ(ParallelExecutor_init(&e, c.maxThreads, c.queueCapacity), TL_OK);
        EXPECT_EQ(e.runningThreads, c.expected) << c.numberOfThreads << " " << c.callerWorks;
        gCounter = 0;
        for (int i = 0; i < 3; ++i) ASSERT_EQ(ParallelExecutor_fork(&e, countTask, nullptr, 0), TL_OK);
        EXPECT_EQ(ParallelExecutor_join(&e), TL_OK);
        EXPECT_EQ(gCounter.load(), 3);
        EXPECT_EQ(destruct_ParallelExecutor(&e), TL_OK);
    }
}

TEST(ParallelExecutor, InitAgainKeepsSettingsAndPoolsWithAffinityWork) {
    ParallelExecutor e;
    construct_ParallelExecutor(&e, nullptr);
    e.numberOfThreads = 2;
    e.callerWorks = 1;
    e.affinityMask = 0x3;  // setAffinity stays on: threads take processors 0 and 1 if they exist
    e.restoreMask = 0;
    // The working caller changes its own mask: run as a thread of its own.
    std::thread owner([&] {
        ASSERT_EQ(ParallelExecutor_init(&e, 4, 16), TL_OK);
        ASSERT_EQ(ParallelExecutor_init(&e, 4, 16), TL_OK);
        EXPECT_EQ(e.numberOfThreads, 2);
        EXPECT_EQ(e.callerWorks, 1);
        EXPECT_EQ(e.cpuCount, 2);
        // As many shares as the queue holds: each is offered once, none refused.
        ShareLog log(16, 16);
        ASSERT_EQ(ParallelExecutor_execute(&e, logShare, &log, 16, nullptr), TL_OK);
        for (auto& h : log.hits) EXPECT_EQ(h.load(), 1);
        EXPECT_EQ(ParallelExecutor_recycle(&e), TL_OK);
        EXPECT_EQ(e.threads, nullptr);
        EXPECT_EQ(e.numberOfThreads, 2);
    });
    owner.join();
    EXPECT_EQ(destruct_ParallelExecutor(&e), TL_OK);
}

// A small pool with a working caller: forks beyond the waiting queue are
// refused, the finished queue fills up while the caller helps, and join
// still accounts for every accepted task exactly once.
TEST(ParallelExecutor, FullQueuesLoseNoTask) {
    ParallelExecutor e;
    construct_ParallelExecutor(&e, nullptr);
    e.numberOfThreads = 1;
    e.callerWorks = 1;
    e.setAffinity = 0;
    ASSERT_EQ(ParallelExecutor_init(&e, 2, 3), TL_OK);
    for (int round = 0; round < stressCount(50); ++round) {
        gCounter = 0;
        int32_t accepted = 0;
        int32_t refused = 0;
        for (int i = 0; i < 20; ++i) {
            const TLResult r = ParallelExecutor_fork(&e, countTask, nullptr, 0);
            if (r == TL_OK) {
                ++accepted;
            } else {
                ASSERT_EQ(r, TL_ERROR_STATE);
                ++refused;
            }
        }
        EXPECT_GT(refused, 0) << "20 forks cannot all fit";
        ASSERT_EQ(ParallelExecutor_join(&e), TL_OK);
        EXPECT_EQ(gCounter.load(), accepted);
        EXPECT_EQ(ParallelExecutor_getNumberOfTasks(&e), 0);
    }
    EXPECT_EQ(destruct_ParallelExecutor(&e), TL_OK);
}
