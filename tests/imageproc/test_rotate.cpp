#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "imageproc/plane_views.h"
#include "imageproc/rotate.h"
#include "support/picture.h"

using namespace vq_tl;

namespace {

using vq_tl_test::Picture;

// Every element width (1, 2, 3, 4 bytes), the formats reached through
// views, and the YUV layouts 26, 27, 29 and 36.
// clang-format off
const uint32_t kFormats[] = {
    IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT88, IMAGE_FORMAT_UINT16, IMAGE_FORMAT_INT16, IMAGE_FORMAT_RGB565,
    IMAGE_FORMAT_RGB888, IMAGE_FORMAT_HSV, IMAGE_FORMAT_ARGB8888, IMAGE_FORMAT_INT32, IMAGE_FORMAT_FLOAT,
    IMAGE_FORMAT_YUV420_PLANAR, IMAGE_FORMAT_YUV420_SEMIPLANAR, IMAGE_FORMAT_YVU420_SEMIPLANAR,
    IMAGE_FORMAT_YUV444_PLANAR};
// clang-format on

bool isYuv420(uint32_t f) {
    return f == IMAGE_FORMAT_YUV420_PLANAR || f == IMAGE_FORMAT_YUV420_SEMIPLANAR ||
           f == IMAGE_FORMAT_YVU420_SEMIPLANAR;
}

// Where operation `op` takes pixel (x, y) of a w by h picture.
void where(int op, int32_t x, int32_t y, int32_t w, int32_t h, int32_t* ox, int32_t* oy) {
    switch (op) {
        case 1: *ox = x, *oy = y; break;
        case 2: *ox = w - 1 - x, *oy = y; break;
        case 3: *ox = w - 1 - x, *oy = h - 1 - y; break;
        case 4: *ox = x, *oy = h - 1 - y; break;
        case 5: *ox = y, *oy = x; break;
        case 6: *ox = y, *oy = w - 1 - x; break;
        case 7: *ox = h - 1 - y, *oy = w - 1 - x; break;
        default: *ox = h - 1 - y, *oy = x; break;
    }
}

}  // namespace

TEST(Rotate, OperationTableIsAGroup) {
    // The table is closed under composition: the operation of (a, c) is that
    // of (b, c) followed by that of (a, b), for every b. A wrong entry breaks
    // this. Checked on the six pixels of a 3 by 2 picture, which tell all
    // eight operations apart.
    for (int a = 1; a <= 8; ++a) {
        for (int b = 1; b <= 8; ++b) {
            for (int c = 1; c <= 8; ++c) {
                const int ab = Rotate_operation(a, b), bc = Rotate_operation(b, c),
                          ac = Rotate_operation(a, c);
                for (int p = 0; p < 6; ++p) {
                    int32_t x1, y1, x2, y2, x3, y3;
                    where(bc, p % 3, p / 3, 3, 2, &x1, &y1);
                    const bool swapped = bc >= 5;
                    where(ab, x1, y1, swapped ? 2 : 3, swapped ? 3 : 2, &x2, &y2);
                    where(ac, p % 3, p / 3, 3, 2, &x3, &y3);
                    EXPECT_EQ(x2, x3) << a << b << c;
                    EXPECT_EQ(y2, y3) << a << b << c;
                }
            }
        }
    }
    EXPECT_EQ(Rotate_operation(0, 1), 0);
}

TEST(Rotate, EveryOperationMatchesItsFormulaOnEveryPlane) {
    // Turning from orientation 1 to orientation `to` is operation
    // kFromOne[to]: 6 is the clockwise quarter turn, 8 the other. Every
    // element of every plane is checked where the formula puts it, at the
    // plane's own element size (1 to 4 bytes), so that a wrong size or byte
    // order shows. Odd sizes, above one tile and one band (YUV 4:2:0 needs
    // even ones), rows padded by 7 bytes: the kernels take any pitch.
    const int kFromOne[9] = {0, 1, 2, 3, 4, 5, 8, 7, 6};
    std::mt19937 rng(1234);
    for (uint32_t f : kFormats) {
        const int32_t w = isYuv420(f) ? 134 : 131, h = isYuv420(f) ? 78 : 77;
        Picture src(w, h, f, 7);
        src.fillRandom(rng);
        for (int to = 1; to <= 8; ++to) {
            const int op = kFromOne[to];
            ASSERT_EQ(Rotate_operation(1, to), op);
            Picture dst(op >= 5 ? h : w, op >= 5 ? w : h, f, 7);
            ASSERT_EQ(Rotate_rotateImageEx(nullptr, &dst.image, &src.image, 1, to), TL_OK)
                << f << " to " << to;
            PlaneViews sv, dv;
            ASSERT_EQ(PlaneViews_split(&sv, &src.image), TL_OK);
            ASSERT_EQ(PlaneViews_split(&dv, &dst.image), TL_OK);
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
                            << "format " << f << " to " << to << " plane " << k << " at " << x << "," << y;
                    }
                }
            }
            EXPECT_TRUE(dst.canariesIntact()) << f << " to " << to;
        }
    }
}

TEST(Rotate, RefusalsWriteNothing) {
    Picture src(9, 5, IMAGE_FORMAT_UINT8), dst(5, 9, IMAGE_FORMAT_UINT8), same(9, 5, IMAGE_FORMAT_UINT8);
    Picture other(5, 9, IMAGE_FORMAT_UINT16), lab(5, 9, IMAGE_FORMAT_LAB), labSrc(9, 5, IMAGE_FORMAT_LAB);
    std::mt19937 rng(3);
    src.fillRandom(rng);
    const std::vector<uint8_t> before = dst.storage;
    struct Case {
        const char* what;
        Image* d;
        const Image* s;
        int32_t from, to;
        TLResult result;
    };
    const Case cases[] = {
        {"null dst", nullptr, &src.image, 1, 6, TL_ERROR_PARAM},
        {"null src", &dst.image, nullptr, 1, 6, TL_ERROR_PARAM},
        {"from 0", &dst.image, &src.image, 0, 6, TL_ERROR_PARAM},
        {"to 9", &dst.image, &src.image, 1, 9, TL_ERROR_PARAM},
        {"from 9", &dst.image, &src.image, 9, 1, TL_ERROR_PARAM},
        {"to 0", &dst.image, &src.image, 1, 0, TL_ERROR_PARAM},
        {"formats differ", &other.image, &src.image, 1, 6, TL_ERROR_UNSUPPORTED},
        {"no kernel for LAB", &lab.image, &labSrc.image, 1, 6, TL_ERROR_UNSUPPORTED},
        {"not the transposed size", &same.image, &src.image, 1, 6, TL_ERROR_UNSUPPORTED},
        {"not the same size", &dst.image, &src.image, 1, 2, TL_ERROR_UNSUPPORTED},
        {"dst is src", &src.image, &src.image, 1, 1, TL_ERROR_UNSUPPORTED},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Rotate_rotateImageEx(nullptr, c.d, c.s, c.from, c.to), c.result) << c.what;
        EXPECT_EQ(dst.storage, before) << c.what;
    }
}
