// Scaling and turning at the sizes of the depth pipeline: a 12-megapixel
// main frame brought to the matching size of 27 percent, and the quarter
// turn of a matching-size plane that a pair in portrait takes. The shrink
// runs beside OpenCV's area resize of the same planes (luma, and the
// interleaved chroma as two channels), once on the calling thread and once
// over the session's Pel (OpenCV with its own threads), wall and CPU time.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench_image.h"
#include "image/image.h"
#include "imageproc/resize.h"
#include "imageproc/rotate.h"
#include "runtime/pel.h"

using namespace vq_tl;

namespace {

struct Owned : BenchImage {
    Owned(int32_t w, int32_t h, uint32_t format) : BenchImage(w, h, format, BenchFill::kPattern) {}
};

std::unique_ptr<Pel> makePel() {
    auto pel = std::make_unique<Pel>();
    construct_Pel(pel.get(), nullptr);
    pel->params.callerParticipates = 0;  // as the session sets it; one worker per processor
    if (Pel_init(pel.get()) != TL_OK) return nullptr;
    return pel;
}

constexpr int32_t kSrcW = 4000, kSrcH = 3000, kDstW = 1080, kDstH = 810;

// The library's shrink of a 4:2:0 frame, on the calling thread or on a Pel.
void shrinkNv21(benchmark::State& state, bool area, bool withPel) {
    std::unique_ptr<Pel> pel = withPel ? makePel() : nullptr;
    if (withPel && pel == nullptr) {
        state.SkipWithError("Pel_init failed");
        return;
    }
    const ImageStripeExec exec{pel.get(), nullptr};
    Owned src(kSrcW, kSrcH, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    Owned dst(kDstW, kDstH, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    for (auto _ : state) {
        const TLResult r = area ? Resize_averageShrink(&exec, &dst.image, &src.image)
                                : Resize_resizeImage(&exec, &dst.image, &src.image);
        if (r != TL_OK) {
            state.SkipWithError("shrink failed");
            break;
        }
        benchmark::DoNotOptimize(dst.image.plane[0][0]);
    }
    state.SetItemsProcessed(state.iterations() * kDstW * kDstH);
    if (pel != nullptr) destruct_Pel(pel.get());
}

// OpenCV on the same planes: luma, then the chroma pairs as two channels.
void shrinkNv21OpenCv(benchmark::State& state, int interpolation, bool threads) {
    const int saved = cv::getNumThreads();
    cv::setNumThreads(threads ? -1 : 1);
    Owned src(kSrcW, kSrcH, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    cv::Mat y(kSrcH, kSrcW, CV_8UC1, src.image.plane[0], src.image.pitch[0]);
    cv::Mat uv(kSrcH / 2, kSrcW / 2, CV_8UC2, src.image.plane[1], src.image.pitch[1]);
    cv::Mat dy, duv;
    for (auto _ : state) {
        cv::resize(y, dy, cv::Size(kDstW, kDstH), 0, 0, interpolation);
        cv::resize(uv, duv, cv::Size(kDstW / 2, (kDstH + 1) / 2), 0, 0, interpolation);
        benchmark::DoNotOptimize(dy.data[0]);
    }
    state.SetItemsProcessed(state.iterations() * kDstW * kDstH);
    cv::setNumThreads(saved);
}

}  // namespace

// 4000 x 3000 to 1080 x 810: 27 percent of each side.
static void BM_ResizeYuv420To27Percent(benchmark::State& state) { shrinkNv21(state, false, false); }
BENCHMARK(BM_ResizeYuv420To27Percent)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

static void BM_ResizeYuv420To27PercentOnPel(benchmark::State& state) { shrinkNv21(state, false, true); }
BENCHMARK(BM_ResizeYuv420To27PercentOnPel)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

static void BM_OpenCvResizeLinearNv21To27Percent(benchmark::State& state) {
    shrinkNv21OpenCv(state, cv::INTER_LINEAR, false);
}
BENCHMARK(BM_OpenCvResizeLinearNv21To27Percent)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

static void BM_AverageShrinkYuv420To27Percent(benchmark::State& state) { shrinkNv21(state, true, false); }
BENCHMARK(BM_AverageShrinkYuv420To27Percent)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

static void BM_AverageShrinkYuv420To27PercentOnPel(benchmark::State& state) { shrinkNv21(state, true, true); }
BENCHMARK(BM_AverageShrinkYuv420To27PercentOnPel)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

static void BM_OpenCvAreaNv21To27Percent(benchmark::State& state) {
    shrinkNv21OpenCv(state, cv::INTER_AREA, false);
}
BENCHMARK(BM_OpenCvAreaNv21To27Percent)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

static void BM_OpenCvAreaNv21To27PercentThreads(benchmark::State& state) {
    shrinkNv21OpenCv(state, cv::INTER_AREA, true);
}
BENCHMARK(BM_OpenCvAreaNv21To27PercentThreads)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

static void BM_RotatePlaneQuarterTurn(benchmark::State& state) {
    Owned src(1080, 810, IMAGE_FORMAT_UINT8);
    Owned dst(810, 1080, IMAGE_FORMAT_UINT8);
    for (auto _ : state)
        benchmark::DoNotOptimize(Rotate_rotateImageEx(nullptr, &dst.image, &src.image, 1, 6));
    state.SetItemsProcessed(state.iterations() * 1080 * 810);
}
BENCHMARK(BM_RotatePlaneQuarterTurn)->Unit(benchmark::kMicrosecond);
