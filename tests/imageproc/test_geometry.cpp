// Resizing against models: bilinear in double, the exact mean of the covered area, the rounded mean of four.
// The eight orientation operations against their formulas on every plane; the operation table by composition.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "imageproc/image_proc.h"
#include "imageproc/plane_views.h"
#include "imageproc/resize.h"
#include "imageproc/rotate.h"
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
    const uint32_t f = p.image.format;
    if (f == IMAGE_FORMAT_UINT16)
        p.at<uint16_t>(i, y) = static_cast<uint16_t>(v);
    else if (f == IMAGE_FORMAT_INT16)
        p.at<int16_t>(i, y) = static_cast<int16_t>(v);
    else if (f == IMAGE_FORMAT_INT32)
        p.at<int32_t>(i, y) = static_cast<int32_t>(v);
    else if (f == IMAGE_FORMAT_FLOAT)
        p.at<float>(i, y) = static_cast<float>(v);
    else
        p.u8(i, y) = static_cast<uint8_t>(v);
}

// Where operation `op` takes pixel (x, y) of a w by h picture.
void where(int op, int32_t x, int32_t y, int32_t w, int32_t h, int32_t* ox, int32_t* oy) {
    const int32_t t[9][2] = {{h - 1 - y, x}, {x, y}, {w - 1 - x, y}, {w - 1 - x, h - 1 - y},
                             {x, h - 1 - y}, {y, x}, {y, w - 1 - x}, {h - 1 - y, w - 1 - x},
                             {h - 1 - y, x}};
    *ox = t[op][0], *oy = t[op][1];
}

}  // namespace

TEST(Resize, RampsWorkedByHand) {
    // 4 -> 8: samples at -0.25 (edge), 0.25, ..., 3.25 (edge). 10 -> 3: 1.17, 4.5 (tie, up), 7.83.
    const struct {
        int32_t sw, dw;
        std::vector<uint8_t> src, expected;
    } cases[] = {{4, 8, {0, 10, 20, 30}, {0, 3, 8, 13, 18, 23, 28, 30}},
                 {10, 3, {0, 25, 50, 75, 100, 125, 150, 175, 200, 225}, {29, 113, 196}}};
    for (const auto& c : cases) {
        for (int axis = 0; axis < 2; ++axis) {  // along a row, then down a column
            Picture src(axis ? 1 : c.sw, axis ? c.sw : 1, IMAGE_FORMAT_UINT8),
                dst(axis ? 1 : c.dw, axis ? c.dw : 1, IMAGE_FORMAT_UINT8);
            for (int32_t i = 0; i < c.sw; ++i) src.u8(axis ? 0 : i, axis ? i : 0) = c.src[i];
            ASSERT_EQ(Resize_resizeImage(nullptr, &dst.image, &src.image), TL_OK);
            for (int32_t i = 0; i < c.dw; ++i)
                EXPECT_EQ(dst.u8(axis ? 0 : i, axis ? i : 0), c.expected[i]) << c.sw << " " << i;
            EXPECT_TRUE(dst.canariesIntact());
        }
    }
}

TEST(Resize, MatchesADoubleModelWithinOneLevel) {
    // Samples at the resizer's Q15 positions on steep random data; INT32 holds values times 2^16.
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
        for (int32_t i = 0; i < sw * sh; ++i) set(src, i % sw, i / sw, (s[i] = value(rng)) * k.scale);
        ASSERT_EQ(Resize_resizeImage(nullptr, &dst.image, &src.image), TL_OK);
        for (int32_t y = 0; y < dh; ++y)
            for (int32_t x = 0; x < dw; ++x)
                ASSERT_NEAR(get(dst, x, y),
                            referenceSample(s, sw, sh, q15(x, sw, dw), q15(y, sh, dh)) * k.scale, k.tolerance)
                    << k.format << " " << sw << "x" << sh << "->" << dw << "x" << dh << " at " << x << ","
                    << y;
        ASSERT_TRUE(dst.canariesIntact());
    }
}

