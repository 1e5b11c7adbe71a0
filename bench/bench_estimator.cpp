// The disparity estimator on the synthetic 12 MP shot (4000 x 3000 main,
// 2592 x 1944 sub, NV21) in normal mode, output 1920 x 1440, with a Pel of 2
// workers and an executor of its own with 2 threads, as a session with two
// processors has them.
//
// BM_EstimateDisparity times the whole call, BM_RefineDisparity the lift by
// refine level. BM_EstimatorStages runs the same frame step by step and
// reports each stage's time per frame (milliseconds) and its share of the
// sum. The stages are timed here with a steady clock, round the pipeline's
// own steps, rather than through a hook in the library: the library keeps no
// timing code, and the whole-call benchmark beside it shows that the steps
// add up to the call.
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>

#include "imageproc/blur.h"
#include "imageproc/resize.h"
#include "stereo/disparity_estimator.h"
#include "support/scene.h"

using namespace vq_tl;

namespace {

constexpr int32_t kWorkers = 2;
constexpr int32_t kDepthWidth = 1920, kDepthHeight = 1440;

struct Rig {
    vq_tl_test::Scene scene;
    Env env{};
    Pel pel;
    ParallelExecutor executor;
    DisparityEstimator e;
    bool ready = false;

    static vq_tl_test::SceneConfig config() {
        vq_tl_test::SceneConfig c;
        c.threads = 4;
        return c;
    }
    Rig() : scene(config()) {
        construct_Pel(&pel, &env);
        pel.params.numberOfWorkers = kWorkers;
        construct_ParallelExecutor(&executor, &env);
        executor.numberOfThreads = kWorkers - 1;
        executor.callerWorks = 1;
        construct_DisparityEstimator(&e, &env);
        if (Pel_init(&pel) != TL_OK || ParallelExecutor_init(&executor, kWorkers, 16) != TL_OK) return;
        DisparityEstimator_setPel(&e, &pel);
        DisparityEstimator_setParallelExecutor(&e, &executor);
        const Image &main = scene.main->image, &sub = scene.sub->image;
        Mvec8Real rotation;
        float t[3];
        scene.extrinsics(false, &rotation, t);
        RectifyLensDist mainLens = scene.mainCalib.lens, subLens = scene.subCalib.lens;
        ready = DisparityEstimator_init(&e, main.width, main.height, sub.width, sub.height, kDepthWidth,
                                        kDepthHeight, static_cast<float>(scene.baseline), main.format, 0,
                                        0) == TL_OK &&
                DisparityEstimator_calcGridParams(&e, &scene.mainCalib.matrix, &scene.subCalib.matrix,
                                                  &mainLens, &subLens, &rotation, t, 1, scene.mainCalib.width,
                                                  scene.mainCalib.height, scene.subCalib.width,
                                                  scene.subCalib.height) == TL_OK &&
                estimate() == TL_OK;
    }
    ~Rig() {
        destruct_DisparityEstimator(&e);
        destruct_ParallelExecutor(&executor);
        destruct_Pel(&pel);
    }
    TLResult estimate() {
        return DisparityEstimator_estimateDisparity(&e, &scene.main->image, &scene.sub->image, 5, 40, 1.0f, 0,
                                                    255);
    }
};

Rig& rig() {
    static const std::unique_ptr<Rig> r = std::make_unique<Rig>();
    return *r;
}

struct Owned {
    Image image;
    Owned(Env* env, int32_t w, int32_t h, uint32_t format) {
        construct_Image(&image, env);
        Image_init(&image, w, h, nullptr, format);
    }
    ~Owned() { destruct_Image(&image); }
};

using Clock = std::chrono::steady_clock;

}  // namespace

static void BM_EstimateDisparity(benchmark::State& state) {
    Rig& r = rig();
    if (!r.ready) return state.SkipWithError("set-up failed");
    for (auto _ : state) {
        if (r.estimate() != TL_OK) return state.SkipWithError("estimate failed");
    }
}
BENCHMARK(BM_EstimateDisparity)->Unit(benchmark::kMillisecond)->UseRealTime();

// Refine levels 1, 2, 3 of the session: windows 5, 7 and 15, RGB guide.
static void BM_RefineDisparity(benchmark::State& state) {
    Rig& r = rig();
    if (!r.ready) return state.SkipWithError("set-up failed");
    Owned out(&r.env, kDepthWidth, kDepthHeight, IMAGE_FORMAT_UINT8);
    const uint8_t window = static_cast<uint8_t>(state.range(0));
    for (auto _ : state) {
        if (DisparityEstimator_refineDisparity(&r.e, &out.image, &r.scene.main->image, window, 3, 10.0f,
                                               15.0f) != TL_OK)
            return state.SkipWithError("refine failed");
    }
}
BENCHMARK(BM_RefineDisparity)->Arg(5)->Arg(7)->Arg(15)->Unit(benchmark::kMillisecond)->UseRealTime();

