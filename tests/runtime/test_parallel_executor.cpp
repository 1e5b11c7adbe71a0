// Fork, join and execute on both engines of ParallelExecutor, and on none.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "support/test_env.h"

using namespace vq_tl;

namespace {

enum Engine { NONE, PEL, PEL_DYNAMIC, POOL, POOL_CALLER_WORKS };
const char* const kEngineNames[] = {"none", "pel", "pel-dynamic", "pool", "pool-caller-works"};

// An executor of one engine, with its Pel where it has one; pools of `threads`
// (3 by default) without affinity unless asked.
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

uint32_t countTask(void*) {
    gCounter.fetch_add(1);
    return TL_OK;
}

// Shares of execute add 1000 + their index to a sum of their count.
uint32_t countShare(void* arg, int32_t index, int32_t count) {
    static_cast<std::atomic<int32_t>*>(arg)[count].fetch_add(1000 + index);
    return TL_OK;
}

}  // namespace

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

// The same tasks give the same outputs and the same or'ed results on every
// engine; forked arguments are copies. Without a count, execute runs one
// share per worker.
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

// Twice the queue capacity of places between joins; forks from several
// threads at once, every event released afterwards.
TEST(ParallelExecutor, PelEnginePlacesAndForksFromSeveralThreads) {
    Executor x(PEL);
    ASSERT_EQ(ParallelExecutor_init(&x.e, 16, 64), TL_OK);
    gCounter = 0;
    for (int i = 0; i < 128; ++i) ASSERT_EQ(ParallelExecutor_fork(&x.e, countTask, nullptr, 0), TL_OK) << i;
    EXPECT_EQ(ParallelExecutor_fork(&x.e, countTask, nullptr, 0), TL_ERROR_STATE);
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

// A small pool with a working caller: forks beyond the waiting queue are
// refused, the finished queue fills up while the caller helps, and join
// still accounts for every accepted task exactly once.
TEST(ParallelExecutor, FullQueuesLoseNoTask) {
    Executor x(POOL, 1, 1);
    ASSERT_EQ(ParallelExecutor_init(&x.e, 2, 3), TL_OK);
    for (int round = 0; round < vq_tl_test_scaled(50, 3); ++round) {
        gCounter = 0;
        int32_t accepted = 0;
        for (int i = 0; i < 20; ++i) {
            const TLResult r = ParallelExecutor_fork(&x.e, countTask, nullptr, 0);
            ASSERT_TRUE(r == TL_OK || r == TL_ERROR_STATE) << r;
            accepted += r == TL_OK ? 1 : 0;
        }
        EXPECT_LT(accepted, 20) << "20 forks cannot all fit";
        ASSERT_EQ(ParallelExecutor_join(&x.e), TL_OK);
        EXPECT_EQ(gCounter.load(), accepted);
        EXPECT_EQ(ParallelExecutor_getNumberOfTasks(&x.e), 0);
    }
}
