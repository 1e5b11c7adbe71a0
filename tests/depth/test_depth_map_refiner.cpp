// The separable bilateral filter on answers worked by hand and on a step, and
// the depth map refiner lifting the coarse map of a piecewise-planar scene
// under the scene's own picture, against plain bilinear enlargement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "depth/depth_map_refiner.h"
#include "depth/separable_bilateral_filter.h"
#include "imageproc/resize.h"
#include "runtime/memory.h"
#include "support/layers.h"
#include "support/picture.h"

using namespace vq_tl;
using vq_tl_test::Layers;
using vq_tl_test::Picture;
using vq_tl_test::sharedLayers;

namespace {

void setRow(Picture& p, const std::vector<uint8_t>& bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) p.row(0, 0)[i] = bytes[i];
}

}  // namespace

// sigmaSpace 1: spatial[+-1] = trunc(128 / sqrt(2)) = 90, spatial[0] = 128.
// sigmaRange 5: C = 50 for one guide channel, 100 for two. Row guide 10, 12,
// 40, 40 and values 100, 20, 200, 50, window 3: pixel 0 has the centre 6400
// (x 100), its clamped left tap 50 * 90 = 4500 (x 100) and the right tap
// (50 - 2^2) * 90 = 4140 (x 20): 1172800 / 15040 = 77.98, so 78. Pixel 1:
// (128000 + 4140 * 100) / 10540 = 51.4; the step of 28 to pixel 2 is outside
// the parabola. Pixel 2: (1280000 + 4500 * 50) / 10900 = 138.1; pixel 3:
// (320000 + 4500 * 200 + 4500 * 50) / 15400 = 93.8.
TEST(SeparableBilateralFilter, KnownAnswers) {
    SeparableBilateralFilter f;
    construct_SeparableBilateralFilter(&f, nullptr);
    const struct {
        const char* name;
        uint32_t guideFormat, valueFormat;
        std::vector<uint8_t> guide, values;
        float sigmaRange;
        std::vector<double> want;
    } cases[] = {
        {"one channel",
         IMAGE_FORMAT_UINT8,
         IMAGE_FORMAT_UINT8,
         {10, 12, 40, 40},
         {100, 20, 200, 50},
         5.0f,
         {78, 51, 138, 94}},
        // e = 2^2 + 3^2 = 13: (7830 * 255) / 29630 = 67.39 and its mirror.
        {"two channels",
         IMAGE_FORMAT_UINT88,
         IMAGE_FORMAT_UINT8,
         {10, 10, 12, 13},
         {0, 255},
         5.0f,
         {67, 188}},
        {"two channels, floats",
         IMAGE_FORMAT_UINT88,
         IMAGE_FORMAT_FLOAT,
         {10, 10, 12, 13},
         {0, 255},
         5.0f,
         {1996650.0 / 29630.0, 5559000.0 / 29630.0}},
        // C = trunc(0.5^2 * 2) = 0: no tap has weight, the values stay.
        {"C of 0",
         IMAGE_FORMAT_UINT8,
         IMAGE_FORMAT_UINT8,
         {10, 12, 40, 40},
         {100, 20, 200, 50},
         0.5f,
         {100, 20, 200, 50}},
    };
    for (const auto& c : cases) {
        const int32_t n = static_cast<int32_t>(c.want.size());
        for (bool vertical : {false, true}) {
            // The vertical pass on the transposed picture gives the same answers.
            const int32_t w = vertical ? 1 : n, h = vertical ? n : 1;
            Picture guide(w, h, c.guideFormat), src(w, h, c.valueFormat), dst(w, h, c.valueFormat);
            const int32_t ch = c.guideFormat == IMAGE_FORMAT_UINT88 ? 2 : 1;
            for (int32_t i = 0; i < n; ++i) {
                for (int32_t k = 0; k < ch; ++k)
                    (vertical ? guide.row(0, i) : guide.row(0, 0) + i * ch)[k] = c.guide[i * ch + k];
                if (c.valueFormat == IMAGE_FORMAT_FLOAT) {
                    src.at<float>(vertical ? 0 : i, vertical ? i : 0) = c.values[i];
                } else {
                    src.u8(vertical ? 0 : i, vertical ? i : 0) = c.values[i];
                }
            }
            const TLResult r = vertical
                                   ? SeparableBilateralFilter_crossFilterVertically(
                                         &f, &dst.image, &src.image, &guide.image, 3, 1.0f, c.sigmaRange)
                                   : SeparableBilateralFilter_crossFilterHorizontally(
                                         &f, &dst.image, &src.image, &guide.image, 3, 1.0f, c.sigmaRange);
            ASSERT_EQ(r, TL_OK) << c.name;
            for (int32_t i = 0; i < n; ++i) {
                const int32_t x = vertical ? 0 : i, y = vertical ? i : 0;
                const double got = c.valueFormat == IMAGE_FORMAT_FLOAT ? dst.at<float>(x, y) : dst.u8(x, y);
                EXPECT_NEAR(got, c.want[i], 1e-4)
                    << c.name << (vertical ? " vertical " : " horizontal ") << i;
            }
            EXPECT_TRUE(dst.canariesIntact());
        }
    }
}

