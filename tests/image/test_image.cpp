// Image records: owned planes, views, copies, format geometry and the public records.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "image/image.h"
#include "image/public_image.h"
#include "support/picture.h"

using namespace vq_tl;

namespace {

struct Img {
    Env env{};
    Image image;
    Img() { construct_Image(&image, &env); }
    ~Img() { destruct_Image(&image); }
    Image* operator->() { return &image; }
    Image* get() { return &image; }
};

using ViewFn = TLResult (*)(Image*, const Image*, int32_t, int32_t, int32_t, int32_t);

// Every byte of every plane's rows, pitch padding included, to a pattern.
void fillPattern(Image* image, uint8_t seed) {
    const int32_t rowSel[3] = {IMAGE_SIZE_ROWS0, IMAGE_SIZE_ROWS1, IMAGE_SIZE_ROWS2};
    for (int k = 0; k < 3 && image->plane[k] != nullptr; ++k) {
        const int32_t rows = Image_getSize(image->width, image->height, image->format, rowSel[k]);
        for (int32_t i = 0; i < rows * image->pitch[k]; ++i)
            image->plane[k][i] = static_cast<uint8_t>(seed + 31 * k + i);
    }
}

// The first `bytes` bytes of `rows` rows of plane k agree.
bool sameRows(const Image* a, const Image* b, int k, int32_t rows, int32_t bytes) {
    for (int32_t r = 0; r < rows; ++r) {
        if (std::memcmp(a->plane[k] + r * a->pitch[k], b->plane[k] + r * b->pitch[k], bytes) != 0)
            return false;
    }
    return true;
}

}  // namespace

TEST(Image, OwnedPlanesAreTightAndContiguous) {
    Img a;
    ASSERT_EQ(Image_init(a.get(), 101, 7, nullptr, IMAGE_FORMAT_YUV420_PLANAR), TL_OK);
    EXPECT_EQ(a->external, 0);
    EXPECT_EQ(a->pitch[2], 51);
    EXPECT_EQ(a->plane[1], a->plane[0] + 102 * 8);
    EXPECT_EQ(a->plane[2], a->plane[1] + 51 * 4);
    // 102 x 8 + 2 x 51 x 4 = 1224 bytes, as many as 102 x 12 of UINT8: the block is kept.
    uint8_t* block = a->plane[0];
    ASSERT_EQ(Image_init(a.get(), 102, 12, nullptr, IMAGE_FORMAT_UINT8), TL_OK);
    EXPECT_EQ(a->plane[0], block);
    EXPECT_EQ(a->plane[1], nullptr);
    EXPECT_EQ(a->pitch[1], 0);
    // Refusals leave the record as it was.
    const Image before = a.image;
    EXPECT_EQ(Image_init(a.get(), -1, 8, nullptr, IMAGE_FORMAT_UINT8), TL_ERROR_PARAM);
    EXPECT_EQ(Image_init(a.get(), 8, -1, nullptr, IMAGE_FORMAT_UINT8), TL_ERROR_PARAM);
    EXPECT_EQ(Image_init(a.get(), 8, 8, nullptr, 72), TL_ERROR_PARAM);
    EXPECT_EQ(Image_init(a.get(), 16384, 16384, nullptr, IMAGE_FORMAT_LAB), TL_ERROR_PARAM);
    EXPECT_EQ(std::memcmp(&before, &a.image, sizeof before), 0);
}

