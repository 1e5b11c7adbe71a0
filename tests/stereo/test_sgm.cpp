// The Sgm driver: a stereogram of known disparity recovered in both modes and on every layer;
// winners against a plain rule; hand-worked winners, left-right checks, radial penalties.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "stereo/sgm.h"
#include "support/layers.h"
#include "support/picture.h"
#include "support/test_env.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

// Base-view disparity: top half 9.25, bottom half slanted 5 to 13, a rectangle at 16 in front. The
// match camera sees world column u at u + sign * disparity (sign -1: swapped), `vShift` rows off.
// Texture: a random grid of 2.5 px, bilinear: both views sample one continuous picture.
struct Scene {
    int32_t W, H, gw;
    int sign, vShift;
    float rx0, rx1, ry0, ry1;
    std::vector<float> grid;  // covers [-2 W, 3 W) by [-2 H, 3 H)
    Picture base, match, guide;

    Scene(std::mt19937& rng, int32_t w, int32_t h, int swapped, int v)
        : base(w, h, IMAGE_FORMAT_UINT8), match(w, h, IMAGE_FORMAT_UINT8), guide(w, h, IMAGE_FORMAT_UINT88) {
        W = w, H = h, gw = 2 * w + 3, sign = swapped ? -1 : 1, vShift = v;
        grid.resize(static_cast<size_t>(gw) * (2 * h + 3));
        for (float& g : grid) g = static_cast<float>(rng() % 256);
        // Room for the occluded band beside the rectangle, inside the columns.
        rx0 = (sign < 0 ? 0.55f : 0.2f) * W, rx1 = rx0 + 0.25f * W, ry0 = 0.3f * H, ry1 = 0.7f * H;
        for (int32_t y = 0; y < H; ++y) {
            for (int32_t x = 0; x < W; ++x) {
                base.u8(x, y) = static_cast<uint8_t>(texture(x, y) + 0.5f);
                match.u8(x, y) = static_cast<uint8_t>(texture(seenByMatch(x, y + vShift), y + vShift) + 0.5f);
                const bool rect = inRectangle(static_cast<float>(x), y);
                guide.at<uint8_t>(2 * x, y) = rect ? 90 : slanted(y) ? 128 : 140;
                guide.at<uint8_t>(2 * x + 1, y) = rect ? 170 : slanted(y) ? 128 : 110;
            }
        }
    }
    float texture(float u, float v) const {
        const float fu = (u + 2.0f * W) / 2.5f, fv = (v + 2.0f * H) / 2.5f;
        const int32_t i = static_cast<int32_t>(std::floor(fu)), j = static_cast<int32_t>(std::floor(fv));
        const float s = fu - i, t = fv - j;
        auto g = [&](int32_t a, int32_t b) { return grid[static_cast<size_t>(b) * gw + a]; };
        return (1 - t) * ((1 - s) * g(i, j) + s * g(i + 1, j)) +
               t * ((1 - s) * g(i, j + 1) + s * g(i + 1, j + 1));
    }
    bool inRectangle(float u, int32_t y) const { return y >= ry0 && y < ry1 && u >= rx0 && u < rx1; }
    bool slanted(int32_t y) const { return y >= H / 2; }
    float truth(int32_t x, int32_t y) const {
        return inRectangle(static_cast<float>(x), y) ? 16.0f : slanted(y) ? 5.0f + 8.0f * x / W : 9.25f;
    }
    // World column the match camera sees at x (nearest surface).
    float seenByMatch(float x, int32_t y) const {
        const float u = x - sign * 16.0f;
        return inRectangle(u, y) ? u
               : slanted(y)      ? (x - sign * 5.0f) / (1.0f + sign * 8.0f / W)
                                 : x - sign * 9.25f;
    }
    bool inMatchView(int32_t x, int32_t y) const {
        const float xm = x + sign * truth(x, y);
        return xm >= 0 && xm <= W - 1 && y - vShift >= 0 && y - vShift < H;
    }
    bool visible(int32_t x, int32_t y) const {
        return inMatchView(x, y) && std::fabs(seenByMatch(x + sign * truth(x, y), y) - x) < 0.01f;
    }
    bool occluded(int32_t x, int32_t y) const { return inMatchView(x, y) && !visible(x, y); }
    Image* view1() { return sign < 0 ? &base.image : &match.image; }
    Image* view2() { return sign < 0 ? &match.image : &base.image; }
};

