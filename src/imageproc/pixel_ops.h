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
// Plane 0 only: the luma of planar and semi-planar YUV (24 to 29, 36, 37,
// 38), the whole picture of a one-plane format.
TLResult ImageProc_clearY(ImageProc* self, Image* image, int32_t value);
// The FLOAT picture (66) filled with `value`; other formats TL_ERROR_UNSUPPORTED.
TLResult ImageProc_ImageFloat_clearY(ImageProc* self, Image* image, float value);

}  // namespace vq_tl
