#include <gtest/gtest.h>

#include <vector>

#include "image/public_image.h"

using namespace vq_tl;

// The records below borrow their planes, so they need no destruct_Image.
TEST(PublicImage, RecordsGiveTheirPlanesAndPitches) {
    std::vector<uint8_t> y(128 * 48), u(128 * 24), v(32 * 24);
    TwinLensImage plain{64, 48, y.data(), u.data(), v.data()};
    Image a;
    construct_Image(&a, nullptr);
    ASSERT_EQ(IF_initImage(&a, &plain, IMAGE_FORMAT_YUV420_PLANAR), TL_OK);
    EXPECT_TRUE(a.plane[2] == v.data() && a.pitch[1] == 32);
    ASSERT_EQ(IF_initImage(&a, &plain, IMAGE_FORMAT_YVU420_SEMIPLANAR), TL_OK);
    EXPECT_TRUE(a.plane[1] == u.data() && a.plane[2] == nullptr);
    // A packed format reads plane0 alone; the other fields may hold garbage.
    plain.plane1 = reinterpret_cast<void*>(uintptr_t{0x1});
    ASSERT_EQ(IF_initImage(&a, &plain, IMAGE_FORMAT_YUV422_YUYV), TL_OK);
    EXPECT_TRUE(a.plane[0] == y.data() && a.plane[1] == nullptr && a.external == 1);
    // Records with pitches keep them, and read back into a plain record.
    TwinLensImageEx ex{64, 48, y.data(), u.data(), nullptr, 128, 96, 0};
    ASSERT_EQ(IF_initImageEx(&a, &ex, IMAGE_FORMAT_YUV420_SEMIPLANAR), TL_OK);
    EXPECT_TRUE(a.pitch[0] == 128 && a.pitch[1] == 96);
    TwinLensImage back{};
    ASSERT_EQ(IF_initImageData(&back, &a), TL_OK);
    EXPECT_TRUE(back.width == 64 && back.plane0 == y.data() && back.plane1 == u.data() && !back.plane2);
}

TEST(PublicImage, PitchTestOnlyForOddSubsampledWidths) {
    struct Case {
        uint32_t format;
        int32_t width, pitch0, pitch1, pitch2, expected;
    };
    const Case cases[] = {
        {IMAGE_FORMAT_YUV420_SEMIPLANAR, 63, 64, 64, 0, 1},
        {IMAGE_FORMAT_YUV420_SEMIPLANAR, 63, 63, 64, 0, 0},  // rows round up to 64
        {IMAGE_FORMAT_YUV420_SEMIPLANAR, 63, 64, 63, 0, 0},
        {IMAGE_FORMAT_YVU420_SEMIPLANAR, 63, 64, 62, 0, 0},
        {IMAGE_FORMAT_YUV420_PLANAR, 63, 64, 32, 32, 1},
        {IMAGE_FORMAT_YUV420_PLANAR, 63, 64, 32, 31, 0},
        {IMAGE_FORMAT_YUV422_PLANAR, 63, 64, 31, 32, 0},
        {IMAGE_FORMAT_YUV420_SEMIPLANAR, 64, 1, 1, 0, 1},  // even widths are not examined
        {IMAGE_FORMAT_UINT8, 63, 1, 0, 0, 1},              // nor other formats
    };
    for (const Case& c : cases) {
        TwinLensImageEx ex{c.width, 8, nullptr, nullptr, nullptr, c.pitch0, c.pitch1, c.pitch2};
        EXPECT_EQ(IF_isAvailableImageEx(&ex, c.format), c.expected)
            << Image_getImageFormatStr(c.format) << " " << c.pitch0 << "/" << c.pitch1 << "/" << c.pitch2;
    }
}

TEST(PublicImage, DisplayModes) {
    struct Case {
        int32_t width, height, mode;
    };
    const Case cases[] = {
        {7680, 4320, 0}, {7680, 4322, 24}, {4000, 3000, 1}, {3999, 3000, 2}, {1920, 1080, 8},
        {640, 480, 18},  {320, 240, 19},   {320, 239, 20},  {64, 64, 23},    {0, 0, 23},
    };
    for (const Case& c : cases)
        EXPECT_EQ(IF_getDisplayMode(c.width, c.height), c.mode) << c.width << "x" << c.height;
    // Each mode's pixel count is the least count of that mode.
    for (int32_t mode = 1; mode < 23; ++mode) {
        EXPECT_EQ(IF_getDisplayMode(IF_getPixelSize(mode), 1), mode);
        EXPECT_EQ(IF_getDisplayMode(IF_getPixelSize(mode) - 1, 1), mode + 1);
    }
    EXPECT_EQ(IF_getPixelSize(23), 0);
    EXPECT_EQ(IF_getPixelSize(-1), 0);
}
