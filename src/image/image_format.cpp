// The format table: names, descriptors, geometry and predicates.
#include <cstring>

#include "image/image.h"
#include "image/image_geometry.h"

namespace vq_tl {

namespace {

constexpr const char* kFormatNames[kImageFormatCount] = {
    "NONE",
    "RGB565",
    "RGB888",
    "BGR888",
    "BGRA8888",
    "BRGA8888",
    "GBRA8888",
    "GRBA8888",
    "RBGA8888",
    "RGBA8888",
    "ABGR8888",
    "ABRG8888",
    "AGBR8888",
    "AGRB8888",
    "ARBG8888",
    "ARGB8888",
    "YUV422_YUYV",
    "YUV422_YVYU",
    "YUV422_YYUV",
    "YUV422_YYVU",
    "YUV422_VYUY",
    "YUV422_UYVY",
    "YUV422_VUYY",
    "YUV422_UVYY",
    "YUV422_PLANAR",
    "YUV422_SEMIPLANAR",
    "YUV420_PLANAR",
    "YUV420_SEMIPLANAR",
    "YVU422_SEMIPLANAR",
    "YVU420_SEMIPLANAR",
    "YUV444_YUV",
    "YUV444_YVU",
    "YUV444_UYV",
    "YUV444_VYU",
    "YUV444_UVY",
    "YUV444_VUY",
    "YUV444_PLANAR",
    "YUV10B420_SEMIPLANAR",
    "YVU10B420_SEMIPLANAR",
    "YUV10B_PACKED_LE_420S",
    "BAYER8_RGGB",
    "BAYER8_GRBG",
    "BAYER8_GBRG",
    "BAYER8_BGGR",
    "BAYER10_UNPACKED_RGGB",
    "BAYER10_UNPACKED_GRBG",
    "BAYER10_UNPACKED_GBRG",
    "BAYER10_UNPACKED_BGGR",
    "BAYER10_M8L2PACKED_RGGB",
    "BAYER10_M8L2PACKED_GRBG",
    "BAYER10_M8L2PACKED_GBRG",
    "BAYER10_M8L2PACKED_BGGR",
    "BAYER12_UNPACKED_RGGB",
    "BAYER12_UNPACKED_GRBG",
    "BAYER12_UNPACKED_GBRG",
    "BAYER12_UNPACKED_BGGR",
    "BAYER16_RGGB",
    "BAYER16_GRBG",
    "BAYER16_GBRG",
    "BAYER16_BGGR",
    "UINT8",
    "INT32",
    "HSV",
    "LAB",
    "UINT16",
    "RGB161616",
    "FLOAT",
    "UINT88",
    "INT16",
    "UINT1616",
    "YUV9_44_UV",
    "YUV9_44_VU",
};

// Descriptor rows shared by runs of codes.
constexpr ImageFormatDesc kNone = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
constexpr ImageFormatDesc kPacked2 = {2, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
constexpr ImageFormatDesc kPacked3 = {3, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
constexpr ImageFormatDesc kPacked4 = {4, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
constexpr ImageFormatDesc kPacked1 = {1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
constexpr ImageFormatDesc kYuv422Interleaved = {4, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0};
constexpr ImageFormatDesc kYuv422Planar = {1, 1, 1, 0, 1, 2, 1, 0, 1, 2, 1, 0, 0, 2, 0, 0};
constexpr ImageFormatDesc kYuv422Semi = {1, 1, 1, 0, 2, 2, 1, 0, 0, 0, 0, 0, 0, 2, 0, 0};
constexpr ImageFormatDesc kYuv420Planar = {1, 1, 1, 0, 1, 2, 1, 1, 1, 2, 1, 1, 0, 2, 0, 1};
constexpr ImageFormatDesc kYuv420Semi = {1, 1, 1, 0, 2, 2, 1, 1, 0, 0, 0, 0, 0, 2, 0, 1};
constexpr ImageFormatDesc kYuv444Planar = {1, 1, 1, 0, 1, 1, 1, 0, 1, 1, 1, 0, 0, 1, 0, 0};
constexpr ImageFormatDesc kYuv10b420Semi = {2, 1, 1, 0, 4, 2, 1, 1, 0, 0, 0, 0, 0, 2, 0, 1};
constexpr ImageFormatDesc kYuv10bPacked = {4, 3, 1, 0, 8, 6, 1, 1, 0, 0, 0, 0, 0, 6, 0, 1};
constexpr ImageFormatDesc kBayer10Packed = {5, 4, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0};
constexpr ImageFormatDesc kLab = {12, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
constexpr ImageFormatDesc kRgb161616 = {6, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
constexpr ImageFormatDesc kYuv9 = {1, 1, 1, 0, 2, 4, 1, 2, 0, 0, 0, 0, 0, 4, 0, 2};

constexpr ImageFormatDesc kFormatDescs[kImageFormatCount] = {
    kNone,     // 0
    kPacked2,  // 1 RGB565
    kPacked3,
    kPacked3,  // 2, 3
    kPacked4,
    kPacked4,
    kPacked4,
    kPacked4,
    kPacked4,
    kPacked4,  // 4 to 9
    kPacked4,
    kPacked4,
    kPacked4,
    kPacked4,
    kPacked4,
    kPacked4,  // 10 to 15
    kYuv422Interleaved,
    kYuv422Interleaved,
    kYuv422Interleaved,
    kYuv422Interleaved,  // 16 to 19
    kYuv422Interleaved,
    kYuv422Interleaved,
    kYuv422Interleaved,
    kYuv422Interleaved,  // 20 to 23
    kYuv422Planar,       // 24
    kYuv422Semi,         // 25
    kYuv420Planar,       // 26
    kYuv420Semi,         // 27
    kYuv422Semi,         // 28
    kYuv420Semi,         // 29
    kPacked3,
    kPacked3,
    kPacked3,
    kPacked3,
    kPacked3,
    kPacked3,       // 30 to 35
    kYuv444Planar,  // 36
    kYuv10b420Semi,
    kYuv10b420Semi,  // 37, 38
    kYuv10bPacked,   // 39
    kPacked1,
    kPacked1,
    kPacked1,
    kPacked1,  // 40 to 43
    kPacked2,
    kPacked2,
    kPacked2,
    kPacked2,  // 44 to 47
    kBayer10Packed,
    kBayer10Packed,
    kBayer10Packed,
    kBayer10Packed,  // 48 to 51
    kPacked2,
    kPacked2,
    kPacked2,
    kPacked2,  // 52 to 55
    kPacked2,
    kPacked2,
    kPacked2,
    kPacked2,    // 56 to 59
    kPacked1,    // 60 UINT8
    kPacked4,    // 61 INT32
    kPacked3,    // 62 HSV
    kLab,        // 63 LAB
    kPacked2,    // 64 UINT16
    kRgb161616,  // 65
    kPacked4,    // 66 FLOAT
    kPacked2,    // 67 UINT88
    kPacked2,    // 68 INT16
    kPacked4,    // 69 UINT1616
    kYuv9,
    kYuv9,  // 70, 71
};

bool inRange(uint32_t format, uint32_t lo, uint32_t hi) { return format >= lo && format <= hi; }

}  // namespace

const ImageFormatDesc* Image_getFormatDesc(uint32_t format) {
    return format < kImageFormatCount ? &kFormatDescs[format] : nullptr;
}

int32_t Image_getPlaneCount(uint32_t format) {
    const ImageFormatDesc* d = Image_getFormatDesc(format);
    if (d == nullptr || d->p0Bytes == 0) return 0;
    return d->p2Bytes != 0 ? 3 : (d->p1Bytes != 0 ? 2 : 1);
}

uint32_t Image_getImageFormat(const char* name) {
    if (name == nullptr) return 0;
    for (uint32_t code = 0; code < kImageFormatCount; ++code) {
        if (std::strcmp(name, kFormatNames[code]) == 0) return code;
    }
    return 0;
}

const char* Image_getImageFormatStr(uint32_t format) {
    return format < kImageFormatCount ? kFormatNames[format] : "(unknown)";
}

bool ImageGeometry_compute(int32_t width, int32_t height, uint32_t format, ImageGeometry* out) {
    const ImageFormatDesc* d = Image_getFormatDesc(format);
    if (d == nullptr || width < 0 || height < 0) return false;
    const int64_t unit = d->hUnit > 0 ? d->hUnit : 1;
    const int64_t aligned = (width + unit - 1) / unit * unit;
    const int64_t blocks = (static_cast<int64_t>(height) + (int64_t{1} << d->vShift) - 1) >> d->vShift;
    const uint8_t bytes[3] = {d->p0Bytes, d->p1Bytes, d->p2Bytes};
    const uint8_t pixels[3] = {d->p0Pixels, d->p1Pixels, d->p2Pixels};
    const uint8_t rowsNum[3] = {d->p0RowsNum, d->p1RowsNum, d->p2RowsNum};
    const uint8_t rowsShift[3] = {d->p0RowsShift, d->p1RowsShift, d->p2RowsShift};
    int64_t total = 0;
    for (int k = 0; k < 3; ++k) {
        int64_t divisor = pixels[k];
        if (divisor == 0) divisor = 1;  // absent planes and code 0 have 0 bytes anyway
        out->pitch[k] = aligned * bytes[k] / divisor;
        out->rows[k] = (blocks * rowsNum[k]) << (d->vShift - rowsShift[k]);
        out->bytes[k] = out->pitch[k] * out->rows[k];
        total += out->bytes[k];
    }
    out->total = total;
    return true;
}

int32_t Image_getSize(int32_t width, int32_t height, uint32_t format, int32_t selector) {
    ImageGeometry g;
    if (selector < 0 || selector > 13 || !ImageGeometry_compute(width, height, format, &g)) return 0;
    int64_t v = 0;
    switch (selector) {
        case IMAGE_SIZE_TOTAL: v = g.total; break;
        case IMAGE_SIZE_ROWS0:
        case IMAGE_SIZE_ROWS0_ALT: v = g.rows[0]; break;
        case IMAGE_SIZE_BYTES0: v = g.bytes[0]; break;
        case IMAGE_SIZE_PITCH0: v = g.pitch[0]; break;
        case IMAGE_SIZE_BYTES1:
        case IMAGE_SIZE_BYTES1_ALT: v = g.bytes[1]; break;
        case IMAGE_SIZE_ROWS1:
        case IMAGE_SIZE_ROWS1_ALT: v = g.rows[1]; break;
        case IMAGE_SIZE_PITCH1:
        case IMAGE_SIZE_PITCH1_ALT: v = g.pitch[1]; break;
        case IMAGE_SIZE_BYTES2: v = g.bytes[2]; break;
        case IMAGE_SIZE_ROWS2: v = g.rows[2]; break;
        case IMAGE_SIZE_PITCH2: v = g.pitch[2]; break;
        default: break;
    }
    // Sizes beyond 31 bits cannot be allocated on the 32-bit target.
    return v > INT32_MAX ? 0 : static_cast<int32_t>(v);
}

bool Image_isRgb(uint32_t f) { return inRange(f, 1, 3); }
bool Image_isUint8888(uint32_t f) { return inRange(f, 4, 15); }
bool Image_isYuv(uint32_t f) { return inRange(f, 16, 36); }
bool Image_isYuv422Interleaved(uint32_t f) { return inRange(f, 16, 23); }
bool Image_isYuv422(uint32_t f) { return inRange(f, 16, 25); }
bool Image_isYvu422(uint32_t f) { return f == 28; }
bool Image_isYuv420(uint32_t f) { return f == 26 || f == 27; }
bool Image_isYvu420(uint32_t f) { return f == 29; }
bool Image_isYuv444Interleaved(uint32_t f) { return inRange(f, 30, 35); }
bool Image_isYuv444(uint32_t f) { return inRange(f, 30, 36); }
bool Image_isYuvPlanar(uint32_t f) { return f == 24 || f == 26 || f == 36; }
bool Image_isYuvSemiplanar(uint32_t f) { return f == 25 || f == 27; }
bool Image_isYvuSemiplanar(uint32_t f) { return f == 28 || f == 29; }
bool Image_isYuv10b420Semiplanar(uint32_t f) { return f == 37 || f == 38; }
bool Image_isYuv10bPacked420Semiplanar(uint32_t f) { return f == 39; }
bool Image_isBayer8(uint32_t f) { return inRange(f, 40, 43); }
bool Image_isBayer10Unpacked(uint32_t f) { return inRange(f, 44, 47); }
bool Image_isBayer10M8L2Packed(uint32_t f) { return inRange(f, 48, 51); }
bool Image_isBayer12Unpacked(uint32_t f) { return inRange(f, 52, 55); }
bool Image_isBayer16(uint32_t f) { return inRange(f, 56, 59); }
bool Image_isBayerUnpacked(uint32_t f) { return inRange(f, 44, 47) || inRange(f, 52, 59); }

}  // namespace vq_tl