// The plain filter against a direct transcription of its definition, on
// random pictures: short and generic windows, one and three guide channels,
// a small C (weights in floats) and a large one (in integers).
TEST(SeparableBilateralFilter, MatchesDirectDefinition) {
    SeparableBilateralFilter f;
    construct_SeparableBilateralFilter(&f, nullptr);
    std::mt19937 rng(6);
    const int32_t w = 37, h = 23;
    const struct {
        uint32_t guideFormat;
        int32_t channels, window;
        float sigmaSpace, sigmaRange;
    } cases[] = {{IMAGE_FORMAT_UINT8, 1, 5, 2.0f, 15.0f},
                 {IMAGE_FORMAT_RGB888, 3, 9, 3.0f, 20.0f},
                 {IMAGE_FORMAT_UINT8, 1, 5, 2.0f, 200.0f}};
    for (const auto& c : cases) {
        Picture guide(w, h, c.guideFormat), src(w, h, IMAGE_FORMAT_UINT8), tmp(w, h, IMAGE_FORMAT_UINT8),
            dst(w, h, IMAGE_FORMAT_UINT8);
        guide.fillRandom(rng);
        src.fillRandom(rng);
        ASSERT_EQ(SeparableBilateralFilter_crossFilter(&f, &dst.image, &src.image, &guide.image, &tmp.image,
                                                       c.window, c.sigmaSpace, c.sigmaRange),
                  TL_OK);
        const int32_t half = c.window / 2;
        const int32_t range =
            static_cast<int32_t>(c.sigmaRange * (c.sigmaRange * static_cast<float>(2 * c.channels)));
        std::vector<uint8_t> mid(w * h), want(w * h);
        for (int pass = 0; pass < 2; ++pass) {
            for (int32_t y = 0; y < h; ++y)
                for (int32_t x = 0; x < w; ++x) {
                    int64_t wSum = int64_t{range} * 128;
                    float vSum = static_cast<float>(wSum) * (pass == 0 ? src.u8(x, y) : mid[y * w + x]);
                    for (int32_t k = -half; k <= half; ++k) {
                        if (k == 0) continue;
                        const int32_t qx = pass == 0 ? std::clamp(x + k, 0, w - 1) : x;
                        const int32_t qy = pass == 1 ? std::clamp(y + k, 0, h - 1) : y;
                        int32_t e = 0;
                        for (int32_t ch = 0; ch < c.channels; ++ch) {
                            const int32_t d =
                                guide.row(0, y)[x * c.channels + ch] - guide.row(0, qy)[qx * c.channels + ch];
                            e += d * d;
                        }
                        const double sp =
                            std::exp2(-static_cast<double>(k * k) / (2.0 * c.sigmaSpace * c.sigmaSpace));
                        const int64_t weight =
                            std::max(range - e, 0) * static_cast<int64_t>(static_cast<float>(sp) * 128.0f);
                        wSum += weight;
                        vSum += static_cast<float>(weight) * (pass == 0 ? src.u8(qx, qy) : mid[qy * w + qx]);
                    }
                    (pass == 0 ? mid : want)[y * w + x] =
                        static_cast<uint8_t>(static_cast<double>(vSum / static_cast<float>(wSum)) + 0.5);
                }
        }
        int32_t wrong = 0;
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x) wrong += dst.u8(x, y) != want[y * w + x];
        EXPECT_EQ(wrong, 0) << "window " << c.window << " sigmaRange " << c.sigmaRange;
    }
}

