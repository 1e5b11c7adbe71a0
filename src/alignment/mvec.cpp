#include "alignment/mvec.h"

#include <cstring>

#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

constexpr double kQ15 = 32768.0;
constexpr double kQ30 = 1073741824.0;

int32_t saturate(int64_t v) {
    if (v > INT32_MAX) return INT32_MAX;
    if (v < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(v);
}

// Half away from zero, saturated; NaN gives 0.
int32_t roundToInt32(double v) {
    if (!(v == v)) return 0;
    if (v >= 2147483647.0) return INT32_MAX;
    if (v <= -2147483648.0) return INT32_MIN;
    return static_cast<int32_t>(RawDouble_round(v));
}

// (p + q + 16384) >> 15 of two 64-bit products of 32-bit values. The sum is
// formed modulo 2^64, which is exact unless both products are 2^62 (two
// elements of -2^31 each), outside any meaningful Q15 map.
int64_t roundShift15(int64_t p, int64_t q) {
    const uint64_t s = static_cast<uint64_t>(p) + static_cast<uint64_t>(q) + 16384u;
    return static_cast<int64_t>(s) >> 15;
}

int64_t mul(int32_t x, int32_t y) { return static_cast<int64_t>(x) * y; }

void mult3(double out[9], const double a[9], const double b[9]) {
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            out[3 * r + c] = a[3 * r] * b[c] + a[3 * r + 1] * b[3 + c] + a[3 * r + 2] * b[6 + c];
        }
    }
}

}  // namespace

TLResult Mvec8Real_setIdentity(Mvec8Real* result) {
    if (result == nullptr) return TL_ERROR_PARAM;
    std::memset(result, 0, sizeof *result);
    result->m[0] = result->m[4] = result->m[8] = 1.0;
    return TL_OK;
}

TLResult Mvec8Real_mult(Mvec8Real* result, const Mvec8Real* a, const Mvec8Real* b) {
    if (result == nullptr || a == nullptr || b == nullptr) return TL_ERROR_PARAM;
    double out[9];
    mult3(out, a->m, b->m);
    std::memcpy(result->m, out, sizeof out);
    return TL_OK;
}

TLResult Mvec8Real_inv(Mvec8Real* result, const Mvec8Real* m) {
    if (result == nullptr || m == nullptr) return TL_ERROR_PARAM;
    const double* s = m->m;
    // Cofactors, already transposed into the adjugate.
    double adj[9];
    adj[0] = s[4] * s[8] - s[5] * s[7];
    adj[1] = s[2] * s[7] - s[1] * s[8];
    adj[2] = s[1] * s[5] - s[2] * s[4];
    adj[3] = s[5] * s[6] - s[3] * s[8];
    adj[4] = s[0] * s[8] - s[2] * s[6];
    adj[5] = s[2] * s[3] - s[0] * s[5];
    adj[6] = s[3] * s[7] - s[4] * s[6];
    adj[7] = s[1] * s[6] - s[0] * s[7];
    adj[8] = s[0] * s[4] - s[1] * s[3];
    const double det = s[0] * adj[0] + s[1] * adj[3] + s[2] * adj[6];
    if (det == 0.0 || !(det == det)) return TL_ERROR_PARAM;
    const double scale = 1.0 / det;
    for (int i = 0; i < 9; ++i) result->m[i] = adj[i] * scale;
    return TL_OK;
}

TLResult Mvec8Real_normalize(Mvec8Real* result, const Mvec8Real* m) {
    if (result == nullptr || m == nullptr) return TL_ERROR_PARAM;
    const double w = m->m[8];
    if (w == 0.0) return TL_ERROR_PARAM;
    for (int i = 0; i < 8; ++i) result->m[i] = m->m[i] / w;
    result->m[8] = 1.0;
    return TL_OK;
}

// The float and real forms follow IEEE arithmetic: a point on the line at
// infinity gives infinite or NaN coordinates, not an error.
TLResult Mvec8Real_trans2D(const Mvec8Real* m, float* outX, float* outY, float inX, float inY) {
    if (m == nullptr || outX == nullptr || outY == nullptr) return TL_ERROR_PARAM;
    const double* s = m->m;
    const double x = inX;
    const double y = inY;
    const double w = s[6] * x + s[7] * y + s[8];
    *outX = static_cast<float>((s[0] * x + s[1] * y + s[2]) / w);
    *outY = static_cast<float>((s[3] * x + s[4] * y + s[5]) / w);
    return TL_OK;
}