TEST(Resize, HalvingIsTheRoundedMeanOfFour) {
    // (a + b + c + d + 2) >> 2, the last column and row repeated; resizing to about half is the same kernel.
    std::mt19937 rng(31);
    for (uint32_t f : {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT88, IMAGE_FORMAT_INT16, IMAGE_FORMAT_INT32}) {
        for (int round = 0; round < 6; ++round) {
            const int32_t sw = 2 + static_cast<int32_t>(rng() % 40),
                          sh = 2 + static_cast<int32_t>(rng() % 30);
            const int32_t dw = (sw + static_cast<int32_t>(rng() % 5) - 1) / 2,
                          dh = (sh + 1) / 2;  // 2 dst - src in -2..2
            if (!Resize_isAboutHalf(dw, dh, sw, sh) || dw < 1) continue;
            Picture src(sw, sh, f), half(dw, dh, f), resized(dw, dh, f);
            src.fillRandom(rng);
            ASSERT_EQ(Resize_shrink2(nullptr, &half.image, &src.image), TL_OK);
            ASSERT_EQ(Resize_resizeImage(nullptr, &resized.image, &src.image), TL_OK);
            const int n = f == IMAGE_FORMAT_UINT88 ? 2 : 1;
            auto at = [&](Picture& p, int32_t x, int32_t y, int c) {
                return static_cast<int64_t>(get(p, x * n + c, y));
            };
            for (int32_t i = 0; i < dw * dh * n; ++i) {
                const int32_t x = i / n % dw, y = i / n / dw, c = i % n, x0 = std::min(2 * x, sw - 1),
                              x1 = std::min(2 * x + 1, sw - 1), y0 = std::min(2 * y, sh - 1),
                              y1 = std::min(2 * y + 1, sh - 1);
                const int64_t want =
                    (at(src, x0, y0, c) + at(src, x1, y0, c) + at(src, x0, y1, c) + at(src, x1, y1, c) + 2) >>
                    2;
                ASSERT_TRUE(at(half, x, y, c) == want && at(resized, x, y, c) == want)
                    << f << " " << sw << "x" << sh << " at " << x << "," << y;
            }
            EXPECT_TRUE(half.canariesIntact() && resized.canariesIntact());
        }
    }
}

TEST(Resize, AverageShrinkIsTheMeanOfTheCoveredArea) {
    // Random sizes against the exact mean: overlap of [x sw / dw, (x + 1) sw / dw) with pixel i.
    auto overlap = [](int32_t i, int32_t x, int32_t src, int32_t dst) {
        return std::fmax(0.0, std::fmin(i + 1.0, (x + 1.0) * src / dst) - std::fmax(i, 1.0 * x * src / dst));
    };
    std::mt19937 rng(11);
    std::uniform_int_distribution<int32_t> side(2, 50);
    for (int round = 0; round < vq_tl_test_scaled(100, 20); ++round) {
        const int32_t sw = side(rng), sh = side(rng), dw = 1 + static_cast<int32_t>(rng() % (sw - 1)),
                      dh = 1 + static_cast<int32_t>(rng() % (sh - 1));
        Picture s(sw, sh, IMAGE_FORMAT_UINT16), d(dw, dh, IMAGE_FORMAT_UINT16);
        s.fillRandom(rng);
        ASSERT_EQ(Resize_averageShrink(nullptr, &d.image, &s.image), TL_OK);
        for (int32_t y = 0; y < dh; ++y) {
            for (int32_t x = 0; x < dw; ++x) {
                double sum = 0.0;
                for (int32_t j = 0; j < sh; ++j)
                    for (int32_t i = 0; i < sw; ++i)
                        sum += overlap(i, x, sw, dw) * overlap(j, y, sh, dh) * s.at<uint16_t>(i, j);
                ASSERT_NEAR(d.at<uint16_t>(x, y), sum * dw * dh / (static_cast<double>(sw) * sh), 0.5 + 1e-6)
                    << sw << "x" << sh << "->" << dw << "x" << dh;
            }
        }
        ASSERT_TRUE(d.canariesIntact());
    }
}

