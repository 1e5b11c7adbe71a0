// The fixed cost of one Pel_execute: an empty kernel of 4 stripes, the
// usual part count of the image kernels, beside two plain fork/join
// baselines on the same number of threads.
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "runtime/pel.h"

using namespace vq_tl;

namespace {

constexpr int32_t kStripes = 4;

uint32_t emptyStripe(void* arg, int32_t index, PelWorkInfo* info) {
    (void)info;
    benchmark::DoNotOptimize(arg);
    benchmark::DoNotOptimize(index);
    return TL_OK;
}

constexpr PelKernel kEmptyStripe = PelKernel_perIndex<emptyStripe>();

void runPel(benchmark::State& state, int32_t callerParticipates) {
    auto pel = std::make_unique<Pel>();
    construct_Pel(pel.get(), nullptr);
    pel->params.callerParticipates = callerParticipates;  // the rest as constructed: one worker per processor
    if (Pel_init(pel.get()) != TL_OK) {
        state.SkipWithError("Pel_init failed");
        return;
    }
    int token = 0;
    for (auto _ : state) {
        if (Pel_execute(pel.get(), &kEmptyStripe, &token, kStripes) != TL_OK) {
            state.SkipWithError("Pel_execute failed");
            break;
        }
    }
    state.counters["workers"] = Pel_getNumberOfWorkers(pel.get());
    destruct_Pel(pel.get());
}

// Persistent threads woken by a condition variable for each round; they and
// the caller claim the stripes from one counter, and the caller waits until
// every thread has left the round. The plain form of what a Pel does.
class CondVarForkJoin {
public:
    explicit CondVarForkJoin(int32_t threads) {
        for (int32_t i = 0; i < threads; ++i) pool_.emplace_back([this] { loop(); });
    }
    ~CondVarForkJoin() {
        {
            std::lock_guard<std::mutex> hold(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        for (auto& t : pool_) t.join();
    }
    void run(int32_t stripes) {
        {
            std::lock_guard<std::mutex> hold(mutex_);
            next_.store(0);
            stripes_ = stripes;
            busy_ = static_cast<int32_t>(pool_.size());
            ++round_;
        }
        wake_.notify_all();
        claim();
        std::unique_lock<std::mutex> hold(mutex_);
        done_.wait(hold, [this] { return busy_ == 0; });
    }

private:
    void claim() {
        for (int32_t i = next_.fetch_add(1); i < stripes_; i = next_.fetch_add(1)) {
            benchmark::DoNotOptimize(i);
        }
    }
    void loop() {
        uint64_t seen = 0;
        for (;;) {
            {
                std::unique_lock<std::mutex> hold(mutex_);
                wake_.wait(hold, [&] { return stop_ || round_ != seen; });
                if (stop_) return;
                seen = round_;
            }
            claim();
            std::lock_guard<std::mutex> hold(mutex_);
            if (--busy_ == 0) done_.notify_one();
        }
    }
    std::mutex mutex_;
    std::condition_variable wake_, done_;
    std::vector<std::thread> pool_;
    std::atomic<int32_t> next_{0};
    int32_t stripes_ = 0;
    int32_t busy_ = 0;
    uint64_t round_ = 0;
    bool stop_ = false;
};

}  // namespace

// The default Pel: one worker per processor, the caller among them.
static void BM_PelExecuteEmpty4Stripes(benchmark::State& state) { runPel(state, 1); }
BENCHMARK(BM_PelExecuteEmpty4Stripes)->UseRealTime()->Repetitions(10)->ReportAggregatesOnly(true);

// As the session sets it up: the caller only waits, the pool does the work.
static void BM_PelExecuteEmpty4StripesCallerWaits(benchmark::State& state) { runPel(state, 0); }
BENCHMARK(BM_PelExecuteEmpty4StripesCallerWaits)->UseRealTime()->Repetitions(10)->ReportAggregatesOnly(true);

// Baseline: the same number of threads as the default Pel (processors
// minus the caller), persistent, woken by a condition variable.
static void BM_CondVarForkJoin4Stripes(benchmark::State& state) {
    const int32_t processors = static_cast<int32_t>(std::thread::hardware_concurrency());
    CondVarForkJoin pool(processors > 1 ? processors - 1 : 0);
    for (auto _ : state) pool.run(kStripes);
}
BENCHMARK(BM_CondVarForkJoin4Stripes)->UseRealTime()->Repetitions(10)->ReportAggregatesOnly(true);

// Baseline: a thread per stripe, started and joined each time.
static void BM_SpawnJoin4Threads(benchmark::State& state) {
    for (auto _ : state) {
        std::thread threads[kStripes];
        for (int32_t i = 0; i < kStripes; ++i) threads[i] = std::thread([i] { benchmark::DoNotOptimize(i); });
        for (auto& t : threads) t.join();
    }
}
BENCHMARK(BM_SpawnJoin4Threads)->UseRealTime()->Repetitions(10)->ReportAggregatesOnly(true);