// Weighted form, flat guide, C = 50, one row: values 100, 0, 50 with weights
// 255, 0, 128. Pixel 1: S0 = 4500 + 6400 + 4500, S1 = 4500 * 255 + 4500 *
// 128 = 1723500, S2 = 4500 * 255 * 100 + 4500 * 128 * 50: value 83.3, weight
// 111.9. Pixel 0: S1 = 4500 * 255 + 6400 * 255, value 100, weight 180.5;
// pixel 2: value 50, weight 1395200 / 15400 = 90.6. The vertical pass over a
// single row keeps values and weights.
TEST(SeparableBilateralFilter, WeightedKnownAnswer) {
    SeparableBilateralFilter f;
    construct_SeparableBilateralFilter(&f, nullptr);
    Picture guide(3, 1, IMAGE_FORMAT_UINT8), src(3, 1, IMAGE_FORMAT_UINT8), srcW(3, 1, IMAGE_FORMAT_UINT8),
        tmp(3, 1, IMAGE_FORMAT_UINT8), tmpW(3, 1, IMAGE_FORMAT_UINT8), dst(3, 1, IMAGE_FORMAT_UINT8),
        dstW(3, 1, IMAGE_FORMAT_UINT8);
    setRow(guide, {10, 10, 10});
    setRow(src, {100, 0, 50});
    setRow(srcW, {255, 0, 128});
    ASSERT_EQ(
        SeparableBilateralFilter_weightedCrossFilter(&f, &dst.image, &dstW.image, &src.image, &srcW.image,
                                                     &guide.image, &tmp.image, &tmpW.image, 3, 1.0f, 5.0f),
        TL_OK);
    EXPECT_EQ(std::vector<uint8_t>(dst.row(0, 0), dst.row(0, 0) + 3), (std::vector<uint8_t>{100, 83, 50}));
    EXPECT_EQ(std::vector<uint8_t>(dstW.row(0, 0), dstW.row(0, 0) + 3), (std::vector<uint8_t>{180, 112, 91}));
}

TEST(SeparableBilateralFilter, StepInTheGuideStaysAStep) {
    // Guide: 60 left of column 20, 180 from it; values: 40 and 160 with noise
    // of +-12. Window 15 with sigmaRange 10 (C = 200, far below 120^2): both
    // sides are smoothed and the step stays within one column. A flat guide
    // with the same filter spreads the step over several columns.
    SeparableBilateralFilter f;
    construct_SeparableBilateralFilter(&f, nullptr);
    std::mt19937 rng(4);
    const int32_t w = 48, h = 24;
    Picture guide(w, h, IMAGE_FORMAT_UINT8), flat(w, h, IMAGE_FORMAT_UINT8), src(w, h, IMAGE_FORMAT_UINT8),
        tmp(w, h, IMAGE_FORMAT_UINT8), dst(w, h, IMAGE_FORMAT_UINT8), smeared(w, h, IMAGE_FORMAT_UINT8);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            guide.u8(x, y) = x < 20 ? 60 : 180;
            flat.u8(x, y) = 100;
            src.u8(x, y) = static_cast<uint8_t>((x < 20 ? 40 : 160) + static_cast<int32_t>(rng() % 25) - 12);
        }
    ASSERT_EQ(SeparableBilateralFilter_crossFilter(&f, &dst.image, &src.image, &guide.image, &tmp.image, 15,
                                                   10.0f, 10.0f),
              TL_OK);
    ASSERT_EQ(SeparableBilateralFilter_crossFilter(&f, &smeared.image, &src.image, &flat.image, &tmp.image,
                                                   15, 10.0f, 10.0f),
              TL_OK);
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x) EXPECT_NEAR(dst.u8(x, y), x < 20 ? 40 : 160, 6) << x << "," << y;
        EXPECT_GT(smeared.u8(17, y), 60);
        EXPECT_LT(smeared.u8(22, y), 140);
    }
}

