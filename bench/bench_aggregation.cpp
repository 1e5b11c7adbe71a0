// The path aggregation of semi-global matching alone, at the matcher's jobs:
// the normal mode's 1080 x 810 with 24 candidates (4 paths, one Pel task per
// path, the planes summed into 8-bit entries) and the fine mode's 720 x 540
// with 64 (8 paths in the serial shape into 16-bit entries, the guided
// penalty image as the matcher gives it; the 2-way shape and the serial one
// without a guide beside it). The Pel is the session's: one worker per
// processor, the caller waiting. Wall time and the CPU time of all threads are
// reported; "upd/s" counts path updates (pixels x candidates x paths).
//
// VQ_TL_CPU_MASK=0 runs the scalar kernels: the figures before the vector
// forms.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <random>

#include "bench_image.h"
#include "image/image.h"
#include "runtime/pel.h"
#include "stereo/sgm_cost_aggregator.h"

using namespace vq_tl;

namespace {

using Owned = BenchImage;

enum Shape { PARALLEL, TWO_WAY, SERIAL };

struct Case {
    int32_t width, height, candidates, paths;
    Shape shape;
    bool guided;  // UINT88 guide and the penalty image, as the fine mode runs
};

// Costs as a census-Hamming volume gives them: small, smooth along the
// candidates with a minimum somewhere, some noise.
void fillCosts(Owned* cost, int32_t w, int32_t h, int32_t D) {
    std::mt19937 rng(11);
    for (int32_t y = 0; y < h; ++y) {
        uint8_t* row = cost->row(y);
        for (int32_t x = 0; x < w; ++x) {
            const int32_t best = static_cast<int32_t>(rng() % static_cast<uint32_t>(D));
            for (int32_t k = 0; k < D; ++k) {
                const int32_t d = k > best ? k - best : best - k;
                row[x * D + k] = static_cast<uint8_t>((d < 12 ? d * 3 : 36) + rng() % 8);
            }
        }
    }
}

void runAggregation(benchmark::State& state, const Case& c) {
    Env env{};
    auto pel = std::make_unique<Pel>();
    construct_Pel(pel.get(), &env);
    pel->params.callerParticipates = 0;  // as the session starts its layer
    if (Pel_init(pel.get()) != TL_OK) {
        state.SkipWithError("Pel_init failed");
        return;
    }
    SgmCostAggregator agg;
    construct_SgmCostAggregator(&agg, &env);
    SgmCostAggregator_init(&agg, c.width, c.height);
    SgmCostAggregator_setPel(&agg, pel.get());
    const int32_t W = c.width, H = c.height, D = c.candidates;
    Owned cost(W * D, H, IMAGE_FORMAT_UINT8);
    fillCosts(&cost, W, H, D);
    const int32_t pathRows = c.shape == PARALLEL ? c.paths * (H + 1) + 1 : 2 * c.paths;
    Owned paths(SgmCostAggregator_getPathCostsWidth(W, D), pathRows, IMAGE_FORMAT_UINT8);
    const bool wide = c.shape != PARALLEL;
    Owned aggregated(W * (D + 2), H, wide ? IMAGE_FORMAT_UINT16 : IMAGE_FORMAT_UINT8);
    Owned second(W * (D + 2), H, IMAGE_FORMAT_UINT16);
    Owned guide(W + 2, H + 2, IMAGE_FORMAT_UINT88);
    Owned penalty(W, H, IMAGE_FORMAT_UINT8);
    const int32_t segments = c.shape == PARALLEL ? 1 : (c.shape == TWO_WAY ? c.paths : 4);
    Owned rowPenalty(W * segments, c.shape == PARALLEL ? c.paths : 1, IMAGE_FORMAT_UINT8);
    for (int32_t y = 0; y < H + 2; ++y) {
        for (int32_t x = 0; x < W + 2; ++x) {
            guide.row(y)[2 * x] = static_cast<uint8_t>(100 + (x * 64) / W + ((x / 7 + y / 5) % 3) * 9);
            guide.row(y)[2 * x + 1] = static_cast<uint8_t>(150 - (y * 64) / H);
        }
    }
    for (int32_t y = 0; y < H; ++y) std::memset(penalty.row(y), 96, static_cast<size_t>(W));
    const uint8_t p1 = 8, p2 = 96;
    if (c.shape == PARALLEL) SgmCostAggregator_preparePathCosts(pel.get(), &paths.image, D);
    const Image* g = c.guided ? &guide.image : nullptr;
    Image* rp = c.guided ? &rowPenalty.image : nullptr;
    for (auto _ : state) {
        TLResult r;
        if (c.shape == PARALLEL) {
            r = SgmCostAggregator_aggregateParallel(&agg, &paths.image, &cost.image, g, rp,
                                                    static_cast<uint8_t>(D), p1, p2,
                                                    static_cast<uint8_t>(c.paths));
            if (r == TL_OK)
                r = SgmCostAggregator_sumPaths(&agg, &aggregated.image, &paths.image, static_cast<uint8_t>(D),
                                               static_cast<uint8_t>(c.paths));
        } else {
            // The rings are laid out again before every call, as the matcher does.
            r = SgmCostAggregator_preparePathCosts(pel.get(), &paths.image, D);
            if (r == TL_OK && c.shape == TWO_WAY)
                r = SgmCostAggregator_aggregate2wayParallel(
                    &agg, &aggregated.image, &second.image, &cost.image, g, &paths.image, rp,
                    static_cast<uint8_t>(D), p1, p2, static_cast<uint8_t>(c.paths));
            else if (r == TL_OK && c.guided)
                r = SgmCostAggregator_aggregateSerialVariablePenalty(
                    &agg, &aggregated.image, &cost.image, g, &paths.image, p1, &penalty.image, rp,
                    static_cast<uint8_t>(D), static_cast<uint8_t>(c.paths));
            else if (r == TL_OK)
                r = SgmCostAggregator_aggregateSerial(&agg, &aggregated.image, &cost.image, g, &paths.image,
                                                      rp, static_cast<uint8_t>(D), p1, p2,
                                                      static_cast<uint8_t>(c.paths));
        }
        if (r != TL_OK) state.SkipWithError("aggregation failed");
        benchmark::DoNotOptimize(aggregated.image.plane[0][0]);
    }
    const double updates = static_cast<double>(W) * H * D * c.paths;
    state.counters["upd/s"] = benchmark::Counter(updates, benchmark::Counter::kIsIterationInvariantRate);
    destruct_SgmCostAggregator(&agg);
    destruct_Pel(pel.get());
}

}  // namespace

