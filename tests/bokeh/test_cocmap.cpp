// Cocmap: maps worked out by hand for the four tables, the focus square, the
// automatic focus, the maxSigma clamp, and the four entry points against a
// per-pixel evaluation of the blur formulas on random maps.
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
bool isDepth(int e) { return e == kDepthAt || e == kDepthAuto; }

// aux is focal for depth and baseline for disparity; the disparity calls get
// a focal of 7, which they must ignore.
TLResult run(Cocmap* cm, int e, Picture& dst, float* maxCoc, Picture& src, const float* t, float scale,
             float aux, int32_t mode, float x = 0.5f, float y = 0.5f) {
    Image *d = &dst.image, *s = &src.image;
    switch (e) {
        case kDepthAt: return Cocmap_getCocMapFromDepthByCoord(cm, d, maxCoc, s, t, scale, aux, x, y, mode);
        case kDisparityAt:
            return Cocmap_getCocMapFromDisparityByCoord(cm, d, maxCoc, s, t, scale, 7, aux, x, y, mode);
        case kDepthAuto: return Cocmap_getRecommendedCocMapFromDepth(cm, d, maxCoc, s, t, scale, aux, mode);
        default: return Cocmap_getRecommendedCocMapFromDisparity(cm, d, maxCoc, s, t, scale, 7, aux, mode);
    }
}

// The blur of one table value v about focus f, written from the formulas.
float refCoc(bool depth, int32_t mode, float v, float f, float scale, float aux, float sigma) {
    const double fd = f;
    if (depth && mode == 0) {
        const float d = v < f ? std::min(v + f / 4, f) : std::max(v - f / 4, f);
        const double c = 2.0 * (scale * aux) * (d - fd) / ((2.0 * d + fd) * fd);
        return std::clamp(static_cast<float>(c), -sigma, sigma);
    }
    if (depth)
        return std::min(
            static_cast<float>(double{scale} * aux * std::fabs(2.0 * (v - f) / ((2.0 * v + fd) * fd))),
            sigma);
    const float g = v < f ? std::min(v + aux * 0.060606062f, f) : std::max(v - aux * 0.07407403f, f);
    if (mode == 0) return std::clamp(scale / aux * (g - f), -sigma, sigma);
    return std::min(static_cast<float>(double{scale / aux} * std::fabs(g - f)), sigma);
}

uint8_t refByte(bool depth, int32_t mode, float coc, float largest) {
    auto sat = [](double b) { return static_cast<uint8_t>(std::clamp(b, 0.0, 255.0)); };
    if (mode == 0) {
        const float s = static_cast<float>(128 / (largest + 1e-9));
        return sat(depth ? 128.0f - coc * s : 128.0f + coc * s);
    }
    if (depth) return sat(255.0 - coc * static_cast<float>(255 / (largest + 1e-9)));
    return sat(std::clamp(1.0f - coc * static_cast<float>(1 / (largest + 1e-9)), 0.0f, 1.0f) * 255.0f);
}

// The automatic focus from a plain count, a 5-bin mean with clamped indices,
// Otsu's criterion summed afresh for every split, and the nearer-side peak.
float refAutoFocus(Picture& src, const float* t, bool depth) {
    std::vector<int64_t> h(256, 0), sm(256);
    for (int32_t y = 0; y < src.image.height; ++y)
        for (int32_t x = 0; x < src.image.width; ++x) ++h[src.u8(x, y)];
    for (int i = 0; i < 256; ++i) {
        int64_t sum = 0;
        for (int k = -2; k <= 2; ++k) sum += h[std::clamp(i + k, 0, 255)];
        sm[i] = (sum + 2) / 5;
    }
    double best = 0;
    int thr = 0;
    for (int i = 0; i < 255; ++i) {
        double w[2] = {0, 0}, m[2] = {0, 0};
        for (int k = 0; k < 256; ++k) w[k > i] += sm[k], m[k > i] += double(k) * sm[k];
        if (w[0] == 0 || w[1] == 0) continue;
        const double crit = std::pow(m[0] / w[0] - m[1] / w[1], 2) * w[0] * w[1];
        if (crit > best) best = crit, thr = i + 1;
    }
    const bool low = depth && t[0] <= t[1];
    int from = low ? 0 : thr, to = low ? thr : 256, peak = from;
    for (int i = from; i < to; ++i) peak = sm[i] > sm[peak] ? i : peak;
    return t[peak];
}

}  // namespace