namespace {

// A scene of three planar regions with straight edges: A left of a slanted
// line, B right of it above row 0.6 H, C right of it below; depth planes in
// 8 bits and a guide whose luma is 50, 130 or 210 by region, with +-3 of
// texture.
struct Scene {
    int32_t w, h;
    std::vector<int32_t> label;
    std::vector<double> depth;
    Scene(int32_t width, int32_t height) : w(width), h(height), label(width * height), depth(width * height) {
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x) {
                const double fx = x + 0.5, fy = y + 0.5;
                const int32_t l = fx < 0.45 * w + 0.25 * fy ? 0 : (fy < 0.6 * h ? 1 : 2);
                const double planes[3] = {60 + 0.1 * fx + 0.05 * fy, 150 - 0.08 * fx + 0.1 * fy,
                                          215 + 0.04 * fx - 0.06 * fy};
                label[y * w + x] = l;
                depth[y * w + x] = planes[l];
            }
    }
    // Chebyshev distance to the nearest pixel of another region, up to 8.
    int32_t edgeDistance(int32_t x, int32_t y) const {
        for (int32_t d = 1; d <= 8; ++d)
            for (int32_t dy = -d; dy <= d; ++dy)
                for (int32_t dx = -d; dx <= d; ++dx) {
                    const int32_t xx = x + dx, yy = y + dy;
                    if (xx >= 0 && yy >= 0 && xx < w && yy < h && label[yy * w + xx] != label[y * w + x])
                        return d;
                }
        return 9;
    }
};

void fillGuide(Picture& g, const Scene& s, std::mt19937& rng) {
    const uint8_t luma[3] = {50, 130, 210};
    for (int32_t y = 0; y < s.h; ++y)
        for (int32_t x = 0; x < s.w; ++x)
            g.u8(x, y) =
                static_cast<uint8_t>(luma[s.label[y * s.w + x]] + static_cast<int32_t>(rng() % 7) - 3);
    for (int32_t r = 0; r < g.rows[1]; ++r) std::memset(g.row(1, r), 128, g.rowBytes[1]);
}

// The coarse map: the mean of each 4 by 4 block of the true depth, as a
// matcher at a quarter of the size would see it.
void fillCoarse(Picture& m, const Scene& s) {
    for (int32_t y = 0; y < s.h / 4; ++y)
        for (int32_t x = 0; x < s.w / 4; ++x) {
            double sum = 0;
            for (int32_t k = 0; k < 16; ++k) sum += s.depth[(4 * y + k / 4) * s.w + 4 * x + k % 4];
            m.u8(x, y) = static_cast<uint8_t>(std::lround(sum / 16));
        }
}

struct Errors {
    double worstBeyondOne = 0;  // pixels 2 or more from an edge
    double worstInterior = 0;   // pixels more than 8 from an edge
    double meanInterior = 0;
    double meanNearEdges = 0;  // pixels 1 to 5 from an edge
};

Errors measure(Picture& out, const Scene& s) {
    Errors e;
    int32_t near = 0, inside = 0;
    for (int32_t y = 0; y < s.h; ++y)
        for (int32_t x = 0; x < s.w; ++x) {
            const double err = std::fabs(out.u8(x, y) - s.depth[y * s.w + x]);
            const int32_t d = s.edgeDistance(x, y);
            if (d >= 2) e.worstBeyondOne = std::max(e.worstBeyondOne, err);
            if (d > 8) e.worstInterior = std::max(e.worstInterior, err), e.meanInterior += err, ++inside;
            if (d <= 5) e.meanNearEdges += err, ++near;
        }
    e.meanNearEdges /= near;
    e.meanInterior /= inside;
    return e;
}

}  // namespace