// Normal mode: 4 paths, one Pel task per path, 8-bit sums.
static void BM_AggParallel4_1080x810x24(benchmark::State& state) {
    runAggregation(state, Case{1080, 810, 24, 4, PARALLEL, false});
}
BENCHMARK(BM_AggParallel4_1080x810x24)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

// Fine mode: 8 paths, serial on the calling thread, guided penalty image.
static void BM_AggSerial8Guided_720x540x64(benchmark::State& state) {
    runAggregation(state, Case{720, 540, 64, 8, SERIAL, true});
}
BENCHMARK(BM_AggSerial8Guided_720x540x64)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

static void BM_AggSerial8_720x540x64(benchmark::State& state) {
    runAggregation(state, Case{720, 540, 64, 8, SERIAL, false});
}
BENCHMARK(BM_AggSerial8_720x540x64)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

// The fine job in the other shapes: a forward and a backward task, and one
// task per path.
static void BM_AggTwoWay8_720x540x64(benchmark::State& state) {
    runAggregation(state, Case{720, 540, 64, 8, TWO_WAY, false});
}
BENCHMARK(BM_AggTwoWay8_720x540x64)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

static void BM_AggParallel8_720x540x64(benchmark::State& state) {
    runAggregation(state, Case{720, 540, 64, 8, PARALLEL, false});
}
BENCHMARK(BM_AggParallel8_720x540x64)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();
