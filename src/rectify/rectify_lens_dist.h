// Lens distortion of one camera: a coefficient model with a fitted polynomial
// inverse, or a sampled radial table. Points are normalised: pixel coordinates
// with the camera matrix removed, x = (u - cx) / fx, y = (v - cy) / fy. The
// forward direction takes an ideal point to where the lens puts it, the
// inverse direction a distorted point back to the ideal one.
#pragma once

#include <cstdint>

#include "alignment/mvec.h"
#include "rectify/rectify.h"

namespace vq_tl {

constexpr int32_t kRectifyLensTableMax = 41;
// Coordinates of a point that has no image: 2^24.
constexpr double kRectifyInvalidCoordinate = 16777216.0;

struct RectifyLensDistortionCoeff {
    double k[6];     // k1, k2, k3 of the numerator, k4, k5, k6 of the denominator
    double p[2];     // tangential p1, p2
    double invK[6];  // inverse model; only the first three are ever fitted
    double invP[2];
    int32_t invValid;  // non-zero once the inverse may be used
};

struct RectifyLensDistData {
    // T[i]: distorted radius of the ideal radius i / (count - 1), both over
    // maxRadius; non-decreasing.
    double table[kRectifyLensTableMax];
    int32_t count;
    double step;  // 1 / (count - 1)
    double maxRadius;
    int32_t valid;
};

// All zero: the coefficient kind with no distortion and no inverse yet.
struct RectifyLensDist {
    int32_t kind;  // 0 coefficients, 1 radial table
    union {
        RectifyLensDistortionCoeff coeff;
        RectifyLensDistData data;
    };
};

TLResult RectifyLensDist_clear(RectifyLensDist* dist);
TLResult RectifyLensDistortionCoeff_clear(RectifyLensDistortionCoeff* coeff);
TLResult RectifyLensDistData_clear(RectifyLensDistData* data);

// Copies radialCount reals to k and tangentialCount to p (counts of 0 or less
// copy nothing, but the arrays must exist) and sets the kind to 0. The inverse
// is not invalidated: a caller that replaces coefficients clears first.
TLResult RectifyLensDist_setDistCoeff(RectifyLensDist* dist, const double* radial, int32_t radialCount,
                                      const double* tangential, int32_t tangentialCount);
// Copies count reals (at most 41) to the table and sets kind 1 and valid.
TLResult RectifyLensDist_setDistData(RectifyLensDist* dist, const double* table, int32_t count,
                                     double maxRadius);

// Truth values, not result codes.
int32_t RectifyLensDist_needCalcInv(const RectifyLensDist* dist);
int32_t RectifyLensDist_isNotDistorted(const RectifyLensDist* dist);

// Fits the inverse polynomial of a coefficient model over the image of
// width by height pixels grown by a tenth on each side. Idempotent: a valid
// inverse is kept.
TLResult Rectify_estimateUndistortCoeff(Rectify* rectify, RectifyLensDistortionCoeff* coeff,
                                        const Mvec8Real* cameraMatrix, int32_t width, int32_t height);

// Inverse direction: distorted normalised point to ideal.
TLResult Rectify_undistortPoint(double xIn, double yIn, double* outX, double* outY,
                                const RectifyLensDist* dist);
// Forward direction: ideal normalised point to distorted.
TLResult Rectify_distortPoint(double x, double y, double* outX, double* outY, const RectifyLensDist* dist);

}  // namespace vq_tl