struct SgmObject {
    Sgm sgm;
    SgmObject() { construct_Sgm(&sgm, nullptr); }
    ~SgmObject() { destruct_Sgm(&sgm); }
};

}  // namespace

TEST(Sgm, RecoversPiecewisePlanarStereogram) {
    const struct {
        uint32_t mode, swapped;
        int m, D, f, window, vShift;
    } cases[] = {
        {0, 1, -4, 24, 3, 9, 3}, {1, 1, 0, 32, 2, 21, -7}, {0, 0, 2, 24, 3, 9, -2}, {1, 0, -3, 24, 2, 21, 6}};
    std::mt19937 rng(424242);
    const int32_t W = vq_tl_test_scaled(200, 120), H = vq_tl_test_scaled(120, 72);
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Scene scene(rng, W, H, c.swapped, c.vShift);
        Picture mask(W, H, IMAGE_FORMAT_UINT8), d1(W, H, IMAGE_FORMAT_UINT8), d2(W, H, IMAGE_FORMAT_UINT8),
            conf(W, H, IMAGE_FORMAT_UINT8), s1(W, H, IMAGE_FORMAT_FLOAT), s2(W, H, IMAGE_FORMAT_FLOAT);
        mask.fillPlanes(255);
        const int8_t m = static_cast<int8_t>(c.m);
        SgmObject o;
        ASSERT_EQ(Sgm_init(&o.sgm, W, H, c.D, c.mode), TL_OK);
        ASSERT_EQ(
            Sgm_createDisparityU8(&o.sgm, &d1.image, &d2.image, scene.view1(), scene.view2(), &mask.image,
                                  &scene.guide.image, c.D, m, c.window, c.f, 5, 40, 1, c.swapped),
            TL_OK);
        ASSERT_EQ(Sgm_createConfidenceU8(&o.sgm, &conf.image, &d1.image, &d2.image, c.D, m, c.f, 1, 0, 255,
                                         c.swapped),
                  TL_OK);
        Picture& map = c.swapped ? d1 : d2;
        // Columns whose every candidate lies inside the match view.
        const int dLow = c.swapped ? 1 - (c.m + c.D) : c.m, dHigh = dLow + c.D - 1;
        int good = 0, counted = 0, occludedCount = 0, occludedFailed = 0, visiblePassed = 0;
        std::vector<float> slantErrors;
        for (int32_t y = 0; y < H; ++y) {
            for (int32_t x = std::max(0, -dLow); x < std::min(W, W - dHigh); ++x) {
                // The band without its edge pixels, whose visibility turns within a pixel.
                if (scene.occluded(x - 1, y) && scene.occluded(x, y) && scene.occluded(x + 1, y))
                    ++occludedCount, occludedFailed += conf.u8(x, y) == 0;
                if (!scene.visible(x, y)) continue;
                const float error =
                    std::fabs(c.m + map.u8(x, y) / static_cast<float>(1 << c.f) - scene.truth(x, y));
                ++counted, good += error <= 1.0f, visiblePassed += conf.u8(x, y) == 255;
                if (scene.slanted(y) && !scene.inRectangle(static_cast<float>(x), y))
                    slantErrors.push_back(error);
            }
        }
        std::nth_element(slantErrors.begin(), slantErrors.begin() + slantErrors.size() / 2,
                         slantErrors.end());
        EXPECT_TRUE(good >= 0.95 * counted && visiblePassed >= 0.9 * counted)
            << good << " " << visiblePassed << " " << counted;
        EXPECT_LT(slantErrors[slantErrors.size() / 2], 0.25f) << "median error on the slanted plane";
        // The few that pass sit next to the occluder's edge column in the match view.
        EXPECT_TRUE(occludedCount > 0 && occludedFailed >= 0.85 * occludedCount)
            << occludedFailed << " " << occludedCount;
        // The float maps are the byte maps before truncation.
        ASSERT_EQ(
            Sgm_createDisparityF32(&o.sgm, &s1.image, &s2.image, scene.view1(), scene.view2(), &mask.image,
                                   &scene.guide.image, c.D, m, c.window, 5, 40, 1, c.swapped, 1),
            TL_OK);
        auto fixed = [&](Picture& p, int32_t i) {
            return static_cast<uint8_t>(static_cast<int32_t>(p.at<float>(i % W, i / W) * (1 << c.f)));
        };
        for (int32_t i = 0; i < W * H; ++i)
            ASSERT_TRUE(d1.u8(i % W, i / W) == fixed(s1, i) && d2.u8(i % W, i / W) == fixed(s2, i)) << i;
    }
}

