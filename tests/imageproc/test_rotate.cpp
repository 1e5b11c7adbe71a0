// The eight orientation operations against their formulas on every plane; the operation table by composition.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "imageproc/plane_views.h"
#include "imageproc/rotate.h"
#include "support/picture.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

// Where operation `op` takes pixel (x, y) of a w by h picture.
void where(int op, int32_t x, int32_t y, int32_t w, int32_t h, int32_t* ox, int32_t* oy) {
    const int32_t t[9][2] = {{h - 1 - y, x}, {x, y}, {w - 1 - x, y}, {w - 1 - x, h - 1 - y},
                             {x, h - 1 - y}, {y, x}, {y, w - 1 - x}, {h - 1 - y, w - 1 - x},
                             {h - 1 - y, x}};
    *ox = t[op][0], *oy = t[op][1];
}

}  // namespace

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
