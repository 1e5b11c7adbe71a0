// The separable bilateral filter against a direct transcription of its weights; the depth map refiner lifting
// the coarse map of a piecewise-planar scene under the scene's own picture, against bilinear enlargement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "depth/depth_map_refiner.h"
#include "depth/separable_bilateral_filter.h"
#include "imageproc/resize.h"
#include "runtime/memory.h"
#include "support/layers.h"
#include "support/owned.h"
#include "support/picture.h"

using namespace vq_tl;
using vq_tl_test::elementOf;
using vq_tl_test::Owned;
using vq_tl_test::Picture;
using vq_tl_test::sharedLayers;

namespace {

// Both passes of the plain filter written out from its definition, summing in the kernels' order (centre
// first, then the taps from -half) so that FLOAT results compare exactly as well.
std::vector<double> bilateralReference(Picture& src, Picture& guide, int32_t channels, int32_t window,
                                       float sigmaSpace, float sigmaRange) {
    const int32_t w = src.image.width, h = src.image.height, half = window / 2;
    const float c = sigmaRange * (sigmaRange * static_cast<float>(2 * channels));
    const int64_t range = c > 0 ? static_cast<int64_t>(c) : 0;
    std::vector<double> v(w * h), out(w * h);
    for (int32_t i = 0; i < w * h; ++i) v[i] = elementOf(src.image, i % w, i / w);
    for (int pass = 0; pass < 2; ++pass, v = out) {
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x) {
                int64_t wSum = range * 128;
                float vSum = static_cast<float>(wSum) * static_cast<float>(v[y * w + x]);
                for (int32_t k = -half; k <= half; ++k) {
                    if (k == 0) continue;
                    const int32_t qx = pass == 0 ? std::clamp(x + k, 0, w - 1) : x;
                    const int32_t qy = pass == 1 ? std::clamp(y + k, 0, h - 1) : y;
                    int64_t e = 0;
                    for (int32_t ch = 0; ch < channels; ++ch) {
                        const int32_t d =
                            guide.row(0, y)[x * channels + ch] - guide.row(0, qy)[qx * channels + ch];
                        e += d * d;
                    }
                    const double sp =
                        std::exp2(-static_cast<double>(k * k) / (2.0 * sigmaSpace * sigmaSpace));
                    const int64_t weight = std::max<int64_t>(range - e, 0) *
                                           static_cast<int64_t>(static_cast<float>(sp) * 128.0f);
                    wSum += weight;
                    vSum += static_cast<float>(weight) * static_cast<float>(v[qy * w + qx]);
                }
                const float q =
                    range == 0 ? static_cast<float>(v[y * w + x]) : vSum / static_cast<float>(wSum);
                out[y * w + x] = src.image.format == IMAGE_FORMAT_FLOAT
                                     ? q
                                     : std::trunc(std::min(static_cast<double>(q) + 0.5, 255.0));
            }
    }
    return v;
}

}  // namespace