// A map of code 10 on its left half and 20 on its right, table c / 4. The
// focus square at the centre holds two of each: mean 15, focus 3.75. By hand:
// depth signed, scale * focal 63.75: code 10 is pulled to 3.4375, CoC
// 2 * 63.75 * -0.3125 / (10.625 * 3.75) = -1, byte 128 + 128 saturated; code
// 20 is pulled to 4.0625, CoC 0.894737, byte 128 - 114.53. Depth magnitude:
// 63.75 * 2.5 / (8.75 * 3.75) = 4.857143 and 63.75 * 2.5 / (13.75 * 3.75) =
// 3.090909, byte 255 - 255 * 0.636364. Disparity, gain 2, baseline 1: 2.5 +
// 0.060606 and 5 - 0.074074 give CoC -2.378788 and 2.351852, byte 128 +
// 126.55 (signed) or 255 * 0.011323 (magnitude). A flat map of the focus
// code is all in focus.
TEST(Cocmap, TwoCodeAndFlatMapsByHand) {
    Rig rig(1);
    float t[256];
    for (int c = 0; c < 256; ++c) t[c] = c / 4.0f;
    const struct {
        bool flat;
        int entry;
        float scale, aux;
        int32_t mode;
        uint8_t left, right;
        float maxCoc;
    } cases[] = {
        {false, kDepthAt, 63.75f, 1, 0, 255, 13, 1.0f},    {false, kDepthAt, 63.75f, 1, 1, 0, 92, 4.857143f},
        {false, kDisparityAt, 2, 1, 0, 0, 254, 2.378788f}, {false, kDisparityAt, 2, 1, 1, 0, 2, 2.378788f},
        {true, kDepthAt, 63.75f, 1, 0, 128, 128, 0},       {true, kDepthAt, 63.75f, 1, 1, 255, 255, 0},
        {true, kDisparityAt, 2, 1, 0, 128, 128, 0},        {true, kDisparityAt, 2, 1, 1, 255, 255, 0},
    };
    for (const auto& c : cases) {
        Picture src(100, 100, IMAGE_FORMAT_UINT8), dst(100, 100, IMAGE_FORMAT_UINT8);
        for (int32_t y = 0; y < 100; ++y)
            for (int32_t x = 0; x < 100; ++x) src.u8(x, y) = c.flat ? 15 : x < 50 ? 10 : 20;
        float maxCoc = -1;
        ASSERT_EQ(run(&rig.cm, c.entry, dst, &maxCoc, src, t, c.scale, c.aux, c.mode), TL_OK);
        EXPECT_NEAR(maxCoc, c.maxCoc, 1e-5) << c.entry << " " << c.mode;
        EXPECT_EQ(dst.u8(7, 93), c.left) << c.entry << " " << c.mode;
        EXPECT_EQ(dst.u8(93, 7), c.right) << c.entry << " " << c.mode;
        for (int32_t i = 0; i < 100 * 100; ++i)
            ASSERT_EQ(dst.u8(i % 100, i / 100), dst.u8(i % 100 < 50 ? 0 : 99, 0));
        EXPECT_TRUE(dst.canariesIntact());
    }
}

// A 200 by 60 map of 255 with planted squares; table 4c. The square is
// columns [int(0.5 + (x -+ 0.01) * 200)) and rows likewise with 60, clipped.
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
    const struct {
        Picture* map;
        float x, y, want;
    } cases[] = {
        {&m, 0.5f, 0.5f, 0.75f * 44 + 0.25f * 40},  // crossed: the upper code weighs 1 - 0.25
        {&m, 0, 0, 26},                             // mean 6.5
        {&m, 0, 1, 88},                             // mean 22, a code absent from the map
        {&m, 1, 1, 804},                            // mean 201
        {&m, 1.5f, 7, 804},                         // beyond the edges: taken to (1, 1)
        {&small, 1, 1, 160},
    };
    for (const auto& c : cases)
        EXPECT_FLOAT_EQ(Cocmap_getFocusValueAtCoord(&c.map->image, t, c.x, c.y), c.want) << c.x << " " << c.y;
}

