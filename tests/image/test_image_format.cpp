#include <gtest/gtest.h>

#include "image/image.h"

using namespace vq_tl;

// Geometry worked out by hand for formats of each layout: the width rounds up
// to hUnit, the height to 2^vShift, then come pitch and rows per plane. Odd
// sizes and subsampled chroma are where rounding goes wrong.
TEST(ImageFormat, GeometryOfHandWorkedCases) {
    struct Case {
        const char* name;
        int32_t width, height;
        int32_t total, pitch0, rows0, pitch1, rows1, pitch2, rows2;
    };
    const Case cases[] = {
        {"YUV420_SEMIPLANAR", 100, 75, 11400, 100, 76, 100, 38, 0, 0},
        {"YUV420_PLANAR", 101, 3, 612, 102, 4, 51, 2, 51, 2},
        {"RGB565", 7, 5, 70, 14, 5, 0, 0, 0, 0},
        {"YUV422_YUYV", 7, 3, 48, 16, 3, 0, 0, 0, 0},
        {"YUV422_PLANAR", 5, 3, 36, 6, 3, 3, 3, 3, 3},
        {"YUV422_SEMIPLANAR", 5, 3, 36, 6, 3, 6, 3, 0, 0},
        {"YUV444_PLANAR", 5, 3, 45, 5, 3, 5, 3, 5, 3},
        {"YUV10B420_SEMIPLANAR", 5, 3, 72, 12, 4, 12, 2, 0, 0},
        {"YUV10B_PACKED_LE_420S", 7, 5, 144, 16, 6, 16, 3, 0, 0},
        {"BAYER10_M8L2PACKED_GBRG", 10, 2, 30, 15, 2, 0, 0, 0, 0},
        {"YUV9_44_UV", 10, 5, 108, 12, 8, 6, 2, 0, 0},
        {"LAB", 3, 2, 72, 36, 2, 0, 0, 0, 0},
        {"RGB161616", 3, 2, 36, 18, 2, 0, 0, 0, 0},
        {"FLOAT", 9, 7, 252, 36, 7, 0, 0, 0, 0},
        {"NONE", 64, 64, 0, 0, 0, 0, 0, 0, 0},
    };
    // Selectors of rows, bytes and pitch for each plane; the second set
    // holds the aliases 3, 11, 12 and 13 of planes 0 and 1.
    const int32_t selectors[2][3][3] = {{{1, 2, 4}, {6, 5, 7}, {9, 8, 10}},
                                        {{3, 2, 4}, {12, 11, 13}, {9, 8, 10}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const uint32_t f = Image_getImageFormat(c.name);
        EXPECT_EQ(Image_getSize(c.width, c.height, f, IMAGE_SIZE_TOTAL), c.total);
        const int32_t pitch[3] = {c.pitch0, c.pitch1, c.pitch2}, rows[3] = {c.rows0, c.rows1, c.rows2};
        for (const auto& set : selectors) {
            for (int k = 0; k < 3; ++k) {
                const int32_t want[3] = {rows[k], pitch[k] * rows[k], pitch[k]};
                for (int i = 0; i < 3; ++i)
                    EXPECT_EQ(Image_getSize(c.width, c.height, f, set[k][i]), want[i])
                        << "selector " << set[k][i];
            }
        }
    }
    // Refused, as {width, height, format, selector}: unknown selectors, negative
    // sides, an unknown code, and 3 GiB of LAB, more than a 32-bit target holds.
    const int32_t refused[][4] = {{101, 3, 26, 14}, {101, 3, 26, -1}, {-2, 3, 26, 0},
                                  {2, -3, 26, 0},   {2, 2, 72, 0},    {16384, 16384, IMAGE_FORMAT_LAB, 0}};
    for (const auto& c : refused)
        EXPECT_EQ(Image_getSize(c[0], c[1], static_cast<uint32_t>(c[2]), c[3]), 0) << c[0];
}

TEST(ImageFormat, NamesRoundTripAndUnknownsGiveZero) {
    for (uint32_t code = 0; code < kImageFormatCount; ++code)
        EXPECT_EQ(Image_getImageFormat(Image_getImageFormatStr(code)), code) << code;
    for (const char* name : {"(unknown)", "yuv420_planar", "YUV420_PLANAR "})
        EXPECT_EQ(Image_getImageFormat(name), 0u);
}
