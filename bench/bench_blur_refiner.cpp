// The pyramid Gaussian on a 12-megapixel plane and the depth refiner at the
// pipeline's depth size, each beside the comparable OpenCV filters in the
// same program, so that ratios come from one run on one machine. OpenCV (with
// the contrib ximgproc module) is linked into this program only.
//
// The last argument of every benchmark is the thread count: 1 runs the
// library on the calling thread and OpenCV with one thread; 0 gives both
// every processor, the library a Pel of one worker per processor with the
// caller among them, OpenCV its default pool. On a shared machine the CPU
// time of the single-thread runs is the steadier figure.
#include <benchmark/benchmark.h>

#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/ximgproc.hpp>

#include "depth/depth_map_refiner.h"
#include "image/image.h"
#include "imageproc/blur.h"
#include "imageproc/image_proc2.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"

using namespace vq_tl;

namespace {

// A library image and an OpenCV matrix on the same pixels.
struct Plane {
    Env env{};
    Image image;
    cv::Mat mat;
    Plane(int32_t w, int32_t h, uint32_t format) {
        construct_Image(&image, &env);
        Image_init(&image, w, h, nullptr, format);
        const int32_t bytes = Image_getSize(w, h, format, IMAGE_SIZE_TOTAL);
        // Smooth content with some texture, so that neither side sees a constant.
        for (int32_t i = 0; i < bytes; ++i) image.plane[0][i] = static_cast<uint8_t>((i * 7) ^ (i >> 9));
        mat = cv::Mat(h, w, CV_8UC1, image.plane[0], static_cast<size_t>(image.pitch[0]));
    }
    ~Plane() { destruct_Image(&image); }
};

// The library's layer for a thread count: null for 1.
struct PelHolder {
    Env env{};
    std::unique_ptr<Pel> pel = std::make_unique<Pel>();
    explicit PelHolder(int64_t threads) {
        construct_Pel(pel.get(), &env);  // one worker per processor, the caller among them
        if (threads != 1) Pel_init(pel.get());
    }
    Pel* get() { return Pel_getNumberOfWorkers(pel.get()) > 1 ? pel.get() : nullptr; }
    ~PelHolder() { destruct_Pel(pel.get()); }
};

struct OpenCvThreads {
    explicit OpenCvThreads(int64_t threads) { cv::setNumThreads(threads == 1 ? 1 : -1); }
    ~OpenCvThreads() { cv::setNumThreads(-1); }
};

void threadArgs(benchmark::internal::Benchmark* b, std::initializer_list<int64_t> firsts) {
    for (int64_t threads : {1, 0})
        for (int64_t first : firsts) b->Args({first, threads});
}

constexpr int32_t kFrameWidth = 4000, kFrameHeight = 3000;
constexpr double kSigmas[] = {1.8, 4.0, 20.0};

void BM_PgaussBlur(benchmark::State& state) {
    const double sigma = kSigmas[state.range(0)];
    Plane src(kFrameWidth, kFrameHeight, IMAGE_FORMAT_UINT8),
        dst(kFrameWidth, kFrameHeight, IMAGE_FORMAT_UINT8);
    PelHolder p(state.range(1));
    ImageProc2 proc;
    construct_ImageProc2(&proc, &src.env);
    ImageProc2_setPel(&proc, p.get());
    for (auto _ : state)
        benchmark::DoNotOptimize(ImageProc2_pgaussBlur(&proc, &dst.image, &src.image, 0, sigma));
    state.SetLabel("sigma " + std::to_string(sigma).substr(0, 4));
    state.SetItemsProcessed(state.iterations() * kFrameWidth * kFrameHeight);
    destruct_ImageProc2(&proc);
}
BENCHMARK(BM_PgaussBlur)->Apply([](auto* b) {
                            threadArgs(b, {0, 1, 2});
                        }) -> Unit(benchmark::kMillisecond) -> UseRealTime();

void BM_OpenCvGaussianBlur(benchmark::State& state) {
    const double sigma = kSigmas[state.range(0)];
    Plane src(kFrameWidth, kFrameHeight, IMAGE_FORMAT_UINT8),
        dst(kFrameWidth, kFrameHeight, IMAGE_FORMAT_UINT8);
    for (auto _ : state)
        cv::GaussianBlur(src.mat, dst.mat, cv::Size(0, 0), sigma, sigma, cv::BORDER_REPLICATE);
    state.SetLabel("sigma " + std::to_string(sigma).substr(0, 4));
    state.SetItemsProcessed(state.iterations() * kFrameWidth * kFrameHeight);
}
BENCHMARK(BM_OpenCvGaussianBlur)->Apply([](auto* b) {
                                    threadArgs(b, {0, 1, 2});
                                }) -> Unit(benchmark::kMillisecond) -> UseRealTime();

// The refiner's job in the pipeline: a 540 x 405 map to 1080 x 810 under the
// luma of the main frame, sigmaSpace 10 and sigmaRange 15 as the session
// passes them; the window is the argument (the session uses 5, 7 or 15).
constexpr int32_t kOutWidth = 1080, kOutHeight = 810, kMapWidth = 540, kMapHeight = 405;

// guideMode 1 filters under the luma plane, 3 under the RGB conversion of the
// NV21 frame (the colour guide of the normal shot).
void refinerLift(benchmark::State& state, uint32_t guideFormat, int32_t guideMode) {
    const int32_t window = static_cast<int32_t>(state.range(0));
    Plane map(kMapWidth, kMapHeight, IMAGE_FORMAT_UINT8), out(kOutWidth, kOutHeight, IMAGE_FORMAT_UINT8);
    Plane guide(kOutWidth, kOutHeight, guideFormat);
    PelHolder p(state.range(1));
    // As in the session: the filters on the Pel, the resizes on an executor
    // over the same Pel.
    ParallelExecutor executor;
    construct_ParallelExecutor(&executor, &map.env);
    executor.pel = p.get();
    if (p.get() != nullptr) ParallelExecutor_init(&executor, 16, 16);
    DepthMapRefiner refiner;
    construct_DepthMapRefiner(&refiner, &map.env);
    DepthMapRefiner_setPel(&refiner, p.get());
    DepthMapRefiner_setParallelExecutor(&refiner, p.get() != nullptr ? &executor : nullptr);
    if (DepthMapRefiner_init(&refiner, kOutWidth, kOutHeight, kMapWidth, kMapHeight, kOutWidth, kOutHeight,
                             IMAGE_FORMAT_UINT8, guideFormat, 0) != TL_OK) {
        state.SkipWithError("DepthMapRefiner_init failed");
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(DepthMapRefiner_crossFilter(&refiner, &out.image, &map.image, &guide.image,
                                                             window, guideMode, 10.0f, 15.0f));
    }
    state.SetItemsProcessed(state.iterations() * kOutWidth * kOutHeight);
    destruct_DepthMapRefiner(&refiner);
    destruct_ParallelExecutor(&executor);
}
void BM_RefinerLift(benchmark::State& state) { refinerLift(state, IMAGE_FORMAT_YUV420_SEMIPLANAR, 1); }
BENCHMARK(BM_RefinerLift)->Apply([](auto* b) {
                             threadArgs(b, {7, 15});
                         }) -> Unit(benchmark::kMillisecond) -> UseRealTime() -> MeasureProcessCPUTime();

void BM_RefinerLiftColour(benchmark::State& state) { refinerLift(state, IMAGE_FORMAT_YVU420_SEMIPLANAR, 3); }
BENCHMARK(BM_RefinerLiftColour)
    ->Apply([](auto* b) {
        threadArgs(b, {7, 15});
    }) -> Unit(benchmark::kMillisecond) -> UseRealTime() -> MeasureProcessCPUTime();

// OpenCV's joint bilateral filter has no enlargement of its own: a bilinear
// resize of the map, then the filter with the same diameter and sigmas.
void BM_OpenCvResizeJointBilateral(benchmark::State& state) {
    const int32_t window = static_cast<int32_t>(state.range(0));
    Plane map(kMapWidth, kMapHeight, IMAGE_FORMAT_UINT8), out(kOutWidth, kOutHeight, IMAGE_FORMAT_UINT8);
    Plane guide(kOutWidth, kOutHeight, IMAGE_FORMAT_UINT8);
    OpenCvThreads threads(state.range(1));
    cv::Mat up;
    for (auto _ : state) {
        cv::resize(map.mat, up, cv::Size(kOutWidth, kOutHeight), 0, 0, cv::INTER_LINEAR);
        cv::ximgproc::jointBilateralFilter(guide.mat, up, out.mat, window, 15.0, 10.0, cv::BORDER_REPLICATE);
    }
    state.SetItemsProcessed(state.iterations() * kOutWidth * kOutHeight);
}
BENCHMARK(BM_OpenCvResizeJointBilateral)->Apply([](auto* b) {
                                            threadArgs(b, {7, 15});
                                        }) -> Unit(benchmark::kMillisecond) -> UseRealTime();

// The domain transform, normalised convolution, 3 iterations, with the same
// sigmas, after the same resize.
void BM_OpenCvResizeDomainTransform(benchmark::State& state) {
    Plane map(kMapWidth, kMapHeight, IMAGE_FORMAT_UINT8), out(kOutWidth, kOutHeight, IMAGE_FORMAT_UINT8);
    Plane guide(kOutWidth, kOutHeight, IMAGE_FORMAT_UINT8);
    OpenCvThreads threads(state.range(1));
    cv::Mat up;
    for (auto _ : state) {
        cv::resize(map.mat, up, cv::Size(kOutWidth, kOutHeight), 0, 0, cv::INTER_LINEAR);
        cv::ximgproc::dtFilter(guide.mat, up, out.mat, 10.0, 15.0, cv::ximgproc::DTF_NC, 3);
    }
    state.SetItemsProcessed(state.iterations() * kOutWidth * kOutHeight);
}
BENCHMARK(BM_OpenCvResizeDomainTransform)
    ->Apply([](auto* b) { threadArgs(b, {3}); }) -> Unit(benchmark::kMillisecond) -> UseRealTime();

}  // namespace
