#include "rectify/rectify_lens_dist.h"

#include <cstring>

#include "image/image.h"
#include "imageproc/image_stripes.h"
#include "rectify/rectify_util.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

constexpr double kTiny = 1e-15;

double absolute(double v) { return v < 0.0 ? -v : v; }

// Rational radial factor of a coefficient set: numerator k[0..2], denominator k[3..5].
double radialFactor(const double k[6], double r2) {
    return (1.0 + r2 * (k[0] + r2 * (k[1] + r2 * k[2]))) / (1.0 + r2 * (k[3] + r2 * (k[4] + r2 * k[5])));
}

void applyCoeff(const double k[6], const double p[2], double x, double y, double* outX, double* outY) {
    const double r2 = x * x + y * y;
    const double radial = radialFactor(k, r2);
    const double nx = x * radial + 2.0 * p[0] * x * y + p[1] * (r2 + 2.0 * x * x);
    const double ny = y * radial + p[0] * (r2 + 2.0 * y * y) + 2.0 * p[1] * x * y;
    *outX = nx;
    *outY = ny;
}

bool tableUsable(const RectifyLensDistData& d) { return d.count >= 3 && d.count <= kRectifyLensTableMax; }

// floor(rn * (n - 1)), limited to n - 1; rn is positive here.
int32_t seedIndex(double rn, int32_t n) {
    const double scaled = rn * (n - 1);
    if (!(scaled < n)) return n - 1;
    const int32_t i = static_cast<int32_t>(RawDouble_floor(scaled));
    return i >= n ? n - 1 : i;
}

TLResult distortTable(const RectifyLensDistData& d, double x, double y, double* outX, double* outY) {
    const double rn = RawDouble_hypot(x, y) / d.maxRadius;
    if (!tableUsable(d) || absolute(d.step) < kTiny) return TL_ERROR_PARAM;
    if (rn < kTiny) {
        *outX = x;
        *outY = y;
        return TL_OK;
    }
    const int32_t n = d.count;
    const int32_t i = seedIndex(rn, n);
    double factor;
    if (i == n - 1) {
        // Beyond the last knot the table value itself is the factor, not
        // divided by rn: the map jumps there. Kept as measured rows expect.
        factor = d.table[n - 1];
    } else {
        double dr = rn - d.step * i;
        if (dr < 0.0) dr = 0.0;
        const double t = dr / d.step;
        factor = (d.table[i] * (1.0 - t) + d.table[i + 1] * t) / rn;
    }
    *outX = factor * x;
    *outY = factor * y;
    return TL_OK;
}

TLResult undistortTable(const RectifyLensDistData& d, double x, double y, double* outX, double* outY) {
    if (!tableUsable(d)) return TL_ERROR_PARAM;
    const double rn = RawDouble_hypot(x, y) / d.maxRadius;
    if (rn < kTiny) {
        *outX = x;
        *outY = y;
        return TL_OK;
    }
    const int32_t n = d.count;
    const double* T = d.table;
    int32_t i = seedIndex(rn, n);
    // Bisection keeps T[lo] < rn <= T[hi] and ends at the largest lo with T[lo] < rn.
    int32_t lo = -1, hi = -1;
    if (rn <= T[i]) {
        lo = 0;
        hi = i;
    } else if (i != n - 1 && rn >= T[i + 1]) {
        lo = i;
        hi = n - 1;
    }
    if (lo >= 0) {
        while (hi - lo > 1) {
            const int32_t mid = (lo + hi) / 2;
            if (T[mid] < rn) {
                lo = mid;
            } else {
                hi = mid;
            }
        }
        i = lo;
    }
    double factor;
    if (i == n - 1) {
        factor = 1.0 / T[n - 1];
    } else {
        const double span = T[i + 1] - T[i];
        // A flat pair can only be met outside the table's range; it takes the left knot.
        const double t = span != 0.0 ? (rn - T[i]) / span : 0.0;
        factor = (((1.0 - t) * i + t * (i + 1)) / (n - 1)) / rn;
    }
    *outX = factor * x;
    *outY = factor * y;
    return TL_OK;
}

bool allForwardZero(const RectifyLensDistortionCoeff& c) {
    for (double v : c.k)
        if (v != 0.0) return false;
    return c.p[0] == 0.0 && c.p[1] == 0.0;
}

// The sampling grid of the inverse fit: 64 by 64 points over the image grown
// by a tenth on each side, in normalised coordinates.
constexpr int32_t kFitGrid = 64;
constexpr int32_t kFitRows = 2 * kFitGrid * kFitGrid;  // 8192 equations
constexpr int32_t kFitUnknowns = 5;
constexpr int32_t kFitTasks = 4;

struct FitSamples {
    Image* a;
    Image* b;
    float k1, k2, k3, p1, p2;
    float x0, y0, xStep, yStep;
};

float* floatRow(Image* m, int32_t row) {
    return reinterpret_cast<float*>(m->plane[0] + static_cast<intptr_t>(m->pitch[0]) * row);
}

