// The grid warp and the grids of a pair at the working size of the depth
// pipeline: a 1080 by 810 frame rectified through cells of 32 by 32 pixels,
// with the maps of a synthetic phone pair (10 mm baseline, 0.3 degree of
// residual rotation, mild lens distortion), in the session's settings
// (high-quality mode, boundary check on).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <memory>

#include "image/image.h"
#include "rectify/rectify_lens_dist.h"
#include "rectify/renderer2.h"
#include "rectify/stereo_rectify.h"
#include "runtime/pel.h"

using namespace vq_tl;

namespace {

constexpr int32_t kW = 1080, kH = 810, kCell = 32;
constexpr int32_t kCalibW = 4000, kCalibH = 3000;

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

RectifyLensDist lens(double k1, double k2, double k3, double p1, double p2) {
    RectifyLensDist d;
    RectifyLensDist_clear(&d);
    const double k[3] = {k1, k2, k3}, p[2] = {p1, p2};
    RectifyLensDist_setDistCoeff(&d, k, 3, p, 2);
    return d;
}

// A calibrated pair and its rectification, ready for the grid calls.
struct Pair {
    Env env{};
    StereoRectify stereo;
    Mvec8Real camera1 = {{3200, 0, 2003.5, 0, 3200, 1497.2, 0, 0, 1}};
    Mvec8Real camera2 = {{3150, 0, 1995.0, 0, 3150, 1506.0, 0, 0, 1}};
    RectifyLensDist dist1 = lens(0.06, -0.12, 0.04, 6e-4, -4e-4);
    RectifyLensDist dist2 = lens(-0.05, 0.08, -0.02, -5e-4, 3e-4);
    Mvec8Real rotation1, rotation2, newCamera1, newCamera2;
    Renderer2_Params mainGrid, subGrid, inverseGrid;
    bool ok = false;

    explicit Pair(Pel* pel) {
        construct_StereoRectify(&stereo, &env);
        StereoRectify_setPel(&stereo, pel);
        StereoRectify_init(&stereo);
        for (Renderer2_Params* g : {&mainGrid, &subGrid, &inverseGrid}) construct_Renderer2_Params(g, &env);
        const int32_t work[4] = {0, 0, kW, kH}, half[4] = {0, 0, kW / 2, kH / 2};
        // 0.3 degree about (0.3, -0.5, 0.8), written out.
        const double a = 0.3 * M_PI / 180, n = std::sqrt(0.98);
        const double x = 0.3 / n, y = -0.5 / n, z = 0.8 / n, c = std::cos(a), s = std::sin(a), t = 1 - c;
        const Mvec8Real rotation = {{t * x * x + c, t * x * y - s * z, t * x * z + s * y, t * x * y + s * z,
                                     t * y * y + c, t * y * z - s * x, t * x * z - s * y, t * y * z + s * x,
                                     t * z * z + c}};
        const float baseline[3] = {-10.0f, 0.0f, 0.0f};
        ok = Renderer2_Params_initWithGridSize(&mainGrid, work, kCell, kCell) == TL_OK &&
             Renderer2_Params_initWithGridSize(&subGrid, work, kCell, kCell) == TL_OK &&
             Renderer2_Params_initWithGridSize(&inverseGrid, half, kCell, kCell) == TL_OK &&
             StereoRectify_stereoRectify(&stereo, &rotation1, &rotation2, &newCamera1, &newCamera2, &camera1,
                                         &camera2, &dist1, &dist2, &rotation, baseline, kW, kH, kCalibW,
                                         kCalibH, kCalibW, kCalibH, 8, 8) == TL_OK &&
             buildGrids() == TL_OK;
    }
    ~Pair() {
        for (Renderer2_Params* g : {&mainGrid, &subGrid, &inverseGrid}) destruct_Renderer2_Params(g);
        destruct_StereoRectify(&stereo);
    }
    // The session's two grid calls: the main camera with the inverse grid,
    // then the sub camera.
    TLResult buildGrids() {
        const TLResult r =
            StereoRectify_calcRectifyGridParams(&stereo, &mainGrid, &inverseGrid, &rotation1, &newCamera1,
                                                &camera1, &dist1, kW, kH, kW, kH, kW, kH, kCalibW, kCalibH);
        if (r != TL_OK) return r;
        return StereoRectify_calcRectifyGridParams(&stereo, &subGrid, nullptr, &rotation2, &newCamera2,
                                                   &camera2, &dist2, kW, kH, kW, kH, kW, kH, kCalibW,
                                                   kCalibH);
    }
};

std::unique_ptr<Pel> makePel() {
    auto pel = std::make_unique<Pel>();
    construct_Pel(pel.get(), nullptr);
    pel->params.callerParticipates = 0;  // as the session sets it; one worker per processor
    if (Pel_init(pel.get()) != TL_OK) return nullptr;
    return pel;
}

void warp(benchmark::State& state, uint32_t format, bool withPel) {
    std::unique_ptr<Pel> pel = withPel ? makePel() : nullptr;
    if (withPel && pel == nullptr) {
        state.SkipWithError("Pel_init failed");
        return;
    }
    Pair pair(nullptr);
    if (!pair.ok) {
        state.SkipWithError("rectification failed");
        return;
    }
    Owned src(kW, kH, format), dst(kW, kH, format);
    Env env{};
    Renderer2 renderer;
    construct_Renderer2(&renderer, &env);
    Renderer2_setMode(&renderer, 1);
    Renderer2_setBoundaryCheck(&renderer, 1);
    Renderer2_initWithPel(&renderer, pel.get());
    for (auto _ : state) {
        if (Renderer2_render(&renderer, &dst.image, &src.image, &pair.mainGrid) != TL_OK) {
            state.SkipWithError("render failed");
            break;
        }
        benchmark::DoNotOptimize(dst.image.plane[0][0]);
    }
    state.SetItemsProcessed(state.iterations() * kW * kH);
    destruct_Renderer2(&renderer);
    if (pel != nullptr) destruct_Pel(pel.get());
}

}  // namespace

