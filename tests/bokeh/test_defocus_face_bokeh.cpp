// The pyramid bokeh: its shrinks and doubling worked by hand, the level geometry, the weighted blur against a
// plain reference, the copy and limit rules of sigma, the mixing formulas at the two ends of the map, the
// three YUV layouts against each other, the absence of a halo round a sharp subject, and bad arguments.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "bokeh/defocus_face_bokeh.h"
#include "bokeh/defocus_face_bokeh_util.h"
#include "support/layers.h"
#include "support/picture.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace vq_tl_test {
namespace {

struct Bokeh {
    Env env{};
    DefocusFaceBokeh b;
    Bokeh(int32_t w, int32_t h, uint32_t format, Pel* pel = nullptr) {
        construct_DefocusFaceBokeh(&b, &env);
        DefocusFaceBokeh_setPel(&b, pel);
        EXPECT_EQ(DefocusFaceBokeh_init(&b, w, h, format), TL_OK);
    }
    ~Bokeh() { destruct_DefocusFaceBokeh(&b); }
};

// A UINT8 picture with the given rows.
void setRows(Picture& p, const std::vector<std::vector<int>>& rows) {
    for (size_t y = 0; y < rows.size(); ++y)
        for (size_t x = 0; x < rows[y].size(); ++x)
            p.u8(static_cast<int32_t>(x), static_cast<int32_t>(y)) = rows[y][x];
}

void expectRows(Picture& p, const std::vector<std::vector<int>>& rows) {
    for (size_t y = 0; y < rows.size(); ++y)
        for (size_t x = 0; x < rows[y].size(); ++x)
            EXPECT_EQ(p.u8(static_cast<int32_t>(x), static_cast<int32_t>(y)), rows[y][x]) << x << "," << y;
    EXPECT_TRUE(p.canariesIntact());
}

// Bilinear doubling written from sample positions: destination x sits at source (2x - 1) / 4, between two
// source samples at a quarter or three quarters, indices limited to the source.
int doubledAt(const Image& s, int32_t x, int32_t y) {
    auto axis = [](int32_t d, int32_t n, int32_t* i0, int32_t* i1, int* w1) {
        const int32_t q = 2 * d - 1;  // position in quarters of a source pixel
        *i0 = q < 0 ? -1 : q / 4;
        *w1 = q < 0 ? 3 : q % 4;  // 1 or 3 quarters towards i0 + 1
        *i1 = std::clamp(*i0 + 1, 0, n - 1);
        *i0 = std::clamp(*i0, 0, n - 1);
    };
    int32_t x0, x1, y0, y1;
    int wx, wy;
    axis(x, s.width, &x0, &x1, &wx);
    axis(y, s.height, &y0, &y1, &wy);
    auto at = [&](int32_t xx, int32_t yy) { return static_cast<int>(s.plane[0][yy * s.pitch[0] + xx]); };
    const int sum = (4 - wx) * (4 - wy) * at(x0, y0) + wx * (4 - wy) * at(x1, y0) +
                    (4 - wx) * wy * at(x0, y1) + wx * wy * at(x1, y1);
    return (sum + 8) >> 4;
}

TEST(DefocusFaceBokehUtil, ShrinksWorkedByHand) {
    Picture src(5, 3, IMAGE_FORMAT_UINT8), w(5, 3, IMAGE_FORMAT_UINT8);
    setRows(src, {{10, 20, 30, 40, 50}, {12, 21, 33, 41, 51}, {13, 22, 32, 43, 52}});
    setRows(w, {{1, 3, 255, 255, 1}, {1, 1, 255, 1, 3}, {2, 2, 2, 2, 2}});
    // 3 columns from 5: two 2 by 2 blocks, then the last column; the second row pair is row 2 twice.
    Picture plain(3, 2, IMAGE_FORMAT_UINT8), value(3, 2, IMAGE_FORMAT_UINT8),
        weight(3, 2, IMAGE_FORMAT_UINT8);
    ASSERT_EQ(DefocusFaceBokehUtil_shrinkImageU8(nullptr, &plain.image, &src.image), TL_OK);
    expectRows(plain, {{16, 36, 51}, {18, 38, 52}});  // (63 + 2) >> 2, (144 + 2) >> 2, (101 + 1) >> 1 ...
    ASSERT_EQ(
        DefocusFaceBokehUtil_shrinkWeightedU8(nullptr, &value.image, &weight.image, &src.image, &w.image),
        TL_OK);
    // (103 + 3) / 6, (26306 + 383) / 766, (203 + 2) / 4; weights (6 + 2) >> 2, (766 + 2) >> 2, (4 + 1) >> 1.
    expectRows(value, {{17, 34, 51}, {18, 38, 52}});
    expectRows(weight, {{2, 192, 2}, {2, 2, 2}});
    Picture coc(5, 1, IMAGE_FORMAT_UINT8), cocWeight(5, 1, IMAGE_FORMAT_UINT8);
    setRows(coc, {{0, 1, 128, 254, 255}});
    ASSERT_EQ(DefocusFaceBokehUtil_weightOfCoc(nullptr, &cocWeight.image, &coc.image), TL_OK);
    expectRows(cocWeight, {{255, 255, 128, 2, 1}});
}

TEST(DefocusFaceBokehUtil, DoublingWorkedByHandAndAtEverySize) {
    Picture src(2, 2, IMAGE_FORMAT_UINT8), dst(4, 4, IMAGE_FORMAT_UINT8);
    setRows(src, {{0, 40}, {80, 120}});
    ASSERT_EQ(DefocusFaceBokehUtil_enlargeImageTwofoldU8(nullptr, &dst.image, &src.image), TL_OK);
    // Row 0 and 3 meet one source row, column 0 and 3 one source column; inside (9a + 3b + 3c + d + 8) >> 4.
    expectRows(dst, {{0, 10, 30, 40}, {20, 30, 50, 60}, {60, 70, 90, 100}, {80, 90, 110, 120}});

    // Random sources of odd and even sizes into every destination size from under twice to twice, on a Pel:
    // the sample-position reference, and the fused doubling of the mix agreeing with it.
    std::mt19937 rng(7);
    Layers& layers = sharedLayers();
    Bokeh bokeh(64, 64, IMAGE_FORMAT_YUV420_PLANAR, &layers.pel);
    for (auto [sw, sh] : {std::pair{1, 1}, {2, 3}, {7, 5}, {300, 9}}) {
        Picture s(sw, sh, IMAGE_FORMAT_UINT8);
        s.fillRandom(rng);
        for (int32_t dw : {2 * sw, 2 * sw - 1, 2 * sw - 3}) {
            if (dw < 1) continue;
            const int32_t dh = 2 * sh - (dw & 1);
            Picture d(dw, dh, IMAGE_FORMAT_UINT8), fine(dw, dh, IMAGE_FORMAT_UINT8),
                zero(dw, dh, IMAGE_FORMAT_UINT8);
            Picture mixed(dw, dh, IMAGE_FORMAT_UINT8);
            fine.fillRandom(rng);
            zero.fillPlanes(0);
            ASSERT_EQ(DefocusFaceBokehUtil_enlargeImageTwofoldU8(&bokeh.b, &d.image, &s.image), TL_OK);
            ASSERT_EQ(
                DefocusFaceBokeh_blendLevel(&bokeh.b, &mixed.image, &fine.image, &s.image, &zero.image, 0, 0),
                TL_OK);
            for (int32_t y = 0; y < dh; ++y)
                for (int32_t x = 0; x < dw; ++x) {
                    ASSERT_EQ(d.u8(x, y), doubledAt(s.image, x, y))
                        << sw << "x" << sh << " at " << x << "," << y;
                    ASSERT_EQ(mixed.u8(x, y), (255 * d.u8(x, y) + fine.u8(x, y) + 128) >> 8);
                }
            EXPECT_TRUE(d.canariesIntact() && mixed.canariesIntact());
        }
    }
}

TEST(DefocusFaceBokehUtil, LevelGeometryAndTaps) {
    struct Case {
        int32_t size, level, luma, chroma;
    };
    // The + 1 at every step: an odd side's chroma is half rounded up, and so is every level after it.
    for (const Case& c : {Case{4000, 0, 4000, 2000},
                          {4000, 3, 500, 250},
                          {4000, 7, 32, 16},
                          {101, 0, 102, 51},
                          {101, 1, 52, 26},
                          {101, 2, 26, 13},
                          {3000, 6, 48, 24}}) {
        EXPECT_EQ(DefocusFaceBokeh_getLumaSize(c.size, c.level), c.luma) << c.size << " " << c.level;
        EXPECT_EQ(DefocusFaceBokeh_getChromaSize(c.size, c.level), c.chroma) << c.size << " " << c.level;
    }
    EXPECT_EQ(DefocusFaceBokeh_getLevelCount(3000, 4000), 7);
    EXPECT_DOUBLE_EQ(DefocusFaceBokeh_getMaxBlurSigma(7), 115.2 - 1e-6);
    EXPECT_EQ(DefocusFaceBokeh_getLevelCount(31, 200), 1);  // 32, then 16
    EXPECT_EQ(DefocusFaceBokeh_getLevelCount(200, 30), 0);
    EXPECT_DOUBLE_EQ(DefocusFaceBokeh_getMaxBlurSigma(0), -1e-6);
    EXPECT_EQ(DefocusFaceBokeh_getLevelCount(1 << 20, 1 << 20), kDefocusFaceBokehLevels);

    int32_t taps[7];
    // A huge sigma: seven equal floats, 65536 / 7 truncated at the sides and the rest in the centre.
    EXPECT_TRUE(DefocusFaceBokeh_makeTaps(taps, 3, 1e6, 65536));
    EXPECT_EQ(std::vector<int32_t>(taps, taps + 7),
              (std::vector<int32_t>{9362, 9362, 9362, 9364, 9362, 9362, 9362}));
    // Sigma 1: e^-0.5 / (1 + 2 e^-0.5) * 256 = 70.2.
    EXPECT_TRUE(DefocusFaceBokeh_makeTaps(taps, 1, 1.0, 256));
    EXPECT_EQ(std::vector<int32_t>(taps, taps + 3), (std::vector<int32_t>{70, 116, 70}));
    EXPECT_FALSE(DefocusFaceBokeh_makeTaps(taps, 3, 0.1, 256));
    EXPECT_FALSE(DefocusFaceBokeh_makeTaps(taps, 1, 0.0, 256));
}

TEST(DefocusFaceBokehUtil, WeightedBlurMatchesPlainReference) {
    std::mt19937 rng(11);
    Layers& layers = sharedLayers();
    Bokeh bokeh(64, 64, IMAGE_FORMAT_YUV420_PLANAR, &layers.pel);
    struct Case {
        int32_t w, h, radius, shift;
        double sigma;
    };
    for (const Case& c :
         {Case{37, 23, 3, 16, 1.3}, {300, 5, 3, 16, 1.8}, {4, 41, 1, 8, 0.8}, {261, 9, 1, 8, 1.7}}) {
        Picture src(c.w, c.h, IMAGE_FORMAT_UINT8), weight(c.w, c.h, IMAGE_FORMAT_UINT8),
            dst(c.w, c.h, IMAGE_FORMAT_UINT8);
        Picture midValue(c.w, c.h, IMAGE_FORMAT_UINT8), midWeight(c.w, c.h, IMAGE_FORMAT_UINT8);
        src.fillRandom(rng);
        for (int32_t y = 0; y < c.h; ++y)
            for (int32_t x = 0; x < c.w; ++x) weight.u8(x, y) = static_cast<uint8_t>(1 + rng() % 255);
        int32_t taps[7];
        ASSERT_TRUE(DefocusFaceBokeh_makeTaps(taps, c.radius, c.sigma, 1 << c.shift));
        ASSERT_EQ(
            DefocusFaceBokehUtil_blurWeightedU8(&bokeh.b, &dst.image, &src.image, &weight.image,
                                                &midValue.image, &midWeight.image, taps, c.radius, c.shift),
            TL_OK);
        // Row pass, then column pass over what the row pass gave, in 64-bit integers over the clamped window.
        auto check = [&](int pass, Picture& value, Picture* weightOut, Picture& w) {
            for (int32_t y = 0; y < c.h; ++y)
                for (int32_t x = 0; x < c.w; ++x) {
                    int64_t d = 0, n = 0;
                    for (int32_t i = -c.radius; i <= c.radius; ++i) {
                        const int32_t xx = pass == 0 ? std::clamp(x + i, 0, c.w - 1) : x;
                        const int32_t yy = pass == 1 ? std::clamp(y + i, 0, c.h - 1) : y;
                        d += int64_t{taps[i + c.radius]} * w.u8(xx, yy);
                        n += int64_t{taps[i + c.radius]} * w.u8(xx, yy) * value.u8(xx, yy);
                    }
                    Picture& out = pass == 0 ? midValue : dst;
                    ASSERT_EQ(out.u8(x, y), (n + d / 2) / d) << "pass " << pass << " at " << x << "," << y;
                    if (weightOut != nullptr) {
                        ASSERT_EQ(weightOut->u8(x, y), (d + (1 << (c.shift - 1))) >> c.shift);
                    }
                }
        };
        check(0, src, &midWeight, weight);
        check(1, midValue, nullptr, midWeight);
        EXPECT_TRUE(dst.canariesIntact() && midValue.canariesIntact() && midWeight.canariesIntact());
    }
}

// Byte of plane k (0 luma, 1 U, 2 V) at (x, y) of a 4:2:0 picture, whatever the layout.
uint8_t& at(Picture& p, int k, int32_t x, int32_t y) {
    const uint32_t f = p.image.format;
    if (k == 0 || f == IMAGE_FORMAT_YUV420_PLANAR) return p.row(k, y)[x];
    const bool leads = (k == 1) != (f == IMAGE_FORMAT_YVU420_SEMIPLANAR);
    return p.row(1, y)[2 * x + (leads ? 0 : 1)];
}

// The three planes as plain bytes, row by row.
using Planes = std::vector<std::vector<uint8_t>>;

template <typename F>
void forEachByte(Picture& p, F&& f) {
    for (int k = 0; k < 3; ++k) {
        const int32_t w = k == 0 ? p.image.width : (p.image.width + 1) / 2;
        const int32_t h = k == 0 ? p.image.height : (p.image.height + 1) / 2;
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x) f(k, at(p, k, x, y));
    }
}