// Where each plane of a 9 x 4 view of a 20 x 10 source starts, by the per-format offset rules. Whole-image
// views take plane k > 0 from source plane k at (row1, off1); plane views, one plane of plane `from`.
TEST(Image, ViewOffsetsOfHandWorkedCases) {
    const ViewFn S = Image_initSubImage;
    const struct {
        ViewFn fn;
        const char* name;
        int32_t x, y;
        const char* viewFormat;  // null: the source's
        int32_t width, height, from, row0, off0, row1, off1;
    } cases[] = {
        {S, "RGB565", 5, 3, nullptr, 9, 4, 0, 3, 10, 0, 0},
        {S, "YUV422_UYVY", 5, 3, nullptr, 9, 4, 0, 3, 8, 0, 0},  // 10 with the two low bits cleared
        {S, "YUV422_PLANAR", 5, 3, nullptr, 9, 4, 0, 3, 5, 3, 2},
        {S, "YUV422_SEMIPLANAR", 5, 3, nullptr, 9, 4, 0, 3, 5, 3, 4},
        {S, "YUV420_PLANAR", 5, 3, nullptr, 9, 4, 0, 3, 5, 1, 2},
        {S, "YUV420_SEMIPLANAR", 5, 3, nullptr, 9, 4, 0, 3, 5, 1, 4},
        {S, "YVU420_SEMIPLANAR", 9, 4, nullptr, 9, 4, 0, 4, 9, 2, 8},  // odd x: chroma one byte left
        {S, "YUV444_PLANAR", 5, 3, nullptr, 9, 4, 0, 3, 5, 3, 5},
        {S, "YUV10B420_SEMIPLANAR", 5, 3, nullptr, 9, 4, 0, 3, 10, 1, 8},
        {S, "BAYER8_BGGR", 5, 3, nullptr, 9, 4, 0, 3, 5, 0, 0},
        {S, "BAYER10_M8L2PACKED_RGGB", 5, 3, nullptr, 9, 4, 0, 3, 6, 0, 0},
        {S, "LAB", 5, 3, nullptr, 9, 4, 0, 3, 60, 0, 0},
        {S, "RGB161616", 5, 3, nullptr, 9, 4, 0, 3, 30, 0, 0},
        {Image_initSubImageY, "YUV420_PLANAR", 3, 5, "UINT8", 9, 4, 0, 5, 3, 0, 0},
        {Image_initSubImageV, "YUV420_PLANAR", 3, 5, "UINT8", 4, 2, 2, 2, 1, 0, 0},
        {Image_initSubImageU, "YUV422_PLANAR", 3, 5, "UINT8", 4, 4, 1, 5, 1, 0, 0},
        {Image_initSubImageUV, "YVU420_SEMIPLANAR", 3, 5, "UINT88", 4, 2, 1, 2, 2, 0, 0},
        {Image_initSubImageY, "YUV10B420_SEMIPLANAR", 3, 5, "UINT16", 9, 4, 0, 5, 6, 0, 0},
        {Image_initSubImageUV, "YUV10B420_SEMIPLANAR", 3, 5, "UINT1616", 4, 2, 1, 2, 4, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.name << " to " << (c.viewFormat ? c.viewFormat : "itself"));
        const uint32_t f = Image_getImageFormat(c.name);
        Img src, view;
        ASSERT_EQ(Image_init(src.get(), 20, 10, nullptr, f), TL_OK);
        ASSERT_EQ(c.fn(view.get(), src.get(), c.x, c.y, 9, 4), TL_OK);
        EXPECT_EQ(view->format, c.viewFormat ? Image_getImageFormat(c.viewFormat) : f);
        EXPECT_TRUE(view->width == c.width && view->height == c.height);
        EXPECT_EQ(view->plane[0] - src->plane[c.from], c.row0 * src->pitch[c.from] + c.off0);
        EXPECT_EQ(view->pitch[0], src->pitch[c.from]);
        for (int k = 1; k < Image_getPlaneCount(view->format); ++k) {
            EXPECT_EQ(view->plane[k] - src->plane[k], c.row1 * src->pitch[k] + c.off1) << "plane " << k;
            EXPECT_EQ(view->pitch[k], src->pitch[k]);
        }
    }
}