// Task `task` of `taskCount` fills the equations of a run of ceil(64 / n)
// grid rows. Everything is single precision, in the order written, so that
// the fitted values do not depend on how the tasks are spread.
TLResult fillSampleRows(void* arg, int32_t task, int32_t taskCount) {
    const FitSamples& s = *static_cast<const FitSamples*>(arg);
    const int32_t run = (kFitGrid + taskCount - 1) / taskCount;
    const int32_t first = task * run;
    const int32_t last = first + run < kFitGrid ? first + run : kFitGrid;
    for (int32_t j = first; j < last; ++j) {
        const float y = s.y0 + s.yStep * static_cast<float>(j);
        float x = s.x0;
        for (int32_t col = 0; col < kFitGrid; ++col, x += s.xStep) {
            // The forward polynomial only: k4..k6 of the denominator are left out on purpose.
            const float r2 = x * x + y * y;
            const float f = 1.0f + s.k1 * r2 + s.k2 * r2 * r2 + s.k3 * r2 * r2 * r2;
            const float u = x * f + 2.0f * s.p1 * x * y + s.p2 * (2.0f * x * x + r2);
            const float v = y * f + 2.0f * s.p2 * x * y + s.p1 * (2.0f * y * y + r2);
            const float R2 = u * u + v * v;
            const float R4 = R2 * R2;
            const int32_t e = 2 * (kFitGrid * j + col);
            float* ra = floatRow(s.a, e);
            ra[0] = R2 * u;
            ra[1] = R4 * u;
            ra[2] = R2 * R4 * u;
            ra[3] = 2.0f * u * v;
            ra[4] = 2.0f * u * u + R2;
            float* rb = floatRow(s.a, e + 1);
            rb[0] = R2 * v;
            rb[1] = R4 * v;
            rb[2] = R2 * R4 * v;
            rb[3] = 2.0f * v * v + R2;
            rb[4] = 2.0f * u * v;
            floatRow(s.b, e)[0] = x - u;
            floatRow(s.b, e + 1)[0] = y - v;
        }
    }
    return TL_OK;
}

// The tasks of one parallel step over the Pel, or'ing their results. The tasks
// write disjoint rows; without a Pel they run here one after another.
TLResult runTasks(Pel* pel, ImageStripeFn task, void* arg, int32_t count) {
    const ImageStripeExec exec = {pel, nullptr};
    return ImageStripeExec_run(&exec, task, arg, count);
}

}  // namespace

TLResult RectifyLensDist_clear(RectifyLensDist* dist) {
    if (dist == nullptr) return TL_ERROR_PARAM;
    std::memset(dist, 0, sizeof *dist);
    return TL_OK;
}

TLResult RectifyLensDistortionCoeff_clear(RectifyLensDistortionCoeff* coeff) {
    if (coeff == nullptr) return TL_ERROR_PARAM;
    std::memset(coeff, 0, sizeof *coeff);
    return TL_OK;
}

TLResult RectifyLensDistData_clear(RectifyLensDistData* data) {
    if (data == nullptr) return TL_ERROR_PARAM;
    std::memset(data, 0, sizeof *data);
    return TL_OK;
}

TLResult RectifyLensDist_setDistCoeff(RectifyLensDist* dist, const double* radial, int32_t radialCount,
                                      const double* tangential, int32_t tangentialCount) {
    if (dist == nullptr || radial == nullptr || tangential == nullptr) return TL_ERROR_PARAM;
    if (radialCount > 6 || tangentialCount > 2) return TL_ERROR_PARAM;
    for (int32_t i = 0; i < radialCount; ++i) dist->coeff.k[i] = radial[i];
    for (int32_t i = 0; i < tangentialCount; ++i) dist->coeff.p[i] = tangential[i];
    dist->kind = 0;
    return TL_OK;
}

TLResult RectifyLensDist_setDistData(RectifyLensDist* dist, const double* table, int32_t count,
                                     double maxRadius) {
    if (dist == nullptr || table == nullptr) return TL_ERROR_PARAM;
    if (count > kRectifyLensTableMax) return TL_ERROR_PARAM;
    for (int32_t i = 0; i < count; ++i) dist->data.table[i] = table[i];
    dist->data.count = count;
    dist->kind = 1;
    dist->data.valid = 1;
    // A count of 1 gives an infinite step; the evaluators refuse such a table.
    dist->data.step = 1.0 / static_cast<double>(count - 1);
    dist->data.maxRadius = maxRadius;
    return TL_OK;
}

int32_t RectifyLensDist_needCalcInv(const RectifyLensDist* dist) {
    return dist != nullptr && dist->kind == 0 && dist->coeff.invValid == 0 ? 1 : 0;
}

int32_t RectifyLensDist_isNotDistorted(const RectifyLensDist* dist) {
    if (dist == nullptr) return 0;
    if (dist->kind == 0) return allForwardZero(dist->coeff) ? 1 : 0;
    if (dist->kind != 1) return 0;
    const RectifyLensDistData& d = dist->data;
    if (d.count < 1) return 1;
    const int32_t n = d.count < kRectifyLensTableMax ? d.count : kRectifyLensTableMax;
    for (int32_t i = 0; i < n; ++i) {
        if (absolute(d.table[i] - i * d.step) > kTiny) return 0;
    }
    return 1;
}

