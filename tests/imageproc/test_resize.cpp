// Resizing against models written here: bilinear in double, the exact mean
// of the covered area, and the rounded mean of four for halving.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "imageproc/image_proc.h"
#include "imageproc/resize.h"
#include "support/picture.h"
#include "support/test_env.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

// Centre-aligned bilinear sample, clamped to the edge.
double referenceSample(const std::vector<double>& s, int32_t sw, int32_t sh, double fx, double fy) {
    auto clampPos = [](double p, int32_t n) { return p < 0 ? 0.0 : (p > n - 1 ? n - 1.0 : p); };
    const double px = clampPos(fx, sw), py = clampPos(fy, sh);
    const int32_t x0 = static_cast<int32_t>(px), y0 = static_cast<int32_t>(py);
    const int32_t x1 = x0 + 1 < sw ? x0 + 1 : x0, y1 = y0 + 1 < sh ? y0 + 1 : y0;
    const double ax = px - x0, ay = py - y0;
    const double top = s[y0 * sw + x0] * (1 - ax) + s[y0 * sw + x1] * ax;
    const double bottom = s[y1 * sw + x0] * (1 - ax) + s[y1 * sw + x1] * ax;
    return top * (1 - ay) + bottom * ay;
}

double get(Picture& p, int32_t i, int32_t y) { return vq_tl_test::elementOf(p.image, i, y); }

void set(Picture& p, int32_t i, int32_t y, double v) {
    switch (p.image.format) {
        case IMAGE_FORMAT_UINT16: p.at<uint16_t>(i, y) = static_cast<uint16_t>(v); break;
        case IMAGE_FORMAT_INT16: p.at<int16_t>(i, y) = static_cast<int16_t>(v); break;
        case IMAGE_FORMAT_INT32: p.at<int32_t>(i, y) = static_cast<int32_t>(v); break;
        case IMAGE_FORMAT_FLOAT: p.at<float>(i, y) = static_cast<float>(v); break;
        default: p.at<uint8_t>(i, y) = static_cast<uint8_t>(v);
    }
}

}  // namespace

TEST(Resize, RampsWorkedByHand) {
    struct Case {
        int32_t sw, dw;
        std::vector<uint8_t> src, expected;
    };
    const Case cases[] = {
        // Enlarging 4 -> 8: samples at -0.25 (edge copy), 0.25, 0.75, ..., 3.25 (edge copy).
        {4, 8, {0, 10, 20, 30}, {0, 3, 8, 13, 18, 23, 28, 30}},
        // Reducing 10 -> 3: samples at 1.1667, 4.5 (a tie, rounded up), 7.8333
        // of a ramp of 25 per pixel.
        {10, 3, {0, 25, 50, 75, 100, 125, 150, 175, 200, 225}, {29, 113, 196}},
    };
    for (const Case& c : cases) {
        // The same ramp along x (one row) and along y (one column).
        for (int axis = 0; axis < 2; ++axis) {
            Picture src(axis == 0 ? c.sw : 1, axis == 0 ? 1 : c.sw, IMAGE_FORMAT_UINT8);
            Picture dst(axis == 0 ? c.dw : 1, axis == 0 ? 1 : c.dw, IMAGE_FORMAT_UINT8);
            for (int32_t i = 0; i < c.sw; ++i) (axis == 0 ? src.u8(i, 0) : src.u8(0, i)) = c.src[i];
            ASSERT_EQ(Resize_resizeImage(nullptr, &dst.image, &src.image), TL_OK);
            for (int32_t i = 0; i < c.dw; ++i) {
                EXPECT_EQ(axis == 0 ? dst.u8(i, 0) : dst.u8(0, i), c.expected[i])
                    << c.sw << "->" << c.dw << " " << i;
            }
            EXPECT_TRUE(dst.canariesIntact());
        }
    }
}