Planes planesOf(Picture& p) {
    Planes out(3);
    forEachByte(p, [&](int k, uint8_t& e) { out[k].push_back(e); });
    return out;
}

void setPlanes(Picture& p, const Planes& planes) {
    size_t i[3] = {0, 0, 0};
    forEachByte(p, [&](int k, uint8_t& e) { e = planes[k][i[k]++]; });
}

// The top-left width by height of one of the object's images.
Image viewOf(const Image& full, int32_t w, int32_t h) {
    Image v;
    construct_Image(&v, nullptr);
    EXPECT_EQ(Image_initSubImage(&v, &full, 0, 0, w, h), TL_OK);
    return v;
}

constexpr uint32_t kLayouts[] = {IMAGE_FORMAT_YUV420_PLANAR, IMAGE_FORMAT_YUV420_SEMIPLANAR,
                                 IMAGE_FORMAT_YVU420_SEMIPLANAR};

TEST(DefocusFaceBokeh, SigmaCopiesLimitsAndTinyPictures) {
    constexpr int32_t w = 261, h = 199;  // levels of 200, 100, 50: 3, up to sigma 7.2
    std::mt19937 rng(3);
    Bokeh bokeh(w, h, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    Picture src(w, h, IMAGE_FORMAT_YUV420_SEMIPLANAR), dst(w, h, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    Picture atLimit(w, h, IMAGE_FORMAT_YUV420_SEMIPLANAR), map(w, h, IMAGE_FORMAT_UINT8);
    src.fillRandom(rng);
    map.fillRandom(rng);
    DefocusFaceBokeh& b = bokeh.b;
    ASSERT_EQ(DefocusFaceBokeh_getBlurImage(&b, &dst.image, &src.image, &map.image, 1000.0), TL_OK);
    EXPECT_EQ(b.numLevels, 3);
    EXPECT_EQ(b.depth, 2);
    EXPECT_DOUBLE_EQ(b.maxBlurSigma, 7.2 - 1e-6);
    ASSERT_EQ(DefocusFaceBokeh_getBlurImage(&b, &atLimit.image, &src.image, &map.image, b.maxBlurSigma),
              TL_OK);
    EXPECT_EQ(planesOf(atLimit), planesOf(dst));
    // 0.1 copies and leaves the depth alone; a hair more runs the kernels without a pyramid, still a copy.
    ASSERT_EQ(DefocusFaceBokeh_getBlurImage(&b, &dst.image, &src.image, &map.image, 0.1), TL_OK);
    EXPECT_EQ(planesOf(dst), planesOf(src));
    EXPECT_EQ(b.depth, 2);
    ASSERT_EQ(DefocusFaceBokeh_getBlurImage(&b, &dst.image, &src.image, &map.image, 0.1 + 1e-9), TL_OK);
    EXPECT_EQ(planesOf(dst), planesOf(src));
    EXPECT_EQ(b.depth, 0);
    ASSERT_EQ(DefocusFaceBokeh_getBlurImage(&b, &dst.image, &src.image, &map.image, 1.0), TL_OK);
    EXPECT_NE(planesOf(dst), planesOf(src));
    EXPECT_TRUE(dst.canariesIntact());

    Bokeh tiny(24, 20, IMAGE_FORMAT_YUV420_PLANAR);
    Picture s(24, 20, IMAGE_FORMAT_YUV420_PLANAR), d(24, 20, IMAGE_FORMAT_YUV420_PLANAR),
        m(5, 4, IMAGE_FORMAT_UINT8);
    s.fillRandom(rng);
    m.fillPlanes(0);
    for (auto blur : {DefocusFaceBokeh_getBlurImage, DefocusFaceBokeh_getBlurImageMultiLayer}) {
        d.fillPlanes(9);
        ASSERT_EQ(blur(&tiny.b, &d.image, &s.image, &m.image, 50.0), TL_OK);
        EXPECT_TRUE(d.samePixels(s));
        EXPECT_EQ(tiny.b.numLevels, 0);
        EXPECT_DOUBLE_EQ(tiny.b.maxBlurSigma, -1e-6);
    }
}

TEST(DefocusFaceBokeh, MapEndsAndTheThreeLayoutsAgree) {
    constexpr int32_t w = 261, h = 199;
    constexpr double sigma = 6.0;  // depth 2
    std::mt19937 rng(5);
    Picture base(w, h, IMAGE_FORMAT_YUV420_PLANAR), randomMap(w, h, IMAGE_FORMAT_UINT8);
    base.fillRandom(rng);
    randomMap.fillRandom(rng);
    const Planes source = planesOf(base);
    for (int kind = 0; kind < 3; ++kind) {  // map of 255, of 0, random
        Picture map(w, h, IMAGE_FORMAT_UINT8);
        if (kind < 2) map.fillPlanes(kind == 0 ? 255 : 0);
        if (kind == 2) map.copyPixels(randomMap);
        std::vector<Planes> single, multi;
        for (uint32_t format : kLayouts) {
            Bokeh bokeh(w, h, format);
            Picture src(w, h, format), dst(w, h, format);
            setPlanes(src, source);
            ASSERT_EQ(DefocusFaceBokeh_getBlurImage(&bokeh.b, &dst.image, &src.image, &map.image, sigma),
                      TL_OK);
            ASSERT_EQ(bokeh.b.depth, 2);
            single.push_back(planesOf(dst));
            if (kind == 0) {
                EXPECT_EQ(planesOf(dst), source) << format;
            }
            if (kind == 1) {
                // Everywhere the doubled blur with the source's 1/256: (255 b + p + 128) >> 8.
                const DefocusFaceBokeh& b = bokeh.b;
                // blurU holds the byte that leads a pair: V in the VU layout.
                const bool vu = format == IMAGE_FORMAT_YVU420_SEMIPLANAR;
                const Image levels[3] = {b.blurY[1], vu ? b.blurV[1] : b.blurU[1],
                                         vu ? b.blurU[1] : b.blurV[1]};
                for (int k = 0; k < 3; ++k) {
                    const int32_t pw = k == 0 ? w : (w + 1) / 2, ph = k == 0 ? h : (h + 1) / 2;
                    const Image coarse = viewOf(
                        levels[k],
                        k == 0 ? DefocusFaceBokeh_getLumaSize(w, 1) : DefocusFaceBokeh_getChromaSize(w, 1),
                        k == 0 ? DefocusFaceBokeh_getLumaSize(h, 1) : DefocusFaceBokeh_getChromaSize(h, 1));
                    Picture doubled(pw, ph, IMAGE_FORMAT_UINT8);
                    ASSERT_EQ(DefocusFaceBokehUtil_enlargeImageTwofoldU8(nullptr, &doubled.image, &coarse),
                              TL_OK);
                    for (int32_t y = 0; y < ph; ++y)
                        for (int32_t x = 0; x < pw; ++x)
                            ASSERT_EQ(single.back()[k][y * pw + x],
                                      (255 * doubled.u8(x, y) + source[k][y * pw + x] + 128) >> 8);
                }
            }
            ASSERT_EQ(
                DefocusFaceBokeh_getBlurImageMultiLayer(&bokeh.b, &dst.image, &src.image, &map.image, sigma),
                TL_OK);
            multi.push_back(planesOf(dst));
            EXPECT_TRUE(dst.canariesIntact());
        }
        EXPECT_TRUE(single[0] == single[1] && single[0] == single[2]) << kind;
        EXPECT_TRUE(multi[0] == multi[1] && multi[0] == multi[2]) << kind;
    }
}

TEST(DefocusFaceBokeh, NoHaloRoundASharpSubject) {
    // A bright square in focus on a dark field of full blur. The weighted reduction keeps the square out of
    // the field's blur, so just outside it the field stays at its own blur, 30. A map of 0 everywhere weighs
    // every pixel alike, as a plain reduction does: there the square's light spreads out.
    constexpr int32_t size = 512, lo = 192, hi = 320;  // levels 512 to 32: 5, depth 4 at sigma 20
    Picture src(size, size, IMAGE_FORMAT_YUV420_PLANAR), map(size, size, IMAGE_FORMAT_UINT8),
        flat(size, size, IMAGE_FORMAT_UINT8);
    src.fillPlanes(128);
    map.fillPlanes(0);
    flat.fillPlanes(0);
    auto inside = [](int32_t x, int32_t y) { return x >= lo && x < hi && y >= lo && y < hi; };
    for (int32_t y = 0; y < size; ++y)
        for (int32_t x = 0; x < size; ++x) {
            src.u8(x, y) = inside(x, y) ? 220 : 30;
            map.u8(x, y) = inside(x, y) ? 255 : 0;
        }
    Bokeh bokeh(size, size, IMAGE_FORMAT_YUV420_PLANAR);
    for (auto blur : {DefocusFaceBokeh_getBlurImage, DefocusFaceBokeh_getBlurImageMultiLayer}) {
        Picture dst(size, size, IMAGE_FORMAT_YUV420_PLANAR), plain(size, size, IMAGE_FORMAT_YUV420_PLANAR);
        ASSERT_EQ(blur(&bokeh.b, &dst.image, &src.image, &map.image, 20.0), TL_OK);
        ASSERT_EQ(bokeh.b.depth, 4);
        ASSERT_EQ(blur(&bokeh.b, &plain.image, &src.image, &flat.image, 20.0), TL_OK);
        int worst = 0, plainLeast = 255;
        for (int32_t d = 1; d <= 4; ++d)  // the ring of pixels 1 to 4 outside the square
            for (int32_t i = lo - d; i < hi + d; ++i)
                for (auto [x, y] : {std::pair{i, lo - d}, {i, hi - 1 + d}, {lo - d, i}, {hi - 1 + d, i}}) {
                    worst = std::max(worst, std::abs(dst.u8(x, y) - 30));
                    plainLeast = std::min(plainLeast, static_cast<int>(plain.u8(x, y)));
                }
        EXPECT_LE(worst, 3);
        EXPECT_GE(plainLeast, 50);
    }
    EXPECT_EQ(std::vector<uint8_t>(bokeh.b.levelThreshold, bokeh.b.levelThreshold + 5),
              (std::vector<uint8_t>{255, 224, 192, 128, 0}));
}

TEST(DefocusFaceBokeh, SameBytesOnOneAndThreeWorkersAndDepthOneLayersAreOneStrength) {
    constexpr int32_t w = 261, h = 199;
    std::mt19937 rng(13);
    Picture src(w, h, IMAGE_FORMAT_YVU420_SEMIPLANAR), map(130, 100, IMAGE_FORMAT_UINT8);  // the map resized
    src.fillRandom(rng);
    map.fillRandom(rng);
    Bokeh serial(w, h, IMAGE_FORMAT_YVU420_SEMIPLANAR),
        parallel(w, h, IMAGE_FORMAT_YVU420_SEMIPLANAR, &sharedLayers().pel);
    for (double sigma : {1.5, 3.0, 7.0}) {
        for (auto blur : {DefocusFaceBokeh_getBlurImage, DefocusFaceBokeh_getBlurImageMultiLayer}) {
            Picture a(w, h, IMAGE_FORMAT_YVU420_SEMIPLANAR), b(w, h, IMAGE_FORMAT_YVU420_SEMIPLANAR);
            ASSERT_EQ(blur(&serial.b, &a.image, &src.image, &map.image, sigma), TL_OK);
            ASSERT_EQ(blur(&parallel.b, &b.image, &src.image, &map.image, sigma), TL_OK);
            EXPECT_EQ(planesOf(a), planesOf(b)) << sigma;
            b.copyPixels(src);  // and in place
            ASSERT_EQ(blur(&parallel.b, &b.image, &b.image, &map.image, sigma), TL_OK);
            EXPECT_EQ(planesOf(a), planesOf(b)) << sigma;
        }
        // With one level the layers are the single strength: threshold 0, shift 0.
        Picture one(w, h, IMAGE_FORMAT_YVU420_SEMIPLANAR), layers(w, h, IMAGE_FORMAT_YVU420_SEMIPLANAR);
        ASSERT_EQ(DefocusFaceBokeh_getBlurImage(&serial.b, &one.image, &src.image, &map.image, sigma), TL_OK);
        ASSERT_EQ(
            DefocusFaceBokeh_getBlurImageMultiLayer(&serial.b, &layers.image, &src.image, &map.image, sigma),
            TL_OK);
        EXPECT_EQ(planesOf(one) == planesOf(layers), serial.b.depth <= 1) << sigma;
    }
}

TEST(DefocusFaceBokeh, BadArgumentsWriteNothing) {
    Bokeh bokeh(64, 48, IMAGE_FORMAT_YUV420_PLANAR);
    Picture src(64, 48, IMAGE_FORMAT_YUV420_PLANAR), dst(64, 48, IMAGE_FORMAT_YUV420_PLANAR),
        map(64, 48, IMAGE_FORMAT_UINT8), map16(64, 48, IMAGE_FORMAT_UINT16),
        narrow(62, 48, IMAGE_FORMAT_YUV420_PLANAR), big(66, 48, IMAGE_FORMAT_YUV420_PLANAR),
        bigDst(66, 48, IMAGE_FORMAT_YUV420_PLANAR), semi(64, 48, IMAGE_FORMAT_YUV420_SEMIPLANAR),
        semiDst(64, 48, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    std::mt19937 rng(17);
    src.fillRandom(rng);
    struct Case {
        Picture* dst;
        Picture* src;
        Picture* map;
        TLResult expected;
    };
    // Missing pictures, a map not of bytes, sizes that differ or exceed init's, a layout init made no room
    // for.
    for (const Case& c : {Case{&dst, nullptr, &map, TL_ERROR_PARAM},
                          {&dst, &src, nullptr, TL_ERROR_PARAM},
                          {&dst, &src, &map16, TL_ERROR_PARAM},
                          {&narrow, &src, &map, TL_ERROR_PARAM},
                          {&bigDst, &big, &map, TL_ERROR_PARAM},
                          {&semiDst, &semi, &map, TL_ERROR_PARAM}}) {
        c.dst->fillPlanes(7);
        for (auto blur : {DefocusFaceBokeh_getBlurImage, DefocusFaceBokeh_getBlurImageMultiLayer}) {
            EXPECT_EQ(blur(&bokeh.b, &c.dst->image, c.src != nullptr ? &c.src->image : nullptr,
                           c.map != nullptr ? &c.map->image : nullptr, 5.0),
                      c.expected);
            Picture untouched(c.dst->image.width, c.dst->image.height, c.dst->image.format);
            untouched.fillPlanes(7);
            EXPECT_TRUE(c.dst->samePixels(untouched));
        }
    }
    EXPECT_EQ(DefocusFaceBokeh_init(&bokeh.b, 0, 48, IMAGE_FORMAT_YUV420_PLANAR), TL_ERROR_PARAM);
    EXPECT_EQ(DefocusFaceBokeh_getBlurImage(nullptr, &dst.image, &src.image, &map.image, 5.0),
              TL_ERROR_PARAM);
}

}  // namespace
}  // namespace vq_tl_test
