#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "image/image.h"

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

void fillPattern(Image* image, uint8_t seed) {
    for (int k = 0; k < 3; ++k) {
        if (image->plane[k] == nullptr) continue;
        const int32_t rows =
            Image_getSize(image->width, image->height, image->format, k == 0 ? 1 : (k == 1 ? 6 : 9));
        for (int32_t r = 0; r < rows; ++r) {
            for (int32_t c = 0; c < image->pitch[k]; ++c) {
                image->plane[k][r * image->pitch[k] + c] = static_cast<uint8_t>(seed + 31 * k + 7 * r + c);
            }
        }
    }
}

}  // namespace

TEST(Image, OwnedPlanarLayoutHasTightContiguousPlanes) {
    Img a;
    ASSERT_EQ(Image_init(a.get(), 101, 7, nullptr, IMAGE_FORMAT_YUV420_PLANAR), TL_OK);
    EXPECT_EQ(a->external, 0);
    EXPECT_EQ(a->pitch[0], 102);
    EXPECT_EQ(a->pitch[1], 51);
    EXPECT_EQ(a->pitch[2], 51);
    EXPECT_EQ(a->plane[1], a->plane[0] + 102 * 8);
    EXPECT_EQ(a->plane[2], a->plane[1] + 51 * 4);
    ASSERT_EQ(Image_init(a.get(), 40, 30, nullptr, IMAGE_FORMAT_UINT8), TL_OK);
    EXPECT_EQ(a->plane[1], nullptr);
    EXPECT_EQ(a->pitch[1], 0);
}

TEST(Image, ReinitAtTheSameSizeKeepsTheBlock) {
    Img a;
    ASSERT_EQ(Image_init(a.get(), 64, 48, nullptr, IMAGE_FORMAT_YUV420_SEMIPLANAR), TL_OK);
    uint8_t* block = a->plane[0];
    // 64 x 48 x 1.5 bytes is also 96 x 48 UINT88... at 64 x 36: same byte count.
    ASSERT_EQ(Image_init(a.get(), 64, 48, nullptr, IMAGE_FORMAT_YVU420_SEMIPLANAR), TL_OK);
    EXPECT_EQ(a->plane[0], block);
    ASSERT_EQ(Image_init(a.get(), 64, 36, nullptr, IMAGE_FORMAT_UINT88), TL_OK);
    EXPECT_EQ(a->plane[0], block);
    EXPECT_EQ(a->format, IMAGE_FORMAT_UINT88);
    ASSERT_EQ(Image_init(a.get(), 65, 36, nullptr, IMAGE_FORMAT_UINT88), TL_OK);
    EXPECT_EQ(a->width, 65);
}

TEST(Image, BorrowedPlanesAndPitches) {
    std::vector<uint8_t> y(200 * 10), uv(200 * 5);
    void* planes[2] = {y.data(), uv.data()};
    Img a;
    ASSERT_EQ(Image_init(a.get(), 99, 10, planes, IMAGE_FORMAT_YUV420_SEMIPLANAR), TL_OK);
    EXPECT_EQ(a->external, 1);
    EXPECT_EQ(a->plane[0], y.data());
    EXPECT_EQ(a->plane[1], uv.data());
    EXPECT_EQ(a->pitch[0], 100);
    EXPECT_EQ(a->pitch[1], 100);
    // A one-plane format takes the address itself, not an array.
    ASSERT_EQ(Image_init(a.get(), 50, 10, y.data(), IMAGE_FORMAT_UINT16), TL_OK);
    EXPECT_EQ(a->plane[0], y.data());
    EXPECT_EQ(a->pitch[0], 100);
    ImagePlanes p;
    std::memset(&p, 0, sizeof p);
    p.two = {y.data(), uv.data(), 200, 160};
    ASSERT_EQ(Image_initWithPitch(a.get(), 99, 10, &p, IMAGE_FORMAT_YVU420_SEMIPLANAR), TL_OK);
    EXPECT_EQ(a->pitch[0], 200);
    EXPECT_EQ(a->pitch[1], 160);
    EXPECT_EQ(a->plane[2], nullptr);
}

