// The grid warp and the grids of a pair at the working size of the depth
// pipeline: a 1080 by 810 frame rectified through cells of 32 by 32 pixels,
// with the maps of a synthetic phone pair (10 mm baseline, 0.3 degree of
// residual rotation, mild lens distortion), in the session's settings
// (high-quality mode, boundary check on). The same warp of a 12-megapixel
// frame runs beside OpenCV's bilinear remap on per-pixel maps interpolated
// from the same grid (float maps, and the fixed-point ones of convertMaps),
// computed once outside the timing.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "bench_image.h"
#include "image/image.h"
#include "rectify/rectify_lens_dist.h"
#include "rectify/renderer2.h"
#include "rectify/stereo_rectify.h"
#include "runtime/pel.h"

using namespace vq_tl;

namespace {

constexpr int32_t kW = 1080, kH = 810, kCell = 32;
constexpr int32_t kBigW = 4000, kBigH = 3000;
constexpr int32_t kCalibW = 4000, kCalibH = 3000;

struct Owned : BenchImage {
    Owned(int32_t w, int32_t h, uint32_t format) : BenchImage(w, h, format, BenchFill::kPattern) {}
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
    int32_t w, h;
    bool ok = false;

    explicit Pair(Pel* pel, int32_t width = kW, int32_t height = kH) : w(width), h(height) {
        construct_StereoRectify(&stereo, &env);
        StereoRectify_setPel(&stereo, pel);
        StereoRectify_init(&stereo);
        for (Renderer2_Params* g : {&mainGrid, &subGrid, &inverseGrid}) construct_Renderer2_Params(g, &env);
        const int32_t work[4] = {0, 0, w, h}, half[4] = {0, 0, w / 2, h / 2};
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
                                         &camera2, &dist1, &dist2, &rotation, baseline, w, h, kCalibW,
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
                                                &camera1, &dist1, w, h, w, h, w, h, kCalibW, kCalibH);
        if (r != TL_OK) return r;
        return StereoRectify_calcRectifyGridParams(&stereo, &subGrid, nullptr, &rotation2, &newCamera2,
                                                   &camera2, &dist2, w, h, w, h, w, h, kCalibW, kCalibH);
    }
};

std::unique_ptr<Pel> makePel() {
    auto pel = std::make_unique<Pel>();
    construct_Pel(pel.get(), nullptr);
    pel->params.callerParticipates = 0;  // as the session sets it; one worker per processor
    if (Pel_init(pel.get()) != TL_OK) return nullptr;
    return pel;
}

void warp(benchmark::State& state, uint32_t format, bool withPel, int32_t w = kW, int32_t h = kH) {
    std::unique_ptr<Pel> pel = withPel ? makePel() : nullptr;
    if (withPel && pel == nullptr) {
        state.SkipWithError("Pel_init failed");
        return;
    }
    Pair pair(nullptr, w, h);
    if (!pair.ok) {
        state.SkipWithError("rectification failed");
        return;
    }
    Owned src(w, h, format), dst(w, h, format);
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
    state.SetItemsProcessed(state.iterations() * w * h);
    destruct_Renderer2(&renderer);
    if (pel != nullptr) destruct_Pel(pel.get());
}

// Per-pixel source positions of a grid: each cell's vertices interpolated
// bilinearly over its pixels, as float maps for remap.
void gridMaps(const Renderer2_Params& g, cv::Mat* mapX, cv::Mat* mapY) {
    const int32_t w = g.right - g.left, h = g.bottom - g.top;
    mapX->create(h, w, CV_32FC1);
    mapY->create(h, w, CV_32FC1);
    for (int32_t j = 0; j + 1 < g.rows; ++j) {
        for (int32_t i = 0; i + 1 < g.cols; ++i) {
            const int32_t v = j * g.cols + i;
            const int32_t x0 = g.xs[v], x1 = g.xs[v + 1], y0 = g.ys[v], y1 = g.ys[v + g.cols];
            for (int32_t y = y0; y < y1; ++y) {
                const double b = static_cast<double>(y - y0) / (y1 - y0);
                for (int32_t x = x0; x < x1; ++x) {
                    const double a = static_cast<double>(x - x0) / (x1 - x0);
                    const double wTL = (1 - a) * (1 - b), wTR = a * (1 - b), wBL = (1 - a) * b, wBR = a * b;
                    mapX->at<float>(y, x) = static_cast<float>(
                        wTL * g.x[v] + wTR * g.x[v + 1] + wBL * g.x[v + g.cols] + wBR * g.x[v + g.cols + 1]);
                    mapY->at<float>(y, x) = static_cast<float>(
                        wTL * g.y[v] + wTR * g.y[v + 1] + wBL * g.y[v + g.cols] + wBR * g.y[v + g.cols + 1]);
                }
            }
        }
    }
}