// Windows 3, 5, 7 (kernels of their own) and wider, guides of 1 to 3 channels, UINT8 and FLOAT values, C from
// 0 (the values stay) over small ones (weights in floats) to 80000 (in integers), rows of several chunks.
TEST(SeparableBilateralFilter, MatchesDirectDefinition) {
    Owned<SeparableBilateralFilter, construct_SeparableBilateralFilter, destruct_SeparableBilateralFilter> f;
    std::mt19937 rng(6);
    const int32_t w = 533, h = 19;
    const struct {
        uint32_t guideFormat, valueFormat;
        int32_t channels, window;
        float sigmaSpace, sigmaRange;
    } cases[] = {
        {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT8, 1, 3, 1.0f, 5.0f},
        {IMAGE_FORMAT_UINT88, IMAGE_FORMAT_FLOAT, 2, 5, 2.0f, 15.0f},
        {IMAGE_FORMAT_RGB888, IMAGE_FORMAT_UINT8, 3, 7, 3.0f, 20.0f},
        {IMAGE_FORMAT_RGB888, IMAGE_FORMAT_FLOAT, 3, 9, 3.0f, 20.0f},
        {IMAGE_FORMAT_UINT88, IMAGE_FORMAT_UINT8, 2, 15, 6.0f, 10.0f},
        {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT8, 1, 31, 10.0f, 200.0f},
        {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT8, 1, 5, 2.0f, 0.5f},
    };
    for (const auto& c : cases) {
        Picture guide(w, h, c.guideFormat), src(w, h, c.valueFormat), tmp(w, h, c.valueFormat),
            dst(w, h, c.valueFormat);
        // A quarter of the guide anywhere, the rest within 6 levels: taps inside and outside the parabola.
        const int32_t n = w * c.channels;
        for (int32_t i = 0; i < n * h; ++i)
            guide.row(0, i / n)[i % n] = static_cast<uint8_t>(rng() % 4 == 0 ? rng() : 120 + rng() % 6);
        src.fillRandom(rng);
        for (int32_t i = 0; c.valueFormat == IMAGE_FORMAT_FLOAT && i < w * h; ++i)
            src.at<float>(i % w, i / w) = static_cast<float>(rng() % 1000) * 0.25f;
        ASSERT_EQ(SeparableBilateralFilter_crossFilter(&f, &dst.image, &src.image, &guide.image, &tmp.image,
                                                       c.window, c.sigmaSpace, c.sigmaRange),
                  TL_OK);
        EXPECT_TRUE(dst.canariesIntact());
        std::vector<double> got;
        for (int32_t i = 0; i < w * h; ++i) got.push_back(elementOf(dst.image, i % w, i / w));
        EXPECT_EQ(got, bilateralReference(src, guide, c.channels, c.window, c.sigmaSpace, c.sigmaRange))
            << "window " << c.window << " sigmaRange " << c.sigmaRange;
    }
    // Weighted form, flat guide, C = 50, spatial[+-1] = 90: values 100, 0, 50 with weights 255, 0, 128.
    // Pixel 1: S0 = 4500 + 6400 + 4500, S1 = 4500 * (255 + 128), S2 = 4500 * (255 * 100 + 128 * 50): value
    // 83.3, weight 111.9. Pixel 0: value 100, weight 10700 * 255 / 15400 = 180.5; pixel 2: value 50, weight
    // 1395200 / 15400 = 90.6. The vertical pass over one row keeps both.
    Picture flat(3, 1, IMAGE_FORMAT_UINT8), vals(3, 1, IMAGE_FORMAT_UINT8), wts(3, 1, IMAGE_FORMAT_UINT8),
        tVals(3, 1, IMAGE_FORMAT_UINT8), tWts(3, 1, IMAGE_FORMAT_UINT8), dVals(3, 1, IMAGE_FORMAT_UINT8),
        dWts(3, 1, IMAGE_FORMAT_UINT8);
    const uint8_t values[3] = {100, 0, 50}, weights[3] = {255, 0, 128};
    for (int32_t x = 0; x < 3; ++x) flat.u8(x, 0) = 10, vals.u8(x, 0) = values[x], wts.u8(x, 0) = weights[x];
    ASSERT_EQ(
        SeparableBilateralFilter_weightedCrossFilter(&f, &dVals.image, &dWts.image, &vals.image, &wts.image,
                                                     &flat.image, &tVals.image, &tWts.image, 3, 1.0f, 5.0f),
        TL_OK);
    EXPECT_EQ(std::vector<uint8_t>(dVals.row(0, 0), dVals.row(0, 0) + 3),
              (std::vector<uint8_t>{100, 83, 50}));
    EXPECT_EQ(std::vector<uint8_t>(dWts.row(0, 0), dWts.row(0, 0) + 3), (std::vector<uint8_t>{180, 112, 91}));
}

