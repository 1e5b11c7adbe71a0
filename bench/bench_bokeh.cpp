// The pyramid bokeh on a 12-megapixel NV21 frame with a blur map of the depth
// size (1000 x 750, enlarged inside every call as in the public blur), beside
// OpenCV's Gaussian of the same frame's luma and chroma at the same sigma, in
// one program so that ratios come from one run on one machine. OpenCV is
// linked into this program only.
//
// The library runs on a Pel of 2 workers with the caller waiting, as the
// session sets it up; OpenCV gets 2 threads. The first argument picks the
// sigma: 20, or the largest the frame's pyramid serves (115.2).
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <string>

#include "bokeh/defocus_face_bokeh.h"
#include "bokeh/defocus_face_bokeh_util.h"
#include "image/image.h"
#include "runtime/pel.h"

using namespace vq_tl;

namespace {

constexpr int32_t kWidth = 4000, kHeight = 3000, kMapWidth = 1000, kMapHeight = 750;
constexpr int32_t kWorkers = 2;

// 0: 20; 1: the largest the frame's pyramid serves; 2: what the public blur
// reaches at full strength on this frame, the cap of 15 at the reference
// size of 4608 x 3456 scaled to it.
double sigmaOf(int64_t arg) {
    if (arg == 2) return 15.0 * std::sqrt(double{kWidth} * kHeight / 15925248.0);
    return arg == 0 ? 20.0
                    : DefocusFaceBokeh_getMaxBlurSigma(DefocusFaceBokeh_getLevelCount(kWidth, kHeight));
}

// The frame and the map, with texture everywhere so that no pass sees a constant.
struct Shot {
    Env env{};
    Image frame, map;
    Shot() {
        construct_Image(&frame, &env);
        construct_Image(&map, &env);
        Image_init(&frame, kWidth, kHeight, nullptr, IMAGE_FORMAT_YVU420_SEMIPLANAR);
        Image_init(&map, kMapWidth, kMapHeight, nullptr, IMAGE_FORMAT_UINT8);
        for (int32_t y = 0; y < kHeight; ++y) {
            uint8_t* r = frame.plane[0] + static_cast<size_t>(frame.pitch[0]) * y;
            for (int32_t x = 0; x < kWidth; ++x)
                r[x] = static_cast<uint8_t>((x * 7 + y * 3) ^ (x >> 5) ^ (y >> 4));
        }
        for (int32_t y = 0; y < kHeight / 2; ++y) {
            uint8_t* r = frame.plane[1] + static_cast<size_t>(frame.pitch[1]) * y;
            for (int32_t x = 0; x < kWidth; ++x) r[x] = static_cast<uint8_t>(96 + ((x * 5 + y) & 63));
        }
        // A sharp subject in the middle, a background whose blur grows to the edges, and a ragged border.
        for (int32_t y = 0; y < kMapHeight; ++y) {
            uint8_t* r = map.plane[0] + static_cast<size_t>(map.pitch[0]) * y;
            for (int32_t x = 0; x < kMapWidth; ++x) {
                const double dx = (x - kMapWidth / 2) / 250.0, dy = (y - kMapHeight / 2) / 300.0;
                const double d = std::sqrt(dx * dx + dy * dy);
                r[x] = d < 1.0 ? 255 : static_cast<uint8_t>(std::max(0.0, 200.0 - 90.0 * d) + ((x ^ y) & 7));
            }
        }
    }
    ~Shot() {
        destruct_Image(&frame);
        destruct_Image(&map);
    }
};

struct PelHolder {
    Env env{};
    std::unique_ptr<Pel> pel = std::make_unique<Pel>();
    PelHolder() {
        construct_Pel(pel.get(), &env);
        pel->params.numberOfWorkers = kWorkers;
        pel->params.callerParticipates = 0;
        Pel_init(pel.get());
    }
    ~PelHolder() { destruct_Pel(pel.get()); }
};

template <bool MultiLayer>
void BM_DefocusFaceBokeh(benchmark::State& state) {
    const double sigma = sigmaOf(state.range(0));
    Shot shot;
    Image dst;
    construct_Image(&dst, &shot.env);
    Image_init(&dst, kWidth, kHeight, nullptr, IMAGE_FORMAT_YVU420_SEMIPLANAR);
    PelHolder p;
    DefocusFaceBokeh bokeh;
    construct_DefocusFaceBokeh(&bokeh, &shot.env);
    DefocusFaceBokeh_setPel(&bokeh, p.pel.get());
    if (DefocusFaceBokeh_init(&bokeh, kWidth, kHeight, IMAGE_FORMAT_YVU420_SEMIPLANAR) != TL_OK)
        state.SkipWithError("DefocusFaceBokeh_init failed");
    for (auto _ : state) {
        const TLResult r =
            MultiLayer ? DefocusFaceBokeh_getBlurImageMultiLayer(&bokeh, &dst, &shot.frame, &shot.map, sigma)
                       : DefocusFaceBokeh_getBlurImage(&bokeh, &dst, &shot.frame, &shot.map, sigma);
        benchmark::DoNotOptimize(r);
    }
    state.SetLabel("sigma " + std::to_string(sigma).substr(0, 5) + ", depth " + std::to_string(bokeh.depth));
    state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
    destruct_DefocusFaceBokeh(&bokeh);
    destruct_Image(&dst);
}
BENCHMARK_TEMPLATE(BM_DefocusFaceBokeh, false)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();
BENCHMARK_TEMPLATE(BM_DefocusFaceBokeh, true)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

// The passes that see the whole frame, one by one: the luma's halving into
// level 1, and the luma's mix with the doubling of level 1 (blendLevel). The
// row kernels come from the process's table: VQ_TL_CPU_MASK=0 gives the
// scalar ones.
void BM_BokehShrinkLuma(benchmark::State& state) {
    Shot shot;
    PelHolder p;
    DefocusFaceBokeh bokeh;
    construct_DefocusFaceBokeh(&bokeh, &shot.env);
    DefocusFaceBokeh_setPel(&bokeh, p.pel.get());
    Image luma, half;
    construct_Image(&luma, &shot.env);
    construct_Image(&half, &shot.env);
    Image_init(&luma, kWidth, kHeight, shot.frame.plane[0], IMAGE_FORMAT_UINT8);
    Image_init(&half, kWidth / 2, kHeight / 2, nullptr, IMAGE_FORMAT_UINT8);
    for (auto _ : state) benchmark::DoNotOptimize(DefocusFaceBokehUtil_shrinkImageU8(&bokeh, &half, &luma));
    state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
    destruct_Image(&half);
    destruct_Image(&luma);
    destruct_DefocusFaceBokeh(&bokeh);
}
BENCHMARK(BM_BokehShrinkLuma)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

void BM_BokehBlendLuma(benchmark::State& state) {
    Shot shot;
    PelHolder p;
    DefocusFaceBokeh bokeh;
    construct_DefocusFaceBokeh(&bokeh, &shot.env);
    DefocusFaceBokeh_setPel(&bokeh, p.pel.get());
    Image luma, half, out, coc;
    for (Image* m : {&luma, &half, &out, &coc}) construct_Image(m, &shot.env);
    Image_init(&luma, kWidth, kHeight, shot.frame.plane[0], IMAGE_FORMAT_UINT8);
    Image_init(&half, kWidth / 2, kHeight / 2, nullptr, IMAGE_FORMAT_UINT8);
    Image_init(&out, kWidth, kHeight, nullptr, IMAGE_FORMAT_UINT8);
    Image_init(&coc, kWidth, kHeight, nullptr, IMAGE_FORMAT_UINT8);
    DefocusFaceBokehUtil_shrinkImageU8(&bokeh, &half, &luma);
    for (int32_t y = 0; y < kHeight; ++y) {
        uint8_t* r = coc.plane[0] + static_cast<size_t>(coc.pitch[0]) * y;
        for (int32_t x = 0; x < kWidth; ++x) r[x] = static_cast<uint8_t>((x / 16 + y / 16) * 37);
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(DefocusFaceBokeh_blendLevel(&bokeh, &out, &luma, &half, &coc, 10, 2));
    state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
    for (Image* m : {&luma, &half, &out, &coc}) destruct_Image(m);
    destruct_DefocusFaceBokeh(&bokeh);
}
BENCHMARK(BM_BokehBlendLuma)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

// OpenCV beside them: the exact 2 x 2 mean (INTER_AREA to half size), the
// 5 x 5 Gaussian halving and doubling of its pyramid, on the same luma.
void BM_OpenCvHalveLuma(benchmark::State& state) {
    Shot shot;
    cv::setNumThreads(kWorkers);
    cv::Mat luma(kHeight, kWidth, CV_8UC1, shot.frame.plane[0], static_cast<size_t>(shot.frame.pitch[0]));
    cv::Mat half(kHeight / 2, kWidth / 2, CV_8UC1), full(kHeight, kWidth, CV_8UC1);
    for (auto _ : state) {
        if (state.range(0) == 0) {
            cv::resize(luma, half, half.size(), 0, 0, cv::INTER_AREA);
        } else if (state.range(0) == 1) {
            cv::pyrDown(luma, half, half.size(), cv::BORDER_REPLICATE);
        } else {
            cv::pyrUp(half, full, full.size(), cv::BORDER_DEFAULT);
        }
    }
    state.SetLabel(state.range(0) == 0 ? "resize INTER_AREA" : (state.range(0) == 1 ? "pyrDown" : "pyrUp"));
    state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
    cv::setNumThreads(-1);
}
BENCHMARK(BM_OpenCvHalveLuma)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

// The direct Gaussian of the whole frame: luma at sigma, the interleaved chroma (half size) at sigma / 2.
void BM_OpenCvGaussianBlur(benchmark::State& state) {
    const double sigma = sigmaOf(state.range(0));
    Shot shot;
    cv::setNumThreads(kWorkers);
    cv::Mat luma(kHeight, kWidth, CV_8UC1, shot.frame.plane[0], static_cast<size_t>(shot.frame.pitch[0]));
    cv::Mat chroma(kHeight / 2, kWidth / 2, CV_8UC2, shot.frame.plane[1],
                   static_cast<size_t>(shot.frame.pitch[1]));
    cv::Mat lumaOut(kHeight, kWidth, CV_8UC1), chromaOut(kHeight / 2, kWidth / 2, CV_8UC2);
    for (auto _ : state) {
        cv::GaussianBlur(luma, lumaOut, cv::Size(0, 0), sigma, sigma, cv::BORDER_REPLICATE);
        cv::GaussianBlur(chroma, chromaOut, cv::Size(0, 0), sigma / 2, sigma / 2, cv::BORDER_REPLICATE);
    }
    state.SetLabel("sigma " + std::to_string(sigma).substr(0, 5));
    state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
    cv::setNumThreads(-1);
}
BENCHMARK(BM_OpenCvGaussianBlur)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

}  // namespace
