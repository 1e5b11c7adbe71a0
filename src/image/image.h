// The one picture record of the library and its table of 72 formats.
#pragma once

#include <cstdint>

#include "runtime/env.h"

namespace vq_tl {

enum ImageFormatCode : uint32_t {
    IMAGE_FORMAT_NONE = 0,
    IMAGE_FORMAT_RGB565 = 1,
    IMAGE_FORMAT_RGB888 = 2,
    IMAGE_FORMAT_BGR888 = 3,
    IMAGE_FORMAT_BGRA8888 = 4,
    IMAGE_FORMAT_ARGB8888 = 15,
    IMAGE_FORMAT_YUV422_YUYV = 16,
    IMAGE_FORMAT_YUV422_UVYY = 23,
    IMAGE_FORMAT_YUV422_PLANAR = 24,
    IMAGE_FORMAT_YUV422_SEMIPLANAR = 25,
    IMAGE_FORMAT_YUV420_PLANAR = 26,
    IMAGE_FORMAT_YUV420_SEMIPLANAR = 27,
    IMAGE_FORMAT_YVU422_SEMIPLANAR = 28,
    IMAGE_FORMAT_YVU420_SEMIPLANAR = 29,
    IMAGE_FORMAT_YUV444_YUV = 30,
    IMAGE_FORMAT_YUV444_PLANAR = 36,
    IMAGE_FORMAT_YUV10B420_SEMIPLANAR = 37,
    IMAGE_FORMAT_YVU10B420_SEMIPLANAR = 38,
    IMAGE_FORMAT_YUV10B_PACKED_LE_420S = 39,
    IMAGE_FORMAT_BAYER8_RGGB = 40,
    IMAGE_FORMAT_BAYER10_UNPACKED_RGGB = 44,
    IMAGE_FORMAT_BAYER10_M8L2PACKED_RGGB = 48,
    IMAGE_FORMAT_BAYER12_UNPACKED_RGGB = 52,
    IMAGE_FORMAT_BAYER16_RGGB = 56,
    IMAGE_FORMAT_UINT8 = 60,
    IMAGE_FORMAT_INT32 = 61,
    IMAGE_FORMAT_HSV = 62,
    IMAGE_FORMAT_LAB = 63,
    IMAGE_FORMAT_UINT16 = 64,
    IMAGE_FORMAT_RGB161616 = 65,
    IMAGE_FORMAT_FLOAT = 66,
    IMAGE_FORMAT_UINT88 = 67,
    IMAGE_FORMAT_INT16 = 68,
    IMAGE_FORMAT_UINT1616 = 69,
    IMAGE_FORMAT_YUV9_44_UV = 70,
    IMAGE_FORMAT_YUV9_44_VU = 71,
};

constexpr uint32_t kImageFormatCount = 72;

// 16 bytes per code. Plane k: pkBytes bytes per pkPixels pixels of a row,
// (blocks * pkRowsNum) << (vShift - pkRowsShift) rows; pkBytes 0: no plane.
struct ImageFormatDesc {
    uint8_t p0Bytes, p0Pixels, p0RowsNum, p0RowsShift;
    uint8_t p1Bytes, p1Pixels, p1RowsNum, p1RowsShift;
    uint8_t p2Bytes, p2Pixels, p2RowsNum, p2RowsShift;
    uint8_t reserved0;
    uint8_t hUnit;  // width is rounded up to a multiple of this
    uint8_t reserved1;
    uint8_t vShift;  // height is rounded up to a multiple of 1 << vShift
};
static_assert(sizeof(ImageFormatDesc) == 16, "format descriptor is 16 bytes");

struct Image {
    int32_t width;
    int32_t height;
    uint32_t format;
    int32_t external;  // 1: planes borrowed, 0: plane[0] is an owned block
    uint8_t* plane[3];
    int32_t pitch[3];  // bytes from one row to the next
    Env* env;
};

// Argument of Image_initWithPitch: addresses, then pitches, as many of each as
// the format has planes.
struct ImagePlanes1 {
    void* plane0;
    int32_t pitch0;
};
struct ImagePlanes2 {
    void* plane0;
    void* plane1;
    int32_t pitch0, pitch1;
};
struct ImagePlanes3 {
    void* plane0;
    void* plane1;
    void* plane2;
    int32_t pitch0, pitch1, pitch2;
};
union ImagePlanes {
    ImagePlanes1 one;
    ImagePlanes2 two;
    ImagePlanes3 three;
};

enum ImageSizeSelector : int32_t {
    IMAGE_SIZE_TOTAL = 0,
    IMAGE_SIZE_ROWS0 = 1,
    IMAGE_SIZE_BYTES0 = 2,
    IMAGE_SIZE_ROWS0_ALT = 3,
    IMAGE_SIZE_PITCH0 = 4,
    IMAGE_SIZE_BYTES1 = 5,
    IMAGE_SIZE_ROWS1 = 6,
    IMAGE_SIZE_PITCH1 = 7,
    IMAGE_SIZE_BYTES2 = 8,
    IMAGE_SIZE_ROWS2 = 9,
    IMAGE_SIZE_PITCH2 = 10,
    IMAGE_SIZE_BYTES1_ALT = 11,
    IMAGE_SIZE_ROWS1_ALT = 12,
    IMAGE_SIZE_PITCH1_ALT = 13,
};

const ImageFormatDesc* Image_getFormatDesc(uint32_t format);  // null above 71
int32_t Image_getPlaneCount(uint32_t format);                 // 0 to 3

uint32_t Image_getImageFormat(const char* name);  // 0 for null or unknown
const char* Image_getImageFormatStr(uint32_t format);

// Bytes, rows or pitch by selector; 0 for negative sizes, codes above 71,
// selectors above 13 and sizes that do not fit in 31 bits.
int32_t Image_getSize(int32_t width, int32_t height, uint32_t format, int32_t selector);

TLResult construct_Image(Image* self, Env* env);
TLResult destruct_Image(Image* self);
TLResult Image_recycle(Image* self);
TLResult Image_init(Image* self, int32_t width, int32_t height, void* planes, uint32_t format);
TLResult Image_initWithPitch(Image* self, int32_t width, int32_t height, const ImagePlanes* planes,
                             uint32_t format);
TLResult Image_initSubImage(Image* self, const Image* source, int32_t x, int32_t y, int32_t width,
                            int32_t height);
TLResult Image_initSubImageY(Image* self, const Image* source, int32_t x, int32_t y, int32_t width,
                             int32_t height);
TLResult Image_initSubImageU(Image* self, const Image* source, int32_t x, int32_t y, int32_t width,
                             int32_t height);
TLResult Image_initSubImageV(Image* self, const Image* source, int32_t x, int32_t y, int32_t width,
                             int32_t height);
TLResult Image_initSubImageUV(Image* self, const Image* source, int32_t x, int32_t y, int32_t width,
                              int32_t height);
TLResult Image_copy(Image* dst, const Image* src);
// rect: left, top, right, bottom in src, right and bottom exclusive.
TLResult Image_partialCopy(Image* dst, const Image* src, int32_t x, int32_t y, const int32_t rect[4]);

bool Image_isRgb(uint32_t format);
bool Image_isUint8888(uint32_t format);
bool Image_isYuv(uint32_t format);
bool Image_isYuv422Interleaved(uint32_t format);
bool Image_isYuv422(uint32_t format);
bool Image_isYvu422(uint32_t format);
bool Image_isYuv420(uint32_t format);
bool Image_isYvu420(uint32_t format);
bool Image_isYuv444Interleaved(uint32_t format);
bool Image_isYuv444(uint32_t format);
bool Image_isYuvPlanar(uint32_t format);
bool Image_isYuvSemiplanar(uint32_t format);
bool Image_isYvuSemiplanar(uint32_t format);
bool Image_isYuv10b420Semiplanar(uint32_t format);
bool Image_isYuv10bPacked420Semiplanar(uint32_t format);
bool Image_isBayer8(uint32_t format);
bool Image_isBayer10Unpacked(uint32_t format);
bool Image_isBayer10M8L2Packed(uint32_t format);
bool Image_isBayer12Unpacked(uint32_t format);
bool Image_isBayer16(uint32_t format);
bool Image_isBayerUnpacked(uint32_t format);

}  // namespace vq_tl