TEST(Resize, ConstantsStayConstantInEveryLayout) {
    const struct {
        uint32_t format;
        int32_t sw, sh, dw, dh;
    } cases[] = {
        {IMAGE_FORMAT_UINT8, 33, 17, 70, 41},
        {IMAGE_FORMAT_UINT8, 70, 41, 19, 11},
        {IMAGE_FORMAT_UINT8, 70, 41, 35, 21},
        {IMAGE_FORMAT_UINT88, 31, 9, 12, 20},
        {IMAGE_FORMAT_UINT16, 15, 15, 44, 7},
        {IMAGE_FORMAT_INT16, 15, 15, 8, 8},
        {IMAGE_FORMAT_INT32, 12, 30, 25, 13},
        {IMAGE_FORMAT_FLOAT, 12, 30, 25, 13},
        {IMAGE_FORMAT_HSV, 20, 20, 9, 31},
        {IMAGE_FORMAT_RGB161616, 6, 5, 13, 3},
        {IMAGE_FORMAT_UINT1616, 7, 7, 4, 4},
        {IMAGE_FORMAT_YUV420_SEMIPLANAR, 64, 48, 18, 14},
        {IMAGE_FORMAT_YUV420_PLANAR, 64, 48, 96, 72},
    };
    for (const auto& c : cases) {
        Picture src(c.sw, c.sh, c.format), dst(c.dw, c.dh, c.format);
        // Each plane's bytes alike: a constant in every element type.
        src.fillPlanes(0x41);
        ASSERT_EQ(Resize_resizeImage(nullptr, &dst.image, &src.image), TL_OK) << c.format;
        for (int k = 0; k < 3; ++k) {
            for (int32_t r = 0; r < dst.rows[k]; ++r) {
                for (int32_t i = 0; i < dst.rowBytes[k]; ++i)
                    ASSERT_EQ(dst.row(k, r)[i], 0x41 + k) << c.format << " plane " << k;
            }
        }
        EXPECT_TRUE(dst.canariesIntact()) << c.format;
    }
}

TEST(Resize, MatchesADoubleModelWithinOneLevel) {
    // Samples at the resizer's Q15 positions, so that the steep random data
    // tests the arithmetic and not the position's last bit. 32-bit elements
    // hold values times 2^16 and are within one such step.
    const struct {
        uint32_t format;
        int32_t lo, hi, scale;
        double tolerance;
    } kinds[] = {{IMAGE_FORMAT_UINT8, 0, 255, 1, 1.0},
                 {IMAGE_FORMAT_UINT16, 0, 65535, 1, 1.0},
                 {IMAGE_FORMAT_INT16, -32768, 32767, 1, 1.0},
                 {IMAGE_FORMAT_INT32, -30000, 30000, 65536, 65536.0},
                 {IMAGE_FORMAT_FLOAT, -30000, 30000, 1, 0.02}};
    auto q15 = [](int32_t i, int32_t src, int32_t dst) {
        return static_cast<double>(((2 * int64_t{i} + 1) * src * 32768) / (2 * int64_t{dst}) - 16384) /
               32768.0;
    };
    std::mt19937 rng(2024);
    std::uniform_int_distribution<int32_t> side(1, 60);
    for (int round = 0; round < vq_tl_test_scaled(250, 50); ++round) {
        const auto& k = kinds[round % 5];
        const int32_t sw = side(rng), sh = side(rng), dw = side(rng), dh = side(rng);
        if (Resize_isAboutHalf(dw, dh, sw, sh)) continue;  // the 2 by 2 kernel has its own test
        Picture src(sw, sh, k.format), dst(dw, dh, k.format);
        std::vector<double> s(static_cast<size_t>(sw) * sh);
        std::uniform_int_distribution<int32_t> value(k.lo, k.hi);
        for (int32_t y = 0; y < sh; ++y) {
            for (int32_t x = 0; x < sw; ++x) set(src, x, y, (s[y * sw + x] = value(rng)) * k.scale);
        }
        ASSERT_EQ(Resize_resizeImage(nullptr, &dst.image, &src.image), TL_OK);
        for (int32_t y = 0; y < dh; ++y) {
            for (int32_t x = 0; x < dw; ++x) {
                const double ref = referenceSample(s, sw, sh, q15(x, sw, dw), q15(y, sh, dh)) * k.scale;
                ASSERT_NEAR(get(dst, x, y), ref, k.tolerance) << k.format << " " << sw << "x" << sh << "->"
                                                              << dw << "x" << dh << " at " << x << "," << y;
            }
        }
        ASSERT_TRUE(dst.canariesIntact());
    }
}

