// The iterative solvers: pure rotation (dof 3) and the homography solvers
// MILsm8St (dof 8) and MILsm8R (dof 18).
#include <cmath>
#include <cstring>
#include <initializer_list>

#include "alignment/mvec_lsm.h"
#include "runtime/memory.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

constexpr double kQ15 = 32768.0;
constexpr int32_t kRotationSteps = 50;
constexpr int32_t kHomographySteps = 100;
// Steps below this (radians, or normalised elements) end the iteration.
constexpr double kSmallStep = 1e-12;

using Quat = MvecDetectMulti2_Quat;
using Point = MvecDetectMulti2_LsmPoint;
using Points = MvecDetectMulti2_LsmPoints;

bool validImages(int32_t images) { return images >= 2 && images <= kMvecLsmMaxImages; }

void pointsRelease(Points* st) {
    Memory_free(st->points);
    std::memset(st, 0, sizeof *st);
}

// Stores a pair with the lower image first; false when it cannot grow.
bool pointsAdd(Points* st, int32_t image1, double x1, double y1, int32_t image2, double x2, double y2,
               double weight) {
    if (st->count == st->capacity) {
        const int32_t capacity = st->capacity > 0 ? 2 * st->capacity : 64;
        Point* grown = static_cast<Point*>(Memory_alloc(sizeof(Point) * static_cast<size_t>(capacity)));
        if (grown == nullptr) {
            ++st->lost;
            return false;
        }
        if (st->count > 0) std::memcpy(grown, st->points, sizeof(Point) * static_cast<size_t>(st->count));
        Memory_free(st->points);
        st->points = grown;
        st->capacity = capacity;
    }
    Point p = image1 < image2 ? Point{image1, image2, x1, y1, x2, y2, weight}
                              : Point{image2, image1, x2, y2, x1, y1, weight};
    st->points[st->count++] = p;
    return true;
}

void pointsDropImage(Points* st, int32_t image, bool renumber) {
    int32_t kept = 0;
    for (int32_t p = 0; p < st->count; ++p) {
        Point q = st->points[p];
        if (q.image1 == image || q.image2 == image) continue;
        if (renumber) {
            q.image1 -= q.image1 > image ? 1 : 0;
            q.image2 -= q.image2 > image ? 1 : 0;
        }
        st->points[kept++] = q;
    }
    st->count = kept;
}

// Too few pairs for some image among the first n: 2 * pairs < unknowns.
bool tooFew(const Points& st, int32_t n, int32_t unknowns) {
    int32_t count[kMvecLsmMaxImages] = {};
    for (int32_t p = 0; p < st.count; ++p) {
        if (st.points[p].image2 < n) ++count[st.points[p].image1], ++count[st.points[p].image2];
    }
    for (int32_t k = 1; k < n; ++k) {
        if (2 * count[k] < unknowns) return true;
    }
    return false;
}

Quat quatProduct(const Quat& a, const Quat& b) {
    return {a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z, a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
            a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x, a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w};
}

Quat quatNormalised(const Quat& q) {
    const double n = RawDouble_sqrt(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z);
    return n > 0.0 ? Quat{q.w / n, q.x / n, q.y / n, q.z / n} : Quat{1.0, 0.0, 0.0, 0.0};
}

// The rotation by the vector d (axis times angle).
Quat quatExp(const double d[3]) {
    const double angle = RawDouble_sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    if (angle < 1e-300) return {1.0, 0.0, 0.0, 0.0};
    const double s = RawDouble_sin(0.5 * angle) / angle;
    return {RawDouble_cos(0.5 * angle), d[0] * s, d[1] * s, d[2] * s};
}

void quatMatrix(const Quat& q, double r[9]) {
    const double w = q.w, x = q.x, y = q.y, z = q.z;
    r[0] = 1 - 2 * (y * y + z * z), r[1] = 2 * (x * y - w * z), r[2] = 2 * (x * z + w * y);
    r[3] = 2 * (x * y + w * z), r[4] = 1 - 2 * (x * x + z * z), r[5] = 2 * (y * z - w * x);
    r[6] = 2 * (x * z - w * y), r[7] = 2 * (y * z + w * x), r[8] = 1 - 2 * (x * x + y * y);
}

void unitRay(double x, double y, double f, double out[3]) {
    const double n = RawDouble_sqrt(x * x + y * y + f * f);
    out[0] = x / n, out[1] = y / n, out[2] = f / n;
}