namespace {

using Refiner = Owned<DepthMapRefiner, construct_DepthMapRefiner, destruct_DepthMapRefiner>;

// Three planar regions with straight edges: 0 left of a slanted line, 1 right of it above row 0.6 h, 2 right
// of it below; depth planes in 8 bits, and each pixel's Chebyshev distance to another region, up to 9.
struct Scene {
    int32_t w, h;
    std::vector<int32_t> label;
    std::vector<double> depth;
    Scene(int32_t width, int32_t height) : w(width), h(height) {
        for (int32_t i = 0; i < w * h; ++i) {
            const double fx = i % w + 0.5, fy = i / w + 0.5;
            label.push_back(fx < 0.45 * w + 0.25 * fy ? 0 : (fy < 0.6 * h ? 1 : 2));
            const double planes[3] = {60 + 0.1 * fx + 0.05 * fy, 150 - 0.08 * fx + 0.1 * fy,
                                      215 + 0.04 * fx - 0.06 * fy};
            depth.push_back(planes[label.back()]);
        }
    }
    int32_t edgeDistance(int32_t x, int32_t y) const {
        for (int32_t d = 1; d <= 8; ++d)
            for (int32_t yy = std::max(y - d, 0); yy <= std::min(y + d, h - 1); ++yy)
                for (int32_t xx = std::max(x - d, 0); xx <= std::min(x + d, w - 1); ++xx)
                    if (label[yy * w + xx] != label[y * w + x]) return d;
        return 9;
    }
    struct Errors {
        double worstBeyondOne = 0;               // pixels 2 or more from an edge
        double worstInside = 0, meanInside = 0;  // pixels more than 8 from an edge
        double meanNearEdges = 0;                // pixels 1 to 5 from an edge
    };
    Errors measure(Picture& out) const {
        Errors e;
        int32_t near = 0, inside = 0;
        for (int32_t i = 0; i < w * h; ++i) {
            const double err = std::fabs(out.u8(i % w, i / w) - depth[i]);
            const int32_t d = edgeDistance(i % w, i / w);
            if (d >= 2) e.worstBeyondOne = std::max(e.worstBeyondOne, err);
            if (d > 8) e.worstInside = std::max(e.worstInside, err), e.meanInside += err, ++inside;
            if (d <= 5) e.meanNearEdges += err, ++near;
        }
        e.meanNearEdges /= near;
        e.meanInside /= inside;
        return e;
    }
};

}  // namespace

// The coarse map is the mean of each 4 by 4 block of the scene's depth, as a matcher at a quarter of the size
// would see it; the guide's luma is 50, 130 or 210 by region, with +-3 of texture. Three levels, on the
// session's layers: the filters on a Pel, the resizes on an executor over it.
TEST(DepthMapRefiner, SnapsDepthEdgesToTheGuide) {
    const int32_t w = 320, h = 240;
    Scene scene(w, h);
    std::mt19937 rng(9);
    Picture guide(w, h, IMAGE_FORMAT_YUV420_SEMIPLANAR), map(w / 4, h / 4, IMAGE_FORMAT_UINT8),
        out(w, h, IMAGE_FORMAT_UINT8), bilinear(w, h, IMAGE_FORMAT_UINT8);
    const int32_t luma[3] = {50, 130, 210};
    for (int32_t i = 0; i < w * h; ++i)
        guide.u8(i % w, i / w) =
            static_cast<uint8_t>(luma[scene.label[i]] + static_cast<int32_t>(rng() % 7) - 3);
    for (int32_t i = 0, x = 0, y = 0; i < w * h / 16; ++i, x = i % (w / 4), y = i / (w / 4)) {
        double sum = 0;
        for (int32_t k = 0; k < 16; ++k) sum += scene.depth[(4 * y + k / 4) * w + 4 * x + k % 4];
        map.u8(x, y) = static_cast<uint8_t>(std::lround(sum / 16));
    }
    Refiner refiner;
    DepthMapRefiner_setPel(&refiner, &sharedLayers().pel);
    DepthMapRefiner_setParallelExecutor(&refiner, &sharedLayers().overPel);
    ASSERT_EQ(DepthMapRefiner_init(&refiner, w, h, w / 4, h / 4, w, h, IMAGE_FORMAT_UINT8,
                                   IMAGE_FORMAT_YUV420_SEMIPLANAR, 0),
              TL_OK);
    ASSERT_EQ(
        DepthMapRefiner_crossFilter(&refiner, &out.image, &map.image, &guide.image, 15, 1, 10.0f, 15.0f),
        TL_OK);
    EXPECT_TRUE(out.canariesIntact());
    ASSERT_EQ(Resize_resizeImage(nullptr, &bilinear.image, &map.image), TL_OK);
    const Scene::Errors refined = scene.measure(out), plain = scene.measure(bilinear);
    // Measured, refiner and bilinear: worst 2 or more pixels from an edge 14.6 and 42.4 levels; more than 8
    // inside worst 4.6 and 0.75, mean 0.46 and 0.26; within 5 of an edge mean 5.1 and 10.6. The planes part
    // by 63.7 levels or more, so below half of that a pixel keeps its side: the refiner's depth edges lie
    // within one pixel of the guide's, the bilinear ones do not, at the price of a bias of a few levels.
    EXPECT_LT(refined.worstBeyondOne, 31.0);
    EXPECT_GT(plain.worstBeyondOne, 31.0);
    EXPECT_LE(refined.worstInside, 5.0);
    EXPECT_LE(refined.meanInside, 0.6);
    EXPECT_LT(refined.meanNearEdges, 0.6 * plain.meanNearEdges);
}