TEST(Resize, HalvingIsTheRoundedMeanOfFour) {
    // (a + b + c + d + 2) >> 2 with the last column and row repeated where
    // the source is odd or short; random values make the sums odd, so the
    // rounding shows. Halving and resizing to about half are the same kernel.
    std::mt19937 rng(31);
    const uint32_t formats[] = {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT88, IMAGE_FORMAT_INT16,
                                IMAGE_FORMAT_INT32};
    for (uint32_t f : formats) {
        for (int round = 0; round < 6; ++round) {
            const int32_t sw = 2 + static_cast<int32_t>(rng() % 40),
                          sh = 2 + static_cast<int32_t>(rng() % 30);
            // 2 dst - src from -2 to 2.
            const int32_t dw = (sw + static_cast<int32_t>(rng() % 5) - 2 + 1) / 2, dh = (sh + 1) / 2;
            if (!Resize_isAboutHalf(dw, dh, sw, sh) || dw < 1) continue;
            Picture src(sw, sh, f), half(dw, dh, f), resized(dw, dh, f);
            src.fillRandom(rng);
            ASSERT_EQ(Resize_shrink2(nullptr, &half.image, &src.image), TL_OK);
            ASSERT_EQ(Resize_resizeImage(nullptr, &resized.image, &src.image), TL_OK);
            const int channels = f == IMAGE_FORMAT_UINT88 ? 2 : 1;
            auto at = [&](Picture& p, int32_t x, int32_t y, int c) {
                return static_cast<int64_t>(get(p, x * channels + c, y));
            };
            for (int32_t y = 0; y < dh; ++y) {
                for (int32_t x = 0; x < dw; ++x) {
                    const int32_t x0 = std::min(2 * x, sw - 1), x1 = std::min(2 * x + 1, sw - 1);
                    const int32_t y0 = std::min(2 * y, sh - 1), y1 = std::min(2 * y + 1, sh - 1);
                    for (int c = 0; c < channels; ++c) {
                        const int64_t want = (at(src, x0, y0, c) + at(src, x1, y0, c) + at(src, x0, y1, c) +
                                              at(src, x1, y1, c) + 2) >>
                                             2;
                        ASSERT_EQ(at(half, x, y, c), want)
                            << f << " " << sw << "x" << sh << " at " << x << "," << y;
                        ASSERT_EQ(at(resized, x, y, c), want) << f << " " << sw << "x" << sh;
                    }
                }
            }
            EXPECT_TRUE(half.canariesIntact() && resized.canariesIntact());
        }
    }
}

TEST(Resize, AverageShrinkIsTheMeanOfTheCoveredArea) {
    // 5 -> 2 across: pixel 0 covers source 0, 1 and half of 2.
    // Two equal rows, so that the vertical step is a plain halving.
    Picture dst(2, 1, IMAGE_FORMAT_UINT8), src2(5, 2, IMAGE_FORMAT_UINT8);
    const uint8_t v[5] = {10, 20, 40, 80, 160};
    for (int i = 0; i < 5; ++i) src2.u8(i, 0) = src2.u8(i, 1) = v[i];
    ASSERT_EQ(Resize_averageShrink(nullptr, &dst.image, &src2.image), TL_OK);
    EXPECT_EQ(dst.u8(0, 0), 20);   // (10 + 20 + 20) / 2.5 = 20
    EXPECT_EQ(dst.u8(1, 0), 104);  // (20 + 80 + 160) / 2.5 = 104

    // Random sizes against an exact mean in the test.
    std::mt19937 rng(11);
    std::uniform_int_distribution<int32_t> side(2, 50), value(0, 65535);
    for (int round = 0; round < vq_tl_test_scaled(100, 20); ++round) {
        const int32_t sw = side(rng), sh = side(rng);
        const int32_t dw = 1 + static_cast<int32_t>(rng() % (sw - 1)),
                      dh = 1 + static_cast<int32_t>(rng() % (sh - 1));
        Picture s(sw, sh, IMAGE_FORMAT_UINT16), d(dw, dh, IMAGE_FORMAT_UINT16);
        for (int32_t y = 0; y < sh; ++y) {
            for (int32_t x = 0; x < sw; ++x) s.at<uint16_t>(x, y) = static_cast<uint16_t>(value(rng));
        }
        ASSERT_EQ(Resize_averageShrink(nullptr, &d.image, &s.image), TL_OK);
        // Overlap of [x sw / dw, (x + 1) sw / dw) with source pixel i.
        auto overlap = [](int32_t i, int32_t x, int32_t src, int32_t dst) {
            return std::fmax(0.0,
                             std::fmin(i + 1.0, (x + 1.0) * src / dst) - std::fmax(i, 1.0 * x * src / dst));
        };
        for (int32_t y = 0; y < dh; ++y) {
            for (int32_t x = 0; x < dw; ++x) {
                double sum = 0.0;
                for (int32_t j = 0; j < sh; ++j) {
                    for (int32_t i = 0; i < sw; ++i)
                        sum += overlap(i, x, sw, dw) * overlap(j, y, sh, dh) * s.at<uint16_t>(i, j);
                }
                const double mean = sum * dw * dh / (static_cast<double>(sw) * sh);
                ASSERT_NEAR(d.at<uint16_t>(x, y), mean, 0.5 + 1e-6)
                    << sw << "x" << sh << "->" << dw << "x" << dh;
            }
        }
        ASSERT_TRUE(d.canariesIntact());
    }
}

