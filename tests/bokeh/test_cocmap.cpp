// Cocmap: maps worked out by hand, the focus square, the automatic focus,
// and the four entry points against a per-pixel evaluation of the formulas.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <vector>

#include "bokeh/cocmap.h"
#include "runtime/memory.h"
#include "support/picture.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

// A Cocmap on a Pel of `workers` threads, maxSigma 15 as the session sets it.
struct Rig {
    Env env{};
    Pel pel;
    Cocmap cm;
    explicit Rig(int32_t workers = 3) {
        construct_Pel(&pel, &env);
        pel.params.numberOfWorkers = workers;
        pel.params.callerParticipates = 0;
        EXPECT_EQ(Pel_init(&pel), TL_OK);
        construct_Cocmap(&cm, &env);
        Cocmap_setPel(&cm, &pel);
        Cocmap_setMaxSigma(&cm, 15.0f);
        EXPECT_EQ(Cocmap_init(&cm, 0, 0), TL_OK);
    }
    ~Rig() {
        destruct_Cocmap(&cm);
        destruct_Pel(&pel);
    }
};

enum Entry { kDepthAt, kDisparityAt, kDepthAuto, kDisparityAuto };

// aux: focal for depth, baseline for disparity (whose focal of 7 is unused).
TLResult run(Cocmap* cm, int e, Picture& dst, float* maxCoc, Picture& src, const float* t, float scale,
             float aux, int32_t mode, float x = 0.5f, float y = 0.5f) {
    Image *d = &dst.image, *s = &src.image;
    if (e == kDepthAt) return Cocmap_getCocMapFromDepthByCoord(cm, d, maxCoc, s, t, scale, aux, x, y, mode);
    if (e == kDisparityAt)
        return Cocmap_getCocMapFromDisparityByCoord(cm, d, maxCoc, s, t, scale, 7, aux, x, y, mode);
    if (e == kDepthAuto) return Cocmap_getRecommendedCocMapFromDepth(cm, d, maxCoc, s, t, scale, aux, mode);
    return Cocmap_getRecommendedCocMapFromDisparity(cm, d, maxCoc, s, t, scale, 7, aux, mode);
}

// The blur of one table value v about focus f, from the formulas.
float refCoc(bool depth, int32_t mode, float v, float f, float scale, float aux) {
    const double fd = f;
    if (depth && mode == 0) {
        const float d = v < f ? std::min(v + f / 4, f) : std::max(v - f / 4, f);
        return std::clamp(static_cast<float>(2.0 * (scale * aux) * (d - fd) / ((2.0 * d + fd) * fd)), -15.f,
                          15.f);
    }
    if (depth)
        return std::min(
            static_cast<float>(double{scale} * aux * std::fabs(2.0 * (v - f) / ((2.0 * v + fd) * fd))), 15.f);
    const float g = v < f ? std::min(v + aux * 0.060606062f, f) : std::max(v - aux * 0.07407403f, f);
    if (mode == 0) return std::clamp(scale / aux * (g - f), -15.f, 15.f);
    return std::min(static_cast<float>(double{scale / aux} * std::fabs(g - f)), 15.f);
}

uint8_t refByte(bool depth, int32_t mode, float coc, float largest) {
    auto sat = [](double b) { return static_cast<uint8_t>(std::clamp(b, 0.0, 255.0)); };
    const float s = static_cast<float>((mode == 0 ? 128 : depth ? 255 : 1) / (largest + 1e-9));
    if (mode == 0) return sat(depth ? 128.0f - coc * s : 128.0f + coc * s);
    return depth ? sat(255.0 - coc * s) : sat(std::clamp(1.0f - coc * s, 0.0f, 1.0f) * 255.0f);
}

// The automatic focus: a plain count, a 5-bin mean with clamped indices, the
// split, and the peak on the nearer side of it.
float refAutoFocus(Picture& src, const float* t, bool depth) {
    std::vector<uint32_t> h(256, 0), sm(256);
    for (int32_t i = 0; i < src.image.width * src.image.height; ++i)
        ++h[src.u8(i % src.image.width, i / src.image.width)];
    for (int i = 0; i < 256; ++i) {
        sm[i] = 2;
        for (int k = -2; k <= 2; ++k) sm[i] += h[std::clamp(i + k, 0, 255)];
        sm[i] /= 5;
    }
    const int thr = Cocmap_getOtsuThreshold(sm.data());
    const bool low = depth && t[0] <= t[1];
    const auto peak =
        std::max_element(sm.begin() + (low ? 0 : thr), low ? sm.begin() + std::max(thr, 1) : sm.end());
    return t[peak - sm.begin()];
}

}  // namespace