static void BM_Renderer2WarpYuv420(benchmark::State& state) {
    warp(state, IMAGE_FORMAT_YUV420_SEMIPLANAR, false);
}
BENCHMARK(BM_Renderer2WarpYuv420)->Unit(benchmark::kMillisecond);

static void BM_Renderer2WarpUint8(benchmark::State& state) { warp(state, IMAGE_FORMAT_UINT8, false); }
BENCHMARK(BM_Renderer2WarpUint8)->Unit(benchmark::kMillisecond);

static void BM_Renderer2WarpYuv420OnPel(benchmark::State& state) {
    warp(state, IMAGE_FORMAT_YUV420_SEMIPLANAR, true);
}
BENCHMARK(BM_Renderer2WarpYuv420OnPel)->Unit(benchmark::kMillisecond)->UseRealTime();

static void BM_StereoRectifyGridsOfAPair(benchmark::State& state) {
    // Both grids of a pair (35 by 27 vertices each, and the inverse grid of
    // 18 by 14 at half size); the lens inverses are fitted once, outside.
    Pair pair(nullptr);
    if (!pair.ok) {
        state.SkipWithError("rectification failed");
        return;
    }
    for (auto _ : state) benchmark::DoNotOptimize(pair.buildGrids());
}
BENCHMARK(BM_StereoRectifyGridsOfAPair)->Unit(benchmark::kMicrosecond);

static void BM_StereoRectifyPairFromCalibration(benchmark::State& state) {
    // The whole rebuild after a change of calibration: lens fits, rotations,
    // new camera matrix and both grids.
    Pair pair(nullptr);
    if (!pair.ok) {
        state.SkipWithError("rectification failed");
        return;
    }
    const Mvec8Real identity = {{1, 0, 0, 0, 1, 0, 0, 0, 1}};
    const float baseline[3] = {-10.0f, 0.0f, 0.0f};
    for (auto _ : state) {
        pair.dist1.coeff.invValid = 0;
        pair.dist2.coeff.invValid = 0;
        TLResult r = StereoRectify_stereoRectify(&pair.stereo, &pair.rotation1, &pair.rotation2,
                                                 &pair.newCamera1, &pair.newCamera2, &pair.camera1,
                                                 &pair.camera2, &pair.dist1, &pair.dist2, &identity, baseline,
                                                 kW, kH, kCalibW, kCalibH, kCalibW, kCalibH, 8, 8);
        if (r == TL_OK) r = pair.buildGrids();
        benchmark::DoNotOptimize(r);
    }
}
BENCHMARK(BM_StereoRectifyPairFromCalibration)->Unit(benchmark::kMillisecond);