TLResult Mvec8Real_trans2DF32(const Mvec8Real* m, int32_t* outX, int32_t* outY, int32_t inX, int32_t inY) {
    if (m == nullptr || outX == nullptr || outY == nullptr) return TL_ERROR_PARAM;
    const double* s = m->m;
    const double x = inX;
    const double y = inY;
    const double w = s[6] * x + s[7] * y + s[8] * kQ15;
    if (w == 0.0) return TL_ERROR_PARAM;
    // With the identity, x * 32768 / 32768 is exact, so the point comes back bit for bit.
    const double tx = (s[0] * x + s[1] * y + s[2] * kQ15) * kQ15 / w;
    const double ty = (s[3] * x + s[4] * y + s[5] * kQ15) * kQ15 / w;
    *outX = roundToInt32(tx);
    *outY = roundToInt32(ty);
    return TL_OK;
}

TLResult Mvec8Real_trans2DReal(const Mvec8Real* m, double* outX, double* outY, double inX, double inY) {
    if (m == nullptr || outX == nullptr || outY == nullptr) return TL_ERROR_PARAM;
    const double* s = m->m;
    const double w = s[6] * inX + s[7] * inY + s[8];
    const double x = (s[0] * inX + s[1] * inY + s[2]) / w;
    const double y = (s[3] * inX + s[4] * inY + s[5]) / w;
    *outX = x;
    *outY = y;
    return TL_OK;
}

TLResult Mvec8Real_trans3DReal(const Mvec8Real* m, double out[3], const double in[3]) {
    if (m == nullptr || out == nullptr || in == nullptr) return TL_ERROR_PARAM;
    const double* s = m->m;
    const double v[3] = {in[0], in[1], in[2]};
    for (int r = 0; r < 3; ++r) out[r] = s[3 * r] * v[0] + s[3 * r + 1] * v[1] + s[3 * r + 2] * v[2];
    return TL_OK;
}

TLResult Mvec8Real_setRotationAngle(Mvec8Real* result, double angleX, double angleY, double angleZ) {
    if (result == nullptr) return TL_ERROR_PARAM;
    const double cx = RawDouble_cos(angleX), sx = RawDouble_sin(angleX);
    const double cy = RawDouble_cos(angleY), sy = RawDouble_sin(angleY);
    const double cz = RawDouble_cos(angleZ), sz = RawDouble_sin(angleZ);
    const double rx[9] = {1.0, 0.0, 0.0, 0.0, cx, -sx, 0.0, sx, cx};
    const double ry[9] = {cy, 0.0, sy, 0.0, 1.0, 0.0, -sy, 0.0, cy};
    const double rz[9] = {cz, -sz, 0.0, sz, cz, 0.0, 0.0, 0.0, 1.0};
    double ryx[9];
    mult3(ryx, ry, rx);
    mult3(result->m, rz, ryx);
    return TL_OK;
}

TLResult Mvec8Real_estimateRotationAngle(const Mvec8Real* rotation, double* angleX, double* angleY,
                                         double* angleZ) {
    if (rotation == nullptr || angleX == nullptr || angleY == nullptr || angleZ == nullptr)
        return TL_ERROR_PARAM;
    const double* r = rotation->m;
    // Element 6 is -sin(angleY); rounding may carry it a hair beyond 1.
    double s = -r[6];
    if (s > 1.0) s = 1.0;
    if (s < -1.0) s = -1.0;
    *angleY = RawDouble_asin(s);
    *angleX = RawDouble_atan2(r[7], r[8]);
    *angleZ = RawDouble_atan2(r[3], r[0]);
    return TL_OK;
}

TLResult Mvec8Real_setRotationMatrix(Mvec8Real* homography, const Mvec8Real* rotation,
                                     const Mvec8Real* cameraMatrix) {
    if (homography == nullptr || rotation == nullptr || cameraMatrix == nullptr) return TL_ERROR_PARAM;
    Mvec8Real kInv;
    if (Mvec8Real_inv(&kInv, cameraMatrix) != TL_OK) return TL_ERROR_PARAM;
    double rk[9];
    mult3(rk, rotation->m, kInv.m);
    mult3(homography->m, cameraMatrix->m, rk);
    return TL_OK;
}

