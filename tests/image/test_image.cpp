// Image records: owned planes, views, copies, geometry, public records. Conversion: the fixed-point formulas
// against BT.601 full range in double, chroma on odd sizes and rectangles, dispatch, known answers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <tuple>
#include <vector>

#include "image/image.h"
#include "image/image_conv.h"
#include "image/public_image.h"
#include "support/owned.h"
#include "support/picture.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

struct Img : vq_tl_test::Owned<Image, construct_Image, destruct_Image> {
    Image* operator->() { return this; }
    Image* get() { return this; }
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

// Where a YUV format keeps the luma of pixel (x, y) and the chroma of its block, worked out from the format's
// name, not taken from the library. `order`: the bytes of an interleaved pixel pair, else null.
struct YuvFormat {
    uint32_t code;
    int vShift;
    const char* order;
};

uint8_t* lumaAt(Picture& p, const YuvFormat& f, int32_t x, int32_t y) {
    if (f.order == nullptr) return p.row(0, y) + x;
    const char* first = std::strchr(f.order, 'Y');
    return p.row(0, y) + (x >> 1) * 4 + (((x & 1) ? std::strchr(first + 1, 'Y') : first) - f.order);
}

uint8_t* chromaAt(Picture& p, const YuvFormat& f, int32_t x, int32_t y, char which) {
    const int32_t bx = x >> 1, by = y >> f.vShift;
    if (f.order != nullptr) return p.row(0, y) + bx * 4 + (std::strchr(f.order, which) - f.order);
    if (f.code == 24 || f.code == 26) return p.row(which == 'U' ? 1 : 2, by) + bx;
    const bool vu = f.code == 28 || f.code == 29;
    return p.row(1, by) + 2 * bx + ((which == 'V') != vu ? 1 : 0);
}

// R, G, B of whole-pixel test sources: RGB888, ARGB8888, RGB565.
void rgbAt(Picture& p, uint32_t code, int32_t x, int32_t y, double rgb[3]) {
    const uint8_t* q = p.row(0, y);
    if (code == 1) {
        const int w = q[2 * x] | (q[2 * x + 1] << 8);
        rgb[0] = (w >> 11) << 3, rgb[1] = ((w >> 5) & 63) << 2, rgb[2] = (w & 31) << 3;
        return;
    }
    const int32_t bytes = code == 15 ? 4 : 3, first = code == 15 ? 1 : 0;
    for (int c = 0; c < 3; ++c) rgb[c] = q[x * bytes + first + c];
}

void yuvOf(const double rgb[3], double yuv[3]) {
    yuv[0] = 0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2];
    yuv[1] = 128.0 - 0.168736 * rgb[0] - 0.331264 * rgb[1] + 0.5 * rgb[2];
    yuv[2] = 128.0 + 0.5 * rgb[0] - 0.418688 * rgb[1] - 0.081312 * rgb[2];
}

void rgbOf(double y, double u, double v, double rgb[3]) {
    rgb[0] = y + 1.402 * (v - 128.0);
    rgb[1] = y - 0.344136 * (u - 128.0) - 0.714136 * (v - 128.0);
    rgb[2] = y + 1.772 * (u - 128.0);
    for (int c = 0; c < 3; ++c) rgb[c] = std::fmin(255.0, std::fmax(0.0, rgb[c]));
}