// OpenCV's bilinear remap of a 12-megapixel frame through the grid's maps:
// luma, and for the 4:2:0 layout the chroma pairs at half size (maps
// halved) as two channels.
void remapOpenCv(benchmark::State& state, bool nv21, bool fixedPoint, bool threads) {
    Pair pair(nullptr, kBigW, kBigH);
    if (!pair.ok) {
        state.SkipWithError("rectification failed");
        return;
    }
    cv::Mat mapX, mapY, halfX, halfY;
    gridMaps(pair.mainGrid, &mapX, &mapY);
    cv::resize(mapX, halfX, cv::Size(kBigW / 2, kBigH / 2), 0, 0, cv::INTER_NEAREST);
    cv::resize(mapY, halfY, cv::Size(kBigW / 2, kBigH / 2), 0, 0, cv::INTER_NEAREST);
    halfX *= 0.5;
    halfY *= 0.5;
    cv::Mat m1 = mapX, m2 = mapY, h1 = halfX, h2 = halfY;
    if (fixedPoint) {
        cv::convertMaps(mapX, mapY, m1, m2, CV_16SC2);
        cv::convertMaps(halfX, halfY, h1, h2, CV_16SC2);
    }
    const int saved = cv::getNumThreads();
    cv::setNumThreads(threads ? -1 : 1);
    Owned src(kBigW, kBigH, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    cv::Mat y(kBigH, kBigW, CV_8UC1, src.image.plane[0], src.image.pitch[0]);
    cv::Mat uv(kBigH / 2, kBigW / 2, CV_8UC2, src.image.plane[1], src.image.pitch[1]);
    cv::Mat dy, duv;
    for (auto _ : state) {
        cv::remap(y, dy, m1, m2, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
        if (nv21) cv::remap(uv, duv, h1, h2, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
        benchmark::DoNotOptimize(dy.data[0]);
    }
    state.SetItemsProcessed(state.iterations() * kBigW * kBigH);
    cv::setNumThreads(saved);
}

}  // namespace

// 12 megapixels: the library's warp and OpenCV's remap side by side.
static void BM_Renderer2Warp12MpNv21(benchmark::State& state) {
    warp(state, IMAGE_FORMAT_YVU420_SEMIPLANAR, false, kBigW, kBigH);
}
BENCHMARK(BM_Renderer2Warp12MpNv21)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();
static void BM_Renderer2Warp12MpNv21OnPel(benchmark::State& state) {
    warp(state, IMAGE_FORMAT_YVU420_SEMIPLANAR, true, kBigW, kBigH);
}
BENCHMARK(BM_Renderer2Warp12MpNv21OnPel)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();
static void BM_Renderer2Warp12MpUint8(benchmark::State& state) {
    warp(state, IMAGE_FORMAT_UINT8, false, kBigW, kBigH);
}
BENCHMARK(BM_Renderer2Warp12MpUint8)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();
static void BM_OpenCvRemap12MpNv21Float(benchmark::State& state) { remapOpenCv(state, true, false, false); }
BENCHMARK(BM_OpenCvRemap12MpNv21Float)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();
static void BM_OpenCvRemap12MpNv21Fixed(benchmark::State& state) { remapOpenCv(state, true, true, false); }
BENCHMARK(BM_OpenCvRemap12MpNv21Fixed)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();
static void BM_OpenCvRemap12MpNv21FloatThreads(benchmark::State& state) {
    remapOpenCv(state, true, false, true);
}
BENCHMARK(BM_OpenCvRemap12MpNv21FloatThreads)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();
static void BM_OpenCvRemap12MpUint8Float(benchmark::State& state) { remapOpenCv(state, false, false, false); }
BENCHMARK(BM_OpenCvRemap12MpUint8Float)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();
static void BM_OpenCvRemap12MpUint8Fixed(benchmark::State& state) { remapOpenCv(state, false, true, false); }
BENCHMARK(BM_OpenCvRemap12MpUint8Fixed)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

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