TEST(Resize, EqualSizeCopiesAndRefusalsWriteNothing) {
    std::mt19937 rng(4);
    Picture a(10, 6, IMAGE_FORMAT_UINT8), b(10, 6, IMAGE_FORMAT_UINT8), wide(10, 6, IMAGE_FORMAT_UINT16),
        rgb(8, 8, IMAGE_FORMAT_RGB888), rgbSmall(4, 3, IMAGE_FORMAT_RGB888), lab(8, 8, IMAGE_FORMAT_LAB),
        labSmall(4, 3, IMAGE_FORMAT_LAB), wider(11, 3, IMAGE_FORMAT_UINT8), tiny(1, 1, IMAGE_FORMAT_UINT8);
    a.fillRandom(rng);
    ASSERT_EQ(Resize_resizeImage(nullptr, &b.image, &a.image), TL_OK);
    EXPECT_TRUE(b.samePixels(a));
    const std::vector<uint8_t> before = b.storage, wideBefore = wide.storage;
    // Formats differ, a YUV layout outside 26..69, no kernel for LAB; not smaller, wider; not about half.
    const TLResult got[] = {Resize_resizeImage(nullptr, &wide.image, &a.image),
                            Resize_resizeImage(nullptr, &rgbSmall.image, &rgb.image),
                            Resize_resizeImage(nullptr, &labSmall.image, &lab.image),
                            Resize_averageShrink(nullptr, &b.image, &a.image),
                            Resize_averageShrink(nullptr, &wider.image, &a.image),
                            Resize_averageShrink(nullptr, &wide.image, &a.image),
                            Resize_shrink2(nullptr, &tiny.image, &a.image)};
    const TLResult want[] = {TL_ERROR_UNSUPPORTED, TL_ERROR_UNSUPPORTED, TL_ERROR_UNSUPPORTED, TL_ERROR_PARAM,
                             TL_ERROR_PARAM,       TL_ERROR_PARAM,       TL_ERROR_PARAM};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(got[i], want[i]) << i;
    EXPECT_TRUE(b.storage == before && wide.storage == wideBefore && wider.canariesIntact() &&
                tiny.canariesIntact());
}

TEST(Rotate, OperationTableIsAGroup) {
    // The operation of (a, c) is that of (b, c) followed by that of (a, b), for every b: a wrong
    // entry breaks this. The six pixels of a 3 by 2 picture tell all eight operations apart.
    for (int i = 0; i < 512; ++i) {
        const int a = 1 + i % 8, b = 1 + i / 8 % 8, c = 1 + i / 64;
        const int ab = Rotate_operation(a, b), bc = Rotate_operation(b, c), ac = Rotate_operation(a, c);
        for (int p = 0; p < 6; ++p) {
            int32_t x1, y1, x2, y2, x3, y3;
            where(bc, p % 3, p / 3, 3, 2, &x1, &y1);
            where(ab, x1, y1, bc >= 5 ? 2 : 3, bc >= 5 ? 3 : 2, &x2, &y2);
            where(ac, p % 3, p / 3, 3, 2, &x3, &y3);
            ASSERT_TRUE(x2 == x3 && y2 == y3) << a << b << c;
        }
    }
    EXPECT_EQ(Rotate_operation(0, 1), 0);
}

