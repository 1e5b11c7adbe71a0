// The linear solvers (dof 2, 6, 14, 24), the linear algebra they share with
// the iterative ones, and the table of operations.
#include "alignment/mvec_lsm.h"

#include <cstring>

#include "runtime/memory.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

constexpr double kQ15 = 32768.0;
constexpr int32_t kAffineElements = 6;
// Identity values of the six affine elements a, b, c, d, e, f.
constexpr double kIdentity[kAffineElements] = {1.0, 0.0, 0.0, 0.0, 1.0, 0.0};

// Which affine elements a model solves for, bit m for element m.
uint32_t unknownMask(int32_t dof) {
    switch (dof) {
        case 2: return 0x24;   // c, f
        case 14: return 0x27;  // a, b, c, f
        case 24: return 0x3C;  // c, d, e, f
        default: return 0x3F;  // all six
    }
}

int32_t popCount(uint32_t v) {
    int32_t n = 0;
    for (; v != 0; v &= v - 1) ++n;
    return n;
}

// Half away from zero to Q15, saturated.
int32_t toQ15(double v) {
    const double s = v * kQ15;
    if (!(s == s)) return 0;
    if (s >= 2147483647.0) return INT32_MAX;
    if (s <= -2147483648.0) return INT32_MIN;
    return static_cast<int32_t>(s >= 0.0 ? s + 0.5 : s - 0.5);
}

// The normalising length of the linear family: half the larger side, so
// that centred coordinates lie in [-1, 1] and the normal matrix is well
// scaled.
double normOf(const MvecDetectMulti2_Lsm6* lsm) {
    const uint32_t side = lsm->width > lsm->height ? lsm->width : lsm->height;
    return side > 1 ? 0.5 * side : 1.0;
}

bool validPair(int32_t images, int32_t image1, int32_t image2) {
    return image1 >= 0 && image2 >= 0 && image1 < images && image2 < images && image1 != image2;
}

void setIdentityRows(double (*solution)[6], int32_t from, int32_t to) {
    for (int32_t i = from; i < to; ++i) std::memcpy(solution[i], kIdentity, sizeof kIdentity);
}

TLResult linearInit(MvecDetectMulti2_Lsm6* lsm, int32_t width, int32_t height, int32_t images, int32_t dof) {
    if (lsm == nullptr || width < 1 || height < 1 || images < 2 || images > kMvecLsmMaxImages ||
        width > 65535 || height > 65535)
        return TL_ERROR_PARAM;
    Memory_free(lsm->pairSums);
    Memory_free(lsm->solution);
    Env* env = lsm->env;
    std::memset(lsm, 0, sizeof *lsm);
    lsm->env = env;
    const size_t n = static_cast<size_t>(images);
    lsm->pairSums = static_cast<MvecDetectMulti2_LsmPairSums*>(
        Memory_alloc(sizeof(MvecDetectMulti2_LsmPairSums) * n * n));
    lsm->solution = static_cast<double(*)[6]>(Memory_alloc(sizeof(double[6]) * n));
    if (lsm->pairSums == nullptr || lsm->solution == nullptr) {
        Memory_free(lsm->pairSums);
        Memory_free(lsm->solution);
        lsm->pairSums = nullptr;
        lsm->solution = nullptr;
        return TL_ERROR_MEMORY;
    }
    std::memset(lsm->pairSums, 0, sizeof(MvecDetectMulti2_LsmPairSums) * n * n);
    setIdentityRows(lsm->solution, 0, images);
    lsm->images = static_cast<uint32_t>(images);
    lsm->width = static_cast<uint32_t>(width);
    lsm->height = static_cast<uint32_t>(height);
    lsm->halfWidth = width << 14;
    lsm->halfHeight = height << 14;
    lsm->dof = dof;
    return TL_OK;
}

bool ready(const MvecDetectMulti2_Lsm6* lsm) { return lsm != nullptr && lsm->pairSums != nullptr; }

// The 6 by 6 moments of z = (x1, y1, 1, x2, y2, 1) of a pair, in pixels
// divided by the normalising length.
void momentMatrix(const MvecDetectMulti2_LsmPairSums& s, double norm, double z[6][6]) {
    const double l = 1.0 / (kQ15 * norm), q = l / norm;
    const double w = static_cast<double>(s.w);
    const double x1 = s.x1 * l, y1 = s.y1 * l, x2 = s.x2 * l, y2 = s.y2 * l;
    const double m[6][6] = {
        {s.x1x1 * q, s.x1y1 * q, x1, s.x1x2 * q, s.x1y2 * q, x1},
        {s.x1y1 * q, s.y1y1 * q, y1, s.y1x2 * q, s.y1y2 * q, y1},
        {x1, y1, w, x2, y2, w},
        {s.x1x2 * q, s.y1x2 * q, x2, s.x2x2 * q, s.x2y2 * q, x2},
        {s.x1y2 * q, s.y1y2 * q, y2, s.x2y2 * q, s.y2y2 * q, y2},
        {x1, y1, w, x2, y2, w},
    };
    std::memcpy(z, m, sizeof m);
}

}  // namespace