void apply(const double r[9], const double v[3], double out[3]) {
    for (int i = 0; i < 3; ++i) out[i] = r[3 * i] * v[0] + r[3 * i + 1] * v[1] + r[3 * i + 2] * v[2];
}

void cross(const double a[3], const double b[3], double out[3]) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

// Gauss-Newton for the rotations of images 1 to n - 1 (image to reference)
// that bring the unit rays of every pair together: residual R_i u - R_j v,
// each rotation updated by exp(d) on the left, where d(R u) = -[R u]x d.
// The rays are (x - cx, y - cy, f). q holds the start and, on success, the
// result; failure bits otherwise, q unchanged.
uint32_t fitRotations(const Points& st, int32_t n, double cx, double cy, double f, Quat* q) {
    if (st.lost != 0) return MVEC_LSM_FAILURE_MEMORY;
    if (n < 2 || tooFew(st, n, 3)) return MVEC_LSM_FAILURE_TOO_FEW_POINTS;
    const int32_t size = 3 * (n - 1);
    double a[45 * 45], b[45];
    Quat cur[kMvecLsmMaxImages];
    std::memcpy(cur, q, sizeof(Quat) * static_cast<size_t>(n));
    for (int32_t step = 0; step < kRotationSteps; ++step) {
        double r[kMvecLsmMaxImages][9];
        for (int32_t k = 0; k < n; ++k) quatMatrix(k == 0 ? Quat{1, 0, 0, 0} : cur[k], r[k]);
        std::memset(a, 0, sizeof(double) * static_cast<size_t>(size) * size);
        std::memset(b, 0, sizeof(double) * static_cast<size_t>(size));
        for (int32_t p = 0; p < st.count; ++p) {
            const Point& pt = st.points[p];
            if (pt.image2 >= n) continue;
            double u[3], v[3], ra[3], rb[3], e[3], c[3];
            unitRay(pt.x1 - cx, pt.y1 - cy, f, u);
            unitRay(pt.x2 - cx, pt.y2 - cy, f, v);
            apply(r[pt.image1], u, ra);
            apply(r[pt.image2], v, rb);
            for (int t = 0; t < 3; ++t) e[t] = ra[t] - rb[t];
            const double w = pt.weight;
            const int32_t bi = 3 * (pt.image1 - 1), bj = 3 * (pt.image2 - 1);
            // J_i = -[a]x, J_j = [b]x: J_i^T J_i = |a|^2 I - a a^T, J_i^T J_j =
            // b a^T - (a . b) I, J_i^T e = a x e, J_j^T e = -(b x e).
            const double ab = ra[0] * rb[0] + ra[1] * rb[1] + ra[2] * rb[2];
            const double aa = ra[0] * ra[0] + ra[1] * ra[1] + ra[2] * ra[2];
            const double bb = rb[0] * rb[0] + rb[1] * rb[1] + rb[2] * rb[2];
            for (int s = 0; s < 3; ++s) {
                for (int t = 0; t < 3; ++t) {
                    const double id = s == t ? 1.0 : 0.0;
                    if (pt.image1 > 0) {
                        a[(bi + s) * size + bi + t] += w * (aa * id - ra[s] * ra[t]);
                        const double m = w * (rb[s] * ra[t] - ab * id);
                        a[(bi + s) * size + bj + t] += m;
                        a[(bj + t) * size + bi + s] += m;
                    }
                    a[(bj + s) * size + bj + t] += w * (bb * id - rb[s] * rb[t]);
                }
            }
            if (pt.image1 > 0) {
                cross(ra, e, c);
                for (int s = 0; s < 3; ++s) b[bi + s] -= w * c[s];
            }
            cross(rb, e, c);
            for (int s = 0; s < 3; ++s) b[bj + s] += w * c[s];
        }
        if (!MvecDetectMulti2_Lsm_solveSpd(a, b, size)) return MVEC_LSM_FAILURE_SINGULAR;
        double largest = 0.0;
        for (int32_t k = 1; k < n; ++k) {
            cur[k] = quatNormalised(quatProduct(quatExp(&b[3 * (k - 1)]), cur[k]));
            for (int s = 0; s < 3; ++s) {
                const double m = b[3 * (k - 1) + s] < 0 ? -b[3 * (k - 1) + s] : b[3 * (k - 1) + s];
                if (m > largest) largest = m;
            }
        }
        if (largest < kSmallStep) {
            std::memcpy(q, cur, sizeof(Quat) * static_cast<size_t>(n));
            return 0;
        }
    }
    return MVEC_LSM_FAILURE_NOT_CONVERGED;
}