// Code 10 on the left half, 20 on the right, table c / 4; the centre square
// holds two of each: mean 15, focus 3.75. Depth signed, scale * focal 63.75:
// 10 is pulled to 3.4375, CoC 2 * 63.75 * -0.3125 / (10.625 * 3.75) = -1,
// byte 128 + 128 saturated; 20 is pulled to 4.0625, CoC 0.894737, byte 128 -
// 114.53. Magnitude: 63.75 * 2.5 / (8.75 * 3.75) = 4.857143 and 63.75 * 2.5 /
// (13.75 * 3.75) = 3.090909, byte 255 - 162.27. Disparity, gain 2, baseline
// 1: 2.5 + 0.060606 and 5 - 0.074074 give -2.378788 and 2.351852, bytes 128 +
// 126.55 and 255 * 0.011323. Scaled by 1000 all clamp to maxSigma. A flat map
// of the focus code is in focus.
TEST(Cocmap, TwoCodeAndFlatMapsByHand) {
    Rig rig(1);
    float t[256];
    for (int c = 0; c < 256; ++c) t[c] = c / 4.0f;
    const struct {
        bool flat;
        int entry;
        float scale;
        int32_t mode;
        uint8_t left, right;
        float maxCoc;
    } cases[] = {
        {false, kDepthAt, 63.75f, 0, 255, 13, 1.0f},    {false, kDepthAt, 63.75f, 1, 0, 92, 4.857143f},
        {false, kDisparityAt, 2, 0, 0, 254, 2.378788f}, {false, kDisparityAt, 2, 1, 0, 2, 2.378788f},
        {false, kDepthAt, 63750, 0, 255, 0, 15},        {false, kDisparityAt, 2000, 1, 0, 0, 15},
        {true, kDepthAt, 63.75f, 0, 128, 128, 0},       {true, kDepthAt, 63.75f, 1, 255, 255, 0},
        {true, kDisparityAt, 2, 0, 128, 128, 0},        {true, kDisparityAt, 2, 1, 255, 255, 0},
    };
    for (const auto& c : cases) {
        Picture src(100, 100, IMAGE_FORMAT_UINT8), dst(100, 100, IMAGE_FORMAT_UINT8);
        for (int32_t i = 0; i < 100 * 100; ++i)
            src.u8(i % 100, i / 100) = c.flat ? 15 : i % 100 < 50 ? 10 : 20;
        float maxCoc = -1;
        ASSERT_EQ(run(&rig.cm, c.entry, dst, &maxCoc, src, t, c.scale, 1, c.mode), TL_OK);
        EXPECT_NEAR(maxCoc, c.maxCoc, 1e-5) << c.entry << " " << c.scale << " " << c.mode;
        for (int32_t i = 0; i < 100 * 100; ++i)
            ASSERT_EQ(dst.u8(i % 100, i / 100), i % 100 < 50 ? c.left : c.right) << c.entry << " " << c.mode;
        EXPECT_TRUE(dst.canariesIntact());
    }
}

// A 200 by 60 map of 255 with planted squares, table 4c: the square is
// columns int(0.5 + (x -+ 0.01) * 200), rows likewise of 60, clipped.
TEST(Cocmap, FocusSquareClippedAndCrossWeighted) {
    float t[256];
    for (int c = 0; c < 256; ++c) t[c] = 4.0f * c;
    Picture m(200, 60, IMAGE_FORMAT_UINT8), small(10, 10, IMAGE_FORMAT_UINT8);
    m.fillPlanes(255);
    small.fillPlanes(255);
    for (int32_t x = 98; x < 102; ++x) m.u8(x, 29) = m.u8(x, 30) = 10;  // centre: 98..101 by 29..30
    m.u8(101, 30) = 12;                                                 // mean 10.25
    m.u8(0, 0) = 6, m.u8(1, 0) = 7;                                     // (0, 0): 0..1 by 0
    m.u8(0, 59) = 20, m.u8(1, 59) = 24;                                 // (0, 1): 0..1 by 59
    m.u8(198, 59) = 200, m.u8(199, 59) = 202;                           // (1, 1): 198..199 by 59
    small.u8(9, 9) = 40;  // a square thinner than a pixel: the pixel under the point
    // Centre: mean 10.25, weights crossed (code 11 takes 1 - 0.25); (0, 0): 6.5; (0, 1): 22, whole and a
    // code absent from the map; (1, 1): 201; a point beyond the edges is taken to (1, 1).
    const float cases[][3] = {
        {0.5f, 0.5f, 0.75f * 44 + 0.25f * 40}, {0, 0, 26}, {0, 1, 88}, {1, 1, 804}, {1.5f, 7, 804}};
    for (const auto& c : cases)
        EXPECT_FLOAT_EQ(Cocmap_getFocusValueAtCoord(&m.image, t, c[0], c[1]), c[2]) << c[0] << " " << c[1];
    EXPECT_FLOAT_EQ(Cocmap_getFocusValueAtCoord(&small.image, t, 1, 1), 160);
}

