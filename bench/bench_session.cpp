// A live synchronous session on the synthetic 12 MP shot (4000 x 3000 main,
// 2592 x 1944 sub, NV21), normal mode, refine level 2, depth size
// 1920 x 1440, with the parallel layers the session builds for itself (a Pel
// of one worker per processor and an executor over it).
//
// BM_SessionShot times one whole shot through velquin_TwinLens_process on
// the calling thread: grids already built, estimate, lift, publication.
// BM_WholeShot adds velquin_TwinLens_blur at full strength into a frame of
// the main camera's size: the whole job of one picture with synthetic depth
// of field. CPU time is that of all threads, beside wall time.
// BM_SessionDepthImage times velquin_TwinLens_getDepthImage into a
// 1000 x 750 picture after that shot. The shares of the shot's stages come
// from BM_EstimatorStages in bench_estimator.cpp, which runs the same frame
// step by step.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "live_shot.h"

namespace {

BenchLiveShot& live() {
    static const std::unique_ptr<BenchLiveShot> l = std::make_unique<BenchLiveShot>(1920, 1440);
    return *l;
}

void BM_SessionShot(benchmark::State& state) {
    BenchLiveShot& l = live();
    if (!l.ready) {
        state.SkipWithError("session or first shot failed");
        return;
    }
    for (auto _ : state) {
        if (l.shot() != TL_OK) state.SkipWithError("shot failed");
    }
}
BENCHMARK(BM_SessionShot)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

void BM_WholeShot(benchmark::State& state) {
    BenchLiveShot& l = live();
    if (!l.ready) {
        state.SkipWithError("session or first shot failed");
        return;
    }
    const size_t pixels = static_cast<size_t>(l.main.width) * l.main.height;
    std::vector<uint8_t> out(pixels * 3 / 2);
    const TwinLensImage dst{l.main.width, l.main.height, out.data(), out.data() + pixels, nullptr};
    for (auto _ : state) {
        if (l.shot() != TL_OK || velquin_TwinLens_blur(&l.session->handle, &dst, &l.main, 300.0) != TL_OK)
            state.SkipWithError("shot or blur failed");
    }
}
BENCHMARK(BM_WholeShot)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

void BM_SessionDepthImage(benchmark::State& state) {
    BenchLiveShot& l = live();
    if (!l.ready) {
        state.SkipWithError("session or first shot failed");
        return;
    }
    std::vector<uint8_t> pixels(1000 * 750);
    const TwinLensImage picture{1000, 750, pixels.data(), nullptr, nullptr};
    float nearDepth = 0, farDepth = 0;
    for (auto _ : state) {
        if (velquin_TwinLens_getDepthImage(&l.session->handle, &picture, &nearDepth, &farDepth, 1) != TL_OK)
            state.SkipWithError("depth picture failed");
        benchmark::DoNotOptimize(pixels.data());
    }
}
BENCHMARK(BM_SessionDepthImage)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