TLResult addQ15(Points* st, int32_t images, int32_t image1, int32_t x1, int32_t y1, int32_t image2,
                int32_t x2, int32_t y2, double weight, int32_t* used) {
    if (image1 < 0 || image2 < 0 || image1 >= images || image2 >= images || image1 == image2 ||
        !(weight >= 0.0))
        return TL_ERROR_PARAM;
    if (weight == 0.0) return TL_OK;
    if (!pointsAdd(st, image1, x1 / kQ15, y1 / kQ15, image2, x2 / kQ15, y2 / kQ15, weight))
        return TL_ERROR_MEMORY;
    const int32_t top = (image1 > image2 ? image1 : image2) + 1;
    if (top > *used) *used = top;
    return TL_OK;
}

}  // namespace

// ---- Pure rotation --------------------------------------------------------------

TLResult construct_MvecDetectMulti2_Lsm3Q(MvecDetectMulti2_Lsm3Q* lsm, Env* env) {
    if (lsm == nullptr) return TL_ERROR_PARAM;
    std::memset(lsm, 0, sizeof *lsm);
    lsm->env = env;
    lsm->focalLength = 1000.0;
    for (Quat& q : lsm->rotation) q = {1.0, 0.0, 0.0, 0.0};
    return TL_OK;
}

TLResult destruct_MvecDetectMulti2_Lsm3Q(MvecDetectMulti2_Lsm3Q* lsm) {
    if (lsm == nullptr) return TL_ERROR_PARAM;
    pointsRelease(&lsm->store);
    return construct_MvecDetectMulti2_Lsm3Q(lsm, lsm->env);
}

TLResult MvecDetectMulti2_Lsm3Q_init(MvecDetectMulti2_Lsm3Q* lsm, int32_t width, int32_t height,
                                     int32_t images) {
    if (lsm == nullptr || width < 1 || height < 1 || !validImages(images)) return TL_ERROR_PARAM;
    destruct_MvecDetectMulti2_Lsm3Q(lsm);
    lsm->width = width, lsm->height = height, lsm->images = images;
    return TL_OK;
}

TLResult MvecDetectMulti2_Lsm3Q_setFocalLength(MvecDetectMulti2_Lsm3Q* lsm, double focalLength) {
    if (lsm == nullptr || !(focalLength > 0.0)) return TL_ERROR_PARAM;
    lsm->focalLength = focalLength;
    return TL_OK;
}

TLResult MvecDetectMulti2_Lsm3Q_clear(MvecDetectMulti2_Lsm3Q* lsm) {
    if (lsm == nullptr || lsm->images == 0) return TL_ERROR_PARAM;
    lsm->store.count = lsm->store.lost = 0;
    lsm->used = 0;
    return TL_OK;
}

TLResult MvecDetectMulti2_Lsm3Q_clearBlock(MvecDetectMulti2_Lsm3Q* lsm, int32_t image) {
    if (lsm == nullptr || image < 0 || image >= lsm->images) return TL_ERROR_PARAM;
    pointsDropImage(&lsm->store, image, false);
    return TL_OK;
}

TLResult MvecDetectMulti2_Lsm3Q_addF32(MvecDetectMulti2_Lsm3Q* lsm, int32_t image1, int32_t x1, int32_t y1,
                                       int32_t image2, int32_t x2, int32_t y2, int32_t weight) {
    if (lsm == nullptr) return TL_ERROR_PARAM;
    return addQ15(&lsm->store, lsm->images, image1, x1, y1, image2, x2, y2, weight, &lsm->used);
}

TLResult MvecDetectMulti2_Lsm3Q_solve(MvecDetectMulti2_Lsm3Q* lsm) {
    if (lsm == nullptr || lsm->images == 0) return TL_ERROR_PARAM;
    lsm->failureCode = fitRotations(lsm->store, lsm->used, 0.5 * lsm->width, 0.5 * lsm->height,
                                    lsm->focalLength, lsm->rotation);
    return TL_OK;
}

uint32_t MvecDetectMulti2_Lsm3Q_getFailureCode(const MvecDetectMulti2_Lsm3Q* lsm) {
    return lsm == nullptr ? ~0u : lsm->failureCode;
}

TLResult MvecDetectMulti2_Lsm3Q_outputMvec(MvecDetectMulti2_Lsm3Q* lsm, MvecDetectMulti2_Mvec* mvec,
                                           int32_t image) {
    if (lsm == nullptr || mvec == nullptr || mvec->kind != MVEC_KIND_QUATERNION || image < 0 ||
        image >= lsm->images)
        return TL_ERROR_PARAM;
    const Quat& q = lsm->rotation[image];
    mvec->u.quat = image == 0 ? Quat{1.0, 0.0, 0.0, 0.0} : Quat{q.w, -q.x, -q.y, -q.z};
    mvec->focalLength = lsm->focalLength;
    return TL_OK;
}