// The dispatcher for a destination format; a rectangle selects the _withRect form.
TLResult convert(Image* dst, const Image* src, const ImageRect* rect = nullptr) {
    const uint32_t f = dst->format;
    using Plain = TLResult (*)(Image*, const Image*);
    using Rect = TLResult (*)(Image*, const Image*, const ImageRect*);
    Plain plain = nullptr;
    Rect withRect = nullptr;
    if (f == 2) plain = Image_conv_toRgb888, withRect = Image_conv_toRgb888_withRect;
    if (f >= 4 && f <= 15) plain = Image_conv_toUint8888, withRect = Image_conv_toUint8888_withRect;
    if (f == 1) plain = Image_conv_toRgb565, withRect = Image_conv_toRgb565_withRect;
    if (f >= 16 && f <= 23)
        plain = Image_conv_toYuv422Interleaved, withRect = Image_conv_toYuv422Interleaved_withRect;
    if (f == 24) plain = Image_conv_toYuv422Planar, withRect = Image_conv_toYuv422Planar_withRect;
    if (f == 25) plain = Image_conv_toYuv422Semiplanar, withRect = Image_conv_toYuv422Semiplanar_withRect;
    if (f == 26) plain = Image_conv_toYuv420Planar, withRect = Image_conv_toYuv420Planar_withRect;
    if (f == 27) plain = Image_conv_toYuv420Semiplanar, withRect = Image_conv_toYuv420Semiplanar_withRect;
    if (f == 28) plain = Image_conv_toYvu422Semiplanar, withRect = Image_conv_toYvu422Semiplanar_withRect;
    if (f == 29) plain = Image_conv_toYvu420Semiplanar, withRect = Image_conv_toYvu420Semiplanar_withRect;
    if (f >= 40 && f <= 43) plain = Image_conv_toBayer8;
    if ((f >= 44 && f <= 47) || (f >= 52 && f <= 59)) plain = Image_conv_toBayer16;
    if (f == 37) plain = Image_conv_toYuv10b420Semiplanar;
    if (f == 38) plain = Image_conv_toYvu10b420Semiplanar;
    if (f == 39) plain = Image_conv_toYuv10bPacked420Semiplanar;
    if (f == 60) plain = Image_conv_toUint8;
    if (f == 64) plain = Image_conv_toUint16;
    if (f == 65) plain = Image_conv_toRgb161616;
    return rect != nullptr ? withRect(dst, src, rect) : plain(dst, src);
}

const YuvFormat kYuvFormats[] = {
    {16, 0, "YUYV"},  {18, 0, "YYUV"},  {21, 0, "UYVY"},  {23, 0, "UVYY"},  {24, 0, nullptr},
    {25, 0, nullptr}, {26, 1, nullptr}, {27, 1, nullptr}, {28, 0, nullptr}, {29, 1, nullptr},
};

}  // namespace

// Re-initialised as one plane, an owned record keeps no other; refusals leave it as it was: negative sides,
// format 72 (none), 3 GiB of LAB (63). (Its planes' layout follows the geometry below.)
TEST(Image, OwnedRecordReinitAndRefusals) {
    Img a;
    ASSERT_EQ(Image_init(a.get(), 101, 7, nullptr, IMAGE_FORMAT_YUV420_PLANAR), TL_OK);
    EXPECT_TRUE(Image_init(a.get(), 102, 12, nullptr, IMAGE_FORMAT_UINT8) == TL_OK &&
                a->plane[1] == nullptr && a->pitch[1] == 0);
    const Image before = *a.get();
    for (const auto& [w, h, f] : {std::tuple{-1, 8, 60u}, {8, -1, 60u}, {8, 8, 72u}, {16384, 16384, 63u}})
        EXPECT_EQ(Image_init(a.get(), w, h, nullptr, f), TL_ERROR_PARAM) << w << "x" << h << " " << f;
    EXPECT_EQ(std::memcmp(&before, a.get(), sizeof before), 0);
}