namespace {

// An aggregated volume of W pixels by H rows, D + 2 entries each (pads mirrored).
struct Volume {
    Picture p;
    int32_t D;
    bool u8;
    Volume(int32_t w, int32_t h, int32_t d, uint32_t f)
        : p(w * (d + 2), h, f), D(d), u8(f == IMAGE_FORMAT_UINT8) {}
    uint32_t get(int32_t x, int32_t y, int32_t e) {
        return u8 ? p.u8(x * (D + 2) + e, y) : p.at<uint16_t>(x * (D + 2) + e, y);
    }
    void set(int32_t x, int32_t y, int32_t e, uint32_t v) {
        u8 ? void(p.u8(x * (D + 2) + e, y) = static_cast<uint8_t>(v))
           : void(p.at<uint16_t>(x * (D + 2) + e, y) = static_cast<uint16_t>(v));
    }
    void pads() {
        for (int32_t y = 0; y < p.image.height; ++y)
            for (int32_t x = 0; x < p.image.width / (D + 2); ++x)
                set(x, y, 0, get(x, y, 2)), set(x, y, D + 1, get(x, y, D - 1));
    }
};

// The winner: smallest key of the valid slots, neighbours mirrored at the run's ends, fit in float.
float referenceWinner(Volume& v, int32_t x, int32_t y, int32_t W, int m, int f, int swapped, bool matchView,
                      bool asFloat) {
    const int D = v.D;
    std::vector<int> slots;
    std::vector<uint32_t> cost(D);
    for (int k = 0; k < D; ++k) {
        const int32_t xb = !matchView ? x : swapped ? x + m + D - 1 - k : x - m - k;
        if (xb >= 0 && xb < W) slots.push_back(k), cost[k] = v.get(xb, y, k + 1);
    }
    int value = 0, a = 0, b = 0;
    if (!slots.empty()) {
        uint64_t best = ~0ull;
        for (int k : slots) best = std::min(best, (uint64_t{cost[k]} << 8) + (swapped ? D - 1 - k : k));
        value = static_cast<int>(best & 0xFF);
        const int ks = swapped ? D - 1 - value : value, lo = slots.front(), hi = slots.back();
        const int left = ks > lo ? ks - 1 : (ks < hi ? ks + 1 : ks),
                  right = ks < hi ? ks + 1 : (ks > lo ? ks - 1 : ks);
        const uint32_t wrap = v.u8 ? 0xFF : 0xFFFF;
        a = static_cast<int>((cost[left] - cost[ks]) & wrap),
        b = static_cast<int>((cost[right] - cost[ks]) & wrap);
    }
    if (asFloat) {
        if (f == 0) return static_cast<float>(swapped ? D + m - 1 - value : value);
        const float o = static_cast<float>(a - b) * 0.5f / (static_cast<float>(a + b) + 1e-9f);
        return swapped ? value - o : value + o;
    }
    if (f == 0) return static_cast<float>(value);
    const float o = static_cast<float>((a - b) * (1 << (f - 1))) / (static_cast<float>(a + b) + 1e-9f);
    const float whole = static_cast<float>(value << f);
    return static_cast<float>(static_cast<uint8_t>(static_cast<int32_t>(swapped ? whole - o : whole + o)));
}

}  // namespace

TEST(Sgm, SameMapsOnEveryLayerAndCall) {
    // Each layer's object is made for more candidates than asked, and called twice.
    vq_tl_test::Layers& layers = vq_tl_test::sharedLayers();
    std::mt19937 rng(5);
    const int32_t W = vq_tl_test_scaled(80, 48), H = vq_tl_test_scaled(48, 32);
    for (uint32_t mode : {0u, 1u}) {
        Scene scene(rng, W, H, 1, 1);
        auto run = [&](SgmObject& o, Picture& a, Picture& b) {
            return Sgm_createDisparityU8(&o.sgm, &a.image, &b.image, scene.view1(), scene.view2(), nullptr,
                                         &scene.guide.image, 16, 0, 3, 3, 5, 40, 1, 1);
        };
        SgmObject serial;
        Picture a1(W, H, IMAGE_FORMAT_UINT8), a2(W, H, IMAGE_FORMAT_UINT8);
        ASSERT_EQ(Sgm_init(&serial.sgm, W, H, 16, mode), TL_OK);
        ASSERT_EQ(run(serial, a1, a2), TL_OK);
        for (int i = 0; i < vq_tl_test::Layers::kCount; ++i) {
            const ImageStripeExec exec = layers.exec(i);
            SgmObject o;
            Sgm_setPel(&o.sgm, exec.pel);
            Sgm_setParallelExecutor(&o.sgm, exec.executor);
            ASSERT_EQ(Sgm_init(&o.sgm, W, H, 24, mode), TL_OK);
            for (int call = 0; call < 2; ++call) {
                Picture b1(W, H, IMAGE_FORMAT_UINT8), b2(W, H, IMAGE_FORMAT_UINT8);
                EXPECT_TRUE(run(o, b1, b2) == TL_OK && b1.samePixels(a1) && b2.samePixels(a2))
                    << mode << " " << i << " " << call;
            }
        }
    }
}