TLResult Mvec8Real_estimateRotationMatrix(Mvec8Real* rotation, const Mvec8Real* homography,
                                          const Mvec8Real* cameraMatrix) {
    if (rotation == nullptr || homography == nullptr || cameraMatrix == nullptr) return TL_ERROR_PARAM;
    Mvec8Real kInv;
    if (Mvec8Real_inv(&kInv, cameraMatrix) != TL_OK) return TL_ERROR_PARAM;
    double hk[9];
    double r[9];
    mult3(hk, homography->m, cameraMatrix->m);
    mult3(r, kInv.m, hk);
    const double det = r[0] * (r[4] * r[8] - r[5] * r[7]) - r[1] * (r[3] * r[8] - r[5] * r[6]) +
                       r[2] * (r[3] * r[7] - r[4] * r[6]);
    if (det == 0.0 || !(det == det)) return TL_ERROR_PARAM;
    const double scale = 1.0 / RawDouble_cbrt(det);
    for (int i = 0; i < 9; ++i) rotation->m[i] = r[i] * scale;
    return TL_OK;
}

TLResult Mvec6F32_setIdentity(Mvec6F32* result) {
    if (result == nullptr) return TL_ERROR_PARAM;
    *result = Mvec6F32{32768, 0, 0, 0, 32768, 0};
    return TL_OK;
}

TLResult Mvec6F32_setZero(Mvec6F32* result) {
    if (result == nullptr) return TL_ERROR_PARAM;
    *result = Mvec6F32{0, 0, 0, 0, 0, 0};
    return TL_OK;
}

TLResult Mvec6F32_copy(Mvec6F32* result, const Mvec6F32* m) {
    if (result == nullptr || m == nullptr) return TL_ERROR_PARAM;
    *result = *m;
    return TL_OK;
}

TLResult Mvec6F32_shift(Mvec6F32* result, const Mvec6F32* m, int32_t dx, int32_t dy) {
    if (result == nullptr || m == nullptr) return TL_ERROR_PARAM;
    Mvec6F32 r = *m;
    r.c = saturate(int64_t{m->c} + dx);
    r.f = saturate(int64_t{m->f} + dy);
    *result = r;
    return TL_OK;
}

TLResult Mvec6F32_scale(Mvec6F32* result, const Mvec6F32* m, int32_t ratio) {
    if (result == nullptr || m == nullptr) return TL_ERROR_PARAM;
    Mvec6F32 r = *m;
    r.c = saturate(roundShift15(mul(m->c, ratio), 0));
    r.f = saturate(roundShift15(mul(m->f, ratio), 0));
    *result = r;
    return TL_OK;
}

TLResult Mvec6F32_mult(Mvec6F32* result, const Mvec6F32* a, const Mvec6F32* b) {
    if (result == nullptr || a == nullptr || b == nullptr) return TL_ERROR_PARAM;
    Mvec6F32 r;
    r.a = saturate(roundShift15(mul(a->a, b->a), mul(a->b, b->d)));
    r.b = saturate(roundShift15(mul(a->a, b->b), mul(a->b, b->e)));
    r.c = saturate(roundShift15(mul(a->a, b->c), mul(a->b, b->f)) + a->c);
    r.d = saturate(roundShift15(mul(a->d, b->a), mul(a->e, b->d)));
    r.e = saturate(roundShift15(mul(a->d, b->b), mul(a->e, b->e)));
    r.f = saturate(roundShift15(mul(a->d, b->c), mul(a->e, b->f)) + a->f);
    *result = r;
    return TL_OK;
}

TLResult Mvec6F32_trans(const Mvec6F32* m, int32_t* outX, int32_t* outY, int32_t x, int32_t y) {
    if (m == nullptr || outX == nullptr || outY == nullptr) return TL_ERROR_PARAM;
    // Floor shifts: the point formula has no rounding term.
    const int64_t tx = ((mul(m->a, x) + mul(m->b, y)) >> 15) + m->c;
    const int64_t ty = ((mul(m->d, x) + mul(m->e, y)) >> 15) + m->f;
    *outX = saturate(tx);
    *outY = saturate(ty);
    return TL_OK;
}

TLResult Mvec6F32_changeOrigin(Mvec6F32* result, const Mvec6F32* m, int32_t ox, int32_t oy) {
    if (result == nullptr || m == nullptr) return TL_ERROR_PARAM;
    Mvec6F32 r = *m;
    r.c = saturate(roundShift15(mul(m->a, ox), mul(m->b, oy)) + m->c - ox);
    r.f = saturate(roundShift15(mul(m->d, ox), mul(m->e, oy)) + m->f - oy);
    *result = r;
    return TL_OK;
}

