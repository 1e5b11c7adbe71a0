// Semi-planar and planar 4:2:0 to RGB888 at 4000 x 3000, the size of a main frame, beside
// OpenCV's cvtColor on the same planes in the same program, so that the ratio
// comes from one run on one machine. OpenCV is linked into this program only.
#include <benchmark/benchmark.h>

#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "image/image.h"
#include "image/image_conv.h"

using namespace vq_tl;

namespace {

constexpr int32_t kWidth = 4000, kHeight = 3000;

// One block for all planes, as the camera hands them over: luma rows, then
// the interleaved chroma rows (or the U rows, then the V rows, for planar),
// all of pitch kWidth (kWidth / 2 for planar chroma).
struct Frame {
    Env env{};
    Image yuv, rgb;
    explicit Frame(uint32_t format) {
        construct_Image(&yuv, &env);
        construct_Image(&rgb, &env);
        Image_init(&yuv, kWidth, kHeight, nullptr, format);
        Image_init(&rgb, kWidth, kHeight, nullptr, IMAGE_FORMAT_RGB888);
        const int32_t bytes = Image_getSize(kWidth, kHeight, format, IMAGE_SIZE_TOTAL);
        // A smooth pattern with chroma away from grey, so that the clamps work.
        for (int32_t i = 0; i < bytes; ++i) yuv.plane[0][i] = static_cast<uint8_t>((i * 7) ^ (i >> 9));
        // The destination's pages are touched here, not in the first timed call.
        std::memset(
            rgb.plane[0], 0,
            static_cast<size_t>(Image_getSize(kWidth, kHeight, IMAGE_FORMAT_RGB888, IMAGE_SIZE_TOTAL)));
    }
    ~Frame() {
        destruct_Image(&yuv);
        destruct_Image(&rgb);
    }
};

void convertWithLibrary(benchmark::State& state, uint32_t format) {
    Frame f(format);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Image_conv_toRgb888(&f.rgb, &f.yuv));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

void convertWithOpenCv(benchmark::State& state, uint32_t format, int code) {
    Frame f(format);
    const cv::Mat yuv(kHeight * 3 / 2, kWidth, CV_8UC1, f.yuv.plane[0]);
    cv::Mat rgb(kHeight, kWidth, CV_8UC3, f.rgb.plane[0]);
    // OpenCV reads the planes as one block: they must follow each other.
    const uint8_t* chroma = f.yuv.plane[0] + kWidth * kHeight;
    if (f.yuv.plane[1] != chroma ||
        (format == IMAGE_FORMAT_YUV420_PLANAR && f.yuv.plane[2] != chroma + kWidth * kHeight / 4)) {
        state.SkipWithError("the planes are not one block");
        return;
    }
    // Measured on the calling thread, as the library's conversion runs.
    cv::setNumThreads(1);
    for (auto _ : state) {
        cv::cvtColor(yuv, rgb, code);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

}  // namespace

static void BM_ConvNv21ToRgb888(benchmark::State& state) {
    convertWithLibrary(state, IMAGE_FORMAT_YVU420_SEMIPLANAR);
}
BENCHMARK(BM_ConvNv21ToRgb888)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

static void BM_OpenCvNv21ToRgb888(benchmark::State& state) {
    convertWithOpenCv(state, IMAGE_FORMAT_YVU420_SEMIPLANAR, cv::COLOR_YUV2RGB_NV21);
}
BENCHMARK(BM_OpenCvNv21ToRgb888)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

static void BM_ConvNv12ToRgb888(benchmark::State& state) {
    convertWithLibrary(state, IMAGE_FORMAT_YUV420_SEMIPLANAR);
}
BENCHMARK(BM_ConvNv12ToRgb888)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

static void BM_OpenCvNv12ToRgb888(benchmark::State& state) {
    convertWithOpenCv(state, IMAGE_FORMAT_YUV420_SEMIPLANAR, cv::COLOR_YUV2RGB_NV12);
}
BENCHMARK(BM_OpenCvNv12ToRgb888)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

static void BM_ConvI420ToRgb888(benchmark::State& state) {
    convertWithLibrary(state, IMAGE_FORMAT_YUV420_PLANAR);
}
BENCHMARK(BM_ConvI420ToRgb888)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();

static void BM_OpenCvI420ToRgb888(benchmark::State& state) {
    convertWithOpenCv(state, IMAGE_FORMAT_YUV420_PLANAR, cv::COLOR_YUV2RGB_I420);
}
BENCHMARK(BM_OpenCvI420ToRgb888)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();