// Two humps: 40 of code 30 and 20 each of 50..54 (far, for a rising depth
// table), 20 each of 170..174 and 40 of 200. Smoothed, the spikes fall to 8
// and the plateaus peak at 20 in their middle, so the peaks are 52 and 172;
// the smoothed low hump ends at 56, so Otsu splits at 57 (55 unsmoothed).
// The focus code is the one code that maps to 255 on the magnitude scale.
TEST(Cocmap, RecommendedFocusOnTwoHumps) {
    Rig rig;
    Picture src(28, 10, IMAGE_FORMAT_UINT8), dst(28, 10, IMAGE_FORMAT_UINT8);
    std::vector<uint32_t> want(256, 0);
    want[30] = want[200] = 40;
    for (int c = 0; c < 5; ++c) want[50 + c] = want[170 + c] = 20;
    for (int c = 0, i = 0; c < 256; ++c)
        for (uint32_t k = 0; k < want[c]; ++k, ++i) src.u8(i % 28, i / 28) = static_cast<uint8_t>(c);
    uint32_t hist[256];
    ASSERT_EQ(Cocmap_getHistogram(&rig.cm, &src.image, hist), TL_OK);
    EXPECT_TRUE(std::equal(hist, hist + 256, want.begin()));

    float up[256], down[256];
    for (int c = 0; c < 256; ++c) up[c] = c + 1.0f, down[c] = 300.0f - c;
    const struct {
        int entry;
        const float* table;
        int focus;
    } cases[] = {{kDepthAuto, up, 52},
                 {kDepthAuto, down, 172},
                 {kDisparityAuto, up, 172},
                 {kDisparityAuto, down, 172}};
    for (const auto& c : cases) {
        float maxCoc;
        ASSERT_EQ(run(&rig.cm, c.entry, dst, &maxCoc, src, c.table, 1e-3f, 1e-3f, 1), TL_OK);
        std::set<int> sharp;
        for (int32_t i = 0; i < 280; ++i)
            if (dst.u8(i % 28, i / 28) == 255) sharp.insert(src.u8(i % 28, i / 28));
        EXPECT_EQ(sharp, std::set<int>{c.focus}) << c.entry << " " << (c.table == up);
    }

    // Otsu alone: equal criteria over a gap keep the first split; 1, 1, 2 splits
    // best at 2 (criterion 9 against 25 / 3); one bin or none: no split.
    uint32_t h[4][256] = {};
    h[0][60] = 5, h[0][180] = 9;
    h[1][0] = h[1][1] = 1, h[1][2] = 2;
    h[2][99] = 7;
    const int32_t thresholds[4] = {61, 2, 0, 0};
    for (int k = 0; k < 4; ++k) EXPECT_EQ(Cocmap_getOtsuThreshold(h[k]), thresholds[k]) << k;
}

// A very large scale drives every code outside the dead zone to maxSigma:
// the map keeps only the levels of -15, 0 and +15. Codes 0..255 by column,
// table 1 + c / 4, focus between codes 127 and 128.
TEST(Cocmap, MaxSigmaClampsBeforeScaling) {
    Rig rig;
    Picture src(256, 4, IMAGE_FORMAT_UINT8), dst(256, 4, IMAGE_FORMAT_UINT8);
    float t[256];
    for (int c = 0; c < 256; ++c) t[c] = 1 + c / 4.0f;
    for (int32_t i = 0; i < 1024; ++i) src.u8(i % 256, i / 256) = static_cast<uint8_t>(i);
    const struct {
        int entry;
        int32_t mode;
        std::set<int> levels;
    } cases[] = {
        {kDepthAt, 0, {0, 128, 255}},  // a quarter of the focus distance stays in focus
        {kDepthAt, 1, {0}},            // no dead zone, and no code at the focus
        {kDisparityAt, 0, {0, 255}},   // a dead zone of 0.07 is under the code step
        {kDisparityAt, 1, {0}},
    };
    for (const auto& c : cases) {
        float maxCoc;
        ASSERT_EQ(run(&rig.cm, c.entry, dst, &maxCoc, src, t, 1e6f, 1, c.mode), TL_OK);
        EXPECT_EQ(maxCoc, 15.0f);
        std::set<int> levels;
        for (int32_t i = 0; i < 1024; ++i) levels.insert(dst.u8(i % 256, i / 256));
        EXPECT_EQ(levels, c.levels) << c.entry << " " << c.mode;
    }
}