// Two humps: 40 of code 30 and 20 each of 50..54, 20 each of 170..174 and 40
// of 200. Smoothed, the spikes fall to 8 and the plateaus peak at 20 in
// their middle (52, 172); the low hump ends at 56, so the split is 57 (55
// unsmoothed). The focus code is the one code mapped to 255 (magnitude).
TEST(Cocmap, RecommendedFocusOnTwoHumps) {
    Rig rig;
    Picture src(28, 10, IMAGE_FORMAT_UINT8), dst(28, 10, IMAGE_FORMAT_UINT8);
    int counts[256] = {};
    counts[30] = counts[200] = 40;
    for (int c = 0; c < 5; ++c) counts[50 + c] = counts[170 + c] = 20;
    for (int c = 0, i = 0; c < 256; ++c)
        for (int k = 0; k < counts[c]; ++k, ++i) src.u8(i % 28, i / 28) = static_cast<uint8_t>(c);
    float up[256], down[256];
    for (int c = 0; c < 256; ++c) up[c] = c + 1.0f, down[c] = 300.0f - c;
    const int focus[4] = {52, 172, 172, 172};  // depth up, depth down, disparity up, disparity down
    for (int k = 0; k < 4; ++k) {
        float maxCoc;
        const float* t = k % 2 == 0 ? up : down;
        ASSERT_EQ(run(&rig.cm, k < 2 ? kDepthAuto : kDisparityAuto, dst, &maxCoc, src, t, 1e-3f, 1e-3f, 1),
                  TL_OK);
        std::set<int> sharp;
        for (int32_t i = 0; i < 280; ++i)
            if (dst.u8(i % 28, i / 28) == 255) sharp.insert(src.u8(i % 28, i / 28));
        EXPECT_EQ(sharp, std::set<int>{focus[k]}) << k;
    }
    // Equal criteria over a gap keep the first split; 1, 1, 2 splits at 2
    // (criterion 9 against 25 / 3); one occupied bin: no split.
    uint32_t h[3][256] = {};
    h[0][60] = 5, h[0][180] = 9, h[1][0] = h[1][1] = 1, h[1][2] = 2, h[2][99] = 7;
    EXPECT_EQ(Cocmap_getOtsuThreshold(h[0]), 61);
    EXPECT_EQ(Cocmap_getOtsuThreshold(h[1]), 2);
    EXPECT_EQ(Cocmap_getOtsuThreshold(h[2]), 0);
}

