#include <gtest/gtest.h>

#include <cstring>

#include "image/image.h"
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

// Where each plane of a view starts in a 20 x 10 source, for a 9 x 4
// rectangle, worked out from the per-format offset rules. Whole-image views
// take plane k > 0 from source plane k at (row1, off1); plane views are one
// plane of source plane `from`.
TEST(Image, ViewOffsetsOfHandWorkedCases) {
    struct Case {
        ViewFn fn;
        const char* name;
        int32_t x, y;
        const char* viewFormat;  // null: the source's
        int32_t width, height, from, row0, off0, row1, off1;
    };
    const ViewFn S = Image_initSubImage;
    const Case cases[] = {
        {S, "RGB565", 5, 3, nullptr, 9, 4, 0, 3, 10, 0, 0},
        {S, "BGR888", 5, 3, nullptr, 9, 4, 0, 3, 15, 0, 0},
        {S, "RGBA8888", 5, 3, nullptr, 9, 4, 0, 3, 20, 0, 0},
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
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.name << " to " << (c.viewFormat ? c.viewFormat : "itself"));
        const uint32_t f = Image_getImageFormat(c.name);
        Img src, view;
        ASSERT_EQ(Image_init(src.get(), 20, 10, nullptr, f), TL_OK);
        ASSERT_EQ(c.fn(view.get(), src.get(), c.x, c.y, 9, 4), TL_OK);
        EXPECT_EQ(view->format, c.viewFormat ? Image_getImageFormat(c.viewFormat) : f);
        EXPECT_EQ(view->width, c.width);
        EXPECT_EQ(view->height, c.height);
        EXPECT_EQ(view->plane[0] - src->plane[c.from], c.row0 * src->pitch[c.from] + c.off0);
        EXPECT_EQ(view->pitch[0], src->pitch[c.from]);
        for (int k = 1; k < Image_getPlaneCount(view->format); ++k) {
            EXPECT_EQ(view->plane[k] - src->plane[k], c.row1 * src->pitch[k] + c.off1) << "plane " << k;
            EXPECT_EQ(view->pitch[k], src->pitch[k]);
        }
    }
}

TEST(Image, ViewRefusals) {
    struct Case {
        ViewFn fn;
        const char* name;
        int32_t x, y, width, height;
        TLResult expected;
    };
    const ViewFn S = Image_initSubImage;
    const Case cases[] = {
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
    for (const Case& c : cases) {
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