TLResult MvecDetectMulti2_Lsm3Q_setInitialMvec(MvecDetectMulti2_Lsm3Q* lsm, const MvecDetectMulti2_Mvec* mvec,
                                               int32_t image) {
    if (lsm == nullptr || mvec == nullptr || mvec->kind != MVEC_KIND_QUATERNION || image < 1 ||
        image >= lsm->images)
        return TL_ERROR_PARAM;
    const Quat& q = mvec->u.quat;
    if (q.w == 0.0 && q.x == 0.0 && q.y == 0.0 && q.z == 0.0) return TL_ERROR_PARAM;
    lsm->rotation[image] = quatNormalised({q.w, -q.x, -q.y, -q.z});
    return TL_OK;
}

TLResult MvecDetectMulti2_Lsm3Q_update(MvecDetectMulti2_Lsm3Q* lsm, int32_t image) {
    if (lsm == nullptr || image < 0 || image >= lsm->images) return TL_ERROR_PARAM;
    pointsDropImage(&lsm->store, image, true);
    for (int32_t i = image > 0 ? image : 1; i + 1 < lsm->images; ++i) lsm->rotation[i] = lsm->rotation[i + 1];
    lsm->rotation[lsm->images - 1] = {1.0, 0.0, 0.0, 0.0};
    if (lsm->used > image) --lsm->used;
    return TL_OK;
}

// ---- Homographies ---------------------------------------------------------------