// Where each plane of a 9 x 4 view of a 20 x 10 source starts, by the per-format offset rules. Whole-image
// views take plane k > 0 from source plane k at (row1, off1); plane views, one plane of plane `from`.
TEST(Image, ViewOffsetsOfHandWorkedCasesAndRefusals) {
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
        SCOPED_TRACE(testing::Message() << c.name << " to " << (c.viewFormat ? c.viewFormat : "itself"));
        const uint32_t f = Image_getImageFormat(c.name);
        Img src, view;
        ASSERT_EQ(Image_init(src.get(), 20, 10, nullptr, f), TL_OK);
        ASSERT_EQ(c.fn(view.get(), src.get(), c.x, c.y, 9, 4), TL_OK);
        EXPECT_TRUE(view->format == (c.viewFormat ? Image_getImageFormat(c.viewFormat) : f) &&
                    view->width == c.width && view->height == c.height &&
                    view->pitch[0] == src->pitch[c.from]);
        EXPECT_EQ(view->plane[0] - src->plane[c.from], c.row0 * src->pitch[c.from] + c.off0);
        for (int k = 1; k < Image_getPlaneCount(view->format); ++k)
            EXPECT_TRUE(view->plane[k] - src->plane[k] == c.row1 * src->pitch[k] + c.off1 &&
                        view->pitch[k] == src->pitch[k])
                << "plane " << k;
    }
    // Refused {x, y, width, height} of 16 by 8: outside on each side, too wide; layouts without views.
    const struct {
        ViewFn fn;
        const char* name;
        int32_t x, y, width, height;
        TLResult expected;
    } refused[] = {
        {S, "YUV420_PLANAR", -1, 0, 4, 4, TL_ERROR_PARAM},
        {S, "YUV420_PLANAR", 0, -1, 4, 4, TL_ERROR_PARAM},
        {S, "YUV420_PLANAR", 13, 0, 4, 4, TL_ERROR_PARAM},
        {S, "YUV420_PLANAR", 0, 5, 4, 4, TL_ERROR_PARAM},
        {S, "YUV420_PLANAR", 0, 0, 17, 4, TL_ERROR_PARAM},
        {S, "YUV10B_PACKED_LE_420S", 0, 0, 6, 4, TL_ERROR_UNSUPPORTED},
        {S, "YUV9_44_UV", 0, 0, 6, 4, TL_ERROR_UNSUPPORTED},
        {Image_initSubImageU, "YVU420_SEMIPLANAR", 0, 0, 4, 4, TL_ERROR_UNSUPPORTED},
        {Image_initSubImageY, "RGB888", 0, 0, 4, 4, TL_ERROR_UNSUPPORTED},
        {Image_initSubImageY, "RGB888", 0, 0, 40, 4, TL_ERROR_PARAM},
    };
    Img view, src;
    for (const auto& c : refused) {
        ASSERT_EQ(Image_init(src.get(), 16, 8, nullptr, Image_getImageFormat(c.name)), TL_OK);
        EXPECT_EQ(c.fn(view.get(), src.get(), c.x, c.y, c.width, c.height), c.expected)
            << c.name << " " << c.x << "," << c.y << " " << c.width << "x" << c.height;
    }
    // A record that owns its pixels cannot become a view of itself; an empty rectangle gives no planes.
    ASSERT_EQ(Image_init(src.get(), 16, 8, nullptr, IMAGE_FORMAT_YUV420_PLANAR), TL_OK);
    EXPECT_EQ(Image_initSubImage(src.get(), src.get(), 0, 0, 4, 4), TL_ERROR_PARAM);
    EXPECT_TRUE(Image_initSubImage(view.get(), src.get(), 3, 3, 0, 4) == TL_OK && view->plane[0] == nullptr &&
                view->width == 0);
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
    EXPECT_TRUE(dst.canariesIntact());
    // A borrowed destination of another format or size is refused, as is an empty source.
    vq_tl_test::Picture other(13, 9, IMAGE_FORMAT_YVU420_SEMIPLANAR),
        narrow(12, 9, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    Img empty;
    for (Image* d : {&other.image, &narrow.image}) EXPECT_EQ(Image_copy(d, src.get()), TL_ERROR_PARAM);
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
    for (const auto& [x, y, r] : {std::tuple{1, 0, rect}, {0, 1, rect}, {0, 0, oddTop}, {12, 4, rect}})
        EXPECT_EQ(Image_partialCopy(dst.get(), src.get(), x, y, r), TL_ERROR_PARAM) << x << "," << y;
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
    EXPECT_TRUE(IF_initImage(&a, &plain, IMAGE_FORMAT_YUV420_PLANAR) == TL_OK && a.plane[2] == v.data() &&
                a.pitch[1] == 32);
    EXPECT_TRUE(IF_initImage(&a, &plain, IMAGE_FORMAT_YVU420_SEMIPLANAR) == TL_OK && a.plane[1] == u.data() &&
                a.plane[2] == nullptr);
    // A packed format reads plane0 alone; the other fields may hold garbage.
    plain.plane1 = reinterpret_cast<void*>(uintptr_t{0x1});
    ASSERT_EQ(IF_initImage(&a, &plain, IMAGE_FORMAT_YUV422_YUYV), TL_OK);
    EXPECT_TRUE(a.plane[0] == y.data() && a.plane[1] == nullptr && a.external == 1);
    // Records with pitches keep them, and read back into a plain record.
    TwinLensImageEx ex{64, 48, y.data(), u.data(), nullptr, 128, 96, 0};
    EXPECT_TRUE(IF_initImageEx(&a, &ex, IMAGE_FORMAT_YUV420_SEMIPLANAR) == TL_OK && a.pitch[0] == 128 &&
                a.pitch[1] == 96);
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

// Y of every pixel, and U, V of every block from the mean of its pixels inside the image, on an odd size that
// cuts the right and bottom blocks. Y truncates (up to 1 below) with 15-bit coefficients (up to 0.005 off);
// the block mean is rounded before the chroma formula (0.5 more). Measured worst: Y 1.002, chroma 1.351.
TEST(ImageConv, RgbToYuvFollowsBt601OnRandomPixelsAndBlocks) {
    std::mt19937 rng(7);
    for (const YuvFormat& f : kYuvFormats) {
        for (uint32_t s : {2u, 15u, 1u}) {
            if (s == 1 && f.order == nullptr) continue;  // RGB565 goes to interleaved 4:2:2 only
            SCOPED_TRACE(testing::Message() << "source " << s << " to " << f.code);
            Picture src(37, 23, s), dst(37, 23, f.code);
            src.fillRandom(rng);
            ASSERT_EQ(convert(&dst.image, &src.image), TL_OK);
            double worstY = 0, worstC = 0, rgb[3], yuv[3];
            for (int32_t i = 0; i < 37 * 23; ++i) {
                const int32_t x = i % 37, y = i / 37;
                double mean[3] = {0, 0, 0}, n = 0;
                rgbAt(src, s, x, y, rgb);
                yuvOf(rgb, yuv);
                worstY = std::fmax(worstY, std::fabs(*lumaAt(dst, f, x, y) - yuv[0]));
                for (int32_t yy = y & ~((1 << f.vShift) - 1); yy < 23 && yy <= (y | f.vShift); ++yy) {
                    for (int32_t xx = x & ~1; xx < 37 && xx <= (x | 1); ++xx, ++n) {
                        rgbAt(src, s, xx, yy, rgb);
                        for (int c = 0; c < 3; ++c) mean[c] += rgb[c];
                    }
                }
                for (int c = 0; c < 3; ++c) mean[c] /= n;
                yuvOf(mean, yuv);
                for (int c = 1; c < 3; ++c)
                    worstC = std::fmax(worstC, std::fabs(*chromaAt(dst, f, x, y, " UV"[c]) - yuv[c]));
            }
            EXPECT_LT(worstY, 1.005);
            EXPECT_LT(worstC, 1.5);
            EXPECT_TRUE(dst.canariesIntact());
        }
    }
}

// Every pixel takes the chroma of block (x >> 1, y >> vShift); the chroma terms truncate (up to 1 below), and
// the 15-bit G coefficients are up to 0.00015 off, 0.04 over the chroma range: worst 1.026. Luma in 64..192
// and chroma in 96..160 need no clamping, so the way back loses only the truncations: worst 1.
TEST(ImageConv, YuvToRgbFollowsBt601AndRoundTrips) {
    std::mt19937 rng(11);
    const int32_t kW = 261, kH = 9;  // rows of more than 64 chroma blocks, odd
    for (const YuvFormat& f : kYuvFormats) {
        for (uint32_t d : {2u, 4u}) {
            SCOPED_TRACE(testing::Message() << f.code << " to " << d);
            Picture src(kW, kH, f.code), dst(kW, kH, d), a(kW, kH, f.code), back(kW, kH, f.code);
            src.fillRandom(rng);
            ASSERT_EQ(convert(&dst.image, &src.image), TL_OK);
            double worst = 0, rgb[3];
            for (int32_t i = 0; i < kW * kH; ++i) {
                const int32_t x = i % kW, y = i / kW;
                rgbOf(*lumaAt(src, f, x, y), *chromaAt(src, f, x, y, 'U'), *chromaAt(src, f, x, y, 'V'), rgb);
                const uint8_t* px = dst.row(0, y) + x * (d == 2 ? 3 : 4);
                const uint8_t got[3] = {px[d == 2 ? 0 : 2], px[1], px[d == 2 ? 2 : 0]};  // BGRA
                for (int c = 0; c < 3; ++c) worst = std::fmax(worst, std::fabs(got[c] - rgb[c]));
                EXPECT_TRUE(d == 2 || px[3] == 255);
                *lumaAt(a, f, x, y) = static_cast<uint8_t>(64 + rng() % 129);
                for (char c : {'U', 'V'}) *chromaAt(a, f, x, y, c) = static_cast<uint8_t>(96 + rng() % 65);
            }
            EXPECT_LT(worst, 1.04);
            EXPECT_TRUE(dst.canariesIntact());
            ASSERT_TRUE(convert(&dst.image, &a.image) == TL_OK && convert(&back.image, &dst.image) == TL_OK);
            int worstY = 0, worstC = 0;
            for (int32_t i = 0; i < kW * kH; ++i) {
                const int32_t x = i % kW, y = i / kW;
                worstY = std::max(worstY, std::abs(*lumaAt(a, f, x, y) - *lumaAt(back, f, x, y)));
                for (char c : {'U', 'V'})
                    worstC =
                        std::max(worstC, std::abs(*chromaAt(a, f, x, y, c) - *chromaAt(back, f, x, y, c)));
            }
            EXPECT_LE(worstY, 1);
            EXPECT_LE(worstC, 1);
        }
    }
}

// Pixels through every family, worked by hand. Red: Y = 9798 * 255 >> 15 = 76; U = 128 - 44 = 84 (-5538 *
// 255 >> 15 is -44); V = 128 + (255 << 14 >> 15) = 255. Back: R = 76 + 178, G = 76 - 75, B = 76 - 78 clamped.
TEST(ImageConv, KnownAnswers) {
    struct Case {
        uint32_t from, to;
        int32_t width;
        std::vector<uint8_t> in, out;
    } cases[] = {
        {2, 16, 2, {0, 0, 0, 0, 0, 0}, {0, 128, 0, 128}},  // black, white, red to YUYV and back
        {2, 16, 2, {255, 255, 255, 255, 255, 255}, {255, 128, 255, 128}},
        {2, 16, 2, {255, 0, 0, 255, 0, 0}, {76, 84, 76, 255}},
        {16, 2, 2, {0, 128, 0, 128}, {0, 0, 0, 0, 0, 0}},
        {16, 2, 2, {255, 128, 255, 128}, {255, 255, 255, 255, 255, 255}},
        {16, 2, 2, {76, 84, 76, 255}, {254, 1, 0, 254, 1, 0}},
        {16, 2, 2, {100, 128, 100, 130}, {102, 99, 100, 102, 99, 100}},  // R term 2.80 truncates
        {2, 16, 2, {0, 0, 0, 0, 0, 255}, {0, 192, 29, 117}},             // blue mean 127.5 rounds to 128
        {2, 1, 1, {0x12, 0x34, 0x56}, {0xAA, 0x11}},                     // truncates to 5, 6, 5 bits
        {1, 2, 1, {0xAA, 0x11}, {0x10, 0x34, 0x50}},                     // low bits stay 0
        {2, 15, 1, {255, 0, 0}, {255, 255, 0, 0}},                       // ARGB, alpha 255
        {9, 2, 1, {1, 2, 3, 4}, {1, 2, 3}},                              // RGBA
        {2, 65, 1, {1, 2, 3}, {1, 1, 2, 2, 3, 3}},                       // v * 257
        {65, 2, 1, {0x00, 0x12, 0xFF, 0x34, 0x00, 0x56}, {0x12, 0x34, 0x56}},
        {64, 60, 1, {0x34, 0x12}, {0x12}},
        {30, 2, 1, {255, 128, 128}, {255, 255, 255}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.from << " to " << c.to << ": " << int{c.in[0]});
        Picture src(c.width, 1, c.from), dst(c.width, 1, c.to);
        std::memcpy(src.row(0, 0), c.in.data(), c.in.size());
        ASSERT_EQ(convert(&dst.image, &src.image), TL_OK);
        EXPECT_EQ(std::vector<uint8_t>(dst.row(0, 0), dst.row(0, 0) + c.out.size()), c.out);
        EXPECT_TRUE(dst.canariesIntact());
    }
}

// 10-bit luma: (s + 2) >> 2 below 1022, else 255; chroma s >> 2 below 1024, else 255; packed: top 8 bits.
TEST(ImageConv, TenBitSamples) {
    Picture p10(6, 2, 37), p8(6, 2, 27);
    const uint16_t luma[6] = {0, 1, 2, 1021, 1022, 4000}, chroma[6] = {5, 1023, 1024, 0, 512, 65535};
    for (int r = 0; r < 2; ++r) std::memcpy(p10.row(0, r), luma, sizeof luma);
    std::memcpy(p10.row(1, 0), chroma, sizeof chroma);
    ASSERT_EQ(convert(&p8.image, &p10.image), TL_OK);
    EXPECT_EQ(std::vector<uint8_t>(p8.row(0, 1), p8.row(0, 1) + 6),
              (std::vector<uint8_t>{0, 0, 1, 255, 255, 255}));
    EXPECT_EQ(std::vector<uint8_t>(p8.row(1, 0), p8.row(1, 0) + 6),
              (std::vector<uint8_t>{1, 255, 255, 0, 128, 255}));
    std::mt19937 rng(5);
    Picture a(12, 6, 27), packed(12, 6, 39), wide(12, 6, 38), b(12, 6, 27), c(12, 6, 27);
    a.fillRandom(rng);
    ASSERT_EQ(convert(&packed.image, &a.image), TL_OK);
    ASSERT_EQ(convert(&wide.image, &packed.image), TL_OK);  // and swaps U, V
    ASSERT_TRUE(convert(&b.image, &packed.image) == TL_OK && convert(&c.image, &wide.image) == TL_OK);
    // Through 16-bit words the 8-bit luma rule rounds (4s + 2) >> 2 = s.
    EXPECT_TRUE(a.samePixels(b) && a.samePixels(c));
    uint32_t word;
    std::memcpy(&word, packed.row(0, 0), 4);
    const uint8_t* y = a.row(0, 0);
    EXPECT_EQ(word, (uint32_t{y[0]} << 2) | (uint32_t{y[1]} << 12) | (uint32_t{y[2]} << 22));
    EXPECT_EQ(reinterpret_cast<uint16_t*>(wide.row(1, 0))[0], a.row(1, 0)[1] << 2);  // V first
    EXPECT_TRUE(packed.canariesIntact() && wide.canariesIntact() && b.canariesIntact());
}

// A rectangle is widened to whole chroma blocks (left and top down to even, right and bottom up unless at the
// edge) and lands at the same place; the rest of the destination keeps its bytes.
TEST(ImageConv, RectanglesCoverWholeChromaBlocksInPlace) {
    const ImageRect rects[] = {{3, 3, 9, 8}, {1, 5, 15, 11}, {0, 0, 15, 11}, {4, 1, 5, 2}};
    const YuvFormat nv21{29, 1, nullptr};
    std::mt19937 rng(9);
    for (const ImageRect& r : rects) {
        SCOPED_TRACE(testing::Message() << r.left << "," << r.top << "," << r.right << "," << r.bottom);
        const int32_t x0 = r.left & ~1, y0 = r.top & ~1, x1 = r.right + (r.right & 1) - (r.right == 15),
                      y1 = r.bottom + (r.bottom & 1) - (r.bottom == 11);
        Picture rgb(15, 11, 2), whole(15, 11, 29), part(15, 11, 29), rgbWhole(15, 11, 2), rgbPart(15, 11, 2);
        rgb.fillRandom(rng);
        part.fillPlanes(7);
        rgbPart.fillPlanes(7);
        ASSERT_EQ(convert(&whole.image, &rgb.image), TL_OK);
        ASSERT_EQ(convert(&part.image, &rgb.image, &r), TL_OK);
        ASSERT_EQ(convert(&rgbWhole.image, &whole.image), TL_OK);
        ASSERT_EQ(convert(&rgbPart.image, &whole.image, &r), TL_OK);
        for (int32_t i = 0; i < 15 * 11; ++i) {
            const int32_t x = i % 15, y = i / 15;
            const bool in = x >= x0 && x < x1 && y >= y0 && y < y1;
            EXPECT_EQ(*lumaAt(part, nv21, x, y), in ? *lumaAt(whole, nv21, x, y) : 7) << x << "," << y;
            EXPECT_EQ(*chromaAt(part, nv21, x, y, 'V'), in ? *chromaAt(whole, nv21, x, y, 'V') : 8);
            for (int c = 0; c < 3; ++c)
                EXPECT_EQ(rgbPart.row(0, y)[3 * x + c], in ? rgbWhole.row(0, y)[3 * x + c] : 7);
        }
        EXPECT_TRUE(part.canariesIntact() && rgbPart.canariesIntact());
    }
}

// Whole-pixel sources fill another size by nearest neighbour: x = left + dx * width / dst width.
TEST(ImageConv, WholePixelSourcesScaleByNearestNeighbour) {
    Picture src(6, 4, 9), dst(2, 2, 2), yuv(6, 4, 27);  // RGBA
    for (int32_t i = 0; i < 24; ++i)
        src.row(0, i / 6)[4 * (i % 6)] = static_cast<uint8_t>(10 * (i / 6) + i % 6);
    const ImageRect r{1, 1, 6, 4};  // 5 by 3: columns 1, 3 and rows 1, 2
    ASSERT_EQ(convert(&dst.image, &src.image, &r), TL_OK);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(dst.row(0, i >> 1)[3 * (i & 1)], 11 + 10 * (i >> 1) + 2 * (i & 1));
    EXPECT_EQ(convert(&dst.image, &yuv.image), TL_ERROR_PARAM);  // no scaling from shared chroma
}

// Failures and no-ops leave the destination untouched: routes (a null rect: whole image), rectangles.
TEST(ImageConv, DispatchRulesAndBadRectanglesLeaveDestinationUntouched) {
    struct Case {
        TLResult (*plain)(Image*, const Image*);  // else convert() with the rectangle
        uint32_t to, from;
        ImageRect rect;
        TLResult expected;
    } cases[] = {
        {nullptr, 27, 26, {}, TL_ERROR_UNSUPPORTED},  // no route between the 4:2:0 forms
        {nullptr, 26, 27, {}, TL_ERROR_UNSUPPORTED},
        {nullptr, 27, 27, {}, TL_OK},  // same format: nothing to do
        {nullptr, 2, 2, {}, TL_OK},
        {nullptr, 1, 27, {}, TL_ERROR_UNSUPPORTED},
        {Image_conv_toRgb888, 27, 2, {}, TL_ERROR_PARAM},  // destination of another family
        {Image_conv_toRgb888, 3, 27, {}, TL_ERROR_PARAM},
        {Image_conv_toYuv420Planar, 27, 2, {}, TL_ERROR_PARAM},
        {Image_conv_toBayer8, 2, 2, {}, TL_ERROR_PARAM},
        {Image_conv_toUint8, 64, 60, {}, TL_ERROR_PARAM},
        {nullptr, 2, 27, {0, 0, 9, 6}, TL_ERROR_PARAM},  // rectangles outside the source, or empty
        {nullptr, 27, 2, {-1, 0, 4, 4}, TL_ERROR_PARAM},
        {nullptr, 2, 27, {0, 2, 8, 7}, TL_ERROR_PARAM},
        {nullptr, 27, 2, {3, 3, 3, 5}, TL_OK},
        {nullptr, 2, 27, {5, 4, 2, 6}, TL_OK},
    };
    std::mt19937 rng(1);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.from << " to " << c.to << " right " << c.rect.right);
        Picture src(8, 6, c.from), dst(8, 6, c.to), copy(8, 6, c.to);
        src.fillRandom(rng);
        dst.fillPlanes(3);
        copy.fillPlanes(3);
        const ImageRect* r = c.rect.right != 0 ? &c.rect : nullptr;
        EXPECT_EQ(c.plain ? c.plain(&dst.image, &src.image) : convert(&dst.image, &src.image, r), c.expected);
        EXPECT_TRUE(dst.samePixels(copy) && dst.canariesIntact());
    }
}