TEST(DepthMapRefiner, LevelSizesAndEnlargementKnownAnswers) {
    // Level l halves rounding up, (W + 2^(l+1) - 2) >> l, bit 0 cleared, down to the first not above the map.
    const struct {
        int32_t w, h, mw, mh;
        std::vector<int32_t> sizes;  // width and height of each level
    } cases[] = {
        {1080, 810, 540, 405, {1080, 810, 540, 406}},
        {1001, 777, 60, 47, {1001, 777, 500, 388, 250, 194, 126, 98, 64, 50, 60, 47}},
        {64, 48, 64, 48, {64, 48}},
        {4000, 3000, 1, 1, {4000, 3000, 2000, 1500, 1000, 750, 500, 376, 250, 188,
                            126,  94,   64,   48,   32,   24,  16,  12,  8,   6}},
    };
    for (const auto& c : cases) {
        int32_t sizes[kDepthMapRefinerMaxLevels][2];
        const int32_t levels = DepthMapRefiner_getLevelSizes(c.w, c.h, c.mw, c.mh, sizes);
        EXPECT_EQ(std::vector<int32_t>(&sizes[0][0], &sizes[0][0] + 2 * levels), c.sizes);
    }
    // 2x of 0, 8, 16 over 32, 40, 48: 3:1 and 1:3 pairs, the first column and row copied, the last (even
    // sizes) copying s[2] and row 1; exact in UINT8.
    const double want[4][6] = {
        {0, 2, 6, 10, 14, 16}, {8, 10, 14, 18, 22, 24}, {24, 26, 30, 34, 38, 40}, {32, 34, 38, 42, 46, 48}};
    Refiner refiner;
    DepthMapRefiner_setPel(&refiner, &sharedLayers().balanced);  // a task per row
    Picture src8(3, 2, IMAGE_FORMAT_UINT8), srcF(3, 2, IMAGE_FORMAT_FLOAT);
    for (int32_t i = 0; i < 6; ++i)
        srcF.at<float>(i % 3, i / 3) = src8.u8(i % 3, i / 3) = static_cast<uint8_t>(i % 3 * 8 + i / 3 * 32);
    for (Picture* src : {&src8, &srcF}) {
        Picture dst(6, 4, src->image.format);
        ASSERT_EQ(DepthMapRefiner_upsample2x(&refiner, &dst.image, &src->image), TL_OK);
        for (int32_t i = 0; i < 24; ++i)
            EXPECT_EQ(elementOf(dst.image, i % 6, i / 6), want[i / 6][i % 6])
                << src->image.format << " " << i;
        EXPECT_TRUE(dst.canariesIntact());
    }
}