namespace {

constexpr double kIdentity9[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

// Pixel to normalised: T = [1/s 0 -cx/s; 0 1/s -cy/s; 0 0 1].
void normaliser(const MILsm8St* ml, Mvec8Real* t, Mvec8Real* inverse) {
    const double s = ml->scale;
    *t = Mvec8Real{{1 / s, 0, -ml->centreX / s, 0, 1 / s, -ml->centreY / s, 0, 0, 1}};
    *inverse = Mvec8Real{{s, 0, ml->centreX, 0, s, ml->centreY, 0, 0, 1}};
}

// The map of a normalised homography (h8 = 1) on a point and its derivative
// by h0 to h7: false where the point maps to infinity or behind.
bool project(const double* h, double x, double y, double out[2], double dx[8], double dy[8]) {
    const double w = h[6] * x + h[7] * y + 1.0;
    if (!(w > 1e-9)) return false;
    const double X = (h[0] * x + h[1] * y + h[2]) / w, Y = (h[3] * x + h[4] * y + h[5]) / w;
    out[0] = X, out[1] = Y;
    if (dx != nullptr) {
        const double iw = 1.0 / w;
        const double gx[8] = {x * iw, y * iw, iw, 0, 0, 0, -X * x * iw, -X * y * iw};
        const double gy[8] = {0, 0, 0, x * iw, y * iw, iw, -Y * x * iw, -Y * y * iw};
        std::memcpy(dx, gx, sizeof gx);
        std::memcpy(dy, gy, sizeof gy);
    }
    return true;
}

struct Normalised {
    const MILsm8St* ml;
    double cx, cy, is;  // centre and 1 / scale
    double x(double v) const { return (v - cx) * is; }
    double y(double v) const { return (v - cy) * is; }
};

// Weighted squared distances in the reference plus the restraint; a point
// that maps to infinity makes the cost infinite.
double costOf(const Normalised& nz, int32_t n, const double (*h)[9]) {
    const MILsm8St* ml = nz.ml;
    double cost = 0.0;
    for (int32_t p = 0; p < ml->store.count; ++p) {
        const Point& pt = ml->store.points[p];
        if (pt.image2 >= n) continue;
        double a[2] = {nz.x(pt.x1), nz.y(pt.y1)}, b[2];
        if (pt.image1 > 0 && !project(h[pt.image1], a[0], a[1], a, nullptr, nullptr)) return HUGE_VAL;
        if (!project(h[pt.image2], nz.x(pt.x2), nz.y(pt.y2), b, nullptr, nullptr)) return HUGE_VAL;
        cost += pt.weight * ((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]));
    }
    for (int32_t k = 1; k < n; ++k) {
        for (int e = 0; e < 8; ++e)
            cost += ml->restraint * (h[k][e] - ml->initial[k][e]) * (h[k][e] - ml->initial[k][e]);
    }
    return cost;
}

// The algebraic fit of every image paired with the reference: u (h6 x +
// h7 y + 1) = h0 x + h1 y + h2 and likewise for v, linear in h.
bool algebraicStart(const Normalised& nz, int32_t n, double (*h)[9]) {
    const MILsm8St* ml = nz.ml;
    for (int32_t k = 1; k < n; ++k) {
        double a[64] = {}, b[8] = {};
        int32_t pairs = 0;
        for (int32_t p = 0; p < ml->store.count; ++p) {
            const Point& pt = ml->store.points[p];
            if (pt.image1 != 0 || pt.image2 != k) continue;
            const double u = nz.x(pt.x1), v = nz.y(pt.y1), x = nz.x(pt.x2), y = nz.y(pt.y2);
            const double rows[2][8] = {{x, y, 1, 0, 0, 0, -u * x, -u * y},
                                       {0, 0, 0, x, y, 1, -v * x, -v * y}};
            const double rhs[2] = {u, v};
            for (int r = 0; r < 2; ++r) {
                for (int s = 0; s < 8; ++s) {
                    b[s] += pt.weight * rows[r][s] * rhs[r];
                    for (int t = 0; t < 8; ++t) a[8 * s + t] += pt.weight * rows[r][s] * rows[r][t];
                }
            }
            ++pairs;
        }
        if (pairs == 0) continue;
        if (!MvecDetectMulti2_Lsm_solveSpd(a, b, 8)) return false;
        std::memcpy(h[k], b, sizeof b);
        h[k][8] = 1.0;
    }
    return true;
}

// Normal equations at h: a = J^T J (size by size), g = J^T r; false when
// a point maps to infinity.
bool normalEquations(const Normalised& nz, int32_t n, const double (*h)[9], double* a, double* g,
                     int32_t size) {
    const MILsm8St* ml = nz.ml;
    std::memset(a, 0, sizeof(double) * static_cast<size_t>(size) * size);
    std::memset(g, 0, sizeof(double) * static_cast<size_t>(size));
    for (int32_t p = 0; p < ml->store.count; ++p) {
        const Point& pt = ml->store.points[p];
        if (pt.image2 >= n) continue;
        double pa[2] = {nz.x(pt.x1), nz.y(pt.y1)}, pb[2], ax[8], ay[8], bx[8], by[8];
        const bool moving = pt.image1 > 0;
        if (moving && !project(h[pt.image1], pa[0], pa[1], pa, ax, ay)) return false;
        if (!project(h[pt.image2], nz.x(pt.x2), nz.y(pt.y2), pb, bx, by)) return false;
        const double r[2] = {pa[0] - pb[0], pa[1] - pb[1]};
        // Columns and signed derivatives of the two residuals.
        int32_t col[16];
        double jx[16], jy[16];
        int32_t c = 0;
        for (int e = 0; e < 8 && moving; ++e, ++c)
            col[c] = 8 * (pt.image1 - 1) + e, jx[c] = ax[e], jy[c] = ay[e];
        for (int e = 0; e < 8; ++e, ++c) col[c] = 8 * (pt.image2 - 1) + e, jx[c] = -bx[e], jy[c] = -by[e];
        const double w = pt.weight;
        for (int32_t s = 0; s < c; ++s) {
            g[col[s]] += w * (jx[s] * r[0] + jy[s] * r[1]);
            for (int32_t t = 0; t < c; ++t) a[col[s] * size + col[t]] += w * (jx[s] * jx[t] + jy[s] * jy[t]);
        }
    }
    return true;
}

// Levenberg-Marquardt from h (normalised), with the restraint; h keeps the
// result on success.
uint32_t levenbergMarquardt(const Normalised& nz, int32_t n, double (*h)[9]) {
    const MILsm8St* ml = nz.ml;
    const int32_t size = 8 * (n - 1);
    const size_t square = static_cast<size_t>(size) * size;
    double* work =
        static_cast<double*>(Memory_alloc(sizeof(double) * (3 * square + 2 * static_cast<size_t>(size))));
    if (work == nullptr) return MVEC_LSM_FAILURE_MEMORY;
    double *jtj = work, *damped = jtj + square, *check = damped + square, *g = check + square,
           *step = g + size;
    double trial[kMvecLsmMaxImages][9];
    uint32_t failure = MVEC_LSM_FAILURE_NOT_CONVERGED;
    double lambda = 1e-3;
    double cost = costOf(nz, n, h);
    for (int32_t iteration = 0; iteration < kHomographySteps && failure == MVEC_LSM_FAILURE_NOT_CONVERGED;
         ++iteration) {
        if (!normalEquations(nz, n, h, jtj, g, size)) {
            failure = MVEC_LSM_FAILURE_SINGULAR;
            break;
        }
        if (iteration == 0) {
            // Points that cannot fix the elements (on a line, too few) leave
            // J^T J singular; the damping would hide it.
            std::memcpy(check, jtj, sizeof(double) * square);
            for (int32_t i = 0; i < size; ++i) check[i * size + i] += ml->restraint, step[i] = 0.0;
            if (!MvecDetectMulti2_Lsm_solveSpd(check, step, size)) {
                failure = MVEC_LSM_FAILURE_SINGULAR;
                break;
            }
        }
        bool accepted = false;
        while (!accepted && lambda <= 1e12) {
            std::memcpy(damped, jtj, sizeof(double) * square);
            for (int32_t i = 0; i < size; ++i) {
                damped[i * size + i] += lambda * jtj[i * size + i] + ml->restraint;
                const int32_t k = 1 + i / 8, e = i % 8;
                step[i] = -(g[i] + ml->restraint * (h[k][e] - ml->initial[k][e]));
            }
            if (!MvecDetectMulti2_Lsm_solveSpd(damped, step, size)) {
                lambda *= 10.0;
                continue;
            }
            std::memcpy(trial, h, sizeof(double[9]) * static_cast<size_t>(n));
            double largest = 0.0;
            for (int32_t i = 0; i < size; ++i) {
                trial[1 + i / 8][i % 8] += step[i];
                const double m = step[i] < 0 ? -step[i] : step[i];
                if (m > largest) largest = m;
            }
            const double next = costOf(nz, n, trial);
            if (next <= cost) {
                accepted = true;
                const bool tiny = largest < kSmallStep || cost - next <= 1e-15 * cost;
                std::memcpy(h, trial, sizeof(double[9]) * static_cast<size_t>(n));
                cost = next;
                lambda = lambda > 1e-9 ? lambda * 0.1 : lambda;
                if (tiny) failure = 0;
            } else {
                lambda *= 10.0;
            }
        }
        // No step lowers the cost: h is the minimum as far as doubles tell.
        if (!accepted) failure = 0;
    }
    Memory_free(work);
    return failure;
}

void renormalise(MILsm8St* ml, double cx, double cy, double scale) {
    // H' = T' T^-1 H T T'^-1 for every image.
    Mvec8Real t, ti;
    normaliser(ml, &t, &ti);
    MILsm8St next = *ml;
    next.centreX = cx, next.centreY = cy, next.scale = scale;
    Mvec8Real t2, t2i;
    normaliser(&next, &t2, &t2i);
    Mvec8Real left, right;
    Mvec8Real_mult(&left, &t2, &ti);
    Mvec8Real_mult(&right, &t, &t2i);
    for (int32_t k = 1; k < kMvecLsmMaxImages; ++k) {
        for (double* h : {ml->homography[k], ml->initial[k]}) {
            Mvec8Real m;
            std::memcpy(m.m, h, sizeof m.m);
            Mvec8Real_mult(&m, &left, &m);
            Mvec8Real_mult(&m, &m, &right);
            if (Mvec8Real_normalize(&m, &m) == TL_OK) std::memcpy(h, m.m, sizeof m.m);
        }
    }
    ml->centreX = cx, ml->centreY = cy, ml->scale = scale;
}

void resetSolutions(MILsm8St* ml, int32_t from) {
    for (int32_t k = from; k < kMvecLsmMaxImages; ++k) {
        std::memcpy(ml->homography[k], kIdentity9, sizeof kIdentity9);
        std::memcpy(ml->initial[k], kIdentity9, sizeof kIdentity9);
    }
}

}  // namespace