static void BM_EstimatorStages(benchmark::State& state) {
    Rig& r = rig();
    if (!r.ready) return state.SkipWithError("set-up failed");
    DisparityEstimator* e = &r.e;
    const Image &mainIn = r.scene.main->image, &subIn = r.scene.sub->image;
    const int32_t W = e->workWidth, H = e->workHeight;
    Image subLuma;
    construct_Image(&subLuma, &r.env);
    DisparityEstimator_lumaView(&subLuma, &subIn);
    Owned mainSmall(&r.env, W, H, mainIn.format), subSmall(&r.env, W, H, IMAGE_FORMAT_UINT8),
        main(&r.env, W, H, mainIn.format), sub(&r.env, W, H, IMAGE_FORMAT_UINT8),
        guide(&r.env, W, H, IMAGE_FORMAT_UINT88), map(&r.env, W, H, IMAGE_FORMAT_UINT8),
        other(&r.env, W, H, IMAGE_FORMAT_UINT8), confidence(&r.env, W, H, IMAGE_FORMAT_UINT8),
        out(&r.env, kDepthWidth, kDepthHeight, IMAGE_FORMAT_UINT8);
    Image mainLuma;
    construct_Image(&mainLuma, &r.env);
    DisparityEstimator_lumaView(&mainLuma, &main.image);
    enum { kShrink, kWarp, kPreBlur, kMatch, kConfidence, kTables, kLift, kStages };
    const char* names[kStages] = {"shrink",     "warp",         "pre-blur", "matching",
                                  "confidence", "depth tables", "lift"};
    double seconds[kStages] = {};
    const int32_t f = e->fractionBits;
    for (auto _ : state) {
        TLResult result = TL_OK;
        Clock::time_point t0 = Clock::now();
        auto lap = [&](int stage, TLResult rs) {
            const Clock::time_point t1 = Clock::now();
            seconds[stage] += std::chrono::duration<double>(t1 - t0).count();
            t0 = t1;
            result |= rs;
        };
        lap(kShrink, ImageProc2_averageShrink(&e->imageProc2, &mainSmall.image, &mainIn) |
                         ImageProc2_averageShrink(&e->imageProc2, &subSmall.image, &subLuma));
        lap(kWarp, DisparityEstimator_clearImage(e, &main.image) |
                       DisparityEstimator_clearImage(e, &sub.image) |
                       DisparityEstimator_warpToWork(e, &main.image, &mainSmall.image, 1) |
                       DisparityEstimator_warpToWork(e, &sub.image, &subSmall.image, 0));
        lap(kPreBlur, ImageProc_pgaussBlur(&e->imageProc, &main.image, &main.image, 0, 0.75) |
                          ImageProc_pgaussBlur(&e->imageProc, &sub.image, &sub.image, 0, 0.5625));
        lap(kMatch,
            DisparityEstimator_makeChromaGuide(e, &guide.image, &main.image) |
                Sgm_createDisparityU8(&e->sgm, &map.image, &other.image, &mainLuma, &sub.image, &e->validMask,
                                      &guide.image, e->numDisparities, e->minDisparity, 9, f, 5, 40, 1, 1));
        lap(kConfidence, Sgm_createConfidenceU8(&e->sgm, &confidence.image, &map.image, &other.image,
                                                e->numDisparities, e->minDisparity, f, 1, 0, 255, 1));
        lap(kTables, DisparityEstimator_finishDisparity(e, &map.image, &confidence.image, 255));
        lap(kLift, DisparityEstimator_refineDisparity(e, &out.image, &mainIn, 7, 3, 10.0f, 15.0f));
        if (result != TL_OK) return state.SkipWithError("a stage failed");
    }
    double total = 0;
    for (double s : seconds) total += s;
    for (int i = 0; i < kStages; ++i) {
        state.counters[std::string(names[i]) + " ms"] =
            benchmark::Counter(seconds[i] * 1e3, benchmark::Counter::kAvgIterations);
        state.counters[std::string(names[i]) + " %"] = 100.0 * seconds[i] / total;
    }
    destruct_Image(&mainLuma);
    destruct_Image(&subLuma);
}
BENCHMARK(BM_EstimatorStages)->Unit(benchmark::kMillisecond)->UseRealTime();