TEST(Image, ViewRefusals) {
    const ViewFn S = Image_initSubImage;
    const struct {
        ViewFn fn;
        const char* name;
        int32_t x, y, width, height;
        TLResult expected;
    } cases[] = {
        {S, "YUV420_PLANAR", -1, 0, 4, 4, TL_ERROR_PARAM},
        {S, "YUV420_PLANAR", 0, -1, 4, 4, TL_ERROR_PARAM},
        {S, "YUV420_PLANAR", 13, 0, 4, 4, TL_ERROR_PARAM},  // one column beyond the 16
        {S, "YUV420_PLANAR", 0, 5, 4, 4, TL_ERROR_PARAM},   // one row beyond the 8
        {S, "YUV420_PLANAR", 0, 0, 17, 4, TL_ERROR_PARAM},
        {S, "YUV10B_PACKED_LE_420S", 0, 0, 6, 4, TL_ERROR_UNSUPPORTED},
        {S, "YUV9_44_UV", 0, 0, 6, 4, TL_ERROR_UNSUPPORTED},
        {Image_initSubImageU, "YVU420_SEMIPLANAR", 0, 0, 4, 4, TL_ERROR_UNSUPPORTED},
        {Image_initSubImageY, "RGB888", 0, 0, 4, 4, TL_ERROR_UNSUPPORTED},
        {Image_initSubImageY, "RGB888", 0, 0, 40, 4, TL_ERROR_PARAM},
    };
    Img view, src;
    for (const auto& c : cases) {
        ASSERT_EQ(Image_init(src.get(), 16, 8, nullptr, Image_getImageFormat(c.name)), TL_OK);
        EXPECT_EQ(c.fn(view.get(), src.get(), c.x, c.y, c.width, c.height), c.expected)
            << c.name << " " << c.x << "," << c.y << " " << c.width << "x" << c.height;
    }
    ASSERT_EQ(Image_init(src.get(), 16, 8, nullptr, IMAGE_FORMAT_YUV420_PLANAR), TL_OK);
    // A record that owns its pixels cannot become a view of itself.
    EXPECT_EQ(Image_initSubImage(src.get(), src.get(), 0, 0, 4, 4), TL_ERROR_PARAM);
    // An empty rectangle gives an empty view with no planes.
    ASSERT_EQ(Image_initSubImage(view.get(), src.get(), 3, 3, 0, 4), TL_OK);
    EXPECT_TRUE(view->plane[0] == nullptr && view->width == 0);
}

