#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "support/picture.h"
#include "imageproc/resize.h"
#include "support/test_env.h"

using namespace vq_tl;

namespace {

using vq_tl_test::Picture;

// Independent bilinear model in double: centre-aligned samples clamped to
// the edge, rounded to nearest.
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
        // 8 -> 3 is within one pixel of one half: the 2 by 2 kernel, which
        // leaves the last two columns out.
        {8, 3, {0, 32, 64, 96, 128, 160, 192, 224}, {16, 80, 144}},
        // About half, 9 -> 5: the 2 by 2 kernel, the last column repeated.
        {9, 5, {0, 10, 20, 30, 40, 50, 60, 70, 80}, {5, 25, 45, 65, 80}},
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
    struct Case {
        uint32_t format;
        int32_t sw, sh, dw, dh;
    };
    const Case cases[] = {
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
    for (const Case& c : cases) {
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
    std::mt19937 rng(2024);
    std::uniform_int_distribution<int32_t> side(1, 60), value(0, 255);
    const int rounds = vq_tl_test_scaled(200, 40);
    for (int round = 0; round < rounds; ++round) {
        const int32_t sw = side(rng), sh = side(rng), dw = side(rng), dh = side(rng);
        if (Resize_isAboutHalf(dw, dh, sw, sh)) continue;  // the 2 by 2 kernel has its own test
        Picture src(sw, sh, IMAGE_FORMAT_UINT8), dst(dw, dh, IMAGE_FORMAT_UINT8);
        std::vector<double> s(static_cast<size_t>(sw) * sh);
        for (int32_t y = 0; y < sh; ++y) {
            for (int32_t x = 0; x < sw; ++x) s[y * sw + x] = src.u8(x, y) = static_cast<uint8_t>(value(rng));
        }
        ASSERT_EQ(Resize_resizeImage(nullptr, &dst.image, &src.image), TL_OK);
        for (int32_t y = 0; y < dh; ++y) {
            for (int32_t x = 0; x < dw; ++x) {
                const double ref =
                    referenceSample(s, sw, sh, (x + 0.5) * sw / dw - 0.5, (y + 0.5) * sh / dh - 0.5);
                ASSERT_NEAR(dst.u8(x, y), ref, 1.0)
                    << sw << "x" << sh << "->" << dw << "x" << dh << " at " << x << "," << y;
            }
        }
        ASSERT_TRUE(dst.canariesIntact());
    }
}

TEST(Resize, OtherElementTypesFollowTheSameModel) {
    // 16-bit, signed 16-bit, 32-bit and float planes against the double model.
    std::mt19937 rng(8);
    const int32_t sw = 23, sh = 17, dw = 40, dh = 9;
    std::uniform_real_distribution<double> u(-30000.0, 30000.0);
    std::vector<double> s(sw * sh);
    // Positions quantised to Q15 as the resizer takes them, so that the
    // steep random data tests the arithmetic and not the position's last bit.
    auto q15 = [](int32_t i, int32_t src, int32_t dst) {
        return static_cast<double>(((2 * int64_t{i} + 1) * src * 32768) / (2 * int64_t{dst}) - 16384) /
               32768.0;
    };
    Picture s16(sw, sh, IMAGE_FORMAT_UINT16), d16(dw, dh, IMAGE_FORMAT_UINT16);
    Picture si16(sw, sh, IMAGE_FORMAT_INT16), di16(dw, dh, IMAGE_FORMAT_INT16);
    Picture s32(sw, sh, IMAGE_FORMAT_INT32), d32(dw, dh, IMAGE_FORMAT_INT32);
    Picture sf(sw, sh, IMAGE_FORMAT_FLOAT), df(dw, dh, IMAGE_FORMAT_FLOAT);
    for (int32_t y = 0; y < sh; ++y) {
        for (int32_t x = 0; x < sw; ++x) {
            const int32_t v = static_cast<int32_t>(u(rng));
            s[y * sw + x] = v;
            s16.at<uint16_t>(x, y) = static_cast<uint16_t>(v + 32768);
            si16.at<int16_t>(x, y) = static_cast<int16_t>(v);
            s32.at<int32_t>(x, y) = v * 65536;
            sf.at<float>(x, y) = static_cast<float>(v);
        }
    }
    ASSERT_EQ(Resize_resizeImage(nullptr, &d16.image, &s16.image), TL_OK);
    ASSERT_EQ(Resize_resizeImage(nullptr, &di16.image, &si16.image), TL_OK);
    ASSERT_EQ(Resize_resizeImage(nullptr, &d32.image, &s32.image), TL_OK);
    ASSERT_EQ(Resize_resizeImage(nullptr, &df.image, &sf.image), TL_OK);
    for (int32_t y = 0; y < dh; ++y) {
        for (int32_t x = 0; x < dw; ++x) {
            const double ref = referenceSample(s, sw, sh, q15(x, sw, dw), q15(y, sh, dh));
            EXPECT_NEAR(d16.at<uint16_t>(x, y) - 32768.0, ref, 1.0);
            EXPECT_NEAR(di16.at<int16_t>(x, y), ref, 1.0);
            EXPECT_NEAR(d32.at<int32_t>(x, y), ref * 65536.0, 65536.0);
            EXPECT_NEAR(df.at<float>(x, y), ref, 0.02);
        }
    }
}

TEST(Resize, EnlargingThenHalvingStaysWithinOneLevel) {
    // Smooth content: a diagonal ramp of at most 8 levels per pixel, where
    // bilinear doubling and the 2 by 2 mean undo each other.
    const int32_t w = 57, h = 33;
    Picture src(w, h, IMAGE_FORMAT_UINT8), big(2 * w, 2 * h, IMAGE_FORMAT_UINT8),
        back(w, h, IMAGE_FORMAT_UINT8);
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x) src.u8(x, y) = static_cast<uint8_t>((3 * x + 2 * y) % 256);
    }
    ASSERT_EQ(Resize_resizeImage(nullptr, &big.image, &src.image), TL_OK);
    ASSERT_EQ(Resize_resizeImage(nullptr, &back.image, &big.image), TL_OK);
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x) ASSERT_NEAR(back.u8(x, y), src.u8(x, y), 1) << x << "," << y;
    }
}