bool MvecDetectMulti2_Lsm_solveSpd(double* a, double* b, int32_t n) {
    double largest = 0.0;
    for (int32_t i = 0; i < n; ++i) {
        if (a[i * n + i] > largest) largest = a[i * n + i];
    }
    if (!(largest > 0.0)) return false;
    const double floor = 1e-10 * largest;
    // a = L L^T, L in the lower triangle.
    for (int32_t j = 0; j < n; ++j) {
        double d = a[j * n + j];
        for (int32_t k = 0; k < j; ++k) d -= a[j * n + k] * a[j * n + k];
        if (!(d > floor)) return false;
        const double root = RawDouble_sqrt(d);
        a[j * n + j] = root;
        for (int32_t i = j + 1; i < n; ++i) {
            double v = a[i * n + j];
            for (int32_t k = 0; k < j; ++k) v -= a[i * n + k] * a[j * n + k];
            a[i * n + j] = v / root;
        }
    }
    for (int32_t i = 0; i < n; ++i) {
        double v = b[i];
        for (int32_t k = 0; k < i; ++k) v -= a[i * n + k] * b[k];
        b[i] = v / a[i * n + i];
    }
    for (int32_t i = n - 1; i >= 0; --i) {
        double v = b[i];
        for (int32_t k = i + 1; k < n; ++k) v -= a[k * n + i] * b[k];
        b[i] = v / a[i * n + i];
    }
    return true;
}

TLResult construct_MvecDetectMulti2_Lsm6(MvecDetectMulti2_Lsm6* lsm, Env* env) {
    if (lsm == nullptr) return TL_ERROR_PARAM;
    std::memset(lsm, 0, sizeof *lsm);
    lsm->env = env;
    return TL_OK;
}

TLResult destruct_MvecDetectMulti2_Lsm6(MvecDetectMulti2_Lsm6* lsm) {
    if (lsm == nullptr) return TL_ERROR_PARAM;
    Memory_free(lsm->pairSums);
    Memory_free(lsm->solution);
    return construct_MvecDetectMulti2_Lsm6(lsm, lsm->env);
}

TLResult MvecDetectMulti2_Lsm6_init(MvecDetectMulti2_Lsm6* lsm, int32_t width, int32_t height,
                                    int32_t images) {
    return linearInit(lsm, width, height, images, 6);
}
TLResult MvecDetectMulti2_Lsm2_init(MvecDetectMulti2_Lsm6* lsm, int32_t width, int32_t height,
                                    int32_t images) {
    return linearInit(lsm, width, height, images, 2);
}
TLResult MvecDetectMulti2_Lsm4H_init(MvecDetectMulti2_Lsm6* lsm, int32_t width, int32_t height,
                                     int32_t images) {
    return linearInit(lsm, width, height, images, 14);
}
TLResult MvecDetectMulti2_Lsm4V_init(MvecDetectMulti2_Lsm6* lsm, int32_t width, int32_t height,
                                     int32_t images) {
    return linearInit(lsm, width, height, images, 24);
}

TLResult MvecDetectMulti2_Lsm6_clear(MvecDetectMulti2_Lsm6* lsm) {
    if (!ready(lsm)) return TL_ERROR_PARAM;
    std::memset(lsm->pairSums, 0, sizeof(MvecDetectMulti2_LsmPairSums) * lsm->images * lsm->images);
    lsm->used = 0;
    return TL_OK;
}

TLResult MvecDetectMulti2_Lsm6_clearBlock(MvecDetectMulti2_Lsm6* lsm, int32_t image) {
    if (!ready(lsm) || image < 0 || image >= static_cast<int32_t>(lsm->images)) return TL_ERROR_PARAM;
    const int32_t n = static_cast<int32_t>(lsm->images);
    for (int32_t k = 0; k < n; ++k) {
        std::memset(&lsm->pairSums[image * n + k], 0, sizeof(MvecDetectMulti2_LsmPairSums));
        std::memset(&lsm->pairSums[k * n + image], 0, sizeof(MvecDetectMulti2_LsmPairSums));
    }
    return TL_OK;
}