TLResult construct_MILsm8St(MILsm8St* ml, Env* env) {
    if (ml == nullptr) return TL_ERROR_PARAM;
    std::memset(ml, 0, sizeof *ml);
    ml->env = env;
    ml->scale = 1.0;
    resetSolutions(ml, 0);
    return TL_OK;
}

TLResult destruct_MILsm8St(MILsm8St* ml) {
    if (ml == nullptr) return TL_ERROR_PARAM;
    pointsRelease(&ml->store);
    return construct_MILsm8St(ml, ml->env);
}

TLResult MILsm8St_init(MILsm8St* ml, int32_t width, int32_t height, int32_t images) {
    if (ml == nullptr || width < 1 || height < 1 || !validImages(images)) return TL_ERROR_PARAM;
    destruct_MILsm8St(ml);
    ml->width = width, ml->height = height, ml->images = images;
    ml->centreX = 0.5 * width, ml->centreY = 0.5 * height;
    ml->scale = 0.5 * (width > height ? width : height);
    return TL_OK;
}

TLResult MILsm8St_changeImageNum(MILsm8St* ml, int32_t images) {
    if (ml == nullptr || ml->images == 0 || !validImages(images)) return TL_ERROR_PARAM;
    ml->store.count = ml->store.lost = 0;
    ml->used = 0;
    resetSolutions(ml, images);
    ml->images = images;
    return TL_OK;
}

