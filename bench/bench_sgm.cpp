// Semi-global matching at the sizes of the depth pipeline: the normal mode on
// a 1080 x 810 pair (27 percent of a 4000 x 3000 frame) with 24 candidates,
// and the fine mode on 720 x 540 (18 percent) with 64. Each iteration is one
// Sgm_createDisparityU8 writing both maps, volumes allocated and freed inside
// as in the pipeline, on parallel layers set up as the session sets up the
// estimator's. Beside them OpenCV's StereoSGBM on
// the same pair: the 3-way mode with 32 candidates against the normal mode,
// the 8-path full mode with 64 against the fine mode, block size 3 and the
// usual penalties 8 and 32 times channels times block area. BM_SgmSteps
// times the matcher's steps one by one (census and cost, aggregation, both
// winners with their medians, left-right check) for their shares,
// BM_SgmNormalBesideOpenCv3Way runs the normal mode and OpenCV's 3-way mode
// in turn for a ratio that the machine's changing load touches least, and
// BM_Median3x3Map the median of one map.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <random>
#include <string>
#include <vector>

#include "bench_image.h"
#include "image/image.h"
#include "imageproc/rank_filter.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "stereo/sgm.h"

using namespace vq_tl;

namespace {

using Owned = BenchImage;

// A random-dot pair: dots of 2 by 2 pixels, the match view shifted by a
// disparity that grows from 4 to 12 across the width, so that the search
// has a true answer everywhere but at the edges.
struct StereoPair {
    Owned base, match, guide, mask;
    StereoPair(int32_t w, int32_t h)
        : base(w, h, IMAGE_FORMAT_UINT8),
          match(w, h, IMAGE_FORMAT_UINT8),
          guide(w, h, IMAGE_FORMAT_UINT88),
          mask(w, h, IMAGE_FORMAT_UINT8) {
        std::mt19937 rng(7);
        std::unique_ptr<uint8_t[]> dots(new uint8_t[static_cast<size_t>(w / 2 + 16) * (h / 2 + 2)]);
        const int32_t dw = w / 2 + 16;
        for (int32_t i = 0; i < dw * (h / 2 + 2); ++i) dots[i] = static_cast<uint8_t>(rng());
        for (int32_t y = 0; y < h; ++y) {
            for (int32_t x = 0; x < w; ++x) {
                const int32_t d = 4 + 8 * x / w;
                base.row(y)[x] = dots[(y / 2) * dw + x / 2];
                match.row(y)[x] = dots[(y / 2) * dw + (x + d) / 2];
                guide.row(y)[2 * x] = static_cast<uint8_t>(100 + (x * 64) / w);
                guide.row(y)[2 * x + 1] = static_cast<uint8_t>(150 - (y * 64) / h);
                mask.row(y)[x] = 255;
            }
        }
    }
};

// The matcher on a Pel and a ParallelExecutor set up as the session sets up
// the estimator's (one worker per processor, the caller waits; the executor
// forwards to the Pel and carries the medians).
struct Matcher {
    Env env{};
    std::unique_ptr<Pel> pel = std::make_unique<Pel>();
    ParallelExecutor executor;
    Sgm sgm;
    bool ready = false;
    Matcher(int32_t width, int32_t height, uint32_t candidates, uint32_t mode) {
        construct_Pel(pel.get(), &env);
        pel->params.callerParticipates = 0;
        construct_ParallelExecutor(&executor, &env);
        executor.pel = pel.get();
        construct_Sgm(&sgm, &env);
        ready = Pel_init(pel.get()) == TL_OK && ParallelExecutor_init(&executor, 64, 64) == TL_OK &&
                Sgm_setPel(&sgm, pel.get()) == TL_OK && Sgm_setParallelExecutor(&sgm, &executor) == TL_OK &&
                Sgm_init(&sgm, width, height, candidates, mode) == TL_OK;
    }
    ~Matcher() {
        destruct_Sgm(&sgm);
        destruct_ParallelExecutor(&executor);
        destruct_Pel(pel.get());
    }
};

struct Case {
    int32_t width, height;
    uint32_t candidates;
    uint32_t mode;
    int32_t rowWindow;
    int32_t fractionBits;
};

void runSgm(benchmark::State& state, const Case& c) {
    Matcher matcher(c.width, c.height, c.candidates, c.mode);
    if (!matcher.ready) {
        state.SkipWithError("set-up failed");
        return;
    }
    Sgm& sgm = matcher.sgm;
    StereoPair pair(c.width, c.height);
    Owned d1(c.width, c.height, IMAGE_FORMAT_UINT8), d2(c.width, c.height, IMAGE_FORMAT_UINT8);
    for (auto _ : state) {
        const TLResult r = Sgm_createDisparityU8(&sgm, &d1.image, &d2.image, &pair.base.image,
                                                 &pair.match.image, &pair.mask.image, &pair.guide.image,
                                                 c.candidates, -4, c.rowWindow, c.fractionBits, 5, 40, 1, 1);
        if (r != TL_OK) state.SkipWithError("Sgm_createDisparityU8 failed");
        benchmark::DoNotOptimize(d1.image.plane[0][0]);
    }
    const double evaluations = static_cast<double>(c.width) * c.height * c.candidates;
    state.counters["Mdisp/s"] =
        benchmark::Counter(evaluations / 1e6, benchmark::Counter::kIsIterationInvariantRate);
    // Memory from the allocation sizes: the path work image that init keeps,
    // and at the peak of a call the cost and aggregated volumes with the
    // larger of the census pair and the guide and penalty scratch.
    const int64_t all = Sgm_getBufferSize(c.width, c.height, IMAGE_FORMAT_UINT8, c.candidates, c.mode);
    const int64_t imageProc = ImageProc_getBufferSize(c.width, c.height, IMAGE_FORMAT_UINT8);
    const int64_t planes = int64_t{sgm.pathCosts.pitch[0]} * sgm.pathCosts.height;
    state.counters["init_MiB"] = static_cast<double>(planes) / (1 << 20);
    state.counters["call_peak_MiB"] = static_cast<double>(all - imageProc - planes) / (1 << 20);
}

// The matcher's steps one at a time through the public step functions and
// the pipeline's left-right check, timed with a steady clock; counters give
// each step's milliseconds per call and share of the sum. (The call itself,
// BM_SgmNormal and BM_SgmFine, sums the planes, finds both views' winners and
// filters both maps in one pass over the rows, so its time is not the sum of
// these steps.)
void runSgmSteps(benchmark::State& state, const Case& c) {
    Matcher matcher(c.width, c.height, c.candidates, c.mode);
    if (!matcher.ready) {
        state.SkipWithError("set-up failed");
        return;
    }
    Sgm& sgm = matcher.sgm;
    const uint8_t D = Sgm_round8(c.candidates);
    const int8_t m = -4;
    StereoPair pair(c.width, c.height);
    Owned d1(c.width, c.height, IMAGE_FORMAT_UINT8), d2(c.width, c.height, IMAGE_FORMAT_UINT8),
        conf(c.width, c.height, IMAGE_FORMAT_UINT8), cost(c.width * D, c.height, IMAGE_FORMAT_UINT8),
        aggregated(c.width * (D + 2), c.height, c.mode == 0 ? IMAGE_FORMAT_UINT8 : IMAGE_FORMAT_UINT16);
    enum { kCost, kAggregate, kWinners, kLeftRight, kSteps };
    const char* names[kSteps] = {"cost", "aggregation", "winners", "left-right"};
    double seconds[kSteps] = {};
    using Clock = std::chrono::steady_clock;
    for (auto _ : state) {
        TLResult r = TL_OK;
        Clock::time_point t0 = Clock::now();
        auto lap = [&](int step) {
            const Clock::time_point t1 = Clock::now();
            seconds[step] += std::chrono::duration<double>(t1 - t0).count();
            t0 = t1;
        };
        r |= Sgm_computeCost(&sgm, &cost.image, &pair.base.image, &pair.match.image, &pair.mask.image, D, m,
                             c.rowWindow, 1);
        lap(kCost);
        r |= Sgm_aggregate(&sgm, &aggregated.image, &cost.image, &pair.guide.image, 1, D, 5, 40);
        lap(kAggregate);
        for (int32_t view = 0; view < 2; ++view) {
            Image* map = view == 0 ? &d1.image : &d2.image;
            r |= Sgm_selectDisparity(&sgm, map, &aggregated.image, D, m, c.fractionBits, 0, 1, view);
            r |= ImageProc_filterMedian3x3(&sgm.imageProc, map, map, 0);
        }
        lap(kWinners);
        r |= Sgm_createConfidenceU8(&sgm, &conf.image, &d1.image, &d2.image, D, m, c.fractionBits, 1, 0, 255,
                                    1);
        lap(kLeftRight);
        if (r != TL_OK) state.SkipWithError("a step failed");
    }
    double total = 0;
    for (double s : seconds) total += s;
    for (int i = 0; i < kSteps; ++i) {
        state.counters[std::string(names[i]) + " ms"] =
            benchmark::Counter(seconds[i] * 1e3, benchmark::Counter::kAvgIterations);
        state.counters[std::string(names[i]) + " %"] = total > 0 ? 100.0 * seconds[i] / total : 0.0;
    }
}

// OpenCV's semi-global block matching on the same pair, with its own
// threads; the base view is the left image.
void runOpenCv(benchmark::State& state, int32_t width, int32_t height, int32_t candidates, int mode) {
    StereoPair pair(width, height);
    const cv::Mat left(height, width, CV_8UC1, pair.match.image.plane[0], pair.match.image.pitch[0]);
    const cv::Mat right(height, width, CV_8UC1, pair.base.image.plane[0], pair.base.image.pitch[0]);
    constexpr int kBlock = 3, kChannels = 1;
    const cv::Ptr<cv::StereoSGBM> sgbm =
        cv::StereoSGBM::create(0, candidates, kBlock, 8 * kChannels * kBlock * kBlock,
                               32 * kChannels * kBlock * kBlock, 1, 0, 0, 0, 0, mode);
    cv::Mat disparity;
    for (auto _ : state) {
        sgbm->compute(left, right, disparity);
        benchmark::DoNotOptimize(disparity.data);
    }
    const double evaluations = static_cast<double>(width) * height * candidates;
    state.counters["Mdisp/s"] =
        benchmark::Counter(evaluations / 1e6, benchmark::Counter::kIsIterationInvariantRate);
}

// The 3x3 median in place on a byte map of the normal mode, through the
// matcher's own ImageProc as Sgm calls it after the winners; the map holds
// values 0 to 191 (24 candidates with 3 fraction bits).
void runMedian(benchmark::State& state) {
    constexpr int32_t kWidth = 1080, kHeight = 810;
    Matcher matcher(kWidth, kHeight, 24, 0);
    if (!matcher.ready) {
        state.SkipWithError("set-up failed");
        return;
    }
    Sgm& sgm = matcher.sgm;
    Owned map(kWidth, kHeight, IMAGE_FORMAT_UINT8);
    std::mt19937 rng(11);
    for (int32_t y = 0; y < kHeight; ++y) {
        for (int32_t x = 0; x < kWidth; ++x) map.row(y)[x] = static_cast<uint8_t>(rng() % 192);
    }
    for (auto _ : state) {
        if (ImageProc_filterMedian3x3(&sgm.imageProc, &map.image, &map.image, 0) != TL_OK)
            state.SkipWithError("median failed");
    }
    state.counters["Mpx/s"] = benchmark::Counter(static_cast<double>(kWidth) * kHeight / 1e6,
                                                 benchmark::Counter::kIsIterationInvariantRate);
}

// The library's call and OpenCV's in turn in every iteration, each timed by
// a steady clock, so that a change of the machine's load falls on both
// alike: counters give each one's milliseconds per call (the medians of the
// iterations) and the median of the iterations' wall-time ratios.
void runBesideOpenCv(benchmark::State& state, const Case& c, int mode, int32_t cvCandidates) {
    Matcher matcher(c.width, c.height, c.candidates, c.mode);
    if (!matcher.ready) {
        state.SkipWithError("set-up failed");
        return;
    }
    StereoPair pair(c.width, c.height);
    Owned d1(c.width, c.height, IMAGE_FORMAT_UINT8), d2(c.width, c.height, IMAGE_FORMAT_UINT8);
    const cv::Mat left(c.height, c.width, CV_8UC1, pair.match.image.plane[0], pair.match.image.pitch[0]);
    const cv::Mat right(c.height, c.width, CV_8UC1, pair.base.image.plane[0], pair.base.image.pitch[0]);
    constexpr int kBlock = 3;
    const cv::Ptr<cv::StereoSGBM> sgbm = cv::StereoSGBM::create(0, cvCandidates, kBlock, 8 * kBlock * kBlock,
                                                                32 * kBlock * kBlock, 1, 0, 0, 0, 0, mode);
    cv::Mat disparity;
    std::vector<double> library, opencv, ratio;
    using Clock = std::chrono::steady_clock;
    for (auto _ : state) {
        const Clock::time_point t0 = Clock::now();
        const TLResult r = Sgm_createDisparityU8(&matcher.sgm, &d1.image, &d2.image, &pair.base.image,
                                                 &pair.match.image, &pair.mask.image, &pair.guide.image,
                                                 c.candidates, -4, c.rowWindow, c.fractionBits, 5, 40, 1, 1);
        const Clock::time_point t1 = Clock::now();
        sgbm->compute(left, right, disparity);
        const Clock::time_point t2 = Clock::now();
        if (r != TL_OK) state.SkipWithError("Sgm_createDisparityU8 failed");
        benchmark::DoNotOptimize(disparity.data);
        library.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
        opencv.push_back(std::chrono::duration<double, std::milli>(t2 - t1).count());
        ratio.push_back(opencv.back() / library.back());
    }
    const auto median = [](std::vector<double> v) {
        std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
        return v.empty() ? 0.0 : v[v.size() / 2];
    };
    state.counters["library_ms"] = median(library);
    state.counters["opencv_ms"] = median(opencv);
    state.counters["ratio"] = median(ratio);
}

}  // namespace

