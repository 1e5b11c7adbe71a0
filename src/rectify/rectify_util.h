// Small dense linear algebra on single-channel images used as matrices: an
// image of width w and height h is an h by w matrix. FLOAT (66) matrices use
// 32-bit float arithmetic throughout, INT32 (61) matrices integer arithmetic.
// And the 3 by 3 helpers of rectification.
#pragma once

#include "alignment/mvec.h"
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

// Element sums and products over the nine reals; out may be an input.
TLResult RectifyUtil_addMvec8Real(Mvec8Real* out, const Mvec8Real* a, const Mvec8Real* b);
TLResult RectifyUtil_scaleMvec8Real(Mvec8Real* out, double factor, const Mvec8Real* in);
// The inverse of a rotation: its transpose. out may be in.
TLResult RectifyUtil_invRotMatrix(Mvec8Real* out, const Mvec8Real* in);
// The inverse of a camera matrix in closed form: 1/fx, -cx/fx, 1/fy, -cy/fy.
// A matrix with skew (element 1), a non-zero element 3, 6 or 7, or an
// element 8 other than 1: TL_ERROR_GENERAL.
TLResult RectifyUtil_invCameraMatrix(Mvec8Real* out, const Mvec8Real* in);

}  // namespace vq_tl
