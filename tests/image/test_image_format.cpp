#include <gtest/gtest.h>

#include <set>
#include <string>

#include "image/image.h"

using namespace vq_tl;

// Geometry worked out by hand from the descriptors: rounding of the width to
// hUnit, of the height to 2^vShift, then pitch and rows per plane.
TEST(ImageFormat, GeometryOfHandWorkedCases) {
    struct Case {
        const char* name;
        int32_t width, height;
        int32_t total, pitch0, rows0, pitch1, rows1, pitch2, rows2;
    };
    const Case cases[] = {
        {"YUV420_SEMIPLANAR", 100, 75, 11400, 100, 76, 100, 38, 0, 0},
        {"YUV420_PLANAR", 101, 3, 612, 102, 4, 51, 2, 51, 2},
        {"YVU420_SEMIPLANAR", 2, 1, 6, 2, 2, 2, 1, 0, 0},
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
        {"ARGB8888", 1, 1, 4, 4, 1, 0, 0, 0, 0},
        {"NONE", 64, 64, 0, 0, 0, 0, 0, 0, 0},
    };
    for (const Case& c : cases) {
        const uint32_t f = Image_getImageFormat(c.name);
        SCOPED_TRACE(c.name);
        EXPECT_EQ(Image_getSize(c.width, c.height, f, 0), c.total);
        EXPECT_EQ(Image_getSize(c.width, c.height, f, 4), c.pitch0);
        EXPECT_EQ(Image_getSize(c.width, c.height, f, 1), c.rows0);
        EXPECT_EQ(Image_getSize(c.width, c.height, f, 2), c.pitch0 * c.rows0);
        EXPECT_EQ(Image_getSize(c.width, c.height, f, 7), c.pitch1);
        EXPECT_EQ(Image_getSize(c.width, c.height, f, 6), c.rows1);
        EXPECT_EQ(Image_getSize(c.width, c.height, f, 5), c.pitch1 * c.rows1);
        EXPECT_EQ(Image_getSize(c.width, c.height, f, 10), c.pitch2);
        EXPECT_EQ(Image_getSize(c.width, c.height, f, 9), c.rows2);
        EXPECT_EQ(Image_getSize(c.width, c.height, f, 8), c.pitch2 * c.rows2);
    }
}

TEST(ImageFormat, SelectorAliasesAndRefusals) {
    const uint32_t f = IMAGE_FORMAT_YUV420_PLANAR;
    EXPECT_EQ(Image_getSize(101, 3, f, 3), Image_getSize(101, 3, f, 1));
    EXPECT_EQ(Image_getSize(101, 3, f, 11), Image_getSize(101, 3, f, 5));
    EXPECT_EQ(Image_getSize(101, 3, f, 12), Image_getSize(101, 3, f, 6));
    EXPECT_EQ(Image_getSize(101, 3, f, 13), Image_getSize(101, 3, f, 7));
    EXPECT_EQ(Image_getSize(101, 3, f, 14), 0);
    EXPECT_EQ(Image_getSize(101, 3, f, -1), 0);
    EXPECT_EQ(Image_getSize(-2, 3, f, 0), 0);
    EXPECT_EQ(Image_getSize(2, -3, f, 0), 0);
    EXPECT_EQ(Image_getSize(2, 2, 72, 0), 0);
    // 16384 x 16384 LAB is 3 GiB: more than the 32-bit target can hold.
    EXPECT_EQ(Image_getSize(16384, 16384, IMAGE_FORMAT_LAB, 0), 0);
}

TEST(ImageFormat, NamesRoundTripAndUnknownsGiveZero) {
    std::set<std::string> names;
    for (uint32_t code = 0; code < kImageFormatCount; ++code) {
        const char* name = Image_getImageFormatStr(code);
        EXPECT_EQ(Image_getImageFormat(name), code) << name;
        EXPECT_TRUE(names.insert(name).second) << name;
    }
    EXPECT_STREQ(Image_getImageFormatStr(72), "(unknown)");
    EXPECT_EQ(Image_getImageFormat("(unknown)"), 0u);
    EXPECT_EQ(Image_getImageFormat(nullptr), 0u);
    EXPECT_EQ(Image_getImageFormat("yuv420_planar"), 0u);
    EXPECT_EQ(Image_getImageFormat("YUV420_PLANAR "), 0u);
    EXPECT_EQ(Image_getImageFormat("UINT8"), 60u);
    EXPECT_EQ(Image_getImageFormat("UINT88"), 67u);
    EXPECT_EQ(Image_getImageFormat("YVU420_SEMIPLANAR"), 29u);
}

TEST(ImageFormat, PredicatesCoverTheirCodesOnly) {
    struct Case {
        bool (*predicate)(uint32_t);
        std::set<uint32_t> codes;
    };
    auto range = [](uint32_t lo, uint32_t hi) {
        std::set<uint32_t> s;
        for (uint32_t c = lo; c <= hi; ++c) s.insert(c);
        return s;
    };
    std::set<uint32_t> bayerUnpacked = range(44, 47);
    for (uint32_t c : range(52, 59)) bayerUnpacked.insert(c);
    const Case cases[] = {
        {Image_isRgb, range(1, 3)},
        {Image_isUint8888, range(4, 15)},
        {Image_isYuv, range(16, 36)},
        {Image_isYuv422Interleaved, range(16, 23)},
        {Image_isYuv422, range(16, 25)},
        {Image_isYvu422, {28}},
        {Image_isYuv420, {26, 27}},
        {Image_isYvu420, {29}},
        {Image_isYuv444Interleaved, range(30, 35)},
        {Image_isYuv444, range(30, 36)},
        {Image_isYuvPlanar, {24, 26, 36}},
        {Image_isYuvSemiplanar, {25, 27}},
        {Image_isYvuSemiplanar, {28, 29}},
        {Image_isYuv10b420Semiplanar, {37, 38}},
        {Image_isYuv10bPacked420Semiplanar, {39}},
        {Image_isBayer8, range(40, 43)},
        {Image_isBayer10Unpacked, range(44, 47)},
        {Image_isBayer10M8L2Packed, range(48, 51)},
        {Image_isBayer12Unpacked, range(52, 55)},
        {Image_isBayer16, range(56, 59)},
        {Image_isBayerUnpacked, bayerUnpacked},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        for (uint32_t code = 0; code < 80; ++code) {
            EXPECT_EQ(cases[i].predicate(code), cases[i].codes.count(code) == 1)
                << "predicate " << i << " code " << code;
        }
    }
}

TEST(ImageFormat, PlaneCounts) {
    EXPECT_EQ(Image_getPlaneCount(IMAGE_FORMAT_NONE), 0);
    EXPECT_EQ(Image_getPlaneCount(IMAGE_FORMAT_UINT8), 1);
    EXPECT_EQ(Image_getPlaneCount(IMAGE_FORMAT_YUV420_SEMIPLANAR), 2);
    EXPECT_EQ(Image_getPlaneCount(IMAGE_FORMAT_YUV10B_PACKED_LE_420S), 2);
    EXPECT_EQ(Image_getPlaneCount(IMAGE_FORMAT_YUV9_44_VU), 2);
    EXPECT_EQ(Image_getPlaneCount(IMAGE_FORMAT_YUV444_PLANAR), 3);
    EXPECT_EQ(Image_getPlaneCount(72), 0);
}
