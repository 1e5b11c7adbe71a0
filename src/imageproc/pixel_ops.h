// Point operations of ImageProc: elementwise arithmetic between images and
// with scalars, fills, narrowing, look-up, format conversion, splitting into
// planes and alpha blending. Rows are cut into stripes of the executor rule
// (imageproc/image_stripes.h) and run over the object's ParallelExecutor.
//
// Element types by format. Every plane of the picture is an array of one
// element type, processed as a flat run of elements per row, so that YUV
// pictures are done plane by plane and interleaved channels element by
// element:
//   8-bit unsigned   2, 3, 4 to 36 (RGB888, RGBA orders, all 8-bit YUV),
//                    40 to 43, 60, 62, 67, 70, 71
//   16-bit unsigned  37, 38, 44 to 47, 52 to 59, 64, 65, 69
//   16-bit signed    68
//   32-bit signed    61
//   float            66
// Other formats (bit-packed ones, LAB) give TL_ERROR_UNSUPPORTED.
//
// Arguments, for every operation: a null object or image, a picture without
// pixels, or images that differ in size or format give TL_ERROR_PARAM and
// leave dst untouched. dst may be the same image as any source; a source that
// overlaps dst at an offset gives undefined results.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "imageproc/image_proc.h"

namespace vq_tl {

// ---- Two operands: dst = a op b ----------------------------------------------
// Integer results saturate to the element's range (8-bit add of 200 and 100
// is 255), so that a mask or a sum never wraps to a dark value. Float
// results are IEEE single precision.
TLResult ImageProc_add(ImageProc* self, Image* dst, const Image* a, const Image* b);
TLResult ImageProc_sub(ImageProc* self, Image* dst, const Image* a, const Image* b);
TLResult ImageProc_mul(ImageProc* self, Image* dst, const Image* a, const Image* b);
// Integers truncate toward zero, and x / 0 is 0 so that a masked-out divisor
// reads as empty; floats follow IEEE (x / 0 is an infinity or NaN).
TLResult ImageProc_div(ImageProc* self, Image* dst, const Image* a, const Image* b);
TLResult ImageProc_abssub(ImageProc* self, Image* dst, const Image* a, const Image* b);
// For floats a NaN operand yields the other one, so that a NaN hole never
// spreads through a mask.
TLResult ImageProc_max(ImageProc* self, Image* dst, const Image* a, const Image* b);
TLResult ImageProc_min(ImageProc* self, Image* dst, const Image* a, const Image* b);
// dst = dst + a * b, dst read before it is written.
TLResult ImageProc_mla(ImageProc* self, Image* dst, const Image* a, const Image* b);
// dst = |src|; the most negative integer saturates to the largest.
TLResult ImageProc_abs(ImageProc* self, Image* dst, const Image* src);

// ---- Image and scalar: dst = src op n ------------------------------------------
// Float images take n as a float. Integer images take n rounded to the
// nearest integer, halves away from zero, and must have a finite n
// (TL_ERROR_PARAM otherwise); results saturate as above.
TLResult ImageProc_n_add(ImageProc* self, Image* dst, const Image* src, double n);
TLResult ImageProc_n_sub(ImageProc* self, Image* dst, const Image* src, double n);
// n - src.
TLResult ImageProc_n_subr(ImageProc* self, Image* dst, const Image* src, double n);
// Integer images keep n's fraction: src * n is rounded, halves away from
// zero, so that an 8-bit picture can be scaled by 0.5.
TLResult ImageProc_n_mul(ImageProc* self, Image* dst, const Image* src, double n);
TLResult ImageProc_n_max(ImageProc* self, Image* dst, const Image* src, double n);
TLResult ImageProc_n_min(ImageProc* self, Image* dst, const Image* src, double n);
// Shift left by n bits, or right by -n bits for negative n. Left shifts
// saturate; right shifts are arithmetic, rounding toward minus infinity.
// Float images are multiplied by 2^n exactly.
TLResult ImageProc_n_shift(ImageProc* self, Image* dst, const Image* src, int32_t n);

// ---- Fills ------------------------------------------------------------------
// Every component of every plane takes `value`, saturated to the component's
// range (YUV pictures get the same value in Y, U and V). Formats: those of
// the fill family in image/image_conv.h; others TL_ERROR_UNSUPPORTED.
TLResult ImageProc_clear(ImageProc* self, Image* image, int32_t value);
// Luma only: plane 0 of planar and semi-planar YUV (24 to 29, 36, 37, 38),
// or the whole picture of a format of one value per pixel (60, 61, 64, 66,
// 68). Interleaved and other formats give TL_ERROR_UNSUPPORTED.
TLResult ImageProc_clearY(ImageProc* self, Image* image, int32_t value);
// The FLOAT picture (66) filled with `value`; other formats TL_ERROR_UNSUPPORTED.
TLResult ImageProc_ImageFloat_clearY(ImageProc* self, Image* image, float value);

// ---- Narrowing and look-up ----------------------------------------------------
// dst UINT8 (60) from INT32 (61) or FLOAT (66) of the same size, saturated to
// 0..255. Floats round to nearest, halves away from zero; NaN gives 0.
// Another source format gives TL_ERROR_UNSUPPORTED, another dst format
// TL_ERROR_PARAM.
TLResult ImageProc_ImageInt32_toUint8(ImageProc* self, Image* dst, const Image* src);
TLResult ImageProc_ImageFloat_toUint8(ImageProc* self, Image* dst, const Image* src);

// Tables shorter than this are taken as no table: the call succeeds and
// changes nothing.
constexpr int32_t kTableMinLength = 33;
// dst = table[src], both UINT8 (else TL_ERROR_UNSUPPORTED). tableLength is at
// most 256 (else TL_ERROR_PARAM); values at or past the table's end take its
// last entry, as edges repeat elsewhere in the library.
TLResult ImageProc_table(ImageProc* self, Image* dst, const Image* src, const uint8_t* table,
                         int32_t tableLength);

// ---- Conversion ---------------------------------------------------------------
// Between pictures of one size, by the Image_conv dispatchers of
// image/image_conv.h and their formulas; a source of dst's own format is
// copied. Rows are striped where the dispatcher has a rectangle form. A
// source that the dispatcher has no route from gives TL_ERROR_UNSUPPORTED
// (so does YUV420_PLANAR to YUV420_SEMIPLANAR and back).
// Any destination that a dispatcher serves; others TL_ERROR_UNSUPPORTED.
TLResult ImageProc_cvt(ImageProc* self, Image* dst, const Image* src);
// dst YUV420_PLANAR or YUV420_SEMIPLANAR, YVU420_SEMIPLANAR, RGB888; another
// dst format gives TL_ERROR_PARAM.
TLResult ImageProc_cvtImageYuv420(ImageProc* self, Image* dst, const Image* src);
TLResult ImageProc_cvtImageYvu420(ImageProc* self, Image* dst, const Image* src);
TLResult ImageProc_cvtImageRgb888(ImageProc* self, Image* dst, const Image* src);

// ---- Splitting into planes --------------------------------------------------------
// r, g, b: UINT8 pictures of src's size (else TL_ERROR_PARAM). src RGB888 or
// BGR888, each component to its plane.
TLResult ImageProc_split2rgb888(ImageProc* self, Image* r, Image* g, Image* b, const Image* src);
// src YUV420_SEMIPLANAR or YVU420_SEMIPLANAR, converted to RGB by the
// library's formula a few rows at a time and split; TL_ERROR_MEMORY when a
// stripe's work rows cannot be allocated.
TLResult ImageProc_split2rgb888_yuv420semiplanar(ImageProc* self, Image* r, Image* g, Image* b,
                                                 const Image* src);

// ---- Blend --------------------------------------------------------------------------
// dst = (alpha * a + (128 - alpha) * b) >> 7 per sample, no rounding term:
// alpha is the share of a on a scale of 0..128 (not the 0..255 of the blur
// maps), and values above 128 count as 128. alpha is a UINT8 plane of dst's
// size. Kernels by the pair (dst format << 8) | a format: 514 and 771
// (RGB888, BGR888: one alpha for the three bytes of a pixel), and the pairs
// of one YUV layout, 24 to 36 but the 4:2:2 interleaved ones, and single
// planes UINT8 and UINT88; another pair gives TL_ERROR_PARAM. b has a's size
// and format. A chroma sample shared by a block of pixels takes the rounded
// mean of their alpha, the edge repeated. dst may be a.
TLResult ImageProc_blend(ImageProc* self, Image* dst, const Image* a, const Image* b, const Image* alpha);
// The same over any parallel layer: stripes of rows forked and joined there,
// or run on the calling thread for a null record.
TLResult ImageProc_blendImageWrapper(const ImageStripeExec* exec, Image* dst, const Image* a, const Image* b,
                                     const Image* alpha);

}  // namespace vq_tl