TLResult MILsm8St_copy(MILsm8St* dst, const MILsm8St* src) {
    if (dst == nullptr || src == nullptr || dst == src) return TL_ERROR_PARAM;
    Points store{};
    if (src->store.count > 0) {
        store.points =
            static_cast<Point*>(Memory_alloc(sizeof(Point) * static_cast<size_t>(src->store.count)));
        if (store.points == nullptr) return TL_ERROR_MEMORY;
        std::memcpy(store.points, src->store.points, sizeof(Point) * static_cast<size_t>(src->store.count));
        store.count = store.capacity = src->store.count;
    }
    store.lost = src->store.lost;
    pointsRelease(&dst->store);
    Env* env = dst->env;
    *dst = *src;
    dst->store = store;
    dst->env = env;
    return TL_OK;
}

TLResult MILsm8St_clear(MILsm8St* ml) {
    if (ml == nullptr || ml->images == 0) return TL_ERROR_PARAM;
    ml->store.count = ml->store.lost = 0;
    ml->used = 0;
    return TL_OK;
}

TLResult MILsm8St_clearBlock(MILsm8St* ml, int32_t image) {
    if (ml == nullptr || image < 0 || image >= ml->images) return TL_ERROR_PARAM;
    pointsDropImage(&ml->store, image, false);
    return TL_OK;
}

TLResult MILsm8St_addReal(MILsm8St* ml, int32_t image1, double x1, double y1, int32_t image2, double x2,
                          double y2, double weight) {
    if (ml == nullptr || image1 < 0 || image2 < 0 || image1 >= ml->images || image2 >= ml->images ||
        image1 == image2 || !(weight >= 0.0))
        return TL_ERROR_PARAM;
    if (weight == 0.0) return TL_OK;
    if (!pointsAdd(&ml->store, image1, x1, y1, image2, x2, y2, weight)) return TL_ERROR_MEMORY;
    const int32_t top = (image1 > image2 ? image1 : image2) + 1;
    if (top > ml->used) ml->used = top;
    return TL_OK;
}

TLResult MILsm8St_add(MILsm8St* ml, int32_t image1, float x1, float y1, int32_t image2, float x2, float y2,
                      float weight) {
    return MILsm8St_addReal(ml, image1, x1, y1, image2, x2, y2, weight);
}

TLResult MILsm8St_addF32(MILsm8St* ml, int32_t image1, int32_t x1, int32_t y1, int32_t image2, int32_t x2,
                         int32_t y2, int32_t weight) {
    if (ml == nullptr) return TL_ERROR_PARAM;
    return addQ15(&ml->store, ml->images, image1, x1, y1, image2, x2, y2, weight, &ml->used);
}

TLResult MILsm8St_setRestraint(MILsm8St* ml, double restraint) {
    if (ml == nullptr || !(restraint >= 0.0)) return TL_ERROR_PARAM;
    ml->restraint = restraint;
    return TL_OK;
}