TEST(DepthMapRefiner, SnapsDepthEdgesToTheGuide) {
    const int32_t w = 320, h = 240;
    Scene scene(w, h);
    std::mt19937 rng(9);
    Picture guide(w, h, IMAGE_FORMAT_YUV420_SEMIPLANAR), map(w / 4, h / 4, IMAGE_FORMAT_UINT8),
        out(w, h, IMAGE_FORMAT_UINT8), bilinear(w, h, IMAGE_FORMAT_UINT8);
    fillGuide(guide, scene, rng);
    fillCoarse(map, scene);
    Env env{};
    DepthMapRefiner refiner;
    construct_DepthMapRefiner(&refiner, &env);
    ASSERT_EQ(DepthMapRefiner_init(&refiner, w, h, w / 4, h / 4, w, h, IMAGE_FORMAT_UINT8,
                                   IMAGE_FORMAT_YUV420_SEMIPLANAR, 0),
              TL_OK);
    ASSERT_EQ(
        DepthMapRefiner_crossFilter(&refiner, &out.image, &map.image, &guide.image, 15, 1, 10.0f, 15.0f),
        TL_OK);
    ASSERT_EQ(Resize_resizeImage(nullptr, &bilinear.image, &map.image), TL_OK);
    EXPECT_TRUE(out.canariesIntact());
    const Errors refined = measure(out, scene), plain = measure(bilinear, scene);
    // Measured (window 15, sigmaSpace 10, sigmaRange 15): refiner worst
    // 14.6 levels two or more pixels from an edge, 4.6 worst and 0.47 mean
    // more than 8 pixels inside, 5.1 mean within 5 pixels of an edge;
    // bilinear 42.4, 0.75, 0.26 and 10.6. The jumps between the planes are
    // 63.7 levels or more, so an error below half of that leaves a pixel on
    // its own side of the depth edge: the refiner's edges lie within one
    // pixel of the guide's, the bilinear ones do not. The price is a bias of
    // a few levels that the filters carry a few pixels into each region.
    EXPECT_LT(refined.worstBeyondOne, 31.0);
    EXPECT_GT(plain.worstBeyondOne, 31.0);
    EXPECT_LE(refined.worstInterior, 5.0);
    EXPECT_LE(refined.meanInterior, 0.6);
    EXPECT_LT(refined.meanNearEdges, 0.6 * plain.meanNearEdges);
    destruct_DepthMapRefiner(&refiner);
}

TEST(DepthMapRefiner, UpsampleKnownAnswer) {
    // 0, 40 becomes 0, 10, 30, 40 along x (the last column copies s[1]);
    // the one source row fills both rows.
    DepthMapRefiner refiner;
    construct_DepthMapRefiner(&refiner, nullptr);
    Picture src(2, 1, IMAGE_FORMAT_UINT8), dst(4, 2, IMAGE_FORMAT_UINT8), fsrc(3, 2, IMAGE_FORMAT_FLOAT),
        fdst(6, 3, IMAGE_FORMAT_FLOAT);
    setRow(src, {0, 40});
    ASSERT_EQ(DepthMapRefiner_upsample2x(&refiner, &dst.image, &src.image), TL_OK);
    for (int32_t y = 0; y < 2; ++y)
        EXPECT_EQ(std::vector<uint8_t>(dst.row(0, y), dst.row(0, y) + 4),
                  (std::vector<uint8_t>{0, 10, 30, 40}));
    // Floats, odd height: rows 0, 3:1 and 1:3 of rows 0 and 1.
    const float s[2][3] = {{0, 8, 16}, {32, 40, 48}};
    for (int32_t y = 0; y < 2; ++y)
        for (int32_t x = 0; x < 3; ++x) fsrc.at<float>(x, y) = s[y][x];
    ASSERT_EQ(DepthMapRefiner_upsample2x(&refiner, &fdst.image, &fsrc.image), TL_OK);
    const float want[3][6] = {{0, 2, 6, 10, 14, 16}, {8, 10, 14, 18, 22, 24}, {24, 26, 30, 34, 38, 40}};
    for (int32_t y = 0; y < 3; ++y)
        for (int32_t x = 0; x < 6; ++x) EXPECT_FLOAT_EQ(fdst.at<float>(x, y), want[y][x]) << x << "," << y;
    EXPECT_TRUE(dst.canariesIntact() && fdst.canariesIntact());
}