TEST(Image, InitRefusalsLeaveTheImageAlone) {
    Img a;
    ASSERT_EQ(Image_init(a.get(), 8, 8, nullptr, IMAGE_FORMAT_UINT8), TL_OK);
    const Image before = a.image;
    EXPECT_EQ(Image_init(a.get(), -1, 8, nullptr, IMAGE_FORMAT_UINT8), TL_ERROR_PARAM);
    EXPECT_EQ(Image_init(a.get(), 8, -1, nullptr, IMAGE_FORMAT_UINT8), TL_ERROR_PARAM);
    EXPECT_EQ(Image_init(a.get(), 8, 8, nullptr, 72), TL_ERROR_PARAM);
    EXPECT_EQ(Image_init(a.get(), 16384, 16384, nullptr, IMAGE_FORMAT_LAB), TL_ERROR_PARAM);
    EXPECT_EQ(Image_init(nullptr, 8, 8, nullptr, IMAGE_FORMAT_UINT8), TL_ERROR_PARAM);
    EXPECT_EQ(std::memcmp(&before, &a.image, sizeof before), 0);
    EXPECT_EQ(construct_Image(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_Image(nullptr), TL_ERROR_PARAM);
}

TEST(Image, ViewOfAnOwnedRecordFreesItsBlock) {
    Img source;
    Img a;
    ASSERT_EQ(Image_init(source.get(), 32, 32, nullptr, IMAGE_FORMAT_UINT8), TL_OK);
    ASSERT_EQ(Image_init(a.get(), 32, 32, nullptr, IMAGE_FORMAT_UINT8), TL_OK);
    ASSERT_EQ(Image_initSubImage(a.get(), source.get(), 1, 2, 8, 8), TL_OK);
    EXPECT_EQ(a->external, 1);  // the leak checker of the sanitizer build proves the free
    EXPECT_EQ(a->plane[0], source->plane[0] + 2 * 32 + 1);
    // A record that owns its pixels cannot become a view of itself.
    EXPECT_EQ(Image_initSubImage(source.get(), source.get(), 0, 0, 4, 4), TL_ERROR_PARAM);
}

// Byte offsets of the view's planes for (x, y) = (5, 3), worked out from the
// per-format offset rules.
TEST(Image, SubImageOffsetsPerFormat) {
    struct Case {
        const char* name;
        int64_t off0;  // row 3 times pitch0 plus this
        int32_t row1;  // chroma row
        int64_t off1;
    };
    const Case cases[] = {
        {"RGB565", 10, 0, 0},
        {"BGR888", 15, 0, 0},
        {"RGBA8888", 20, 0, 0},
        {"YUV422_UYVY", 8, 0, 0},  // 10 with the two low bits cleared
        {"YUV422_PLANAR", 5, 3, 2},
        {"YUV422_SEMIPLANAR", 5, 3, 4},
        {"YVU422_SEMIPLANAR", 5, 3, 4},
        {"YUV420_PLANAR", 5, 1, 2},
        {"YUV420_SEMIPLANAR", 5, 1, 4},
        {"YVU420_SEMIPLANAR", 5, 1, 4},
        {"YUV444_VUY", 15, 0, 0},
        {"YUV444_PLANAR", 5, 3, 5},
        {"YUV10B420_SEMIPLANAR", 10, 1, 8},
        {"BAYER8_BGGR", 5, 0, 0},
        {"BAYER10_UNPACKED_RGGB", 10, 0, 0},
        {"BAYER10_M8L2PACKED_RGGB", 6, 0, 0},
        {"BAYER16_GBRG", 10, 0, 0},
        {"UINT8", 5, 0, 0},
        {"INT32", 20, 0, 0},
        {"HSV", 15, 0, 0},
        {"LAB", 60, 0, 0},
        {"RGB161616", 30, 0, 0},
        {"FLOAT", 20, 0, 0},
        {"UINT88", 10, 0, 0},
        {"UINT1616", 20, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const uint32_t f = Image_getImageFormat(c.name);
        Img src;
        Img view;
        ASSERT_EQ(Image_init(src.get(), 16, 8, nullptr, f), TL_OK);
        ASSERT_EQ(Image_initSubImage(view.get(), src.get(), 5, 3, 7, 5), TL_OK);
        EXPECT_EQ(view->width, 7);
        EXPECT_EQ(view->height, 5);
        EXPECT_EQ(view->format, f);
        EXPECT_EQ(view->plane[0] - src->plane[0], 3 * src->pitch[0] + c.off0);
        for (int k = 0; k < 3; ++k) EXPECT_EQ(view->pitch[k], src->pitch[k]);
        for (int k = 1; k < Image_getPlaneCount(f); ++k) {
            EXPECT_EQ(view->plane[k] - src->plane[k], c.row1 * src->pitch[k] + c.off1) << "plane " << k;
        }
    }
}

TEST(Image, OddSubImageOfSemiplanarStartsChromaOneByteLeft) {
    Img src;
    Img view;
    ASSERT_EQ(Image_init(src.get(), 64, 64, nullptr, IMAGE_FORMAT_YUV420_SEMIPLANAR), TL_OK);
    ASSERT_EQ(Image_initSubImage(view.get(), src.get(), 9, 4, 10, 10), TL_OK);
    EXPECT_EQ(view->plane[0] - src->plane[0], 4 * 64 + 9);
    EXPECT_EQ(view->plane[1] - src->plane[1], 2 * 64 + 8);
}

TEST(Image, SubImageRefusals) {
    Img src;
    Img view;
    ASSERT_EQ(Image_init(src.get(), 16, 8, nullptr, IMAGE_FORMAT_YUV420_PLANAR), TL_OK);
    EXPECT_EQ(Image_initSubImage(view.get(), src.get(), -1, 0, 4, 4), TL_ERROR_PARAM);
    EXPECT_EQ(Image_initSubImage(view.get(), src.get(), 0, -1, 4, 4), TL_ERROR_PARAM);
    EXPECT_EQ(Image_initSubImage(view.get(), src.get(), 13, 0, 4, 4), TL_ERROR_PARAM);
    EXPECT_EQ(Image_initSubImage(view.get(), src.get(), 0, 5, 4, 4), TL_ERROR_PARAM);
    EXPECT_EQ(Image_initSubImage(view.get(), src.get(), 0, 0, 17, 4), TL_ERROR_PARAM);
    EXPECT_EQ(Image_initSubImage(nullptr, src.get(), 0, 0, 4, 4), TL_ERROR_PARAM);
    EXPECT_EQ(Image_initSubImage(view.get(), nullptr, 0, 0, 4, 4), TL_ERROR_PARAM);
    Image broken = src.image;
    broken.plane[2] = nullptr;
    EXPECT_EQ(Image_initSubImage(view.get(), &broken, 0, 0, 4, 4), TL_ERROR_PARAM);
    // An empty rectangle gives an empty view with no planes.
    ASSERT_EQ(Image_initSubImage(view.get(), src.get(), 3, 3, 0, 4), TL_OK);
    EXPECT_EQ(view->plane[0], nullptr);
    EXPECT_EQ(view->width, 0);
    for (const char* name : {"YUV10B_PACKED_LE_420S", "YUV9_44_UV", "YUV9_44_VU"}) {
        Img other;
        ASSERT_EQ(Image_init(other.get(), 12, 8, nullptr, Image_getImageFormat(name)), TL_OK);
        EXPECT_EQ(Image_initSubImage(view.get(), other.get(), 0, 0, 6, 4), TL_ERROR_UNSUPPORTED) << name;
    }
}

TEST(Image, SinglePlaneViews) {
    Img src;
    Img view;
    ASSERT_EQ(Image_init(src.get(), 20, 10, nullptr, IMAGE_FORMAT_YUV420_PLANAR), TL_OK);
    ASSERT_EQ(Image_initSubImageY(view.get(), src.get(), 3, 5, 9, 4), TL_OK);
    EXPECT_EQ(view->format, IMAGE_FORMAT_UINT8);
    EXPECT_EQ(view->plane[0], src->plane[0] + 5 * 20 + 3);
    EXPECT_EQ(view->width, 9);
    ASSERT_EQ(Image_initSubImageV(view.get(), src.get(), 3, 5, 9, 4), TL_OK);
    EXPECT_EQ(view->plane[0], src->plane[2] + 2 * 10 + 1);
    EXPECT_EQ(view->width, 4);
    EXPECT_EQ(view->height, 2);
    EXPECT_EQ(view->pitch[0], 10);

    ASSERT_EQ(Image_init(src.get(), 20, 10, nullptr, IMAGE_FORMAT_YUV422_PLANAR), TL_OK);
    ASSERT_EQ(Image_initSubImageU(view.get(), src.get(), 3, 5, 9, 4), TL_OK);
    EXPECT_EQ(view->plane[0], src->plane[1] + 5 * 10 + 1);
    EXPECT_EQ(view->width, 4);
    EXPECT_EQ(view->height, 4);

    ASSERT_EQ(Image_init(src.get(), 20, 10, nullptr, IMAGE_FORMAT_YVU420_SEMIPLANAR), TL_OK);
    ASSERT_EQ(Image_initSubImageUV(view.get(), src.get(), 3, 5, 9, 4), TL_OK);
    EXPECT_EQ(view->format, IMAGE_FORMAT_UINT88);
    EXPECT_EQ(view->plane[0], src->plane[1] + 2 * 20 + 2);
    EXPECT_EQ(view->width, 4);
    EXPECT_EQ(view->height, 2);
    EXPECT_EQ(Image_initSubImageU(view.get(), src.get(), 0, 0, 4, 4), TL_ERROR_UNSUPPORTED);

    ASSERT_EQ(Image_init(src.get(), 20, 10, nullptr, IMAGE_FORMAT_YUV10B420_SEMIPLANAR), TL_OK);
    ASSERT_EQ(Image_initSubImageY(view.get(), src.get(), 3, 5, 9, 4), TL_OK);
    EXPECT_EQ(view->format, IMAGE_FORMAT_UINT16);
    EXPECT_EQ(view->plane[0], src->plane[0] + 5 * 40 + 6);
    ASSERT_EQ(Image_initSubImageUV(view.get(), src.get(), 3, 5, 9, 4), TL_OK);
    EXPECT_EQ(view->format, IMAGE_FORMAT_UINT1616);
    EXPECT_EQ(view->plane[0], src->plane[1] + 2 * 40 + 4);

    ASSERT_EQ(Image_init(src.get(), 20, 10, nullptr, IMAGE_FORMAT_RGB888), TL_OK);
    EXPECT_EQ(Image_initSubImageY(view.get(), src.get(), 0, 0, 4, 4), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(Image_initSubImageY(view.get(), src.get(), 0, 0, 40, 4), TL_ERROR_PARAM);
}

TEST(Image, CopyIntoOwnedTakesTheSourceFormat) {
    Img src;
    Img dst;
    ASSERT_EQ(Image_init(src.get(), 13, 9, nullptr, IMAGE_FORMAT_YUV420_PLANAR), TL_OK);
    fillPattern(src.get(), 3);
    ASSERT_EQ(Image_init(dst.get(), 4, 4, nullptr, IMAGE_FORMAT_RGB888), TL_OK);
    ASSERT_EQ(Image_copy(dst.get(), src.get()), TL_OK);
    EXPECT_EQ(dst->format, IMAGE_FORMAT_YUV420_PLANAR);
    EXPECT_EQ(dst->width, 13);
    // Rows of plane 0: 13 bytes each over 9 rows; chroma: 7 bytes over 5 rows.
    for (int32_t r = 0; r < 9; ++r)
        EXPECT_EQ(std::memcmp(dst->plane[0] + r * 14, src->plane[0] + r * 14, 13), 0);
    for (int k = 1; k < 3; ++k) {
        for (int32_t r = 0; r < 5; ++r)
            EXPECT_EQ(std::memcmp(dst->plane[k] + r * 7, src->plane[k] + r * 7, 7), 0);
    }
}

TEST(Image, CopyIntoBorrowedKeepsPaddingAndRefusesMismatch) {
    Img src;
    ASSERT_EQ(Image_init(src.get(), 5, 4, nullptr, IMAGE_FORMAT_YUV420_SEMIPLANAR), TL_OK);
    fillPattern(src.get(), 11);
    const int32_t pitch = 9;
    std::vector<uint8_t> y(pitch * 4 + 16, 0xAA), uv(pitch * 2 + 16, 0xAA);
    ImagePlanes p;
    std::memset(&p, 0, sizeof p);
    p.two = {y.data(), uv.data(), pitch, pitch};
    Img dst;
    ASSERT_EQ(Image_initWithPitch(dst.get(), 5, 4, &p, IMAGE_FORMAT_YUV420_SEMIPLANAR), TL_OK);
    ASSERT_EQ(Image_copy(dst.get(), src.get()), TL_OK);
    for (int32_t r = 0; r < 4; ++r) {
        for (int32_t c = 0; c < pitch; ++c) {
            if (c < 5) {
                EXPECT_EQ(y[r * pitch + c], src->plane[0][r * src->pitch[0] + c]);
            } else {
                EXPECT_EQ(y[r * pitch + c], 0xAA) << r << "," << c;
            }
        }
    }
    // Chroma rows hold 3 pairs = 6 bytes for an odd width of 5.
    for (int32_t r = 0; r < 2; ++r) {
        for (int32_t c = 0; c < pitch; ++c) {
            EXPECT_EQ(uv[r * pitch + c], c < 6 ? src->plane[1][r * src->pitch[1] + c] : 0xAA);
        }
    }
    for (size_t i = pitch * 4; i < y.size(); ++i) EXPECT_EQ(y[i], 0xAA);

    Img other;
    ASSERT_EQ(Image_initWithPitch(other.get(), 5, 4, &p, IMAGE_FORMAT_YVU420_SEMIPLANAR), TL_OK);
    EXPECT_EQ(Image_copy(other.get(), src.get()), TL_ERROR_PARAM);
    ASSERT_EQ(Image_initWithPitch(other.get(), 4, 4, &p, IMAGE_FORMAT_YUV420_SEMIPLANAR), TL_OK);
    EXPECT_EQ(Image_copy(other.get(), src.get()), TL_ERROR_PARAM);
    EXPECT_EQ(Image_copy(nullptr, src.get()), TL_ERROR_PARAM);
    EXPECT_EQ(Image_copy(dst.get(), dst.get()), TL_OK);
    Img empty;
    EXPECT_EQ(Image_copy(dst.get(), empty.get()), TL_ERROR_PARAM);
}

TEST(Image, PartialCopyPlacesTheRectangle) {
    Img src;
    Img dst;
    ASSERT_EQ(Image_init(src.get(), 16, 8, nullptr, IMAGE_FORMAT_YUV420_SEMIPLANAR), TL_OK);
    ASSERT_EQ(Image_init(dst.get(), 16, 8, nullptr, IMAGE_FORMAT_YUV420_SEMIPLANAR), TL_OK);
    fillPattern(src.get(), 1);
    std::memset(dst->plane[0], 0, 16 * 8 + 16 * 4);
    const int32_t rect[4] = {4, 2, 10, 6};  // 6 x 4 from (4, 2)
    ASSERT_EQ(Image_partialCopy(dst.get(), src.get(), 8, 4, rect), TL_OK);
    for (int32_t r = 0; r < 8; ++r) {
        for (int32_t c = 0; c < 16; ++c) {
            const bool inside = r >= 4 && r < 8 && c >= 8 && c < 14;
            const uint8_t expected = inside ? src->plane[0][(r - 2) * 16 + (c - 4)] : 0;
            EXPECT_EQ(dst->plane[0][r * 16 + c], expected) << r << "," << c;
        }
    }
    for (int32_t r = 0; r < 4; ++r) {
        for (int32_t c = 0; c < 16; ++c) {
            const bool inside = r >= 2 && r < 4 && c >= 8 && c < 14;
            const uint8_t expected = inside ? src->plane[1][(r - 1) * 16 + (c - 4)] : 0;
            EXPECT_EQ(dst->plane[1][r * 16 + c], expected) << r << "," << c;
        }
    }
    const int32_t empty[4] = {4, 2, 4, 6};
    EXPECT_EQ(Image_partialCopy(dst.get(), src.get(), 0, 0, empty), TL_OK);
    EXPECT_EQ(Image_partialCopy(dst.get(), src.get(), 1, 0, rect), TL_ERROR_PARAM);
    EXPECT_EQ(Image_partialCopy(dst.get(), src.get(), 0, 1, rect), TL_ERROR_PARAM);
    const int32_t oddTop[4] = {4, 1, 10, 5};
    EXPECT_EQ(Image_partialCopy(dst.get(), src.get(), 0, 0, oddTop), TL_ERROR_PARAM);
    EXPECT_EQ(Image_partialCopy(dst.get(), src.get(), 12, 4, rect), TL_ERROR_PARAM);  // leaves dst
    EXPECT_EQ(Image_partialCopy(dst.get(), src.get(), 0, 0, nullptr), TL_ERROR_PARAM);
}

// 24 x 12 leaves no padding in any format, so whole blocks compare.
TEST(Image, EveryFormatCanBeMadeAndCopied) {
    for (uint32_t f = 1; f < kImageFormatCount; ++f) {
        SCOPED_TRACE(Image_getImageFormatStr(f));
        Img src;
        Img dst;
        ASSERT_EQ(Image_init(src.get(), 24, 12, nullptr, f), TL_OK);
        const int32_t size = Image_getSize(24, 12, f, 0);
        for (int32_t i = 0; i < size; ++i) src->plane[0][i] = static_cast<uint8_t>(i * 7 + f);
        ASSERT_EQ(Image_copy(dst.get(), src.get()), TL_OK);
        EXPECT_EQ(std::memcmp(dst->plane[0], src->plane[0], size), 0);
    }
}