TLResult MvecDetectMulti2_Lsm6_addF32(MvecDetectMulti2_Lsm6* lsm, int32_t image1, int32_t x1, int32_t y1,
                                      int32_t image2, int32_t x2, int32_t y2, int32_t weight) {
    if (!ready(lsm) || !validPair(static_cast<int32_t>(lsm->images), image1, image2) || weight < 0)
        return TL_ERROR_PARAM;
    if (weight == 0) return TL_OK;
    if (image1 > image2) {
        int32_t t = image1;
        image1 = image2, image2 = t;
        t = x1, x1 = x2, x2 = t;
        t = y1, y1 = y2, y2 = t;
    }
    // Centred Q15 coordinates stay within 2^30 for sides below 2^15 pixels,
    // their products shifted by 15 within 2^45, times a weight below 2^16.
    const int64_t cx1 = int64_t{x1} - lsm->halfWidth, cy1 = int64_t{y1} - lsm->halfHeight;
    const int64_t cx2 = int64_t{x2} - lsm->halfWidth, cy2 = int64_t{y2} - lsm->halfHeight;
    const int64_t w = weight;
    MvecDetectMulti2_LsmPairSums& s = lsm->pairSums[image1 * static_cast<int32_t>(lsm->images) + image2];
    s.w += w;
    s.x1 += w * cx1, s.y1 += w * cy1, s.x2 += w * cx2, s.y2 += w * cy2;
    s.x1x1 += w * ((cx1 * cx1) >> 15), s.x1y1 += w * ((cx1 * cy1) >> 15), s.y1y1 += w * ((cy1 * cy1) >> 15);
    s.x2x2 += w * ((cx2 * cx2) >> 15), s.x2y2 += w * ((cx2 * cy2) >> 15), s.y2y2 += w * ((cy2 * cy2) >> 15);
    s.x1x2 += w * ((cx1 * cx2) >> 15), s.x1y2 += w * ((cx1 * cy2) >> 15);
    s.y1x2 += w * ((cy1 * cx2) >> 15), s.y1y2 += w * ((cy1 * cy2) >> 15);
    ++s.points;
    if (image2 + 1 > lsm->used) lsm->used = image2 + 1;
    return TL_OK;
}

namespace {

bool project3D(const int32_t p[3], int32_t* x, int32_t* y) {
    if (p[2] == 0) return false;
    *x = static_cast<int32_t>(int64_t{p[0]} * 32768 / p[2]);
    *y = static_cast<int32_t>(int64_t{p[1]} * 32768 / p[2]);
    return true;
}

}  // namespace

TLResult MvecDetectMulti2_Lsm6_add3DF32(MvecDetectMulti2_Lsm6* lsm, int32_t image1, const int32_t p1[3],
                                        int32_t image2, const int32_t p2[3], int32_t weight) {
    int32_t x1, y1, x2, y2;
    if (p1 == nullptr || p2 == nullptr || !project3D(p1, &x1, &y1) || !project3D(p2, &x2, &y2))
        return TL_ERROR_PARAM;
    return MvecDetectMulti2_Lsm6_addF32(lsm, image1, x1, y1, image2, x2, y2, weight);
}