TEST(Sgm, WinnerHandWorked) {
    // One row of four pixels, 8 candidates, 3 fraction bits.
    //   pixel 0: 9 5 3 4 9..: slot 2, a 2, b 1: 16 + 4 / 3 -> 17; swapped value 5: 40 - 1.33 -> 38
    //   pixel 1: all 7: value 0 in both senses, the fit 0 / 1e-9 = 0
    //   pixel 2: 2 6 9..: slot 0, the pad equals the right neighbour: 0; swapped value 7: 56
    //   pixel 3: 5 3 3 9..: a tie of slots 1 and 2: value 1 unswapped (a 2, b 0:
    //            8 + (2 << 2) / 2 = 12), value 5 swapped (a 0, b 6: 40 + 4 = 44)
    // Float maps in candidate units; without sub-pixel steps swapped is D + minDisparity - 1 - v.
    SgmObject o;
    ASSERT_EQ(Sgm_init(&o.sgm, 4, 1, 8, 0), TL_OK);
    Volume v(4, 1, 8, IMAGE_FORMAT_UINT8);
    const uint8_t costs[4][8] = {{9, 5, 3, 4, 9, 9, 9, 9},
                                 {7, 7, 7, 7, 7, 7, 7, 7},
                                 {2, 6, 9, 9, 9, 9, 9, 9},
                                 {5, 3, 3, 9, 9, 9, 9, 9}};
    for (int i = 0; i < 32; ++i) v.set(i / 8, 0, i % 8 + 1, costs[i / 8][i % 8]);
    v.pads();
    const struct {
        int m, f, subPixel, swapped;  // subPixel < 0: a byte map
        float want[4];
    } cases[] = {{0, 3, -1, 0, {17, 0, 0, 12}},
                 {0, 3, -1, 1, {38, 0, 56, 44}},
                 {0, 0, -1, 0, {2, 0, 0, 1}},
                 {-4, 0, 1, 0, {2.0f + 1.0f / 6.0f, 0, 0, 1.5f}},
                 {-4, 0, 1, 1, {5.0f - 1.0f / 6.0f, 0, 7, 5.5f}},
                 {-4, 0, 0, 1, {-2, 3, -4, -2}}};
    for (const auto& c : cases) {
        Picture map(4, 1, c.subPixel < 0 ? IMAGE_FORMAT_UINT8 : IMAGE_FORMAT_FLOAT);
        ASSERT_EQ(Sgm_selectDisparity(&o.sgm, &map.image, &v.p.image, 8, static_cast<int8_t>(c.m), c.f,
                                      c.subPixel < 0 ? 0 : c.subPixel, c.swapped, 0),
                  TL_OK);
        for (int x = 0; x < 4; ++x)
            EXPECT_FLOAT_EQ(c.subPixel < 0 ? map.u8(x, 0) : map.at<float>(x, 0), c.want[x])
                << &c - cases << " x " << x;
    }
}

