// Scaling and turning at the sizes of the depth pipeline: a 12-megapixel
// main frame brought to the matching size of 27 percent, and the quarter
// turn of a matching-size plane that a pair in portrait takes.
#include <benchmark/benchmark.h>

#include <cstring>

#include "image/image.h"
#include "imageproc/resize.h"
#include "imageproc/rotate.h"

using namespace vq_tl;

namespace {

struct Owned {
    Env env{};
    Image image;
    Owned(int32_t w, int32_t h, uint32_t format) {
        construct_Image(&image, &env);
        Image_init(&image, w, h, nullptr, format);
        const int32_t bytes = Image_getSize(w, h, format, IMAGE_SIZE_TOTAL);
        // A smooth pattern, so that the work is not that of a constant.
        for (int32_t i = 0; i < bytes; ++i) image.plane[0][i] = static_cast<uint8_t>((i * 7) ^ (i >> 9));
    }
    ~Owned() { destruct_Image(&image); }
};

}  // namespace

static void BM_ResizeYuv420To27Percent(benchmark::State& state) {
    // 4000 x 3000 to 1080 x 810: 27 percent of each side.
    Owned src(4000, 3000, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    Owned dst(1080, 810, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    for (auto _ : state) benchmark::DoNotOptimize(Resize_resizeImage(nullptr, &dst.image, &src.image));
    state.SetItemsProcessed(state.iterations() * 1080 * 810);
}
BENCHMARK(BM_ResizeYuv420To27Percent)->Unit(benchmark::kMillisecond);

static void BM_AverageShrinkYuv420To27Percent(benchmark::State& state) {
    Owned src(4000, 3000, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    Owned dst(1080, 810, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    for (auto _ : state) benchmark::DoNotOptimize(Resize_averageShrink(nullptr, &dst.image, &src.image));
    state.SetItemsProcessed(state.iterations() * 1080 * 810);
}
BENCHMARK(BM_AverageShrinkYuv420To27Percent)->Unit(benchmark::kMillisecond);

static void BM_RotatePlaneQuarterTurn(benchmark::State& state) {
    Owned src(1080, 810, IMAGE_FORMAT_UINT8);
    Owned dst(810, 1080, IMAGE_FORMAT_UINT8);
    for (auto _ : state)
        benchmark::DoNotOptimize(Rotate_rotateImageEx(nullptr, &dst.image, &src.image, 1, 6));
    state.SetItemsProcessed(state.iterations() * 1080 * 810);
}
BENCHMARK(BM_RotatePlaneQuarterTurn)->Unit(benchmark::kMicrosecond);
