// The numerical side of the calibration converter: rotation from angles,
// camera matrix from sensor data, and the least-squares fit of a radial
// coefficient model to a measured distortion table.
#pragma once

#include <cstdint>

#include "alignment/mvec.h"
#include "image/image.h"

namespace vq_tl {

struct RectifyDataConverter {
    Env* env;
    int32_t tableCapacity;     // longest table the fit takes
    int32_t coefficientCount;  // radial coefficients of the fit
};

// Work memory of one fit: its five FLOAT matrices, plus 1024. -1 for an
// argument below 1 or a size beyond 31 bits.
int32_t RectifyDataConverter_getBufferSize(int32_t tableCapacity, int32_t coefficientCount);
TLResult construct_RectifyDataConverter(RectifyDataConverter* self, Env* env);
TLResult destruct_RectifyDataConverter(RectifyDataConverter* self);
TLResult RectifyDataConverter_recycle(RectifyDataConverter* self);
// Both counts at least 1, else TL_ERROR_PARAM. Allocates nothing: a fit takes
// its matrices from the image layer.
TLResult RectifyDataConverter_init(RectifyDataConverter* self, int32_t tableCapacity,
                                   int32_t coefficientCount);

// out = Rz * Ry * Rx for angles in degrees. Each angle in radians is rounded
// to float on purpose: the rotation has the accuracy of a float.
TLResult RectifyDataConverter_convertAngleToRotationMatrix(RectifyDataConverter* self, Mvec8Real* out,
                                                           float angleX, float angleY, float angleZ);

// Camera matrix in float arithmetic: f = focalLength / pixelPitchMm on both
// axes (square pixels), cx = centerOffset[0] / pixelPitchMm + sensorSize[0] *
// 0.5 - cropOrigin[0], cy likewise. Sizes and crop origin in pixels, offsets
// and focal length in millimetres. A pitch or focal length that is not
// positive gives TL_ERROR_PARAM.
TLResult RectifyDataConverter_calculateCameraMatrix(RectifyDataConverter* self, Mvec8Real* out,
                                                    const int32_t sensorSize[2], const float centerOffset[2],
                                                    const int32_t cropOrigin[2], float pixelPitchMm,
                                                    float focalLength);

// out[i] = in[i] / scale for the three components.
TLResult RectifyDataConverter_calculateTranslationVector(RectifyDataConverter* self, double out[3],
                                                         const float in[3], float scale);

// Fits k1..km (m = coefficientCount) of x' = x (1 + k1 R2 + ... + km R2^m) to
// the table's knots on the line from the centre to the corner. out, 8 reals
// laid out as k1..k6, p1, p2, is zeroed and takes the first m values (at most
// 8); p1 and p2 stay 0 for m up to 6. A count above tableCapacity does
// nothing and returns TL_OK. A table with no more knots than coefficients
// (the centre knot gives no equation) gives TL_ERROR_PARAM.
TLResult RectifyDataConverter_calculateDistortionCoeff(RectifyDataConverter* self, double out[8],
                                                       const float* table, int32_t count,
                                                       const int32_t sensorSize[2], float pixelPitchMm,
                                                       float focalLength);

// The matrix helpers of the lens model under the converter's names.
TLResult RectifyDataConverterLA_dot(Image* out, const Image* a, const Image* b);
TLResult RectifyDataConverterLA_transpose(Image* out, const Image* a);
TLResult RectifyDataConverterLA_solve_gaussian_elimination(Image* a, Image* b);

}  // namespace vq_tl
