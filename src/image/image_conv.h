// Pixel format conversion between the formats of image.h, luminance
// reduction for motion detection, and the fill family.
//
// Each Image_conv_toX is a dispatcher on the source format into a worker
// ImageSrc_toX. A dispatcher answers, in this order:
//   TL_ERROR_PARAM        null images, or a destination outside its family;
//   TL_OK                 a source of the destination's own format: nothing done;
//   TL_ERROR_UNSUPPORTED  a source it has no route from;
// then the worker's answer.
//
// Geometry shared by every worker:
// - `rect` (left, top, right, bottom, right and bottom exclusive) is a source
//   rectangle; null means the whole source. An empty rectangle is TL_OK with
//   nothing written; one reaching outside the source is TL_ERROR_PARAM.
// - A destination of the source's size receives the rectangle at the same
//   place, so that a caller can cut a frame into stripes and convert each one
//   into the same pair of images.
// - Workers whose source and destination both carry whole pixels (RGB565,
//   RGB888, the RGBA orders, YUV 4:4:4 interleaved, RGB161616) fill a
//   destination of any other size from the rectangle by nearest neighbour:
//   source x = left + dst x * rect width / dst width, integer division, y
//   likewise. All other workers require a destination of the source's size.
// - Where either side shares chroma between two columns (4:2:2, 4:2:0), the
//   rectangle is widened to whole chroma blocks: left and top are rounded
//   down to even, right and bottom up to even unless they equal the width or
//   height (4:2:0 rows; columns for every 2:1 horizontal subsampling).
// Failures leave the destination untouched: every check runs before the
// first write. Nothing here allocates.
#pragma once

#include <cstdint>

#include "image/image.h"

