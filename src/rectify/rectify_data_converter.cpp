#include "rectify/rectify_data_converter.h"

#include <cstring>

#include "rectify/rectify_util.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

constexpr double kPi = 3.141592653589793;
constexpr int32_t kConverterWorkSlack = 1024;
constexpr int32_t kCoeffSlots = 8;  // k1..k6, p1, p2

float* floatAt(Image* m, int32_t row, int32_t col) {
    return reinterpret_cast<float*>(m->plane[0] + static_cast<intptr_t>(m->pitch[0]) * row) + col;
}

// Degrees to radians in double, then through a float on purpose.
double radiansAsFloat(float degrees) {
    return static_cast<float>(static_cast<double>(degrees) * kPi / 180.0);
}

}  // namespace

int32_t RectifyDataConverter_getBufferSize(int32_t tableCapacity, int32_t coefficientCount) {
    if (tableCapacity < 1 || coefficientCount < 1) return -1;
    const int64_t rows = int64_t{tableCapacity} * 2;
    if (rows > INT32_MAX) return -1;
    const int32_t n2 = static_cast<int32_t>(rows);
    const int32_t m = coefficientCount;
    const int32_t sizes[5][2] = {{m, n2}, {1, n2}, {n2, m}, {m, m}, {1, m}};
    int64_t total = kConverterWorkSlack;
    for (const auto& s : sizes) {
        const int32_t bytes = Image_getSize(s[0], s[1], IMAGE_FORMAT_FLOAT, IMAGE_SIZE_TOTAL);
        if (bytes == 0) return -1;
        total += bytes;
    }
    return total > INT32_MAX ? -1 : static_cast<int32_t>(total);
}

TLResult construct_RectifyDataConverter(RectifyDataConverter* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    std::memset(self, 0, sizeof *self);
    self->env = env;
    return TL_OK;
}

TLResult destruct_RectifyDataConverter(RectifyDataConverter* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    std::memset(self, 0, sizeof *self);
    return TL_OK;
}

TLResult RectifyDataConverter_recycle(RectifyDataConverter* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->tableCapacity = 0;
    self->coefficientCount = 0;
    return TL_OK;
}

TLResult RectifyDataConverter_init(RectifyDataConverter* self, int32_t tableCapacity,
                                   int32_t coefficientCount) {
    if (self == nullptr || tableCapacity < 1 || coefficientCount < 1) return TL_ERROR_PARAM;
    self->tableCapacity = tableCapacity;
    self->coefficientCount = coefficientCount;
    return TL_OK;
}

TLResult RectifyDataConverter_convertAngleToRotationMatrix(RectifyDataConverter* self, Mvec8Real* out,
                                                           float angleX, float angleY, float angleZ) {
    if (self == nullptr || out == nullptr) return TL_ERROR_PARAM;
    // Rz * (Ry * Rx), with the angles at float accuracy.
    return Mvec8Real_setRotationAngle(out, radiansAsFloat(angleX), radiansAsFloat(angleY),
                                      radiansAsFloat(angleZ));
}

TLResult RectifyDataConverter_calculateCameraMatrix(RectifyDataConverter* self, Mvec8Real* out,
                                                    const int32_t sensorSize[2], const float centerOffset[2],
                                                    const int32_t cropOrigin[2], float pixelPitchMm,
                                                    float focalLength) {
    if (self == nullptr || out == nullptr || sensorSize == nullptr || centerOffset == nullptr ||
        cropOrigin == nullptr) {
        return TL_ERROR_PARAM;
    }
    if (!(pixelPitchMm > 0.0f) || !(focalLength > 0.0f)) return TL_ERROR_PARAM;
    const float f = focalLength / pixelPitchMm;
    const float cx = centerOffset[0] / pixelPitchMm + static_cast<float>(sensorSize[0]) * 0.5f -
                     static_cast<float>(cropOrigin[0]);
    const float cy = centerOffset[1] / pixelPitchMm + static_cast<float>(sensorSize[1]) * 0.5f -
                     static_cast<float>(cropOrigin[1]);
    Mvec8Real_setIdentity(out);
    out->m[0] = f;
    out->m[2] = cx;
    out->m[4] = f;
    out->m[5] = cy;
    return TL_OK;
}