TLResult MvecDetectMulti2_Lsm6_solve(MvecDetectMulti2_Lsm6* lsm) {
    if (!ready(lsm)) return TL_ERROR_PARAM;
    const int32_t n = lsm->used, stride = static_cast<int32_t>(lsm->images);
    const uint32_t mask = unknownMask(lsm->dof);
    const int32_t k = popCount(mask);
    lsm->failureCode = 0;
    lsm->failureFlags = 0;
    if (n < 2) {
        lsm->failureCode = MVEC_LSM_FAILURE_TOO_FEW_POINTS;
        return TL_OK;
    }
    // Each point gives two equations.
    for (int32_t i = 1; i < n; ++i) {
        int32_t points = 0;
        for (int32_t j = 0; j < n; ++j) {
            if (j != i) points += lsm->pairSums[(i < j ? i : j) * stride + (i < j ? j : i)].points;
        }
        if (2 * points < k) lsm->failureFlags |= 1u << i;
    }
    if (lsm->failureFlags != 0) {
        lsm->failureCode = MVEC_LSM_FAILURE_TOO_FEW_POINTS;
        return TL_OK;
    }
    // Column of each unknown element within an image's block.
    int32_t column[kAffineElements];
    for (int32_t m = 0, c = 0; m < kAffineElements; ++m) column[m] = (mask >> m & 1) != 0 ? c++ : -1;
    const int32_t size = k * (n - 1);
    double* a = static_cast<double*>(Memory_alloc(sizeof(double) * static_cast<size_t>(size) * (size + 1)));
    if (a == nullptr) return TL_ERROR_MEMORY;
    double* b = a + static_cast<size_t>(size) * size;
    std::memset(a, 0, sizeof(double) * static_cast<size_t>(size) * (size + 1));
    const double norm = normOf(lsm);
    // The residual of a pair (i, j) along one axis is T_i(u) - T_j(v), u and v
    // the points as (x, y, 1): every unknown is one of the six moments'
    // coordinates with a sign, so the normal equations take entries of the
    // moment matrix z directly; fixed elements (and the reference image's
    // own coordinates) make the constant part h.
    for (int32_t i = 0; i < n; ++i) {
        for (int32_t j = i + 1; j < n; ++j) {
            const MvecDetectMulti2_LsmPairSums& s = lsm->pairSums[i * stride + j];
            if (s.w == 0) continue;
            double z[6][6];
            momentMatrix(s, norm, z);
            for (int32_t axis = 0; axis < 2; ++axis) {
                int32_t col[6], pos[6], count = 0;
                double sign[6], h[6] = {0, 0, 0, 0, 0, 0};
                for (int32_t side = 0; side < 2; ++side) {
                    const int32_t image = side == 0 ? i : j;
                    const double sgn = side == 0 ? 1.0 : -1.0;
                    for (int32_t basis = 0; basis < 3; ++basis) {
                        const int32_t m = 3 * axis + basis;
                        if (image == 0) {
                            if (basis == axis) h[3 * side + basis] += sgn;
                        } else if (column[m] >= 0) {
                            col[count] = (image - 1) * k + column[m];
                            pos[count] = 3 * side + basis;
                            sign[count++] = sgn;
                        } else {
                            h[3 * side + basis] += sgn * kIdentity[m];
                        }
                    }
                }
                for (int32_t p = 0; p < count; ++p) {
                    double zh = 0.0;
                    for (int32_t q = 0; q < 6; ++q) zh += z[pos[p]][q] * h[q];
                    b[col[p]] -= sign[p] * zh;
                    for (int32_t q = 0; q < count; ++q)
                        a[col[p] * size + col[q]] += sign[p] * sign[q] * z[pos[p]][pos[q]];
                }
            }
        }
    }
    if (!MvecDetectMulti2_Lsm_solveSpd(a, b, size)) {
        lsm->failureCode = MVEC_LSM_FAILURE_SINGULAR;
    } else {
        for (int32_t image = 1; image < n; ++image) {
            double* row = lsm->solution[image];
            for (int32_t m = 0; m < kAffineElements; ++m) {
                if (column[m] < 0) {
                    row[m] = kIdentity[m];
                } else {
                    // Translations come back in normalised units.
                    const double v = b[(image - 1) * k + column[m]];
                    row[m] = m % 3 == 2 ? v * norm : v;
                }
            }
        }
    }
    Memory_free(a);
    return TL_OK;
}

uint32_t MvecDetectMulti2_Lsm6_getFailureCode(const MvecDetectMulti2_Lsm6* lsm) {
    return lsm == nullptr ? ~0u : lsm->failureCode;
}

TLResult MvecDetectMulti2_Lsm6_outputMvec(MvecDetectMulti2_Lsm6* lsm, MvecDetectMulti2_Mvec* mvec,
                                          int32_t image) {
    if (!ready(lsm) || mvec == nullptr || mvec->kind != MVEC_KIND_AFFINE || image < 0 ||
        image >= static_cast<int32_t>(lsm->images))
        return TL_ERROR_PARAM;
    Mvec6F32& out = mvec->u.affine;
    Mvec6F32_setIdentity(&out);
    if (image == 0) return TL_OK;
    const double* s = lsm->solution[image];
    const Mvec6F32 toReference = {toQ15(s[0]), toQ15(s[1]), toQ15(s[2]),
                                  toQ15(s[3]), toQ15(s[4]), toQ15(s[5])};
    Mvec6F32 centred;
    if (Mvec6F32_inv(&centred, &toReference) != TL_OK) return TL_OK;
    return Mvec6F32_changeOrigin(&out, &centred, -lsm->halfWidth, -lsm->halfHeight);
}

TLResult MvecDetectMulti2_Lsm6_setInitialMvec(MvecDetectMulti2_Lsm6* lsm, const MvecDetectMulti2_Mvec* mvec,
                                              int32_t image) {
    if (!ready(lsm) || mvec == nullptr || mvec->kind != MVEC_KIND_AFFINE || image < 1 ||
        image >= static_cast<int32_t>(lsm->images))
        return TL_ERROR_PARAM;
    // The real inverse of the motion in centred coordinates.
    const Mvec6F32& m = mvec->u.affine;
    const double a = m.a / kQ15, b = m.b / kQ15, d = m.d / kQ15, e = m.e / kQ15;
    const double hw = lsm->halfWidth / kQ15, hh = lsm->halfHeight / kQ15;
    const double c = m.c / kQ15 + a * hw + b * hh - hw, f = m.f / kQ15 + d * hw + e * hh - hh;
    const double det = a * e - b * d;
    if (det == 0.0) return TL_ERROR_PARAM;
    double* s = lsm->solution[image];
    s[0] = e / det, s[1] = -b / det, s[3] = -d / det, s[4] = a / det;
    s[2] = -(s[0] * c + s[1] * f);
    s[5] = -(s[3] * c + s[4] * f);
    return TL_OK;
}