// Every check runs before the first write. When any n-th allocation of a weighted refinement fails, out is
// untouched and no block held.
TEST(DepthMapRefiner, BadArgumentsLeaveOutputUntouched) {
    Refiner fresh, ready, kind4;
    Picture guide(64, 48, IMAGE_FORMAT_YUV420_SEMIPLANAR), planar(64, 48, IMAGE_FORMAT_YUV420_PLANAR),
        map(16, 12, IMAGE_FORMAT_UINT8), floats(16, 12, IMAGE_FORMAT_FLOAT), out(64, 48, IMAGE_FORMAT_UINT8),
        big(66, 48, IMAGE_FORMAT_UINT8);
    std::mt19937 rng(2);
    guide.fillRandom(rng);
    map.fillRandom(rng);
    const std::vector<uint8_t> before[2] = {out.storage, big.storage};
    Image *o = &out.image, *m = &map.image, *g = &guide.image;
    auto init = [](DepthMapRefiner* r, uint32_t mapFormat, int32_t kind) {
        return DepthMapRefiner_init(r, 64, 48, 16, 12, 64, 48, mapFormat, IMAGE_FORMAT_YUV420_SEMIPLANAR,
                                    kind);
    };
    auto refine = [](DepthMapRefiner* r, Image* to, const Image* from, const Image* by, int32_t window,
                     int32_t mode) {
        return DepthMapRefiner_crossFilter(r, to, from, by, window, mode, 10.0f, 15.0f);
    };
    const struct {
        const char* name;
        TLResult got, want;
    } cases[] = {
        {"kind 5", init(&fresh, IMAGE_FORMAT_UINT8, 5), TL_ERROR_UNSUPPORTED},
        {"UINT16 map", init(&fresh, IMAGE_FORMAT_UINT16, 0), TL_ERROR_UNSUPPORTED},
        {"before init", refine(&fresh, o, m, g, 7, 1), TL_ERROR_STATE},
        // A kind without its filter yet is set up and refuses to filter.
        {"kind 4", init(&kind4, IMAGE_FORMAT_UINT8, 4), TL_OK},
        {"kind 4 filtering", refine(&kind4, o, m, g, 7, 1), TL_ERROR_UNSUPPORTED},
        {"init", init(&ready, IMAGE_FORMAT_UINT8, 0), TL_OK},
        {"window 32", refine(&ready, o, m, g, 32, 1), TL_ERROR_PARAM},
        {"guide mode 0", refine(&ready, o, m, g, 7, 0), TL_ERROR_PARAM},
        {"guide mode 4", refine(&ready, o, m, g, 7, 4), TL_ERROR_PARAM},
        {"chroma of a planar guide", refine(&ready, o, m, &planar.image, 7, 2), TL_ERROR_UNSUPPORTED},
        {"map format not init's", refine(&ready, o, &floats.image, g, 7, 1), TL_ERROR_PARAM},
        {"output larger than init's", refine(&ready, &big.image, m, g, 7, 1), TL_ERROR_PARAM},
    };
    for (const auto& c : cases) EXPECT_EQ(c.got, c.want) << c.name;
    EXPECT_TRUE(out.storage == before[0] && big.storage == before[1]);
    for (int64_t n = 1; Memory_canInjectFaults(); ++n) {
        const int64_t live = Memory_getLiveCount();
        Memory_failAt(n);
        const TLResult r = DepthMapRefiner_weightedCrossFilter(&ready, o, m, m, g, 7, 3, 10.0f, 15.0f);
        const int64_t asked = Memory_getAllocCount();
        Memory_failAt(0);
        EXPECT_EQ(Memory_getLiveCount(), live) << n;
        EXPECT_EQ(r, asked < n ? TL_OK : TL_ERROR_MEMORY) << n;
        if (asked < n) break;
        EXPECT_TRUE(out.storage == before[0]) << n;
    }
}