TEST(Resize, EqualSizeCopiesAndBadArguments) {
    Picture a(10, 6, IMAGE_FORMAT_UINT8), b(10, 6, IMAGE_FORMAT_UINT8), c(10, 6, IMAGE_FORMAT_UINT16);
    for (int32_t i = 0; i < 60; ++i) a.u8(i % 10, i / 10) = static_cast<uint8_t>(i * 7);
    ASSERT_EQ(Resize_resizeImage(nullptr, &b.image, &a.image), TL_OK);
    for (int32_t i = 0; i < 60; ++i) EXPECT_EQ(b.u8(i % 10, i / 10), static_cast<uint8_t>(i * 7));
    EXPECT_EQ(Resize_resizeImage(nullptr, &c.image, &a.image), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(Resize_resizeImage(nullptr, nullptr, &a.image), TL_ERROR_PARAM);
    EXPECT_EQ(Resize_resizeImage(nullptr, &b.image, nullptr), TL_ERROR_PARAM);
    Picture rgbSrc(8, 8, IMAGE_FORMAT_RGB888), rgbDst(4, 3, IMAGE_FORMAT_RGB888);
    EXPECT_EQ(Resize_resizeImage(nullptr, &rgbDst.image, &rgbSrc.image),
              TL_ERROR_UNSUPPORTED);  // outside 26..69
    Picture labSrc(8, 8, IMAGE_FORMAT_LAB), labDst(4, 3, IMAGE_FORMAT_LAB);
    EXPECT_EQ(Resize_resizeImage(nullptr, &labDst.image, &labSrc.image), TL_ERROR_UNSUPPORTED);  // no kernel
    Picture small(3, 3, IMAGE_FORMAT_UINT16);
    EXPECT_EQ(Resize_resizeImage(nullptr, &small.image, &a.image), TL_ERROR_UNSUPPORTED);
    // A plane of zero rows: nothing to compute.
    Env env{};
    Image empty;
    construct_Image(&empty, &env);
    uint8_t pixel = 0;
    ImagePlanes p;
    std::memset(&p, 0, sizeof p);
    p.one = ImagePlanes1{&pixel, 4};
    ASSERT_EQ(Image_initWithPitch(&empty, 4, 0, &p, IMAGE_FORMAT_UINT8), TL_OK);
    EXPECT_EQ(Resize_resizeImage(nullptr, &empty, &a.image), TL_ERROR_GENERAL);
    EXPECT_EQ(pixel, 0);
}

TEST(Resize, AverageShrinkIsTheMeanOfTheCoveredArea) {
    // 5 -> 2 across: pixel 0 covers source 0, 1 and half of 2.
    // Two equal rows, so that the vertical step is a plain halving.
    Picture dst(2, 1, IMAGE_FORMAT_UINT8);
    const uint8_t v[5] = {10, 20, 40, 80, 160};
    Picture src2(5, 2, IMAGE_FORMAT_UINT8);
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
        for (int32_t y = 0; y < dh; ++y) {
            for (int32_t x = 0; x < dw; ++x) {
                // Overlap of [x sw / dw, (x + 1) sw / dw) with each source pixel.
                double sum = 0.0;
                for (int32_t j = 0; j < sh; ++j) {
                    const double oy = std::fmax(
                        0.0, std::fmin(j + 1.0, (y + 1.0) * sh / dh) - std::fmax(j, 1.0 * y * sh / dh));
                    if (oy == 0.0) continue;
                    for (int32_t i = 0; i < sw; ++i) {
                        const double ox = std::fmax(
                            0.0, std::fmin(i + 1.0, (x + 1.0) * sw / dw) - std::fmax(i, 1.0 * x * sw / dw));
                        sum += ox * oy * s.at<uint16_t>(i, j);
                    }
                }
                const double mean = sum * dw * dh / (static_cast<double>(sw) * sh);
                ASSERT_NEAR(d.at<uint16_t>(x, y), mean, 0.5 + 1e-6)
                    << sw << "x" << sh << "->" << dw << "x" << dh;
            }
        }
        ASSERT_TRUE(d.canariesIntact());
    }
    Picture same(5, 2, IMAGE_FORMAT_UINT8), wider(6, 1, IMAGE_FORMAT_UINT8), other(2, 1, IMAGE_FORMAT_UINT16);
    EXPECT_EQ(Resize_averageShrink(nullptr, &same.image, &src2.image), TL_ERROR_PARAM);
    EXPECT_EQ(Resize_averageShrink(nullptr, &wider.image, &src2.image), TL_ERROR_PARAM);
    EXPECT_EQ(Resize_averageShrink(nullptr, &other.image, &src2.image), TL_ERROR_PARAM);
    EXPECT_EQ(Resize_averageShrink(nullptr, nullptr, &src2.image), TL_ERROR_PARAM);
}