TEST(Resize, EqualSizeCopiesAndRefusalsWriteNothing) {
    std::mt19937 rng(4);
    Picture a(10, 6, IMAGE_FORMAT_UINT8), b(10, 6, IMAGE_FORMAT_UINT8), wide(10, 6, IMAGE_FORMAT_UINT16);
    Picture rgb(8, 8, IMAGE_FORMAT_RGB888), rgbSmall(4, 3, IMAGE_FORMAT_RGB888), lab(8, 8, IMAGE_FORMAT_LAB),
        labSmall(4, 3, IMAGE_FORMAT_LAB), wider(11, 3, IMAGE_FORMAT_UINT8), tiny(1, 1, IMAGE_FORMAT_UINT8);
    a.fillRandom(rng);
    ASSERT_EQ(Resize_resizeImage(nullptr, &b.image, &a.image), TL_OK);
    EXPECT_TRUE(b.samePixels(a));
    const struct {
        TLResult (*fn)(const ImageStripeExec*, Image*, const Image*);
        Picture *dst, *src;
        TLResult result;
    } cases[] = {
        {Resize_resizeImage, &wide, &a, TL_ERROR_UNSUPPORTED},        // formats differ
        {Resize_resizeImage, &rgbSmall, &rgb, TL_ERROR_UNSUPPORTED},  // outside 26..69
        {Resize_resizeImage, &labSmall, &lab, TL_ERROR_UNSUPPORTED},  // no kernel
        {Resize_averageShrink, &b, &a, TL_ERROR_PARAM},               // not smaller
        {Resize_averageShrink, &wider, &a, TL_ERROR_PARAM},           // wider
        {Resize_averageShrink, &wide, &a, TL_ERROR_PARAM},            // formats differ
        {Resize_shrink2, &tiny, &a, TL_ERROR_PARAM},                  // not about half
    };
    for (const auto& c : cases) {
        const std::vector<uint8_t> before = c.dst->storage;
        EXPECT_EQ(c.fn(nullptr, &c.dst->image, &c.src->image), c.result)
            << c.dst->image.width << " " << c.dst->image.format;
        EXPECT_EQ(c.dst->storage, before);
    }
}

TEST(Resize, PlanningSizes) {
    const struct {
        int32_t w, h, maxW, maxH, outW, outH;
    } fits[] = {{4000, 3000, 1920, 1920, 1920, 1440},
                {4000, 3000, 1000, 2000, 1000, 750},
                {3, 1000, 10, 10, 1, 10},
                {1000, 3, 10, 10, 10, 1}};
    int32_t w = 0, h = 0;
    for (const auto& f : fits) {
        ASSERT_EQ(ImageProc_getSizeFit(&w, &h, f.w, f.h, f.maxW, f.maxH), TL_OK);
        EXPECT_TRUE(w == f.outW && h == f.outH) << w << "x" << h;
    }
    // The largest 4:3 size of at most `area` pixels, down to 1 by 1.
    for (int32_t area : {307200, 19200, 1000, 1}) {
        ASSERT_EQ(ImageProc_getSizeArea(&w, &h, 4000, 3000, area), TL_OK);
        EXPECT_LE(int64_t{w} * h, area);
        EXPECT_GE(int64_t{w} * h, area * 0.98 - 2 * (w + h));
        EXPECT_NEAR(static_cast<double>(w) / h, 4.0 / 3.0, 2.0 / h);
    }
}