TEST(DepthMapRefiner, SamePixelsOnEveryLayer) {
    // A random map lifted 4 times (three levels, the 2x enlargement between
    // the finer two) under an RGB guide converted from 4:2:0, and a weighted
    // call.
    Layers& layers = sharedLayers();
    std::mt19937 rng(12);
    const int32_t w = 200, h = 148;
    Picture guide(w, h, IMAGE_FORMAT_YUV420_SEMIPLANAR), map(w / 4, h / 4, IMAGE_FORMAT_UINT8),
        weight(w / 4, h / 4, IMAGE_FORMAT_UINT8);
    guide.fillRandom(rng);
    map.fillRandom(rng);
    weight.fillRandom(rng);
    std::vector<std::unique_ptr<Picture>> results;
    for (int i = -1; i < Layers::kCount; ++i) {
        DepthMapRefiner refiner;
        construct_DepthMapRefiner(&refiner, nullptr);
        if (i >= 0) {
            const ImageStripeExec exec = layers.exec(i);
            DepthMapRefiner_setPel(&refiner, exec.pel);
            DepthMapRefiner_setParallelExecutor(&refiner, exec.executor);
        }
        ASSERT_EQ(DepthMapRefiner_init(&refiner, w, h, w / 4, h / 4, w, h, IMAGE_FORMAT_UINT8,
                                       IMAGE_FORMAT_YUV420_SEMIPLANAR, 0),
                  TL_OK);
        auto out = std::make_unique<Picture>(w, 2 * h, IMAGE_FORMAT_UINT8);
        Image plainOut, weightedOut;
        Image_initSubImage(&plainOut, &out->image, 0, 0, w, h);
        Image_initSubImage(&weightedOut, &out->image, 0, h, w, h);
        EXPECT_EQ(
            DepthMapRefiner_crossFilter(&refiner, &plainOut, &map.image, &guide.image, 7, 3, 10.0f, 15.0f),
            TL_OK);
        EXPECT_EQ(DepthMapRefiner_weightedCrossFilter(&refiner, &weightedOut, &map.image, &weight.image,
                                                      &guide.image, 5, 1, 10.0f, 15.0f),
                  TL_OK);
        EXPECT_TRUE(out->canariesIntact());
        if (i >= 0) {
            EXPECT_TRUE(out->samePixels(*results[0])) << layers.names[i];
        }
        results.push_back(std::move(out));
        destruct_DepthMapRefiner(&refiner);
    }
}

