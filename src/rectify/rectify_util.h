// Small dense linear algebra on single-channel images used as matrices: an
// image of width w and height h is an h by w matrix. FLOAT (66) matrices use
// 32-bit float arithmetic throughout, INT32 (61) matrices integer arithmetic.
#pragma once

#include "image/image.h"

namespace vq_tl {

// out = a * b with an accumulator of the element type. out must already be
// b->width wide and a->height high, and b->height must equal a->width; other
// sizes, or formats that differ from a's, give TL_ERROR_GENERAL. A format other
// than FLOAT or INT32 returns TL_OK and leaves out as it was.
TLResult RectifyUtil_laDot(Image* out, const Image* a, const Image* b);

// out = a transposed, under the same size and format rules.
TLResult RectifyUtil_laTranspose(Image* out, const Image* a);

// Solves a x = b in place for a square FLOAT matrix a and a FLOAT matrix b of
// as many rows: partial pivoting, then back substitution; the solution is left
// in column 0 of b and a is destroyed. A non-square a, a b of another height or
// a pivot of exactly 0 gives TL_ERROR_GENERAL; other formats
// TL_ERROR_UNSUPPORTED.
TLResult RectifyUtil_laSolveGaussianElimination(Image* a, Image* b);

}  // namespace vq_tl