TLResult MvecDetectMulti2_Lsm6_update(MvecDetectMulti2_Lsm6* lsm, int32_t image) {
    const int32_t n = lsm != nullptr ? static_cast<int32_t>(lsm->images) : 0;
    if (!ready(lsm) || image < 0 || image >= n) return TL_ERROR_PARAM;
    // Indices only fall, so pairs move towards the front in raster order.
    for (int32_t i = 0; i < n; ++i) {
        for (int32_t j = i + 1; j < n; ++j) {
            if (i == image || j == image) continue;
            const int32_t ni = i - (i > image ? 1 : 0), nj = j - (j > image ? 1 : 0);
            lsm->pairSums[ni * n + nj] = lsm->pairSums[i * n + j];
        }
    }
    for (int32_t k = 0; k < n; ++k) {
        std::memset(&lsm->pairSums[(n - 1) * n + k], 0, sizeof(MvecDetectMulti2_LsmPairSums));
        std::memset(&lsm->pairSums[k * n + n - 1], 0, sizeof(MvecDetectMulti2_LsmPairSums));
    }
    for (int32_t i = image > 0 ? image : 1; i + 1 < n; ++i)
        std::memcpy(lsm->solution[i], lsm->solution[i + 1], sizeof(double[6]));
    setIdentityRows(lsm->solution, n - 1, n);
    if (lsm->used > image) --lsm->used;
    return TL_OK;
}

// ---- The table --------------------------------------------------------------