TEST(Sgm, WinnerMatchesReferenceInBothViews) {
    std::mt19937 rng(99);
    const int32_t W = 23, H = 3;
    for (uint32_t format : {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT16}) {
        for (int D : {8, 16}) {
            SgmObject o;
            ASSERT_EQ(Sgm_init(&o.sgm, W, H, D, 1), TL_OK);
            for (int m : {-5, 0, 3}) {
                Volume v(W, H, D, format);
                for (int32_t i = 0; i < W * H * D; ++i)
                    v.set(i / D % W, i / D / W, 1 + i % D, rng() % (v.u8 ? 40 : 300));
                v.pads();
                for (int mode = 0; mode < 8; ++mode) {
                    const int swapped = mode & 1, matchView = (mode >> 1) & 1, f = mode & 4 ? 3 : 0;
                    Picture map(W, H, IMAGE_FORMAT_UINT8), fmap(W, H, IMAGE_FORMAT_FLOAT);
                    ASSERT_TRUE(Sgm_selectDisparity(&o.sgm, &map.image, &v.p.image, D, m, f, 0, swapped,
                                                    matchView) == TL_OK &&
                                Sgm_selectDisparity(&o.sgm, &fmap.image, &v.p.image, D, m, 0, f != 0, swapped,
                                                    matchView) == TL_OK);
                    for (int32_t i = 0; i < W * H; ++i) {
                        const int32_t x = i % W, y = i / W;
                        ASSERT_TRUE(map.u8(x, y) ==
                                        referenceWinner(v, x, y, W, m, f, swapped, matchView, false) &&
                                    fmap.at<float>(x, y) ==
                                        referenceWinner(v, x, y, W, m, f, swapped, matchView, true))
                            << format << " D " << D << " m " << m << " mode " << mode << " x " << x;
                    }
                    EXPECT_TRUE(map.canariesIntact() && fmap.canariesIntact());
                }
            }
        }
    }
}

TEST(Sgm, LeftRightCheckHandWorked) {
    SgmObject o;
    ASSERT_EQ(Sgm_init(&o.sgm, 8, 1, 8, 0), TL_OK);
    const struct {
        int swapped, m, f;
        uint8_t base[8], match[8], want[8];  // want: 1 pass, 0 fail
    } cases[] = {
        // Swapped, f 3: x 3, u 16 (2 px) reads o(1) = 17: e 1 <= 8; x 4 reads 25: e 9. x 5, u 13
        // (1.625 px) reads o(3) = 9: e 4. x 1 (u 16) and x 6 (u 255) fall outside. u 0: o(x).
        {1, 0, 3, {0, 16, 0, 16, 16, 13, 255, 0}, {0, 17, 25, 9, 0, 0, 0, 30}, {1, 0, 0, 1, 0, 1, 0, 0}},
        // m 1: x 1, u 12 (1.5 px): (4 o(4) + 4 o(3)) >> 3 = 12: e 0; x 2 from 0 and 14: 7, e 5;
        // x 0, u 40 reads o(6) = 30: e 10; x 6 (u 8) and x 7 (u 0) read column 8: fail.
        {0, 1, 3, {40, 12, 12, 0, 0, 0, 8, 0}, {0, 0, 0, 10, 14, 0, 30, 0}, {0, 1, 1, 0, 1, 0, 0, 0}},
        // f 0 passes only strictly below the threshold: e 1 at x 2 fails.
        {0, 0, 0, {1, 2, 3, 4, 0, 0, 0, 0}, {0, 1, 2, 4, 0, 4, 0, 0}, {1, 0, 0, 0, 1, 0, 1, 1}},
        // Swapped, m -2: u 0 at x 6 and 7 would read columns 8 and 9: fail.
        {1, -2, 0, {0, 0, 0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0}, {1, 1, 1, 1, 1, 1, 0, 0}},
        // m -1: x 0, u 6 (0.75 px): floor column -1 outside, the edge pixel stands in: 6.
        {0, -1, 3, {6, 0, 0, 0, 0, 0, 0, 0}, {6, 0, 0, 0, 0, 0, 0, 0}, {1, 1, 1, 1, 1, 1, 1, 1}},
        // With fraction bits e equal to the limit passes: x 0, u 8 reads o(1) = 0: e 8.
        {0, 0, 3, {8, 0, 0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0}, {1, 1, 1, 1, 1, 1, 1, 1}},
    };
    for (const auto& c : cases) {
        Picture base(8, 1, IMAGE_FORMAT_UINT8), match(8, 1, IMAGE_FORMAT_UINT8),
            conf(8, 1, IMAGE_FORMAT_UINT8);
        for (int x = 0; x < 8; ++x) base.u8(x, 0) = c.base[x], match.u8(x, 0) = c.match[x];
        ASSERT_EQ(Sgm_createConfidenceU8(&o.sgm, &conf.image, c.swapped ? &base.image : &match.image,
                                         c.swapped ? &match.image : &base.image, 8, static_cast<int8_t>(c.m),
                                         c.f, 1, 0, 255, c.swapped),
                  TL_OK);
        for (int x = 0; x < 8; ++x) EXPECT_EQ(conf.u8(x, 0), c.want[x] ? 255 : 0) << &c - cases << " x " << x;
        EXPECT_TRUE(conf.canariesIntact());
    }
}