TLResult Rectify_undistortPoint(double xIn, double yIn, double* outX, double* outY,
                                const RectifyLensDist* dist) {
    if (outX == nullptr || outY == nullptr || dist == nullptr) return TL_ERROR_PARAM;
    if (dist->kind == 0) {
        applyCoeff(dist->coeff.invK, dist->coeff.invP, xIn, yIn, outX, outY);
        return TL_OK;
    }
    if (dist->kind == 1) return undistortTable(dist->data, xIn, yIn, outX, outY);
    return TL_ERROR_UNSUPPORTED;
}

TLResult Rectify_distortPoint(double x, double y, double* outX, double* outY, const RectifyLensDist* dist) {
    if (outX == nullptr || outY == nullptr || dist == nullptr) return TL_ERROR_PARAM;
    if (dist->kind == 0) {
        applyCoeff(dist->coeff.k, dist->coeff.p, x, y, outX, outY);
        return TL_OK;
    }
    if (dist->kind == 1) return distortTable(dist->data, x, y, outX, outY);
    return TL_ERROR_UNSUPPORTED;
}

TLResult Rectify_estimateUndistortCoeff(Rectify* rectify, RectifyLensDistortionCoeff* coeff,
                                        const Mvec8Real* cameraMatrix, int32_t width, int32_t height) {
    if (rectify == nullptr || coeff == nullptr || cameraMatrix == nullptr) return TL_ERROR_PARAM;
    if (coeff->invValid != 0) return TL_OK;
    if (allForwardZero(*coeff)) {
        coeff->invValid = 1;
        return TL_OK;
    }
    // An empty calibration size leaves nothing to sample.
    if (width < 1 || height < 1) return TL_ERROR_PARAM;

    Image a, b, at, ata, atb;
    Image* all[] = {&a, &b, &at, &ata, &atb};
    for (Image* m : all) construct_Image(m, rectify->env);
    TLResult r = Image_init(&a, kFitUnknowns, kFitRows, nullptr, IMAGE_FORMAT_FLOAT);
    if (r == TL_OK) r = Image_init(&b, 1, kFitRows, nullptr, IMAGE_FORMAT_FLOAT);
    if (r == TL_OK) r = Image_init(&at, kFitRows, kFitUnknowns, nullptr, IMAGE_FORMAT_FLOAT);
    if (r == TL_OK) r = Image_init(&ata, kFitUnknowns, kFitUnknowns, nullptr, IMAGE_FORMAT_FLOAT);
    if (r == TL_OK) r = Image_init(&atb, 1, kFitUnknowns, nullptr, IMAGE_FORMAT_FLOAT);

    if (r == TL_OK) {
        const double* k = cameraMatrix->m;
        const double fx = k[0], cx = k[2], fy = k[4], cy = k[5];
        const float w = static_cast<float>(width);
        const float h = static_cast<float>(height);
        // Products in float, quotients in double stored as float, differences in float.
        const float x0 = static_cast<float>((static_cast<double>(w * -0.1f) - cx) / fx);
        const float y0 = static_cast<float>((static_cast<double>(h * -0.1f) - cy) / fy);
        const float x1 = static_cast<float>((static_cast<double>(w * 1.1f) - cx) / fx);
        const float y1 = static_cast<float>((static_cast<double>(h * 1.1f) - cy) / fy);
        FitSamples s;
        s.a = &a;
        s.b = &b;
        s.k1 = static_cast<float>(coeff->k[0]);
        s.k2 = static_cast<float>(coeff->k[1]);
        s.k3 = static_cast<float>(coeff->k[2]);
        s.p1 = static_cast<float>(coeff->p[0]);
        s.p2 = static_cast<float>(coeff->p[1]);
        s.x0 = x0;
        s.y0 = y0;
        // The last sample lies one step short of the far edge, at 63/64 of the range.
        s.xStep = (x1 - x0) * 0.015625f;
        s.yStep = (y1 - y0) * 0.015625f;
        r = runTasks(rectify->pel, fillSampleRows, &s, kFitTasks);
    }
    if (r == TL_OK) r = RectifyUtil_laTranspose(&at, &a);
    if (r == TL_OK) r = RectifyUtil_laDot(&ata, &at, &a);
    if (r == TL_OK) r = RectifyUtil_laDot(&atb, &at, &b);
    if (r == TL_OK) r = RectifyUtil_laSolveGaussianElimination(&ata, &atb);
    if (r == TL_OK) {
        float solution[kFitUnknowns];
        for (int32_t i = 0; i < kFitUnknowns; ++i) solution[i] = floatRow(&atb, i)[0];
        coeff->invK[0] = solution[0];
        coeff->invK[1] = solution[1];
        coeff->invK[2] = solution[2];
        coeff->invP[0] = solution[3];
        coeff->invP[1] = solution[4];
        coeff->invValid = 1;
    }
    for (Image* m : all) destruct_Image(m);
    return r;
}

}  // namespace vq_tl