// Normal mode: 3x3 census, row window 9, 4 paths, one Pel task per path.
static void BM_SgmNormal1080x810x24(benchmark::State& state) { runSgm(state, Case{1080, 810, 24, 0, 9, 3}); }
BENCHMARK(BM_SgmNormal1080x810x24)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

// Fine mode: 5x5 census, row window 21, 8 paths, serial on the calling thread.
static void BM_SgmFine720x540x64(benchmark::State& state) { runSgm(state, Case{720, 540, 64, 1, 21, 2}); }
BENCHMARK(BM_SgmFine720x540x64)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

static void BM_SgmSteps(benchmark::State& state) {
    runSgmSteps(state, state.range(0) == 0 ? Case{1080, 810, 24, 0, 9, 3} : Case{720, 540, 64, 1, 21, 2});
}
BENCHMARK(BM_SgmSteps)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

static void BM_SgmNormalBesideOpenCv3Way(benchmark::State& state) {
    runBesideOpenCv(state, Case{1080, 810, 24, 0, 9, 3}, cv::StereoSGBM::MODE_SGBM_3WAY, 32);
}
BENCHMARK(BM_SgmNormalBesideOpenCv3Way)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

static void BM_OpenCvSgbm3Way1080x810x32(benchmark::State& state) {
    runOpenCv(state, 1080, 810, 32, cv::StereoSGBM::MODE_SGBM_3WAY);
}
BENCHMARK(BM_OpenCvSgbm3Way1080x810x32)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

static void BM_OpenCvSgbmHH720x540x64(benchmark::State& state) {
    runOpenCv(state, 720, 540, 64, cv::StereoSGBM::MODE_HH);
}
BENCHMARK(BM_OpenCvSgbmHH720x540x64)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

// The map's median alone (OpenCV's medianBlur is in imgproc, which this
// program does not link).
static void BM_Median3x3Map1080x810(benchmark::State& state) { runMedian(state); }
BENCHMARK(BM_Median3x3Map1080x810)->Unit(benchmark::kMicrosecond)->UseRealTime()->MeasureProcessCPUTime();