TEST(Sgm, RadialPenaltyHandWorked) {
    // 8 by 4, rows stretched by 2; norm hypot(4, 4) = 5.657.
    // (4, 0, 1): corner at dist norm: scale 4, 160; (0, 2) at dist 4: 1 + 3 * 4 /
    // 5.657 = 3.121: 124.85 -> 125; centre: 40. (4, 0.4, 0.8): slope 7.5; (0, 2):
    // 1 - 3 + 7.5 * 0.7071 = 3.303: 132.1 -> 132; centre clamps to 1, corner to 4.
    // P2 100: bytes saturate at 255.
    SgmObject o;
    ASSERT_EQ(Sgm_init(&o.sgm, 8, 4, 8, 1), TL_OK);
    Picture p(8, 4, IMAGE_FORMAT_UINT8);
    const struct {
        uint8_t P2;
        float lo, hi;
        int corner, edge, centre;
    } cases[] = {
        {40, 0.0f, 1.0f, 160, 125, 40}, {40, 0.4f, 0.8f, 160, 132, 40}, {100, 0.0f, 1.0f, 255, 255, 100}};
    for (const auto& c : cases) {
        ASSERT_EQ(Sgm_makeRadialPenalty(&o.sgm, &p.image, c.P2, 4.0f, c.lo, c.hi), TL_OK);
        EXPECT_TRUE(p.u8(0, 0) == c.corner && p.u8(0, 2) == c.edge && p.u8(4, 2) == c.centre)
            << c.P2 << " " << c.lo;
    }
    EXPECT_EQ(Sgm_makeRadialPenalty(&o.sgm, &p.image, 40, 4.0f, 0.5f, 0.5f), TL_ERROR_PARAM);
    EXPECT_TRUE(p.canariesIntact());
}

TEST(Sgm, RefusalsWriteNothing) {
    const int32_t W = 32, H = 8;
    Picture v1(W, H, IMAGE_FORMAT_UINT8), v2(W, H, IMAGE_FORMAT_UINT8), d1(W, H, IMAGE_FORMAT_UINT8),
        d2(W, H, IMAGE_FORMAT_UINT8), f1(W, H, IMAGE_FORMAT_FLOAT), small(W - 1, H, IMAGE_FORMAT_UINT8),
        conf(W, H, IMAGE_FORMAT_UINT8);
    d1.fillPlanes(0xEE);
    conf.fillPlanes(0xEE);
    const std::vector<uint8_t> map = d1.storage, confidence = conf.storage;
    SgmObject o;
    const Image *v = &v1.image, *sm = &small.image;
    auto run = [&](const Image* x1, const Image* mask, int useGuide, uint32_t n, int window, int f) {
        return Sgm_createDisparityU8(&o.sgm, &d1.image, nullptr, x1, &v2.image, mask, nullptr, n, 0, window,
                                     f, 5, 40, useGuide, 1);
    };
    EXPECT_EQ(run(v, nullptr, 0, 24, 3, 3), TL_ERROR_STATE);  // before init
    EXPECT_EQ(Sgm_init(&o.sgm, W, H, 129, 0), TL_ERROR_PARAM);
    ASSERT_EQ(Sgm_init(&o.sgm, W, H, 21, 1), TL_OK);  // 21 rounds to 24
    // 25 candidates round to 32 > 24; window 10; 8 fraction bits; sizes; a guide asked, none given.
    const TLResult got[] = {run(v, nullptr, 0, 25, 3, 3), run(v, nullptr, 0, 24, 10, 3),
                            run(v, nullptr, 0, 24, 3, 8), run(sm, nullptr, 0, 24, 3, 3),
                            run(v, sm, 0, 24, 3, 3),      run(v, nullptr, 1, 24, 3, 3)};
    for (TLResult r : got) EXPECT_EQ(r, TL_ERROR_PARAM) << &r - got;
    EXPECT_TRUE(Sgm_createConfidenceU8(&o.sgm, &conf.image, &f1.image, &d2.image, 24, 0, 3, 1, 0, 255, 1) ==
                    TL_ERROR_UNSUPPORTED &&
                Sgm_createConfidenceU8(&o.sgm, &conf.image, &d2.image, sm, 24, 0, 3, 1, 0, 255, 1) ==
                    TL_ERROR_PARAM);
    EXPECT_TRUE(d1.storage == map && conf.storage == confidence);
    EXPECT_EQ(Sgm_recycle(&o.sgm), TL_OK);
    EXPECT_EQ(run(v, nullptr, 0, 24, 3, 3), TL_ERROR_STATE);
}