// Random maps (a code range inside 0..255, a 3-row map with empty stripes
// and a square under a pixel, a flat map), rising and falling tables, all
// four entry points and both scales, on 1 and 3 Pel workers.
TEST(Cocmap, EntryPointsMatchPerPixelReference) {
    std::mt19937 rng(11);
    const struct { int32_t w, h, lo, hi; } maps[] = {{97, 61, 40, 200}, {13, 3, 0, 255}, {30, 20, 90, 90}};
    float up[256], down[256];
    for (int c = 0; c < 256; ++c) up[c] = 0.5f + c * 0.03f, down[c] = 8.5f - c * 0.03f;
    for (int32_t workers : {1, 3}) {
        Rig rig(workers);
        for (const auto& m : maps) {
            Picture src(m.w, m.h, IMAGE_FORMAT_UINT8), dst(m.w, m.h, IMAGE_FORMAT_UINT8);
            std::uniform_int_distribution<int> code(m.lo, m.hi);
            for (int32_t i = 0; i < m.w * m.h; ++i)
                src.u8(i % m.w, i / m.w) = static_cast<uint8_t>(code(rng));
            for (const float* t : {up, down})
                for (int e = kDepthAt; e <= kDisparityAuto; ++e)
                    for (int32_t mode : {0, 1}) {
                        const bool depth = isDepth(e);
                        const float scale = depth ? 0.02f : 2.0f, aux = depth ? 1000.0f : 10.0f;
                        const float f = e >= kDepthAuto
                                            ? refAutoFocus(src, t, depth)
                                            : Cocmap_getFocusValueAtCoord(&src.image, t, 0.3f, 0.7f);
                        std::vector<float> coc(m.w * m.h);
                        float largest = 0;
                        for (int32_t i = 0; i < m.w * m.h; ++i) {
                            coc[i] = refCoc(depth, mode, t[src.u8(i % m.w, i / m.w)], f, scale, aux, 15.0f);
                            largest = std::max(largest, std::fabs(coc[i]));
                        }
                        float maxCoc = -1;
                        ASSERT_EQ(run(&rig.cm, e, dst, &maxCoc, src, t, scale, aux, mode, 0.3f, 0.7f), TL_OK);
                        EXPECT_EQ(maxCoc, largest) << e << " " << mode;
                        for (int32_t i = 0; i < m.w * m.h; ++i)
                            ASSERT_EQ(dst.u8(i % m.w, i / m.w), refByte(depth, mode, coc[i], largest))
                                << m.w << "x" << m.h << " entry " << e << " mode " << mode << " pixel " << i;
                        EXPECT_TRUE(dst.canariesIntact());
                    }
        }
    }
}

// Bad calls change nothing; a mode that builds no table maps with the last
// table and leaves maxCoc; after recycle the tables are gone; every failed
// allocation of a call is reported and leaves nothing behind.
TEST(Cocmap, BadCallsAndOtherModes) {
    Env env{};
    Cocmap bare;
    EXPECT_EQ(construct_Cocmap(&bare, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(construct_Cocmap(&bare, &env), TL_OK);
    EXPECT_EQ(Cocmap_setPel(&bare, nullptr), TL_ERROR_PARAM);
    Rig rig;
    float t[256];
    for (int c = 0; c < 256; ++c) t[c] = c / 4.0f;
    Picture src(100, 100, IMAGE_FORMAT_UINT8), dst(100, 100, IMAGE_FORMAT_UINT8),
        odd(100, 99, IMAGE_FORMAT_UINT8);
    for (int32_t i = 0; i < 100 * 100; ++i) src.u8(i % 100, i / 100) = i % 100 < 50 ? 10 : 20;
    float maxCoc = -1;
    EXPECT_EQ(run(&bare, kDisparityAt, dst, &maxCoc, src, t, 2, 1, 0), TL_ERROR_STATE);
    EXPECT_EQ(run(&rig.cm, kDepthAuto, odd, &maxCoc, src, t, 2, 1, 0), TL_ERROR_PARAM);
    EXPECT_EQ(run(&rig.cm, kDepthAt, dst, nullptr, src, t, 2, 1, 0), TL_ERROR_PARAM);
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
    EXPECT_EQ(Cocmap_recycle(&rig.cm), TL_OK);
    EXPECT_EQ(run(&rig.cm, kDepthAt, dst, &maxCoc, src, t, 2, 1, 0), TL_ERROR_STATE);
    destruct_Cocmap(&bare);
}