TLResult Mvec6F32_inv(Mvec6F32* result, const Mvec6F32* m) {
    if (result == nullptr || m == nullptr) return TL_ERROR_PARAM;
    const double a = m->a, b = m->b, c = m->c, d = m->d, e = m->e, f = m->f;
    // The real linear part is L / 32768, its inverse adj(L) * 32768 / det(L),
    // so in Q15 the elements are adj(L) * 2^30 / det. The translation is
    // -L^-1 t, formed from the exact adjugate so that its error does not grow
    // with the length of t.
    const double det = a * e - b * d;
    if (det == 0.0) return TL_ERROR_PARAM;
    Mvec6F32 r;
    r.a = roundToInt32(e * kQ30 / det);
    r.b = roundToInt32(-b * kQ30 / det);
    r.d = roundToInt32(-d * kQ30 / det);
    r.e = roundToInt32(a * kQ30 / det);
    r.c = roundToInt32(-(e * c - b * f) * kQ15 / det);
    r.f = roundToInt32(-(a * f - d * c) * kQ15 / det);
    *result = r;
    return TL_OK;
}

TLResult Mvec6F32_div(Mvec6F32* result, const Mvec6F32* a, const Mvec6F32* b) {
    if (result == nullptr || a == nullptr || b == nullptr) return TL_ERROR_PARAM;
    Mvec6F32 inverse;
    const TLResult r = Mvec6F32_inv(&inverse, b);
    if (r != TL_OK) return r;
    return Mvec6F32_mult(result, a, &inverse);
}

TLResult MvecDetectMulti2_Mvec6F32_transF32(const Mvec6F32* m, int32_t* outX, int32_t* outY, int32_t x,
                                            int32_t y) {
    return Mvec6F32_trans(m, outX, outY, x, y);
}

TLResult MvecDetectMulti2_Mvec6F32_upscale(Mvec6F32* result, const Mvec6F32* m) {
    if (result == nullptr || m == nullptr) return TL_ERROR_PARAM;
    Mvec6F32 r = *m;
    r.c = saturate(int64_t{m->c} * 2);
    r.f = saturate(int64_t{m->f} * 2);
    *result = r;
    return TL_OK;
}

namespace {

// S maps p to sigma * p + t on both axes, sigma = (32768 / ratio) / 32768 and
// t = -16384 - (offset << 15) / ratio. Since the linear part of S is a multiple
// of the identity it commutes with that of m: S^-1 m S keeps L and has the
// translation (L t + c - t) / sigma, and S m S^-1 keeps L with sigma c + t - L t.
// Both are formed in reals and rounded once, so no Q15 rounding is scaled up
// by the ratio.
TLResult changeScale(Mvec6F32* result, const Mvec6F32* m, int32_t ratio, int32_t offset, bool toFull) {
    if (result == nullptr || m == nullptr || ratio < 1) return TL_ERROR_PARAM;
    const double sigma = static_cast<double>(32768 / ratio) / kQ15;
    const double t = static_cast<double>(-16384 - (int64_t{offset} * 32768) / ratio);
    const double ltx = (static_cast<double>(m->a) + m->b) * t / kQ15;
    const double lty = (static_cast<double>(m->d) + m->e) * t / kQ15;
    Mvec6F32 r = *m;
    if (toFull) {
        r.c = roundToInt32((ltx + m->c - t) / sigma);
        r.f = roundToInt32((lty + m->f - t) / sigma);
    } else {
        r.c = roundToInt32(sigma * m->c + t - ltx);
        r.f = roundToInt32(sigma * m->f + t - lty);
    }
    *result = r;
    return TL_OK;
}

}  // namespace

TLResult MvecDetectMulti2_Mvec6F32_output(Mvec6F32* result, const Mvec6F32* m, int32_t ratio,
                                          int32_t offset) {
    return changeScale(result, m, ratio, offset, true);
}

TLResult MvecDetectMulti2_Mvec6F32_input(Mvec6F32* result, const Mvec6F32* m, int32_t ratio, int32_t offset) {
    return changeScale(result, m, ratio, offset, false);
}

TLResult MvecDetectMulti2_Mvec6F32_setBase(Mvec6F32* result, const Mvec6F32* m, const Mvec6F32* base) {
    return Mvec6F32_mult(result, m, base);
}

TLResult MvecDetectMulti2_Mvec8Real_setBase(Mvec8Real* result, const Mvec8Real* m, const Mvec8Real* base) {
    return Mvec8Real_mult(result, m, base);
}

}  // namespace vq_tl