namespace vq_tl {

// Left, top, right, bottom; right and bottom exclusive.
struct ImageRect {
    int32_t left;
    int32_t top;
    int32_t right;
    int32_t bottom;
};

using ImageConvWorker = TLResult (*)(Image* dst, const Image* src, const ImageRect* rect);

// ---- Byte index of each component, read from the format's name ----------
// TL_ERROR_PARAM for a null index array, TL_ERROR_UNSUPPORTED for a code
// outside the helper's family.

// index[0..2]: R, G, B within the 3 bytes of a pixel (codes 2, 3).
TLResult ImageRgb888_getRgbIndex(uint32_t format, int32_t index[3]);
// index[0..3]: R, G, B, A within the 4 bytes of a pixel (codes 4 to 15).
TLResult ImageUint8888_getUint8888Index(uint32_t format, int32_t index[4]);
// index[0..3]: Y of the left pixel, Y of the right pixel, U, V within the 4
// bytes of a pixel pair (codes 16 to 23).
TLResult ImageYuv422Interleaved_getYuvIndex(uint32_t format, int32_t index[4]);
// index[0..2]: Y, U, V within the 3 bytes of a pixel (codes 30 to 35).
TLResult ImageYuv444Interleaved_getYuvIndex(uint32_t format, int32_t index[3]);

// ---- Dispatchers ----------------------------------------------------------

// Destination 2. Sources: 4 to 15, 1, 16 to 23, 24 to 29, 30, 40 to 43, 56 to 59, 65.
TLResult Image_conv_toRgb888(Image* dst, const Image* src);
TLResult Image_conv_toRgb888_withRect(Image* dst, const Image* src, const ImageRect* rect);
// Destination 4 to 15 (alpha 255). Sources: 1, 2, 16 to 23, 24 to 29.
TLResult Image_conv_toUint8888(Image* dst, const Image* src);
TLResult Image_conv_toUint8888_withRect(Image* dst, const Image* src, const ImageRect* rect);
// Destination 1. Sources: 2, 4 to 15.
TLResult Image_conv_toRgb565(Image* dst, const Image* src);
TLResult Image_conv_toRgb565_withRect(Image* dst, const Image* src, const ImageRect* rect);
// Destination 16 to 23. Sources: 1, 2, 4 to 15, 27.
TLResult Image_conv_toYuv422Interleaved(Image* dst, const Image* src);
TLResult Image_conv_toYuv422Interleaved_withRect(Image* dst, const Image* src, const ImageRect* rect);
// Destination 24. Sources: 2, 4 to 15.
TLResult Image_conv_toYuv422Planar(Image* dst, const Image* src);
TLResult Image_conv_toYuv422Planar_withRect(Image* dst, const Image* src, const ImageRect* rect);
// Destination 25. Sources: 2, 4 to 15.
TLResult Image_conv_toYuv422Semiplanar(Image* dst, const Image* src);
TLResult Image_conv_toYuv422Semiplanar_withRect(Image* dst, const Image* src, const ImageRect* rect);
// Destination 26. Sources: 2, 4 to 15.
TLResult Image_conv_toYuv420Planar(Image* dst, const Image* src);
TLResult Image_conv_toYuv420Planar_withRect(Image* dst, const Image* src, const ImageRect* rect);
// Destination 27. Sources: 2, 4 to 15, 16, 37, 38, 39 (the last three whole
// images only).
TLResult Image_conv_toYuv420Semiplanar(Image* dst, const Image* src);
TLResult Image_conv_toYuv420Semiplanar_withRect(Image* dst, const Image* src, const ImageRect* rect);
// Destination 28. Sources: 2, 4 to 15.
TLResult Image_conv_toYvu422Semiplanar(Image* dst, const Image* src);
TLResult Image_conv_toYvu422Semiplanar_withRect(Image* dst, const Image* src, const ImageRect* rect);
// Destination 29. Sources: 2, 4 to 15.
TLResult Image_conv_toYvu420Semiplanar(Image* dst, const Image* src);
TLResult Image_conv_toYvu420Semiplanar_withRect(Image* dst, const Image* src, const ImageRect* rect);
// Destination 40 to 43. Source: 2.
TLResult Image_conv_toBayer8(Image* dst, const Image* src);
// Destination 44 to 47, 52 to 59 (8-bit values widened by repeating their
// top bits). Source: 2.
TLResult Image_conv_toBayer16(Image* dst, const Image* src);
// Destinations 39, 37, 38. Sources: 27 and the two other 10-bit forms.
TLResult Image_conv_toYuv10bPacked420Semiplanar(Image* dst, const Image* src);
TLResult Image_conv_toYuv10b420Semiplanar(Image* dst, const Image* src);
TLResult Image_conv_toYvu10b420Semiplanar(Image* dst, const Image* src);
// Destinations 60, 64, 65. Sources 64, 60, 2 in that order.
TLResult Image_conv_toUint8(Image* dst, const Image* src);
TLResult Image_conv_toUint16(Image* dst, const Image* src);
TLResult Image_conv_toRgb161616(Image* dst, const Image* src);

// ---- Workers --------------------------------------------------------------
// Each checks its own source and destination codes (TL_ERROR_UNSUPPORTED)
// and the geometry above (TL_ERROR_PARAM). Workers without a rectangle
// argument convert whole images of equal size. "Rgb888" workers read and
// write both byte orders, 2 and 3, and "Uint8888" workers all of 4 to 15,
// each order found by the index helpers above; the dispatchers offer the
// routes listed with them.

// RGB to YUV (BT.601 full range, 15 fractional bits; chroma of a 4:2:2 or
// 4:2:0 block from the rounded mean of its pixels' R, G, B).
TLResult ImageRgb565_toYuv422Interleaved(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageRgb888_toYuv422Interleaved(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageUint8888_toYuv422Interleaved(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageRgb888_toYuv422Planar(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageUint8888_toYuv422Planar(Image* dst, const Image* src, const ImageRect* rect);
// Destination 25 or 28.
TLResult ImageRgb888_toYuv422Semiplanar(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageUint8888_toYuv422Semiplanar(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageRgb888_toYuv420Planar(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageUint8888_toYuv420Planar(Image* dst, const Image* src, const ImageRect* rect);
// Destination 27 or 29.
TLResult ImageRgb888_toYuv420Semiplanar(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageUint8888_toYuv420Semiplanar(Image* dst, const Image* src, const ImageRect* rect);

// YUV to RGB: every pixel of a chroma block takes the block's chroma; alpha 255.
TLResult ImageYuv422Interleaved_toRgb888(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageYuv422Interleaved_toUint8888(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageYuv422Planar_toRgb888(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageYuv422Planar_toUint8888(Image* dst, const Image* src, const ImageRect* rect);
// Source 25 or 28.
TLResult ImageYuv422Semiplanar_toRgb888(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageYuv422Semiplanar_toUint8888(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageYuv420Planar_toRgb888(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageYuv420Planar_toUint8888(Image* dst, const Image* src, const ImageRect* rect);
// Source 27 or 29.
TLResult ImageYuv420Semiplanar_toRgb888(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageYuv420Semiplanar_toUint8888(Image* dst, const Image* src, const ImageRect* rect);
// Source 30 to 35; scales.
TLResult ImageYuv444Interleaved_toRgb888(Image* dst, const Image* src, const ImageRect* rect);

// YUV to YUV. 4:2:0 to 4:2:2 repeats each chroma row; 4:2:2 to 4:2:0 takes
// the rounded mean of the two rows' chroma.
TLResult ImageYuv420Semiplanar_toYuv422Interleaved(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageYuv422Interleaved_toYuv420Semiplanar(Image* dst, const Image* src, const ImageRect* rect);

// RGB to RGB; these scale. RGB565 widens with zero low bits and narrows by
// truncation; RGB161616 narrows to the top 8 bits and widens by v * 257.
TLResult ImageRgb565_toRgb888(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageUint8888_toRgb888(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageRgb161616_toRgb888(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageRgb565_toUint8888(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageRgb888_toUint8888(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageRgb888_toRgb565(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageUint8888_toRgb565(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageRgb888_toRgb161616(Image* dst, const Image* src);
// One channel: 16 to 8 bits keeps the top byte, 8 to 16 bits is v * 257.
TLResult ImageUint16_toUint8(Image* dst, const Image* src);
TLResult ImageUint8_toUint16(Image* dst, const Image* src);

// 10-bit 4:2:0. To 8 bits from 37 and 38: luma (s + 2) >> 2 below 1022,
// else 255; chroma s >> 2 below 1024, else 255. From 39: the top 8 of the 10
// bits. To 10 bits from 8: s << 2, which the way back undoes exactly.
// Between 10-bit forms samples are kept, limited to 1023.
TLResult ImageYuv10b420Semiplanar_toYuv420Semiplanar(Image* dst, const Image* src);
TLResult ImageYuv10bPacked420Semiplanar_toYuv420Semiplanar(Image* dst, const Image* src);
// Destination 37 or 38, source 27, 37, 38 or 39 (the other order or packing).
TLResult ImageYuv420Semiplanar_toYuv10b420Semiplanar(Image* dst, const Image* src);
TLResult ImageYuv10b420Semiplanar_toYuv10b420Semiplanar(Image* dst, const Image* src);
TLResult ImageYuv10bPacked420Semiplanar_toYuv10b420Semiplanar(Image* dst, const Image* src);
// Destination 39.
TLResult ImageYuv420Semiplanar_toYuv10bPacked420Semiplanar(Image* dst, const Image* src);
TLResult ImageYuv10b420Semiplanar_toYuv10bPacked420Semiplanar(Image* dst, const Image* src);

// Bayer mosaics. Demosaicing is bilinear: a site keeps its own colour and
// takes each other colour as the rounded mean of the 3 by 3 neighbours of
// that colour inside the image.
struct ImageBayer16ConvParam {
    int32_t blackLevel;  // samples at or below map to 0
    int32_t whiteLevel;  // samples at or above map to 255
    int32_t gain;        // 255 / (white - black) in Q16
};
// TL_ERROR_PARAM unless 0 <= blackLevel < whiteLevel <= 65535.
TLResult ImageBayer16ConvParam_init(ImageBayer16ConvParam* param, int32_t blackLevel, int32_t whiteLevel);
TLResult ImageBayer8_toRgb888(Image* dst, const Image* src, const ImageRect* rect);
// The full 16-bit range: black 0, white 65535.
TLResult ImageBayer16_toRgb888(Image* dst, const Image* src, const ImageRect* rect);
TLResult ImageBayer16_toRgb888WithParam(Image* dst, const Image* src, const ImageRect* rect,
                                        const ImageBayer16ConvParam* param);
// Each site takes the component its colour asks for.
TLResult ImageRgb888_toBayer8(Image* dst, const Image* src);
TLResult ImageRgb888_toBayer16(Image* dst, const Image* src);
TLResult ImageYuv444Interleaved_toBayer8(Image* dst, const Image* src);

// ---- Luminance at reduced size --------------------------------------------
// dst: UINT8 of ceil(rect width / factor[0]) by ceil(rect height / factor[1]);
// each pixel is the rounded mean of the 8-bit luminance of the factor[0] by
// factor[1] source block it covers, blocks cut by the rectangle's right and
// bottom edges averaged over the pixels they hold. factor[0] and factor[1]
// are at least 1. Luminance: the Y formula for RGB sources and demosaiced
// Bayer sites, the Y samples of YUV, the top 8 bits of wider samples (the
// 8-bit rule above for 37 and 38). A null factor, a bad rectangle or a
// destination of another size or format is TL_ERROR_PARAM.
TLResult Image_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect, const int32_t* factor);
TLResult ImageRgb565_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                    const int32_t* factor);
TLResult ImageRgb888_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                    const int32_t* factor);
TLResult ImageUint8888_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                      const int32_t* factor);
TLResult ImageYuv422Interleaved_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                               const int32_t* factor);
// Codes 24 to 29 and 36.
TLResult ImageYuvPlanarSemiplanar_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                                 const int32_t* factor);
TLResult ImageYuv444Interleaved_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                               const int32_t* factor);
TLResult ImageYuv10b420Semiplanar_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                                 const int32_t* factor);
TLResult ImageBayer8_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                    const int32_t* factor);
TLResult ImageBayer10Unpacked_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                             const int32_t* factor);
TLResult ImageBayer10M8L2Packed_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                               const int32_t* factor);
TLResult ImageBayer12Unpacked_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                             const int32_t* factor);
TLResult ImageBayer16_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                     const int32_t* factor);
TLResult ImageUint8_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                   const int32_t* factor);
TLResult ImageUint16_toYUint8Shrink(Image* dst, const Image* src, const ImageRect* rect,
                                    const int32_t* factor);

// ---- Fill -----------------------------------------------------------------
// Every pixel of `self` takes the value, in the format's own units, row by
// row within the width; padding is never touched. Chroma values go to every
// chroma sample. Components are named, and placed by the format's order.
// TL_ERROR_PARAM for a null image or a missing plane, TL_ERROR_UNSUPPORTED
// for a format outside the function's family; an empty image is TL_OK.
TLResult ImageUint8_clear(Image* self, uint8_t value);
TLResult ImageUint16_clear(Image* self, uint16_t value);
TLResult ImageUint88_clear(Image* self, uint8_t first, uint8_t second);
TLResult ImageUint1616_clear(Image* self, uint16_t first, uint16_t second);
TLResult ImageInt16_clear(Image* self, int16_t value);
TLResult ImageInt32_clear(Image* self, int32_t value);
TLResult ImageFloat_clear(Image* self, float value);
TLResult ImageRgb565_clear(Image* self, uint16_t value);                   // the packed word
TLResult ImageRgb888_clear(Image* self, uint8_t r, uint8_t g, uint8_t b);  // codes 2, 3
TLResult ImageRgb161616_clear(Image* self, uint16_t r, uint16_t g, uint16_t b);
TLResult ImageUint8888_clear(Image* self, uint8_t r, uint8_t g, uint8_t b, uint8_t a);
TLResult ImageYuv420Planar_clear(Image* self, uint8_t y, uint8_t u, uint8_t v);
TLResult ImageYuv420Semiplanar_clear(Image* self, uint8_t y, uint8_t u, uint8_t v);  // codes 27, 29
TLResult ImageYuv422Planar_clear(Image* self, uint8_t y, uint8_t u, uint8_t v);
TLResult ImageYuv422Semiplanar_clear(Image* self, uint8_t y, uint8_t u, uint8_t v);  // codes 25, 28
TLResult ImageYuv444Planar_clear(Image* self, uint8_t y, uint8_t u, uint8_t v);
TLResult ImageYuv10b420Semiplanar_clear(Image* self, uint16_t y, uint16_t u, uint16_t v);  // 37, 38
TLResult ImageBayerUnpacked_clear(Image* self, uint16_t value);
TLResult ImageYuv422Interleaved_clear_sub(Image* self, uint8_t y, uint8_t u, uint8_t v);
TLResult ImageYuv444Interleaved_clear_sub(Image* self, uint8_t y, uint8_t u, uint8_t v);

}  // namespace vq_tl