// A constant colour survives mosaic and bilinear demosaic exactly, edges too; each site holds its component.
TEST(ImageConv, BayerRoundTripOfAConstantColour) {
    struct Case {
        uint32_t code;
        int site[4];  // component of (0,0), (1,0), (0,1), (1,1)
    } cases[] = {{40, {0, 1, 1, 2}}, {41, {1, 0, 2, 1}}, {42, {1, 2, 0, 1}},
                 {43, {2, 1, 1, 0}}, {56, {0, 1, 1, 2}}, {59, {2, 1, 1, 0}}};
    const uint8_t colour[3] = {200, 90, 17};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        Picture rgb(7, 5, 2), bayer(7, 5, c.code), back(7, 5, 2);
        for (int32_t i = 0; i < 35; ++i) std::memcpy(rgb.row(0, i / 7) + 3 * (i % 7), colour, 3);
        ASSERT_EQ(convert(&bayer.image, &rgb.image), TL_OK);
        EXPECT_TRUE(convert(&back.image, &bayer.image) == TL_OK && back.samePixels(rgb));
        for (int i = 0; i < 4; ++i) {
            const uint8_t* p = bayer.row(0, i >> 1);
            const int v = c.code < 44 ? p[i & 1] : p[2 * (i & 1)] | (p[2 * (i & 1) + 1] << 8);
            EXPECT_EQ(v, colour[c.site[i]] * (c.code < 44 ? 1 : 257));
        }
    }
}