TEST(Resize, ShrinkByTwo) {
    // 5 by 3 -> 3 by 2: the last column and row repeat the source's last.
    Picture src(5, 3, IMAGE_FORMAT_UINT8), dst(3, 2, IMAGE_FORMAT_UINT8);
    for (int32_t y = 0; y < 3; ++y) {
        for (int32_t x = 0; x < 5; ++x) src.u8(x, y) = static_cast<uint8_t>(10 * x + 100 * y);
    }
    ASSERT_EQ(Resize_shrink2(nullptr, &dst.image, &src.image), TL_OK);
    const uint8_t expected[2][3] = {{55, 75, 90}, {205, 225, 240}};
    for (int32_t y = 0; y < 2; ++y) {
        for (int32_t x = 0; x < 3; ++x) EXPECT_EQ(dst.u8(x, y), expected[y][x]) << x << "," << y;
    }
    Picture tooSmall(1, 1, IMAGE_FORMAT_UINT8);
    EXPECT_EQ(Resize_shrink2(nullptr, &tooSmall.image, &src.image), TL_ERROR_PARAM);
}

TEST(Resize, SizeHelpers) {
    struct Fit {
        int32_t w, h, maxW, maxH, outW, outH;
    };
    const Fit fits[] = {
        {4000, 3000, 1920, 1920, 1920, 1440},
        {4000, 3000, 1000, 2000, 1000, 750},
        {3, 1000, 10, 10, 1, 10},
        {1000, 3, 10, 10, 10, 1},
    };
    for (const Fit& f : fits) {
        int32_t w = 0, h = 0;
        ASSERT_EQ(ImageProc_getSizeFit(&w, &h, f.w, f.h, f.maxW, f.maxH), TL_OK);
        EXPECT_EQ(w, f.outW);
        EXPECT_EQ(h, f.outH);
    }
    int32_t w = 0, h = 0;
    ASSERT_EQ(ImageProc_getSizeMax(&w, &h, 3000, 4000, 1000), TL_OK);
    EXPECT_EQ(w, 750);
    EXPECT_EQ(h, 1000);
    for (int32_t area : {307200, 19200, 1000, 1}) {
        ASSERT_EQ(ImageProc_getSizeArea(&w, &h, 4000, 3000, area), TL_OK);
        EXPECT_LE(int64_t{w} * h, area);
        EXPECT_GE(int64_t{w} * h, area * 0.98 - 2 * (w + h));
        EXPECT_NEAR(static_cast<double>(w) / h, 4.0 / 3.0, 2.0 / h);
    }
    EXPECT_EQ(ImageProc_getSizeArea(&w, &h, 0, 3000, 100), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc_getSizeFit(nullptr, &h, 10, 10, 5, 5), TL_ERROR_PARAM);
}
