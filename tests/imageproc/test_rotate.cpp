#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "support/picture.h"
#include "imageproc/rotate.h"

using namespace vq_tl;

namespace {

using vq_tl_test::Picture;

struct FormatCase {
    uint32_t format;
    int32_t elementBytes;  // of plane 0, for the messages
};

// Every element width, the formats reached through views, and the YUV layouts.
const FormatCase kFormats[] = {
    {IMAGE_FORMAT_UINT8, 1},
    {IMAGE_FORMAT_UINT88, 2},
    {IMAGE_FORMAT_UINT16, 2},
    {IMAGE_FORMAT_INT16, 2},
    {IMAGE_FORMAT_RGB565, 2},
    {IMAGE_FORMAT_RGB888, 3},
    {IMAGE_FORMAT_HSV, 3},
    {IMAGE_FORMAT_ARGB8888, 4},
    {IMAGE_FORMAT_INT32, 4},
    {IMAGE_FORMAT_FLOAT, 4},
    {26, 1},
    {27, 1},
    {29, 1},
    {36, 1},
};

bool isYuv420(uint32_t f) { return f == 26 || f == 27 || f == 29; }

}  // namespace

TEST(Rotate, OperationTableIsAGroup) {
    // The table is closed under composition: the operation of (a, c) is that
    // of (b, c) followed by that of (a, b), for every b. A wrong entry breaks
    // this. Checked on the six pixels of a 3 by 2 picture, which tell all
    // eight operations apart.
    auto apply = [](int op, int x, int y, int w, int h, int* ox, int* oy) {
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
    };
    for (int a = 1; a <= 8; ++a) {
        for (int b = 1; b <= 8; ++b) {
            for (int c = 1; c <= 8; ++c) {
                const int ab = Rotate_operation(a, b), bc = Rotate_operation(b, c),
                          ac = Rotate_operation(a, c);
                for (int p = 0; p < 6; ++p) {
                    int x1, y1, x2, y2, x3, y3;
                    apply(bc, p % 3, p / 3, 3, 2, &x1, &y1);
                    const bool swapped = bc >= 5;
                    apply(ab, x1, y1, swapped ? 2 : 3, swapped ? 3 : 2, &x2, &y2);
                    apply(ac, p % 3, p / 3, 3, 2, &x3, &y3);
                    EXPECT_EQ(x2, x3) << a << b << c;
                    EXPECT_EQ(y2, y3) << a << b << c;
                }
            }
        }
    }
    EXPECT_EQ(Rotate_operation(6, 1), 6);
    EXPECT_EQ(Rotate_operation(8, 1), 8);
    EXPECT_EQ(Rotate_operation(0, 1), 0);
}

TEST(Rotate, EveryOrientationAndItsInverseGiveBackTheImage) {
    std::mt19937 rng(1234);
    for (const FormatCase& fc : kFormats) {
        // Odd sizes, above one tile and one band; YUV 4:2:0 needs even sizes.
        const int32_t w = isYuv420(fc.format) ? 134 : 131;
        const int32_t h = isYuv420(fc.format) ? 78 : 77;
        // Rows padded by 7 bytes: the turning kernels take any pitch.
        Picture src(w, h, fc.format, 7);
        src.fillRandom(rng);
        for (int from = 1; from <= 8; ++from) {
            for (int to = 1; to <= 8; ++to) {
                const bool swaps = Rotate_operation(from, to) >= 5;
                Picture turned(swaps ? h : w, swaps ? w : h, fc.format, 7);
                Picture back(w, h, fc.format, 7);
                ASSERT_EQ(Rotate_rotateImageEx(nullptr, &turned.image, &src.image, from, to), TL_OK)
                    << fc.format << " " << from << "->" << to;
                ASSERT_EQ(Rotate_rotateImageEx(nullptr, &back.image, &turned.image, to, from), TL_OK);
                EXPECT_TRUE(back.samePixels(src))
                    << fc.elementBytes << " bytes, " << fc.format << " " << from << "->" << to;
                EXPECT_TRUE(turned.canariesIntact()) << fc.format << " " << from << "->" << to;
                EXPECT_TRUE(back.canariesIntact());
                if (HasFailure()) return;
            }
        }
    }
}

TEST(Rotate, EachOperationMatchesItsFormula) {
    // Independent per-pixel reference on 3-byte elements, where a wrong
    // element size or byte order shows.
    std::mt19937 rng(77);
    const int32_t w = 67, h = 129;
    Picture src(w, h, IMAGE_FORMAT_RGB888);
    src.fillRandom(rng);
    for (int op = 1; op <= 8; ++op) {
        const bool swaps = op >= 5;
        Picture dst(swaps ? h : w, swaps ? w : h, IMAGE_FORMAT_RGB888);
        ASSERT_EQ(Rotate_rotateImageEx(nullptr, &dst.image, &src.image, 1,
                                       op == 6   ? 8
                                       : op == 8 ? 6
                                                 : op),
                  TL_OK);
        for (int32_t y = 0; y < h; ++y) {
            for (int32_t x = 0; x < w; ++x) {
                int32_t dx = x, dy = y;
                switch (op) {
                    case 2: dx = w - 1 - x; break;
                    case 3: dx = w - 1 - x, dy = h - 1 - y; break;
                    case 4: dy = h - 1 - y; break;
                    case 5: dx = y, dy = x; break;
                    case 6: dx = y, dy = w - 1 - x; break;
                    case 7: dx = h - 1 - y, dy = w - 1 - x; break;
                    case 8: dx = h - 1 - y, dy = x; break;
                    default: break;
                }
                const uint8_t* s = src.image.plane[0] + src.image.pitch[0] * y + 3 * x;
                const uint8_t* d = dst.image.plane[0] + dst.image.pitch[0] * dy + 3 * dx;
                ASSERT_EQ(std::memcmp(s, d, 3), 0) << "op " << op << " at " << x << "," << y;
            }
        }
    }
}

TEST(Rotate, QuarterTurnsWorkedByHand) {
    // 3 by 2 source: 1 2 3 / 4 5 6.
    Picture src(3, 2, IMAGE_FORMAT_UINT8);
    const uint8_t values[6] = {1, 2, 3, 4, 5, 6};
    for (int i = 0; i < 6; ++i) src.image.plane[0][src.image.pitch[0] * (i / 3) + i % 3] = values[i];
    struct Case {
        int32_t to;
        uint8_t expected[6];  // 2 wide, 3 high
    };
    // Orientation 1 to 6 is operation 8 (clockwise), to 8 operation 6.
    const Case cases[] = {{6, {4, 1, 5, 2, 6, 3}}, {8, {3, 6, 2, 5, 1, 4}}, {5, {1, 4, 2, 5, 3, 6}}};
    for (const Case& c : cases) {
        Picture dst(2, 3, IMAGE_FORMAT_UINT8);
        ASSERT_EQ(Rotate_rotateImageEx(nullptr, &dst.image, &src.image, 1, c.to), TL_OK);
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(dst.image.plane[0][dst.image.pitch[0] * (i / 2) + i % 2], c.expected[i]);
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