namespace {

template <typename T>
T* as(void* p) {
    return static_cast<T*>(p);
}
template <typename T>
const T* as(const void* p) {
    return static_cast<const T*>(p);
}

using Linear = MvecDetectMulti2_Lsm6;

TLResult linInit6(void* s, int32_t w, int32_t h, int32_t n) {
    return MvecDetectMulti2_Lsm6_init(as<Linear>(s), w, h, n);
}
TLResult linInit2(void* s, int32_t w, int32_t h, int32_t n) {
    return MvecDetectMulti2_Lsm2_init(as<Linear>(s), w, h, n);
}
TLResult linInit4H(void* s, int32_t w, int32_t h, int32_t n) {
    return MvecDetectMulti2_Lsm4H_init(as<Linear>(s), w, h, n);
}
TLResult linInit4V(void* s, int32_t w, int32_t h, int32_t n) {
    return MvecDetectMulti2_Lsm4V_init(as<Linear>(s), w, h, n);
}
TLResult linClear(void* s) { return MvecDetectMulti2_Lsm6_clear(as<Linear>(s)); }
TLResult linAdd(void* s, int32_t i1, int32_t x1, int32_t y1, int32_t i2, int32_t x2, int32_t y2, int32_t w) {
    return MvecDetectMulti2_Lsm6_addF32(as<Linear>(s), i1, x1, y1, i2, x2, y2, w);
}
TLResult linAdd3D(void* s, int32_t i1, const int32_t p1[3], int32_t i2, const int32_t p2[3], int32_t w) {
    return MvecDetectMulti2_Lsm6_add3DF32(as<Linear>(s), i1, p1, i2, p2, w);
}
TLResult linSolve(void* s) { return MvecDetectMulti2_Lsm6_solve(as<Linear>(s)); }
uint32_t linFailure(const void* s) { return MvecDetectMulti2_Lsm6_getFailureCode(as<Linear>(s)); }
TLResult linOutput(void* s, MvecDetectMulti2_Mvec* m, int32_t i) {
    return MvecDetectMulti2_Lsm6_outputMvec(as<Linear>(s), m, i);
}
TLResult linUpdate(void* s, int32_t i) { return MvecDetectMulti2_Lsm6_update(as<Linear>(s), i); }
TLResult linInitial(void* s, const MvecDetectMulti2_Mvec* m, int32_t i) {
    return MvecDetectMulti2_Lsm6_setInitialMvec(as<Linear>(s), m, i);
}
TLResult linClearBlock(void* s, int32_t i) { return MvecDetectMulti2_Lsm6_clearBlock(as<Linear>(s), i); }
void linRelease(void* s) { destruct_MvecDetectMulti2_Lsm6(as<Linear>(s)); }

using Rotation = MvecDetectMulti2_Lsm3Q;
TLResult rotInit(void* s, int32_t w, int32_t h, int32_t n) {
    return MvecDetectMulti2_Lsm3Q_init(as<Rotation>(s), w, h, n);
}
TLResult rotClear(void* s) { return MvecDetectMulti2_Lsm3Q_clear(as<Rotation>(s)); }
TLResult rotAdd(void* s, int32_t i1, int32_t x1, int32_t y1, int32_t i2, int32_t x2, int32_t y2, int32_t w) {
    return MvecDetectMulti2_Lsm3Q_addF32(as<Rotation>(s), i1, x1, y1, i2, x2, y2, w);
}
TLResult rotAdd3D(void* s, int32_t i1, const int32_t p1[3], int32_t i2, const int32_t p2[3], int32_t w) {
    int32_t x1, y1, x2, y2;
    if (p1 == nullptr || p2 == nullptr || !project3D(p1, &x1, &y1) || !project3D(p2, &x2, &y2))
        return TL_ERROR_PARAM;
    return MvecDetectMulti2_Lsm3Q_addF32(as<Rotation>(s), i1, x1, y1, i2, x2, y2, w);
}
TLResult rotSolve(void* s) { return MvecDetectMulti2_Lsm3Q_solve(as<Rotation>(s)); }
uint32_t rotFailure(const void* s) { return MvecDetectMulti2_Lsm3Q_getFailureCode(as<Rotation>(s)); }
TLResult rotOutput(void* s, MvecDetectMulti2_Mvec* m, int32_t i) {
    return MvecDetectMulti2_Lsm3Q_outputMvec(as<Rotation>(s), m, i);
}
TLResult rotUpdate(void* s, int32_t i) { return MvecDetectMulti2_Lsm3Q_update(as<Rotation>(s), i); }
TLResult rotInitial(void* s, const MvecDetectMulti2_Mvec* m, int32_t i) {
    return MvecDetectMulti2_Lsm3Q_setInitialMvec(as<Rotation>(s), m, i);
}
TLResult rotFocal(void* s, double f) { return MvecDetectMulti2_Lsm3Q_setFocalLength(as<Rotation>(s), f); }
TLResult rotClearBlock(void* s, int32_t i) { return MvecDetectMulti2_Lsm3Q_clearBlock(as<Rotation>(s), i); }
void rotRelease(void* s) { destruct_MvecDetectMulti2_Lsm3Q(as<Rotation>(s)); }

TLResult projInitSt(void* s, int32_t w, int32_t h, int32_t n) {
    return MILsm8St_init(as<MILsm8St>(s), w, h, n);
}
TLResult projInitR(void* s, int32_t w, int32_t h, int32_t n) {
    return MILsm8R_init(as<MILsm8St>(s), w, h, n);
}
TLResult projClear(void* s) { return MILsm8St_clear(as<MILsm8St>(s)); }
TLResult projAdd(void* s, int32_t i1, int32_t x1, int32_t y1, int32_t i2, int32_t x2, int32_t y2, int32_t w) {
    return MILsm8St_addF32(as<MILsm8St>(s), i1, x1, y1, i2, x2, y2, w);
}
TLResult projAdd3D(void* s, int32_t i1, const int32_t p1[3], int32_t i2, const int32_t p2[3], int32_t w) {
    if (p1 == nullptr || p2 == nullptr || p1[2] == 0 || p2[2] == 0) return TL_ERROR_PARAM;
    return MILsm8St_addReal(as<MILsm8St>(s), i1, static_cast<double>(p1[0]) / p1[2],
                            static_cast<double>(p1[1]) / p1[2], i2, static_cast<double>(p2[0]) / p2[2],
                            static_cast<double>(p2[1]) / p2[2], w);
}
TLResult projSolveSt(void* s) { return MILsm8St_solve(as<MILsm8St>(s)); }
TLResult projSolveR(void* s) { return MILsm8R_solve(as<MILsm8St>(s)); }
uint32_t projFailure(const void* s) { return MILsm8St_getFailureCode(as<MILsm8St>(s)); }
TLResult projOutput(void* s, MvecDetectMulti2_Mvec* m, int32_t i) {
    return MILsm8St_outputMvec(as<MILsm8St>(s), m, i);
}
TLResult projInitial(void* s, const MvecDetectMulti2_Mvec* m, int32_t i) {
    return MILsm8St_setInitialMvec(as<MILsm8St>(s), m, i);
}
// The homography solver keeps its pairs as points: dropping an image is
// clearing its pairs and moving the later solutions down.
TLResult projUpdate(void* s, int32_t image) {
    MILsm8St* ml = as<MILsm8St>(s);
    if (ml->store.points == nullptr && ml->images == 0) return TL_ERROR_PARAM;
    if (image < 0 || image >= ml->images) return TL_ERROR_PARAM;
    MvecDetectMulti2_LsmPoints& st = ml->store;
    int32_t kept = 0;
    for (int32_t p = 0; p < st.count; ++p) {
        MvecDetectMulti2_LsmPoint q = st.points[p];
        if (q.image1 == image || q.image2 == image) continue;
        q.image1 -= q.image1 > image ? 1 : 0;
        q.image2 -= q.image2 > image ? 1 : 0;
        st.points[kept++] = q;
    }
    st.count = kept;
    for (int32_t i = image > 0 ? image : 1; i + 1 < ml->images; ++i) {
        std::memcpy(ml->homography[i], ml->homography[i + 1], sizeof ml->homography[i]);
        std::memcpy(ml->initial[i], ml->initial[i + 1], sizeof ml->initial[i]);
    }
    if (ml->used > image) --ml->used;
    return TL_OK;
}
TLResult projFocal(void* s, double f) {
    MILsm8St* ml = as<MILsm8St>(s);
    return MILsm8R_setCameraParam(ml, f, 0.5 * ml->width, 0.5 * ml->height);
}
TLResult projClearBlock(void* s, int32_t i) { return MILsm8St_clearBlock(as<MILsm8St>(s), i); }
void projRelease(void* s) { destruct_MILsm8St(as<MILsm8St>(s)); }

constexpr MvecDetectMulti2_LsmOps kLsm2Ops = {linInit2,      linClear,   linAdd,    linAdd3D,   linSolve,
                                              linFailure,    linOutput,  linUpdate, linInitial, nullptr,
                                              linClearBlock, linRelease, 2};
constexpr MvecDetectMulti2_LsmOps kLsm6Ops = {linInit6,      linClear,   linAdd,    linAdd3D,   linSolve,
                                              linFailure,    linOutput,  linUpdate, linInitial, nullptr,
                                              linClearBlock, linRelease, 6};
constexpr MvecDetectMulti2_LsmOps kLsm4HOps = {linInit4H,     linClear,   linAdd,    linAdd3D,   linSolve,
                                               linFailure,    linOutput,  linUpdate, linInitial, nullptr,
                                               linClearBlock, linRelease, 4};
constexpr MvecDetectMulti2_LsmOps kLsm4VOps = {linInit4V,     linClear,   linAdd,    linAdd3D,   linSolve,
                                               linFailure,    linOutput,  linUpdate, linInitial, nullptr,
                                               linClearBlock, linRelease, 4};
constexpr MvecDetectMulti2_LsmOps kLsm3QOps = {rotInit,       rotClear,   rotAdd,    rotAdd3D,   rotSolve,
                                               rotFailure,    rotOutput,  rotUpdate, rotInitial, rotFocal,
                                               rotClearBlock, rotRelease, 3};
constexpr MvecDetectMulti2_LsmOps kLsm8Ops = {
    projInitSt,     projClear,   projAdd,    projAdd3D,   projSolveSt,
    projFailure,    projOutput,  projUpdate, projInitial, nullptr,
    projClearBlock, projRelease, 8};
constexpr MvecDetectMulti2_LsmOps kLsm8ROps = {
    projInitR,   projClear, projAdd,        projAdd3D,   projSolveR, projFailure, projOutput, projUpdate,
    projInitial, projFocal, projClearBlock, projRelease, 8};

bool lsmReady(const MvecDetectMulti2_Lsm* lsm) {
    return lsm != nullptr && lsm->ops != nullptr && lsm->state != nullptr;
}

}  // namespace