// Random maps (codes 40..200; 3 rows, so empty stripes and a one-pixel
// square; one flat code), rising and falling tables, four entry points, two
// scales, on 1 and 3 Pel workers.
TEST(Cocmap, EntryPointsMatchPerPixelReference) {
    std::mt19937 rng(11);
    const int32_t maps[3][4] = {{97, 61, 40, 200}, {13, 3, 0, 255}, {30, 20, 90, 90}};
    float up[256], down[256];
    for (int c = 0; c < 256; ++c) up[c] = 0.5f + c * 0.03f, down[c] = 8.5f - c * 0.03f;
    for (int32_t workers : {1, 3}) {
        Rig rig(workers);
        for (const auto& m : maps) {
            const int32_t w = m[0], n = m[0] * m[1];
            Picture src(w, m[1], IMAGE_FORMAT_UINT8), dst(w, m[1], IMAGE_FORMAT_UINT8);
            std::uniform_int_distribution<int> code(m[2], m[3]);
            for (int32_t i = 0; i < n; ++i) src.u8(i % w, i / w) = static_cast<uint8_t>(code(rng));
            for (const float* t : {up, down})
                for (int e = kDepthAt; e <= kDisparityAuto; ++e)
                    for (int32_t mode : {0, 1}) {
                        const bool depth = e == kDepthAt || e == kDepthAuto;
                        const float scale = depth ? 0.02f : 2.0f, aux = depth ? 1000.0f : 10.0f;
                        const float f = e >= kDepthAuto
                                            ? refAutoFocus(src, t, depth)
                                            : Cocmap_getFocusValueAtCoord(&src.image, t, 0.3f, 0.7f);
                        std::vector<float> coc(n);
                        float largest = 0;
                        for (int32_t i = 0; i < n; ++i) {
                            coc[i] = refCoc(depth, mode, t[src.u8(i % w, i / w)], f, scale, aux);
                            largest = std::max(largest, std::fabs(coc[i]));
                        }
                        float maxCoc = -1;
                        ASSERT_EQ(run(&rig.cm, e, dst, &maxCoc, src, t, scale, aux, mode, 0.3f, 0.7f), TL_OK);
                        EXPECT_EQ(maxCoc, largest) << e << " " << mode;
                        for (int32_t i = 0; i < n; ++i)
                            ASSERT_EQ(dst.u8(i % w, i / w), refByte(depth, mode, coc[i], largest))
                                << w << " wide, entry " << e << " mode " << mode << " pixel " << i;
                        EXPECT_TRUE(dst.canariesIntact());
                    }
        }
    }
}

// Bad calls change nothing; another mode maps with the last table and keeps
// maxCoc; every failed allocation is reported and leaves nothing behind.
TEST(Cocmap, BadCallsAndOtherModes) {
    Rig rig;
    Env env{};
    Cocmap bare;
    EXPECT_EQ(construct_Cocmap(&bare, &env), TL_OK);
    float t[256], maxCoc = -1;
    for (int c = 0; c < 256; ++c) t[c] = c / 4.0f;
    Picture src(100, 100, IMAGE_FORMAT_UINT8), dst(100, 100, IMAGE_FORMAT_UINT8),
        odd(100, 99, IMAGE_FORMAT_UINT8);
    for (int32_t i = 0; i < 100 * 100; ++i) src.u8(i % 100, i / 100) = i % 100 < 50 ? 10 : 20;
    EXPECT_EQ(run(&bare, kDisparityAt, dst, &maxCoc, src, t, 2, 1, 0), TL_ERROR_STATE);  // before init
    EXPECT_EQ(run(&rig.cm, kDepthAuto, odd, &maxCoc, src, t, 2, 1, 0), TL_ERROR_PARAM);
    EXPECT_TRUE(odd.canariesIntact() && dst.canariesIntact() && dst.u8(0, 0) == vq_tl_test::kCanary);
    EXPECT_EQ(maxCoc, -1);
    ASSERT_EQ(run(&rig.cm, kDisparityAt, dst, &maxCoc, src, t, 2, 1, 0), TL_OK);  // 10 -> 0, 20 -> 254
    for (int32_t i = 0; i < 100 * 100; ++i) src.u8(i % 100, i / 100) = i % 3 == 0 ? 10 : 20;
    float kept = -1;
    EXPECT_EQ(run(&rig.cm, kDepthAuto, dst, &kept, src, t, 50, 1, 2), TL_OK);
    EXPECT_EQ(kept, -1);
    for (int32_t i = 0; i < 100 * 100; ++i) ASSERT_EQ(dst.u8(i % 100, i / 100), i % 3 == 0 ? 0 : 254) << i;
    for (int64_t n = 1; Memory_canInjectFaults(); ++n) {
        const int64_t live = Memory_getLiveCount();
        Memory_failAt(n);
        const TLResult r = run(&rig.cm, kDisparityAuto, dst, &maxCoc, src, t, 2, 1, 1);
        const int64_t asked = Memory_getAllocCount();
        Memory_failAt(0);
        EXPECT_EQ(Memory_getLiveCount(), live) << n;
        EXPECT_EQ(r, asked < n ? TL_OK : TL_ERROR_MEMORY) << n;
        if (asked < n) break;
    }
    destruct_Cocmap(&bare);
}