TLResult MILsm8St_solve(MILsm8St* ml) {
    if (ml == nullptr || ml->images == 0) return TL_ERROR_PARAM;
    const int32_t n = ml->used;
    ml->failureCode = 0;
    if (ml->store.lost != 0) {
        ml->failureCode = MVEC_LSM_FAILURE_MEMORY;
        return TL_OK;
    }
    if (n < 2 || tooFew(ml->store, n, 8)) {
        ml->failureCode = MVEC_LSM_FAILURE_TOO_FEW_POINTS;
        return TL_OK;
    }
    const Normalised nz{ml, ml->centreX, ml->centreY, 1.0 / ml->scale};
    double h[kMvecLsmMaxImages][9];
    std::memcpy(h, ml->homography, sizeof(double[9]) * static_cast<size_t>(n));
    if (ml->fromRotation != 0) {
        // The best pure rotation of the camera, as a homography of rays.
        Quat q[kMvecLsmMaxImages];
        for (Quat& r : q) r = {1.0, 0.0, 0.0, 0.0};
        ml->failureCode = fitRotations(ml->store, n, ml->centreX, ml->centreY, ml->scale, q);
        for (int32_t k = 1; k < n && ml->failureCode == 0; ++k) {
            double r[9];
            quatMatrix(q[k], r);
            if (!(r[8] > 1e-9)) ml->failureCode = MVEC_LSM_FAILURE_SINGULAR;
            for (int e = 0; e < 9; ++e) h[k][e] = r[e] / r[8];
        }
    } else if (ml->restraint == 0.0 && !algebraicStart(nz, n, h)) {
        ml->failureCode = MVEC_LSM_FAILURE_SINGULAR;
    }
    if (ml->failureCode == 0) ml->failureCode = levenbergMarquardt(nz, n, h);
    if (ml->failureCode == 0) std::memcpy(ml->homography, h, sizeof(double[9]) * static_cast<size_t>(n));
    return TL_OK;
}

uint32_t MILsm8St_getFailureCode(const MILsm8St* ml) { return ml == nullptr ? ~0u : ml->failureCode; }

TLResult MILsm8St_outputMvecReal(const MILsm8St* ml, Mvec8Real* m, int32_t image) {
    if (ml == nullptr || m == nullptr || image < 0 || image >= ml->images) return TL_ERROR_PARAM;
    Mvec8Real_setIdentity(m);
    if (image == 0) return TL_OK;
    // Reference to image in pixels: T^-1 H^-1 T.
    Mvec8Real t, ti, h, out;
    normaliser(ml, &t, &ti);
    std::memcpy(h.m, ml->homography[image], sizeof h.m);
    if (Mvec8Real_inv(&h, &h) != TL_OK) return TL_OK;
    Mvec8Real_mult(&out, &h, &t);
    Mvec8Real_mult(&out, &ti, &out);
    if (Mvec8Real_normalize(&out, &out) == TL_OK) *m = out;
    return TL_OK;
}

TLResult MILsm8St_outputMvec(const MILsm8St* ml, MvecDetectMulti2_Mvec* mvec, int32_t image) {
    if (mvec == nullptr || mvec->kind != MVEC_KIND_PROJECTIVE) return TL_ERROR_PARAM;
    return MILsm8St_outputMvecReal(ml, &mvec->u.projective, image);
}

TLResult MILsm8St_setInitialMvecReal(MILsm8St* ml, const Mvec8Real* m, int32_t image) {
    if (ml == nullptr || m == nullptr || image < 1 || image >= ml->images) return TL_ERROR_PARAM;
    Mvec8Real t, ti, h;
    normaliser(ml, &t, &ti);
    Mvec8Real_mult(&h, m, &ti);
    Mvec8Real_mult(&h, &t, &h);
    if (Mvec8Real_inv(&h, &h) != TL_OK || Mvec8Real_normalize(&h, &h) != TL_OK) return TL_ERROR_PARAM;
    std::memcpy(ml->homography[image], h.m, sizeof h.m);
    std::memcpy(ml->initial[image], h.m, sizeof h.m);
    return TL_OK;
}

TLResult MILsm8St_setInitialMvec(MILsm8St* ml, const MvecDetectMulti2_Mvec* mvec, int32_t image) {
    if (mvec == nullptr || mvec->kind != MVEC_KIND_PROJECTIVE) return TL_ERROR_PARAM;
    return MILsm8St_setInitialMvecReal(ml, &mvec->u.projective, image);
}

TLResult construct_MILsm8R(MILsm8R* ml, Env* env) { return construct_MILsm8St(ml, env); }
TLResult destruct_MILsm8R(MILsm8R* ml) { return destruct_MILsm8St(ml); }

TLResult MILsm8R_init(MILsm8R* ml, int32_t width, int32_t height, int32_t images) {
    const TLResult r = MILsm8St_init(ml, width, height, images);
    if (r != TL_OK) return r;
    ml->fromRotation = 1;
    ml->scale = 1000.0;
    return TL_OK;
}

TLResult MILsm8R_setCameraParam(MILsm8R* ml, double focalLength, double centreX, double centreY) {
    if (ml == nullptr || ml->images == 0 || !(focalLength > 0.0)) return TL_ERROR_PARAM;
    renormalise(ml, centreX, centreY, focalLength);
    ml->fromRotation = 1;
    return TL_OK;
}

TLResult MILsm8R_solve(MILsm8R* ml) { return MILsm8St_solve(ml); }

}  // namespace vq_tl