TLResult construct_MvecDetectMulti2_Lsm(MvecDetectMulti2_Lsm* lsm, Env* env) {
    if (lsm == nullptr) return TL_ERROR_PARAM;
    std::memset(lsm, 0, sizeof *lsm);
    lsm->env = env;
    return TL_OK;
}

TLResult destruct_MvecDetectMulti2_Lsm(MvecDetectMulti2_Lsm* lsm) {
    if (lsm == nullptr) return TL_ERROR_PARAM;
    if (lsm->state != nullptr) {
        lsm->ops->release(lsm->state);
        Memory_free(lsm->state);
    }
    return construct_MvecDetectMulti2_Lsm(lsm, lsm->env);
}

TLResult MvecDetectMulti2_Lsm_init(MvecDetectMulti2_Lsm* lsm, int32_t dof, int32_t width, int32_t height,
                                   int32_t images) {
    if (lsm == nullptr) return TL_ERROR_PARAM;
    const MvecDetectMulti2_LsmOps* ops;
    size_t size;
    switch (dof) {
        case 2: ops = &kLsm2Ops, size = sizeof(MvecDetectMulti2_Lsm6); break;
        case 3: ops = &kLsm3QOps, size = sizeof(MvecDetectMulti2_Lsm3Q); break;
        case 6: ops = &kLsm6Ops, size = sizeof(MvecDetectMulti2_Lsm6); break;
        case 8: ops = &kLsm8Ops, size = sizeof(MILsm8St); break;
        case 14: ops = &kLsm4HOps, size = sizeof(MvecDetectMulti2_Lsm6); break;
        case 18: ops = &kLsm8ROps, size = sizeof(MILsm8St); break;
        case 24: ops = &kLsm4VOps, size = sizeof(MvecDetectMulti2_Lsm6); break;
        default: return TL_ERROR_PARAM;
    }
    destruct_MvecDetectMulti2_Lsm(lsm);
    void* state = Memory_alloc(size);
    if (state == nullptr) return TL_ERROR_MEMORY;
    // Every record starts as its constructor leaves it.
    switch (dof) {
        case 3:
            construct_MvecDetectMulti2_Lsm3Q(static_cast<MvecDetectMulti2_Lsm3Q*>(state), lsm->env);
            break;
        case 8:
        case 18: construct_MILsm8St(static_cast<MILsm8St*>(state), lsm->env); break;
        default: construct_MvecDetectMulti2_Lsm6(static_cast<MvecDetectMulti2_Lsm6*>(state), lsm->env); break;
    }
    const TLResult r = ops->init(state, width, height, images);
    if (r != TL_OK) {
        ops->release(state);
        Memory_free(state);
        return r;
    }
    lsm->dof = dof;
    lsm->ops = ops;
    lsm->state = state;
    return TL_OK;
}