TEST(DepthMapRefiner, BadArgumentsLeaveOutputUntouched) {
    Env env{};
    DepthMapRefiner fresh, ready;
    construct_DepthMapRefiner(&fresh, &env);
    construct_DepthMapRefiner(&ready, &env);
    // Kinds without a filter are set up and refuse to filter.
    for (int32_t kind = 1; kind <= 4; ++kind) {
        EXPECT_EQ(DepthMapRefiner_init(&ready, 64, 48, 32, 24, 64, 48, IMAGE_FORMAT_UINT8,
                                       IMAGE_FORMAT_YUV420_SEMIPLANAR, kind),
                  TL_OK);
        Picture guide(64, 48, IMAGE_FORMAT_YUV420_SEMIPLANAR), map(32, 24, IMAGE_FORMAT_UINT8),
            out(64, 48, IMAGE_FORMAT_UINT8);
        EXPECT_EQ(
            DepthMapRefiner_crossFilter(&ready, &out.image, &map.image, &guide.image, 7, 1, 10.0f, 15.0f),
            TL_ERROR_UNSUPPORTED)
            << kind;
    }
    EXPECT_EQ(DepthMapRefiner_init(&ready, 64, 48, 32, 24, 64, 48, IMAGE_FORMAT_UINT8,
                                   IMAGE_FORMAT_YUV420_SEMIPLANAR, 5),
              TL_ERROR_UNSUPPORTED);
    ASSERT_EQ(DepthMapRefiner_init(&ready, 64, 48, 32, 24, 64, 48, IMAGE_FORMAT_UINT8,
                                   IMAGE_FORMAT_YUV420_SEMIPLANAR, 0),
              TL_OK);
    Picture guide(64, 48, IMAGE_FORMAT_YUV420_SEMIPLANAR), planar(64, 48, IMAGE_FORMAT_YUV420_PLANAR),
        map(32, 24, IMAGE_FORMAT_UINT8), floats(32, 24, IMAGE_FORMAT_FLOAT), out(64, 48, IMAGE_FORMAT_UINT8),
        big(66, 48, IMAGE_FORMAT_UINT8);
    std::mt19937 rng(2);
    guide.fillRandom(rng);
    map.fillRandom(rng);
    const struct {
        const char* name;
        DepthMapRefiner* refiner;
        Picture* out;
        const Picture* map;
        const Picture* guide;
        int32_t window, mode;
        TLResult want;
    } cases[] = {
        {"before init", &fresh, &out, &map, &guide, 7, 1, TL_ERROR_STATE},
        {"window 32", &ready, &out, &map, &guide, 32, 1, TL_ERROR_PARAM},
        {"guide mode 0", &ready, &out, &map, &guide, 7, 0, TL_ERROR_PARAM},
        {"guide mode 4", &ready, &out, &map, &guide, 7, 4, TL_ERROR_PARAM},
        {"chroma of a planar guide", &ready, &out, &map, &planar, 7, 2, TL_ERROR_UNSUPPORTED},
        {"map format not init's", &ready, &out, &floats, &guide, 7, 1, TL_ERROR_PARAM},
        {"output larger than init's", &ready, &big, &map, &guide, 7, 1, TL_ERROR_PARAM},
    };
    for (const auto& c : cases) {
        const std::vector<uint8_t> before = c.out->storage;
        EXPECT_EQ(DepthMapRefiner_crossFilter(c.refiner, &c.out->image, &c.map->image, &c.guide->image,
                                              c.window, c.mode, 10.0f, 15.0f),
                  c.want)
            << c.name;
        EXPECT_TRUE(c.out->storage == before) << c.name;
    }
    destruct_DepthMapRefiner(&ready);
    destruct_DepthMapRefiner(&fresh);
}

TEST(DepthMapRefiner, AllocationFailuresLeaveNothingBehind) {
    // The n-th allocation of a weighted refinement fails, for every n: the
    // call reports TL_ERROR_MEMORY, leaves out untouched and holds no block.
    if (!Memory_canInjectFaults()) GTEST_SKIP() << "built without VQ_TL_ALLOC_FAULTS";
    std::mt19937 rng(3);
    Picture guide(96, 64, IMAGE_FORMAT_YUV420_SEMIPLANAR), map(24, 16, IMAGE_FORMAT_UINT8),
        weight(24, 16, IMAGE_FORMAT_UINT8), out(96, 64, IMAGE_FORMAT_UINT8);
    guide.fillRandom(rng);
    map.fillRandom(rng);
    weight.fillRandom(rng);
    DepthMapRefiner refiner;
    construct_DepthMapRefiner(&refiner, nullptr);
    ASSERT_EQ(DepthMapRefiner_init(&refiner, 96, 64, 24, 16, 96, 64, IMAGE_FORMAT_UINT8,
                                   IMAGE_FORMAT_YUV420_SEMIPLANAR, 0),
              TL_OK);
    const std::vector<uint8_t> before = out.storage;
    for (int64_t n = 1;; ++n) {
        const int64_t live = Memory_getLiveCount();
        Memory_failAt(n);
        const TLResult r = DepthMapRefiner_weightedCrossFilter(
            &refiner, &out.image, &map.image, &weight.image, &guide.image, 7, 3, 10.0f, 15.0f);
        const int64_t asked = Memory_getAllocCount();
        Memory_failAt(0);
        EXPECT_EQ(Memory_getLiveCount(), live) << n;
        if (asked < n) {
            EXPECT_EQ(r, TL_OK);
            break;
        }
        EXPECT_EQ(r, TL_ERROR_MEMORY) << n;
        EXPECT_TRUE(out.storage == before) << n;
    }
    destruct_DepthMapRefiner(&refiner);
}