TLResult RectifyDataConverter_calculateTranslationVector(RectifyDataConverter* self, double out[3],
                                                         const float in[3], float scale) {
    if (self == nullptr || out == nullptr || in == nullptr) return TL_ERROR_PARAM;
    for (int i = 0; i < 3; ++i) out[i] = static_cast<double>(in[i] / scale);
    return TL_OK;
}

TLResult RectifyDataConverter_calculateDistortionCoeff(RectifyDataConverter* self, double out[8],
                                                       const float* table, int32_t count,
                                                       const int32_t sensorSize[2], float pixelPitchMm,
                                                       float focalLength) {
    if (self == nullptr || out == nullptr || table == nullptr || sensorSize == nullptr) return TL_ERROR_PARAM;
    const int32_t n = count;
    const int32_t m = self->coefficientCount;
    if (n > self->tableCapacity) return TL_OK;
    for (int i = 0; i < kCoeffSlots; ++i) out[i] = 0.0;
    // The centre knot gives no equation; fewer knots than unknowns leave the
    // normal equations singular, or nearly so in float.
    if (m < 1 || n <= m) return TL_ERROR_PARAM;  // n < m + 1 without overflow

    const double halfW = sensorSize[0] * 0.5;
    const double halfH = sensorSize[1] * 0.5;
    const double f = static_cast<double>(focalLength) / static_cast<double>(pixelPitchMm);

    Image a, b, at, ata, atb;
    Image* all[] = {&a, &b, &at, &ata, &atb};
    for (Image* img : all) construct_Image(img, self->env);
    TLResult r = Image_init(&a, m, 2 * n, nullptr, IMAGE_FORMAT_FLOAT);
    if (r == TL_OK) r = Image_init(&b, 1, 2 * n, nullptr, IMAGE_FORMAT_FLOAT);
    if (r == TL_OK) r = Image_init(&at, 2 * n, m, nullptr, IMAGE_FORMAT_FLOAT);
    if (r == TL_OK) r = Image_init(&ata, m, m, nullptr, IMAGE_FORMAT_FLOAT);
    if (r == TL_OK) r = Image_init(&atb, 1, m, nullptr, IMAGE_FORMAT_FLOAT);
    if (r == TL_OK) {
        for (int32_t i = 0; i < n; ++i) {
            // The ideal point at fraction t of the way to the corner, and
            // where the table says the lens puts it.
            const double t = static_cast<double>(i) / (n - 1);
            const double x = ((halfW + halfW * t) - halfW) / f;
            const double y = ((halfH + halfH * t) - halfH) / f;
            const double ti = table[i];
            const double r2 = x * x + y * y;
            double power = r2;
            for (int32_t c = 0; c < m; ++c, power *= r2) {
                *floatAt(&a, 2 * i, c) = static_cast<float>(x * power);
                *floatAt(&a, 2 * i + 1, c) = static_cast<float>(y * power);
            }
            *floatAt(&b, 2 * i, 0) = static_cast<float>(((halfW + halfW * ti) - halfW) / f - x);
            *floatAt(&b, 2 * i + 1, 0) = static_cast<float>(((halfH + halfH * ti) - halfH) / f - y);
        }
    }
    if (r == TL_OK) r = RectifyDataConverterLA_transpose(&at, &a);
    if (r == TL_OK) r = RectifyDataConverterLA_dot(&ata, &at, &a);
    if (r == TL_OK) r = RectifyDataConverterLA_dot(&atb, &at, &b);
    if (r == TL_OK) r = RectifyDataConverterLA_solve_gaussian_elimination(&ata, &atb);
    if (r == TL_OK) {
        const int32_t used = m < kCoeffSlots ? m : kCoeffSlots;
        for (int32_t c = 0; c < used; ++c) out[c] = *floatAt(&atb, c, 0);
    }
    for (Image* img : all) destruct_Image(img);
    return r;
}

TLResult RectifyDataConverterLA_dot(Image* out, const Image* a, const Image* b) {
    return RectifyUtil_laDot(out, a, b);
}

TLResult RectifyDataConverterLA_transpose(Image* out, const Image* a) {
    return RectifyUtil_laTranspose(out, a);
}

TLResult RectifyDataConverterLA_solve_gaussian_elimination(Image* a, Image* b) {
    return RectifyUtil_laSolveGaussianElimination(a, b);
}

}  // namespace vq_tl