TLResult MvecDetectMulti2_Lsm_clear(MvecDetectMulti2_Lsm* lsm) {
    return lsmReady(lsm) ? lsm->ops->clear(lsm->state) : TL_ERROR_PARAM;
}
TLResult MvecDetectMulti2_Lsm_clearBlock(MvecDetectMulti2_Lsm* lsm, int32_t image) {
    return lsmReady(lsm) ? lsm->ops->clearBlock(lsm->state, image) : TL_ERROR_PARAM;
}
TLResult MvecDetectMulti2_Lsm_addF32(MvecDetectMulti2_Lsm* lsm, int32_t image1, int32_t x1, int32_t y1,
                                     int32_t image2, int32_t x2, int32_t y2, int32_t weight) {
    return lsmReady(lsm) ? lsm->ops->addF32(lsm->state, image1, x1, y1, image2, x2, y2, weight)
                         : TL_ERROR_PARAM;
}
TLResult MvecDetectMulti2_Lsm_add3DF32(MvecDetectMulti2_Lsm* lsm, int32_t image1, const int32_t p1[3],
                                       int32_t image2, const int32_t p2[3], int32_t weight) {
    return lsmReady(lsm) ? lsm->ops->add3DF32(lsm->state, image1, p1, image2, p2, weight) : TL_ERROR_PARAM;
}
TLResult MvecDetectMulti2_Lsm_solve(MvecDetectMulti2_Lsm* lsm) {
    return lsmReady(lsm) ? lsm->ops->solve(lsm->state) : TL_ERROR_PARAM;
}
uint32_t MvecDetectMulti2_Lsm_getFailureCode(const MvecDetectMulti2_Lsm* lsm) {
    return lsmReady(lsm) ? lsm->ops->getFailureCode(lsm->state) : ~0u;
}
TLResult MvecDetectMulti2_Lsm_outputMvec(MvecDetectMulti2_Lsm* lsm, MvecDetectMulti2_Mvec* mvec,
                                         int32_t image) {
    return lsmReady(lsm) ? lsm->ops->outputMvec(lsm->state, mvec, image) : TL_ERROR_PARAM;
}
TLResult MvecDetectMulti2_Lsm_update(MvecDetectMulti2_Lsm* lsm, int32_t image) {
    return lsmReady(lsm) ? lsm->ops->update(lsm->state, image) : TL_ERROR_PARAM;
}
TLResult MvecDetectMulti2_Lsm_setInitialMvec(MvecDetectMulti2_Lsm* lsm, const MvecDetectMulti2_Mvec* mvec,
                                             int32_t image) {
    return lsmReady(lsm) ? lsm->ops->setInitialMvec(lsm->state, mvec, image) : TL_ERROR_PARAM;
}
TLResult MvecDetectMulti2_Lsm_setFocalLength(MvecDetectMulti2_Lsm* lsm, double focalLength) {
    if (!lsmReady(lsm)) return TL_ERROR_PARAM;
    return lsm->ops->setFocalLength != nullptr ? lsm->ops->setFocalLength(lsm->state, focalLength) : TL_OK;
}

}  // namespace vq_tl
