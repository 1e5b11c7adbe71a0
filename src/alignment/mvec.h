// The two value records of every geometric transform: an affine map in Q15
// fixed point and a 3x3 matrix of 64-bit reals (camera matrices, rotations,
// homographies).
#pragma once

#include <cstdint>

#include "velquin/twin_lens_types.h"

namespace vq_tl {

// Affine map of a Q15 point: x' = ((a*x + b*y) >> 15) + c,
// y' = ((d*x + e*y) >> 15) + f, products in 64 bits. a and e are the scales
// (32768 is 1.0), c and f translations in Q15 pixels.
struct Mvec6F32 {
    int32_t a, b, c, d, e, f;
};

// Row-major 3x3 matrix; element 8 is 1.0 in a normalised record.
struct Mvec8Real {
    double m[9];
};

// Every call returns TL_OK, or TL_ERROR_PARAM for a null pointer; results may
// alias inputs.

TLResult Mvec8Real_setIdentity(Mvec8Real* result);
TLResult Mvec8Real_mult(Mvec8Real* result, const Mvec8Real* a, const Mvec8Real* b);
// Inverse by cofactors; a zero determinant gives TL_ERROR_PARAM and leaves
// result as it was.
TLResult Mvec8Real_inv(Mvec8Real* result, const Mvec8Real* m);
// Division by element 8; an element 8 of 0 gives TL_ERROR_PARAM, result unchanged.
TLResult Mvec8Real_normalize(Mvec8Real* result, const Mvec8Real* m);
// Homogeneous map of a point in floats.
TLResult Mvec8Real_trans2D(const Mvec8Real* m, float* outX, float* outY, float inX, float inY);
// Homogeneous map of a Q15 point, rounded half away from zero. A point that
// maps to infinity (w of 0) gives TL_ERROR_PARAM with the outputs unchanged.
TLResult Mvec8Real_trans2DF32(const Mvec8Real* m, int32_t* outX, int32_t* outY, int32_t inX, int32_t inY);
TLResult Mvec8Real_trans2DReal(const Mvec8Real* m, double* outX, double* outY, double inX, double inY);
// out = m * in for a column 3-vector.
TLResult Mvec8Real_trans3DReal(const Mvec8Real* m, double out[3], const double in[3]);

// Rotations and the homographies of pure rotations. Angles are radians about
// x, y and z, composed as R = Rz * Ry * Rx.
TLResult Mvec8Real_setRotationAngle(Mvec8Real* result, double angleX, double angleY, double angleZ);
// The angles of a rotation made by setRotationAngle, with angleY in
// [-pi/2, pi/2].
TLResult Mvec8Real_estimateRotationAngle(const Mvec8Real* rotation, double* angleX, double* angleY,
                                         double* angleZ);
// The homography of a camera with matrix K turned by R: K * R * K^-1.
TLResult Mvec8Real_setRotationMatrix(Mvec8Real* homography, const Mvec8Real* rotation,
                                     const Mvec8Real* cameraMatrix);
// The rotation of such a homography: K^-1 * H * K scaled to determinant 1, so a
// homography known up to scale serves. A singular K or H gives TL_ERROR_PARAM,
// result unchanged.
TLResult Mvec8Real_estimateRotationMatrix(Mvec8Real* rotation, const Mvec8Real* homography,
                                          const Mvec8Real* cameraMatrix);

TLResult Mvec6F32_setIdentity(Mvec6F32* result);
TLResult Mvec6F32_setZero(Mvec6F32* result);
TLResult Mvec6F32_copy(Mvec6F32* result, const Mvec6F32* m);
// Adds (dx, dy), Q15 pixels, to the translation.
TLResult Mvec6F32_shift(Mvec6F32* result, const Mvec6F32* m, int32_t dx, int32_t dy);
// The same motion seen on an image scaled by ratio (Q15): the linear part is
// kept and the translations are multiplied by ratio.
TLResult Mvec6F32_scale(Mvec6F32* result, const Mvec6F32* m, int32_t ratio);
// Composition, a after b: result(p) = a(b(p)), each element rounded to nearest.
TLResult Mvec6F32_mult(Mvec6F32* result, const Mvec6F32* a, const Mvec6F32* b);
// The formula above on a Q15 point.
TLResult Mvec6F32_trans(const Mvec6F32* m, int32_t* outX, int32_t* outY, int32_t x, int32_t y);
// The same map written for coordinates whose origin lies at (ox, oy), Q15:
// result(p) = m(p + o) - o.
TLResult Mvec6F32_changeOrigin(Mvec6F32* result, const Mvec6F32* m, int32_t ox, int32_t oy);
// A singular map gives TL_ERROR_PARAM and leaves result as it was.
TLResult Mvec6F32_inv(Mvec6F32* result, const Mvec6F32* m);
// a after the inverse of b; a singular b gives TL_ERROR_PARAM, result unchanged.
TLResult Mvec6F32_div(Mvec6F32* result, const Mvec6F32* a, const Mvec6F32* b);

// The forms used by the multi-scale motion search.
TLResult MvecDetectMulti2_Mvec6F32_transF32(const Mvec6F32* m, int32_t* outX, int32_t* outY, int32_t x,
                                            int32_t y);
// One pyramid step up: translations doubled.
TLResult MvecDetectMulti2_Mvec6F32_upscale(Mvec6F32* result, const Mvec6F32* m);
// With S the map of scale 1 / ratio and translation -16384 - (offset << 15) / ratio
// on both axes: output gives S^-1 m S (a motion found on the shrunk image
// expressed on the full one), input gives S m S^-1. ratio below 1: TL_ERROR_PARAM.
TLResult MvecDetectMulti2_Mvec6F32_output(Mvec6F32* result, const Mvec6F32* m, int32_t ratio, int32_t offset);
TLResult MvecDetectMulti2_Mvec6F32_input(Mvec6F32* result, const Mvec6F32* m, int32_t ratio, int32_t offset);
// Composition with a reference: result = m after base.
TLResult MvecDetectMulti2_Mvec6F32_setBase(Mvec6F32* result, const Mvec6F32* m, const Mvec6F32* base);
TLResult MvecDetectMulti2_Mvec8Real_setBase(Mvec8Real* result, const Mvec8Real* m, const Mvec8Real* base);

}  // namespace vq_tl