TEST(Rotate, EveryOperationMatchesItsFormulaOnEveryPlane) {
    // From orientation 1 to `to` is operation kFromOne[to] (6 the clockwise quarter turn). Every element of
    // every plane at its own size (1 to 4 bytes); odd sizes above one tile (4:2:0 even); rows padded by 7.
    const int kFromOne[9] = {0, 1, 2, 3, 4, 5, 8, 7, 6};
    std::mt19937 rng(1234);
    for (uint32_t f :
         {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT88, IMAGE_FORMAT_UINT16, IMAGE_FORMAT_INT16,
          IMAGE_FORMAT_RGB565, IMAGE_FORMAT_RGB888, IMAGE_FORMAT_HSV, IMAGE_FORMAT_ARGB8888,
          IMAGE_FORMAT_INT32, IMAGE_FORMAT_FLOAT, IMAGE_FORMAT_YUV420_PLANAR, IMAGE_FORMAT_YUV420_SEMIPLANAR,
          IMAGE_FORMAT_YVU420_SEMIPLANAR, IMAGE_FORMAT_YUV444_PLANAR}) {
        const bool yuv420 = f == IMAGE_FORMAT_YUV420_PLANAR || f == IMAGE_FORMAT_YUV420_SEMIPLANAR ||
                            f == IMAGE_FORMAT_YVU420_SEMIPLANAR;
        const int32_t w = yuv420 ? 134 : 131, h = yuv420 ? 78 : 77;
        Picture src(w, h, f, 7);
        src.fillRandom(rng);
        for (int to = 1; to <= 8; ++to) {
            const int op = kFromOne[to];
            ASSERT_EQ(Rotate_operation(1, to), op);
            Picture dst(op >= 5 ? h : w, op >= 5 ? w : h, f, 7);
            ASSERT_EQ(Rotate_rotateImageEx(nullptr, &dst.image, &src.image, 1, to), TL_OK)
                << f << " to " << to;
            PlaneViews sv, dv;
            ASSERT_TRUE(PlaneViews_split(&sv, &src.image) == TL_OK &&
                        PlaneViews_split(&dv, &dst.image) == TL_OK);
            for (int k = 0; k < sv.count; ++k) {
                const Image &s = sv.plane[k], &d = dv.plane[k];
                const int32_t e = src.rowBytes[k] / s.width;
                for (int32_t y = 0; y < s.height; ++y) {
                    for (int32_t x = 0; x < s.width; ++x) {
                        int32_t dx, dy;
                        where(op, x, y, s.width, s.height, &dx, &dy);
                        ASSERT_EQ(std::memcmp(s.plane[0] + s.pitch[0] * y + e * x,
                                              d.plane[0] + d.pitch[0] * dy + e * dx, e),
                                  0)
                            << f << " to " << to << " plane " << k << " at " << x << "," << y;
                    }
                }
            }
            EXPECT_TRUE(dst.canariesIntact()) << f << " to " << to;
        }
    }
}

TEST(Rotate, RefusalsWriteNothing) {
    Picture src(9, 5, IMAGE_FORMAT_UINT8), dst(5, 9, IMAGE_FORMAT_UINT8), same(9, 5, IMAGE_FORMAT_UINT8),
        other(5, 9, IMAGE_FORMAT_UINT16), lab(5, 9, IMAGE_FORMAT_LAB), labSrc(9, 5, IMAGE_FORMAT_LAB);
    const std::vector<uint8_t> before = dst.storage;
    auto run = [&](Picture& d, Picture& s, int32_t from, int32_t to) {
        return Rotate_rotateImageEx(nullptr, &d.image, &s.image, from, to);
    };
    EXPECT_TRUE(run(dst, src, 0, 6) == TL_ERROR_PARAM && run(dst, src, 1, 9) == TL_ERROR_PARAM);
    const TLResult got[] = {run(other, src, 1, 6), run(lab, labSrc, 1, 6), run(same, src, 1, 6),
                            run(dst, src, 1, 2),
                            run(src, src, 1, 1)};  // formats, no kernel, sizes, dst is src
    for (TLResult r : got) EXPECT_EQ(r, TL_ERROR_UNSUPPORTED) << &r - got;
    EXPECT_EQ(dst.storage, before);
}