// Odd sizes: 13 x 9 has 13-byte luma rows and 5 chroma rows of 7 pairs.
TEST(Image, CopyTakesTheSourceFormatOrFillsABorrowedImage) {
    Img src, owned;
    ASSERT_EQ(Image_init(src.get(), 13, 9, nullptr, IMAGE_FORMAT_YUV420_SEMIPLANAR), TL_OK);
    fillPattern(src.get(), 3);
    ASSERT_EQ(Image_init(owned.get(), 4, 4, nullptr, IMAGE_FORMAT_RGB888), TL_OK);
    ASSERT_EQ(Image_copy(owned.get(), src.get()), TL_OK);
    EXPECT_TRUE(owned->format == IMAGE_FORMAT_YUV420_SEMIPLANAR && owned->width == 13 && owned->height == 9);
    // A borrowed destination keeps its pitch; the canaries after each row stay.
    vq_tl_test::Picture dst(13, 9, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    ASSERT_EQ(Image_copy(&dst.image, src.get()), TL_OK);
    for (const Image* copy : {owned.get(), &dst.image})
        EXPECT_TRUE(sameRows(copy, src.get(), 0, 9, 13) && sameRows(copy, src.get(), 1, 5, 14));
    for (int32_t r = 0; r < 9; ++r) EXPECT_EQ(dst.row(0, r)[13], vq_tl_test::kCanary) << r;
    EXPECT_TRUE(dst.canariesIntact());
    // A borrowed destination of another format or size is refused.
    vq_tl_test::Picture other(13, 9, IMAGE_FORMAT_YVU420_SEMIPLANAR),
        narrow(12, 9, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    EXPECT_EQ(Image_copy(&other.image, src.get()), TL_ERROR_PARAM);
    EXPECT_EQ(Image_copy(&narrow.image, src.get()), TL_ERROR_PARAM);
    Img empty;
    EXPECT_EQ(Image_copy(owned.get(), empty.get()), TL_ERROR_PARAM);
}

TEST(Image, PartialCopyPlacesTheRectangle) {
    Img src, dst;
    ASSERT_EQ(Image_init(src.get(), 16, 8, nullptr, IMAGE_FORMAT_YUV420_SEMIPLANAR), TL_OK);
    ASSERT_EQ(Image_init(dst.get(), 16, 8, nullptr, IMAGE_FORMAT_YUV420_SEMIPLANAR), TL_OK);
    fillPattern(src.get(), 1);
    std::memset(dst->plane[0], 0, 16 * 8 + 16 * 4);
    const int32_t rect[4] = {4, 2, 10, 6};  // 6 x 4 from (4, 2) to (8, 4)
    ASSERT_EQ(Image_partialCopy(dst.get(), src.get(), 8, 4, rect), TL_OK);
    // Luma rows 4 to 7 and chroma rows 2 and 3, columns 8 to 13 in both.
    for (int32_t i = 0; i < 16 * 12; ++i) {
        const int k = i < 128 ? 0 : 1, r = (i - 128 * k) / 16, c = i % 16;
        const bool inside = r >= 4 >> k && c >= 8 && c < 14;
        EXPECT_EQ(dst->plane[k][r * 16 + c], inside ? src->plane[k][(r - (2 >> k)) * 16 + (c - 4)] : 0) << i;
    }
    const int32_t empty[4] = {4, 2, 4, 6}, oddTop[4] = {4, 1, 10, 5};
    EXPECT_EQ(Image_partialCopy(dst.get(), src.get(), 0, 0, empty), TL_OK);
    EXPECT_EQ(Image_partialCopy(dst.get(), src.get(), 1, 0, rect), TL_ERROR_PARAM);
    EXPECT_EQ(Image_partialCopy(dst.get(), src.get(), 0, 1, rect), TL_ERROR_PARAM);
    EXPECT_EQ(Image_partialCopy(dst.get(), src.get(), 0, 0, oddTop), TL_ERROR_PARAM);
    EXPECT_EQ(Image_partialCopy(dst.get(), src.get(), 12, 4, rect), TL_ERROR_PARAM);
}

// Geometry worked out by hand for each layout: the width rounds up to hUnit, the height to 2^vShift, then
// come pitch and rows per plane; odd sizes and subsampled chroma are where rounding goes wrong.
TEST(ImageFormat, GeometryOfHandWorkedCases) {
    const struct {
        const char* name;
        int32_t width, height, total, pitch0, rows0, pitch1, rows1, pitch2, rows2;
    } cases[] = {
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
    // Selectors of rows, bytes and pitch for each plane; the second set holds the aliases 3, 11, 12 and 13.
    const int32_t selectors[2][3][3] = {{{1, 2, 4}, {6, 5, 7}, {9, 8, 10}},
                                        {{3, 2, 4}, {12, 11, 13}, {9, 8, 10}}};
    for (const auto& c : cases) {
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
    // Refused {width, height, format, selector}: unknown selectors and codes, negative sides, 3 GiB of LAB.
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
    // The pitch test examines odd widths of subsampled formats only.
    const struct {
        uint32_t format;
        int32_t width, pitch0, pitch1, pitch2, expected;
    } cases[] = {
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
    for (const auto& c : cases) {
        TwinLensImageEx odd{c.width, 8, nullptr, nullptr, nullptr, c.pitch0, c.pitch1, c.pitch2};
        EXPECT_EQ(IF_isAvailableImageEx(&odd, c.format), c.expected)
            << Image_getImageFormatStr(c.format) << " " << c.pitch0 << "/" << c.pitch1 << "/" << c.pitch2;
    }
}

TEST(PublicImage, DisplayModes) {
    const int32_t cases[][3] = {{7680, 4320, 0}, {7680, 4322, 24}, {4000, 3000, 1}, {3999, 3000, 2},
                                {1920, 1080, 8}, {640, 480, 18},   {320, 240, 19},  {320, 239, 20},
                                {64, 64, 23},    {0, 0, 23}};  // width, height, mode
    for (const auto& c : cases) EXPECT_EQ(IF_getDisplayMode(c[0], c[1]), c[2]) << c[0] << "x" << c[1];
    // Each mode's pixel count is the least count of that mode.
    for (int32_t mode = 1; mode < 23; ++mode) {
        EXPECT_EQ(IF_getDisplayMode(IF_getPixelSize(mode), 1), mode);
        EXPECT_EQ(IF_getDisplayMode(IF_getPixelSize(mode) - 1, 1), mode + 1);
    }
    EXPECT_EQ(IF_getPixelSize(23), 0);
    EXPECT_EQ(IF_getPixelSize(-1), 0);
}
