// Cost of the image record's operations that run on every frame.
#include <benchmark/benchmark.h>

#include "image/image.h"

using namespace vq_tl;

static void BM_ImageInitSameSize(benchmark::State& state) {
    Env env{};
    Image image;
    construct_Image(&image, &env);
    Image_init(&image, 1440, 1080, nullptr, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Image_init(&image, 1440, 1080, nullptr, IMAGE_FORMAT_YUV420_SEMIPLANAR));
    }
    destruct_Image(&image);
}
BENCHMARK(BM_ImageInitSameSize);

static void BM_ImageCopyYuv420(benchmark::State& state) {
    Env env{};
    Image src;
    Image dst;
    construct_Image(&src, &env);
    construct_Image(&dst, &env);
    Image_init(&src, 1440, 1080, nullptr, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    for (auto _ : state) benchmark::DoNotOptimize(Image_copy(&dst, &src));
    state.SetBytesProcessed(state.iterations() *
                            Image_getSize(1440, 1080, IMAGE_FORMAT_YUV420_SEMIPLANAR, 0));
    destruct_Image(&src);
    destruct_Image(&dst);
}
BENCHMARK(BM_ImageCopyYuv420);
