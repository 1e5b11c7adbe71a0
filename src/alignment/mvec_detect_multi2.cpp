#include "alignment/mvec_detect_multi2.h"

#include <cstring>

#include "imageproc/image_stripes.h"
#include "runtime/memory.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

constexpr int32_t kBands = 4;
constexpr int32_t kStrengthScale = 32768;  // the fourth root of the response as it is
constexpr int32_t kFits = 3;               // one fit and up to two refits without outliers
constexpr int32_t kMaxHalfSearch = 8;
constexpr int32_t kMaxCostShare = 60;
// The finest level's gradient steps use blocks of up to 15 by 15.
constexpr int32_t kRefineHalf = 7;
constexpr double kPi = 3.14159265358979323846;
// With three or more images: a feature that was not an inlier of the
// previous image keeps three quarters of its weight while that image's
// reliability is below 0.95.
constexpr int32_t kGoodReliability = 0x799a;

uint8_t* rowOf(const Image* i, int32_t y) { return i->plane[0] + static_cast<intptr_t>(i->pitch[0]) * y; }

bool hasPixels(const Image* i) {
    return i != nullptr && i->plane[0] != nullptr && i->width > 0 && i->height > 0;
}

bool validDof(int32_t dof) {
    return dof == 2 || dof == 3 || dof == 6 || dof == 8 || dof == 14 || dof == 18 || dof == 24;
}

int32_t absOf(int32_t v) { return v < 0 ? -v : v; }

// ---- Pyramid --------------------------------------------------------------------

struct ShrinkJob {
    Image* dst;
    const Image* src;
    int32_t simple;
};

TLResult shrinkStripe(void* arg, int32_t index, int32_t count) {
    const ShrinkJob& j = *static_cast<const ShrinkJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.dst->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* s0 = rowOf(j.src, 2 * y);
        const uint8_t* s1 = rowOf(j.src, 2 * y + 1);
        const uint8_t* s2 = rowOf(j.src, 2 * y + 2);
        const uint8_t* s3 = rowOf(j.src, 2 * y + 3);
        uint8_t* d = rowOf(j.dst, y);
        if (j.simple != 0) {
            for (int32_t x = 0; x < j.dst->width; ++x) {
                const int32_t i = 2 * x + 1;
                d[x] = static_cast<uint8_t>((s1[i] + s1[i + 1] + s2[i] + s2[i + 1] + 2) >> 2);
            }
            continue;
        }
        // 1 3 3 1 down the columns, then along the row: taps sum to 64.
        for (int32_t x = 0; x < j.dst->width; ++x) {
            const int32_t i = 2 * x;
            const int32_t c0 = s0[i] + 3 * (s1[i] + s2[i]) + s3[i];
            const int32_t c1 = s0[i + 1] + 3 * (s1[i + 1] + s2[i + 1]) + s3[i + 1];
            const int32_t c2 = s0[i + 2] + 3 * (s1[i + 2] + s2[i + 2]) + s3[i + 2];
            const int32_t c3 = s0[i + 3] + 3 * (s1[i + 3] + s2[i + 3]) + s3[i + 3];
            d[x] = static_cast<uint8_t>((c0 + 3 * (c1 + c2) + c3 + 32) >> 6);
        }
    }
    return TL_OK;
}

// Mean of ratio by ratio blocks; the remainder rows and columns of the input
// are left out, so level pixel x covers input pixels ratio x to ratio x +
// ratio - 1 exactly.
struct RatioJob {
    Image* dst;
    const Image* src;
    int32_t ratio;
};

TLResult ratioStripe(void* arg, int32_t index, int32_t count) {
    const RatioJob& j = *static_cast<const RatioJob*>(arg);
    const int32_t r = j.ratio, area = r * r;
    int32_t first, last;
    ImageStripe_rows(j.dst->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        uint8_t* d = rowOf(j.dst, y);
        for (int32_t x = 0; x < j.dst->width; ++x) {
            int32_t sum = 0;
            for (int32_t v = 0; v < r; ++v) {
                const uint8_t* s = rowOf(j.src, y * r + v) + x * r;
                for (int32_t u = 0; u < r; ++u) sum += s[u];
            }
            d[x] = static_cast<uint8_t>((sum + area / 2) / area);
        }
    }
    return TL_OK;
}

// ---- Block search -----------------------------------------------------------------

// The equiangular fit of a cost valley, the standard sub-pixel fit for sums
// of absolute differences (whose valley is a V, not a parabola, so that a
// parabola would pull offsets towards whole pixels). Q15; false when the
// centre is no minimum along the axis or the offset reaches a pixel.
bool subPixel(int32_t minus, int32_t centre, int32_t plus, int32_t* offset) {
    const int32_t rise = minus - centre > plus - centre ? minus - centre : plus - centre;
    if (rise <= 0) {
        *offset = 0;
        return minus >= centre && plus >= centre;
    }
    const int64_t o = static_cast<int64_t>(minus - plus) * 32768 / (2 * int64_t{rise});
    *offset = static_cast<int32_t>(o);
    return o > -32768 && o < 32768;
}

}  // namespace
namespace {
template <int32_t H, bool kZeroMean>
void search(const Image* base, const Image* target, int32_t x, int32_t y, int32_t px, int32_t py, int32_t hs,
            bool fit, int32_t* outX, int32_t* outY) {
    constexpr int32_t kSide = 2 * H + 1, kN = kSide * kSide;
    constexpr int32_t kMaxReach = kMaxHalfSearch + 1;  // candidates the fit may ask for
    constexpr int32_t kMaxRegion = 2 * (kMaxReach + H) + 1;
    int32_t block[kN];
    int32_t blockSum = 0;
    for (int32_t v = 0; v < kSide; ++v) {
        const uint8_t* row = rowOf(base, y - H + v) + x - H;
        for (int32_t u = 0; u < kSide; ++u) blockSum += block[v * kSide + u] = row[u];
    }
    const int32_t reach = hs + 1, region = 2 * (reach + H) + 1, stride = region + 1;
    const int32_t left = px - reach - H, top = py - reach - H;
    // Integral of the target over the region, so that the mean of every
    // candidate window is four look-ups.
    int32_t integral[(kMaxRegion + 1) * (kMaxRegion + 1)];
    if (kZeroMean) {
        for (int32_t i = 0; i < stride; ++i) integral[i] = 0;
        for (int32_t v = 0; v < region; ++v) {
            const uint8_t* row = rowOf(target, top + v) + left;
            int32_t run = 0;
            integral[(v + 1) * stride] = 0;
            for (int32_t u = 0; u < region; ++u) {
                run += row[u];
                integral[(v + 1) * stride + u + 1] = integral[v * stride + u + 1] + run;
            }
        }
    }
    const int32_t cacheSide = 2 * reach + 1;
    int32_t cache[(2 * kMaxReach + 1) * (2 * kMaxReach + 1)];
    for (int32_t i = 0; i < cacheSide * cacheSide; ++i) cache[i] = -1;
    // The zero-mean cost times kN: sum |kN (b - t) - (sum b - sum t)|, exact
    // in integers (at most 49 * 49 * 255).
    auto cost = [&](int32_t dx, int32_t dy) {
        int32_t& slot = cache[(dy + reach) * cacheSide + dx + reach];
        if (slot >= 0) return slot;
        const int32_t wx = dx + reach, wy = dy + reach;  // window's top-left in the region
        int32_t c = 0;
        if (kZeroMean) {
            const int32_t windowSum = integral[(wy + kSide) * stride + wx + kSide] -
                                      integral[wy * stride + wx + kSide] -
                                      integral[(wy + kSide) * stride + wx] + integral[wy * stride + wx];
            const int32_t d = blockSum - windowSum;
            for (int32_t v = 0; v < kSide; ++v) {
                const uint8_t* row = rowOf(target, top + wy + v) + left + wx;
                for (int32_t u = 0; u < kSide; ++u) c += absOf(kN * (block[v * kSide + u] - row[u]) - d);
            }
        } else {
            for (int32_t v = 0; v < kSide; ++v) {
                const uint8_t* row = rowOf(target, top + wy + v) + left + wx;
                for (int32_t u = 0; u < kSide; ++u) c += absOf(block[v * kSide + u] - row[u]);
            }
        }
        slot = c;
        return c;
    };
    // Outward square spiral: each ring right, down, left, up. A ring whose
    // half size the best offset stays inside adds nothing beyond the fit's
    // neighbours, so the search stops there.
    int32_t best = cost(0, 0), bx = 0, by = 0;
    auto consider = [&](int32_t dx, int32_t dy) {
        const int32_t c = cost(dx, dy);
        if (c < best) best = c, bx = dx, by = dy;
    };
    for (int32_t k = 1; k <= hs; ++k) {
        for (int32_t dx = -k; dx <= k; ++dx) consider(dx, -k);
        for (int32_t dy = -k + 1; dy <= k; ++dy) consider(k, dy);
        for (int32_t dx = k - 1; dx >= -k; --dx) consider(dx, k);
        for (int32_t dy = k - 1; dy > -k; --dy) consider(-k, dy);
        if ((absOf(bx) < k && absOf(by) < k) || k == hs) break;
    }
    // A block that does not find itself fails: its best cost is above
    // kMaxCostShare percent of its own variation (the zero-mean cost against
    // a flat block), as where a depth edge or an occlusion cuts through it,
    // or where noise outweighs its texture. Such matches would bend the fit
    // by fractions of a pixel that no outlier threshold of whole pixels sees.
    int32_t variation = 0;
    for (int32_t i = 0; i < kN; ++i) variation += absOf(kN * block[i] - blockSum);
    if (int64_t{kZeroMean ? best : kN * best} * 100 > int64_t{kMaxCostShare} * variation) return;
    // A block found exactly (cost 0) sits where it is: neighbours of
    // unequal cost there tell the texture's asymmetry, not an offset.
    int32_t ox = 0, oy = 0;
    if (fit && best > 0 &&
        (!subPixel(cost(bx - 1, by), best, cost(bx + 1, by), &ox) ||
         !subPixel(cost(bx, by - 1), best, cost(bx, by + 1), &oy))) {
        *outX = *outY = kMvecDetectInvalid;
        return;
    }
    *outX = ((px + bx) << 15) + ox;
    *outY = ((py + by) << 15) + oy;
}

// Gauss-Newton steps on the zero-mean difference of the block and the
// target sampled bilinearly round (*outX, *outY), with the block's own
// gradients. The cost fit above reads the valley along each axis at the
// best whole offset of the other, so a fraction off on one axis tilts the
// valley of the other; these steps measure both axes at once. A block
// without gradient, or a step that leaves the pixel found, keeps the fit.
void refine(const Image* base, const Image* target, int32_t x, int32_t y, int32_t hb, int32_t* outX,
            int32_t* outY) {
    constexpr int32_t kSide = 2 * kRefineHalf + 1, kSteps = 3;
    // As wide as the borders of both pictures allow, up to kRefineHalf.
    int32_t reach = kRefineHalf;
    const int32_t tx = *outX >> 15, ty = *outY >> 15;
    const int32_t room[8] = {x - 1,  y - 1,  base->width - 2 - x,    base->height - 2 - y,
                             tx - 1, ty - 1, target->width - 3 - tx, target->height - 3 - ty};
    for (int32_t r : room) reach = r < reach ? r : reach;
    if (reach < hb) return;
    const int32_t side = 2 * reach + 1, n = side * side;
    // The block and its gradients, made zero-mean: then the sums below need
    // no mean of the target's samples, which the zero-mean gradients cancel.
    float block[kSide * kSide], gx[kSide * kSide], gy[kSide * kSide];
    float gxMean = 0, gyMean = 0;
    for (int32_t v = 0; v < side; ++v) {
        const uint8_t* up = rowOf(base, y - reach + v - 1) + x - reach;
        const uint8_t* row = rowOf(base, y - reach + v) + x - reach;
        const uint8_t* down = rowOf(base, y - reach + v + 1) + x - reach;
        float* b = block + v * side;
        float* bx = gx + v * side;
        float* by = gy + v * side;
        for (int32_t u = 0; u < side; ++u) {
            b[u] = row[u];
            bx[u] = 0.5f * static_cast<float>(row[u + 1] - row[u - 1]);
            by[u] = 0.5f * static_cast<float>(down[u] - up[u]);
        }
    }
    for (int32_t i = 0; i < n; ++i) gxMean += gx[i], gyMean += gy[i];
    gxMean /= static_cast<float>(n), gyMean /= static_cast<float>(n);
    float hxx = 0, hxy = 0, hyy = 0;
    for (int32_t i = 0; i < n; ++i) {
        gx[i] -= gxMean, gy[i] -= gyMean;
        hxx += gx[i] * gx[i], hxy += gx[i] * gy[i], hyy += gy[i] * gy[i];
    }
    const double det = static_cast<double>(hxx) * hyy - static_cast<double>(hxy) * hxy;
    if (!(det > 1e-6 * (static_cast<double>(hxx) + hyy) * (static_cast<double>(hxx) + hyy))) return;
    const double startX = *outX / 32768.0, startY = *outY / 32768.0;
    double qx = startX, qy = startY;
    for (int32_t step = 0; step < kSteps; ++step) {
        const double fx0 = qx - reach, fy0 = qy - reach;
        const int32_t ix = static_cast<int32_t>(fx0 >= 0 ? fx0 : fx0 - 1),
                      iy = static_cast<int32_t>(fy0 >= 0 ? fy0 : fy0 - 1);
        if (ix < 0 || iy < 0 || ix + side >= target->width || iy + side >= target->height) return;
        const float ax = static_cast<float>(fx0 - ix), ay = static_cast<float>(fy0 - iy);
        float ex = 0, ey = 0;
        for (int32_t v = 0; v < side; ++v) {
            const uint8_t* r0 = rowOf(target, iy + v) + ix;
            const uint8_t* r1 = rowOf(target, iy + v + 1) + ix;
            const float* b = block + v * side;
            const float* bx = gx + v * side;
            const float* by = gy + v * side;
            for (int32_t u = 0; u < side; ++u) {
                const float top = r0[u] + ax * static_cast<float>(r0[u + 1] - r0[u]);
                const float bottom = r1[u] + ax * static_cast<float>(r1[u + 1] - r1[u]);
                const float r = top + ay * (bottom - top) - b[u];
                ex += bx[u] * r, ey += by[u] * r;
            }
        }
        const double dx = -(hyy * static_cast<double>(ex) - hxy * static_cast<double>(ey)) / det;
        const double dy = -(hxx * static_cast<double>(ey) - hxy * static_cast<double>(ex)) / det;
        qx += dx, qy += dy;
        if (!(qx - startX < 1.0 && startX - qx < 1.0 && qy - startY < 1.0 && startY - qy < 1.0)) return;
        // A step below a hundredth of a pixel leaves a thousandth to go.
        if (dx * dx + dy * dy < 1e-4) break;
    }
    *outX = static_cast<int32_t>(qx * 32768.0 + (qx >= 0 ? 0.5 : -0.5));
    *outY = static_cast<int32_t>(qy * 32768.0 + (qy >= 0 ? 0.5 : -0.5));
}

// ---- Estimates ------------------------------------------------------------------

// The motion of image i relative to the reference on level l.
MvecDetectMulti2_Mvec* estimateOf(const MvecDetectMulti2* d, int32_t i, int32_t l) {
    return &d->estimates[i * d->levelCount + l];
}

double levelFocal(const MvecDetectMulti2* d, int32_t level) {
    double f = d->focalLength / d->shrinkRatio;
    for (int32_t l = 0; l < level; ++l) f *= 0.5;
    return f;
}

// A point through a motion of a level: the rotation works on coordinates
// measured from the level's centre.
bool movePoint(const MvecDetectMulti2* d, const MvecDetectMulti2_Mvec* m, int32_t level, int32_t x, int32_t y,
               int32_t* ox, int32_t* oy) {
    int32_t cx = 0, cy = 0;
    if (m->kind == MVEC_KIND_QUATERNION) cx = d->levelWidth[level] << 14, cy = d->levelHeight[level] << 14;
    if (MvecDetectMulti2_Mvec_transF32(m, ox, oy, x - cx, y - cy) != TL_OK) return false;
    *ox += cx, *oy += cy;
    return true;
}

// result = a after the inverse of b; a copy of a when b is singular.
void afterInverse(MvecDetectMulti2_Mvec* result, const MvecDetectMulti2_Mvec* a,
                  const MvecDetectMulti2_Mvec* b) {
    MvecDetectMulti2_Mvec inverse = *b;
    *result = *a;
    if (MvecDetectMulti2_Mvec_inv(&inverse, b) == TL_OK) MvecDetectMulti2_Mvec_mult(result, a, &inverse);
}

int32_t referenceOf(const MvecDetectMulti2* d, int32_t image) {
    if (d->baseImageMatching != 0) return 0;
    return (image - 1) - (image - 1) % d->referenceFrameUpdateInterval;
}

struct MatchJob {
    const MvecDetectMulti2* detector;
    const Image* base;
    const Image* target;
    const FeatPntList* list;
    MvecDetectMulti2_MatchingFeatPntList* matches;
    const MvecDetectMulti2_Mvec* prediction;
    int32_t level;
};

TLResult matchStripe(void* arg, int32_t index, int32_t count) {
    const MatchJob& j = *static_cast<const MatchJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.matches->count, index, count, &first, &last);
    for (int32_t i = first; i < last; ++i) {
        const FeatPnt& f = j.list->points[i];
        MvecDetectMulti2_Match& m = j.matches->matches[i];
        m.x0 = f.x << 15, m.y0 = f.y << 15;
        m.x1 = m.y1 = kMvecDetectInvalid;
        m.strength = f.strength;
        int32_t qx, qy;
        if (!movePoint(j.detector, j.prediction, j.level, m.x0, m.y0, &qx, &qy)) continue;
        const int32_t px = static_cast<int32_t>((int64_t{qx} + 16384) >> 15);
        const int32_t py = static_cast<int32_t>((int64_t{qy} + 16384) >> 15);
        MvecDetectMulti2_Matching_process(j.detector, j.base, j.target, f.x, f.y, px, py, &m.x1, &m.y1);
        // The finest level's matches make the result: they get the gradient steps.
        if (j.level == 0 && j.detector->subpixelMatching != 0 && m.x1 != kMvecDetectInvalid)
            refine(j.base, j.target, f.x, f.y, j.detector->halfBlockMatchSize, &m.x1, &m.y1);
    }
    return TL_OK;
}

// Residuals of the weighted matches from the motion `fit` (reference to
// image) and their inlier marks; returns how many marks changed.
int32_t measure(const MvecDetectMulti2* d, MvecDetectMulti2_MatchingFeatPntList* list,
                const MvecDetectMulti2_Mvec* fit, int32_t level, uint64_t threshold) {
    int32_t changed = 0;
    for (int32_t i = 0; i < list->count; ++i) {
        MvecDetectMulti2_Match& m = list->matches[i];
        if (m.weight == 0) continue;
        const int32_t was = m.inlier;
        m.inlier = 0;
        m.residual = INT32_MAX;
        int32_t qx, qy;
        if (movePoint(d, fit, level, m.x0, m.y0, &qx, &qy)) {
            const int64_t ex = int64_t{qx} - m.x1, ey = int64_t{qy} - m.y1;
            const uint64_t square = static_cast<uint64_t>(ex * ex) + static_cast<uint64_t>(ey * ey);
            const double root = RawDouble_sqrt(static_cast<double>(square));
            m.residual = root < 2147483647.0 ? static_cast<int32_t>(root) : INT32_MAX;
            m.inlier = square <= threshold ? 1 : 0;
        }
        changed += m.inlier != was ? 1 : 0;
    }
    return changed;
}

// The squared outlier distance after the first fit: four times the median
// residual, not below half a pixel, not above outlierThresh. Matches that
// went a pixel or two astray (a repeated texture, a depth edge) lie well
// inside any fixed threshold of pixels and would tilt the fit; against the
// median they stand out. The median comes from a histogram of 1/64 pixel
// bins up to 4 pixels.
uint64_t tightThreshold(const MvecDetectMulti2* d, const MvecDetectMulti2_MatchingFeatPntList* list) {
    int32_t bins[256] = {};
    int32_t n = 0;
    for (int32_t i = 0; i < list->count; ++i) {
        const MvecDetectMulti2_Match& m = list->matches[i];
        if (m.weight == 0) continue;
        const int32_t bin = m.residual >> 9;
        ++bins[bin < 255 ? bin : 255];
        ++n;
    }
    int32_t bin = 0;
    for (int32_t seen = bins[0]; 2 * seen < n; seen += bins[++bin]) {
    }
    const uint64_t median = static_cast<uint64_t>(bin) * 512 + 256;
    uint64_t tight = 16 * median * median;
    const uint64_t floor = uint64_t{16384} * 16384;
    if (tight < floor) tight = floor;
    return tight < d->outlierThresh ? tight : d->outlierThresh;
}

// Fit of one level: the inlying matches of reference r in image k, fitted
// again while the outliers change, up to kFits fits. *fit receives the
// motion r to k; the return is the solver's failure code.
uint32_t fitLevel(MvecDetectMulti2* d, int32_t level, int32_t r, int32_t k, MvecDetectMulti2_Mvec* fit,
                  TLResult* result) {
    MvecDetectMulti2_Lsm* lsm = &d->lsm[level];
    MvecDetectMulti2_MatchingFeatPntList* list = &d->matchLists[level];
    uint64_t threshold = d->outlierThresh;
    for (int32_t round = 0; round < kFits; ++round) {
        TLResult rr = MvecDetectMulti2_Lsm_clearBlock(lsm, k);
        for (int32_t i = 0; rr == TL_OK && i < list->count; ++i) {
            const MvecDetectMulti2_Match& m = list->matches[i];
            if (m.weight > 0 && m.inlier != 0)
                rr = MvecDetectMulti2_Lsm_addF32(lsm, r, m.x0, m.y0, k, m.x1, m.y1, m.weight);
        }
        // A pair the solver could not store shows in its failure code.
        if (rr == TL_ERROR_MEMORY) rr = TL_OK;
        if (rr == TL_OK) rr = MvecDetectMulti2_Lsm_solve(lsm);
        if (rr != TL_OK) {
            *result = rr;
            return MVEC_LSM_FAILURE_MEMORY;
        }
        const uint32_t code = MvecDetectMulti2_Lsm_getFailureCode(lsm);
        if (code != 0) return code;
        MvecDetectMulti2_Mvec toK = *estimateOf(d, k, level), toR = *estimateOf(d, r, level);
        MvecDetectMulti2_Lsm_outputMvec(lsm, &toK, k);
        MvecDetectMulti2_Lsm_outputMvec(lsm, &toR, r);
        afterInverse(fit, &toK, &toR);
        int32_t changed = measure(d, list, fit, level, threshold);
        if (round == 0) {
            threshold = tightThreshold(d, list);
            changed = measure(d, list, fit, level, threshold);
        }
        if (changed == 0) break;
    }
    return 0;
}

// The weights of a level's matches: the strength byte, 0 for failed
// matches; with three or more images, lowered by the feature's distance
// from the previous image's fit and for features that were outliers there.
void weigh(MvecDetectMulti2* d, MvecDetectMulti2_MatchingFeatPntList* list, int32_t k) {
    const bool history = d->images >= 3 && d->baseImageMatching != 0 && k >= 2;
    for (int32_t i = 0; i < list->count; ++i) {
        MvecDetectMulti2_Match& m = list->matches[i];
        m.inlier = 0;
        if (m.x1 == kMvecDetectInvalid) {
            m.weight = 0;
            continue;
        }
        int64_t w = m.strength;
        if (history) {
            w = w * 65536 / (65536 + int64_t{m.prevResidual});
            if (d->reliability < kGoodReliability && m.prevGood == 0) w = w * 3 / 4;
            if (w < 1) w = 1;
        }
        m.weight = static_cast<int32_t>(w);
        m.inlier = 1;  // every valid match takes part in the first fit
    }
}

void releaseAll(MvecDetectMulti2* d) {
    // Pieces of an arena go back all at once, by the rewind at the end.
    const bool carved = d->carvedFrom != nullptr;
    if (d->individuals != nullptr) {
        for (int32_t i = 0; i < d->images; ++i) {
            for (int32_t l = 0; l < kMvecDetectMaxLevels; ++l) {
                destruct_Image(&d->individuals[i].level[l]);
                destruct_FeatPntList(&d->individuals[i].list[l]);
            }
        }
        if (!carved) Memory_free(d->individuals);
    }
    d->individuals = nullptr;
    if (!carved) Memory_free(d->estimates);
    d->estimates = nullptr;
    for (int32_t l = 0; l < kMvecDetectMaxLevels; ++l) {
        destruct_MvecDetectMulti2_Lsm(&d->lsm[l]);
        if (!carved) Memory_free(d->matchLists[l].matches);
        d->matchLists[l].matches = nullptr;
        d->matchLists[l].count = d->matchLists[l].capacity = 0;
    }
    if (carved) Arena_rewind(d->carvedFrom, d->arenaMark);
    d->carvedFrom = nullptr;
    d->arenaMark = 0;
    d->responseWork = nullptr;
    d->responseWorkSize = 0;
    d->width = d->height = d->images = d->levelCount = d->added = 0;
    d->failureCode = 0;
    d->reliability = 0;
}

// The arguments of init against the settings: TL_OK or the code init gives.
TLResult checkInit(const MvecDetectMulti2* d, int32_t width, int32_t height, int32_t images) {
    if (images > kMvecDetectMaxImages) return TL_ERROR_UNSUPPORTED;
    if (width < 1 || height < 1 || images < 2 || width > 65535 || height > 65535 || !validDof(d->dof))
        return TL_ERROR_PARAM;
    if (d->halfBlockMatchSize != 2 && d->halfBlockMatchSize != 3) return TL_ERROR_UNSUPPORTED;
    if (d->shrinkRatio < 1 || width / d->shrinkRatio < 1 || height / d->shrinkRatio < 1)
        return TL_ERROR_PARAM;
    if (d->halfSearchSize < 1 || d->halfSearchSize > kMaxHalfSearch || d->maxFeatPntsNum < 1)
        return TL_ERROR_PARAM;
    return TL_OK;
}

// The sizes of the levels for checked arguments; the number of levels, or
// -1 when the depth cannot be worked out.
int32_t levelSizes(const MvecDetectMulti2* d, int32_t width, int32_t height, int32_t* levelWidth,
                   int32_t* levelHeight) {
    int32_t n = d->levels >= 1 ? d->levels : MvecDetectMulti2_calcLevels(d, width, height);
    if (n < 0) return -1;
    if (n < 1) n = 1;
    // Levels while both sides stay at least one pixel.
    int32_t w = width / d->shrinkRatio, h = height / d->shrinkRatio, count = 0;
    while (count < n && count < kMvecDetectMaxLevels && w >= 1 && h >= 1) {
        levelWidth[count] = w, levelHeight[count] = h;
        ++count;
        w = (w - 2) / 2, h = (h - 2) / 2;
    }
    return count;
}

// Images whose feature lists are computed: the first, or with matching
// against earlier images every one.
int32_t listedImages(const MvecDetectMulti2* d, int32_t images) {
    return d->baseImageMatching != 0 ? 1 : images;
}

// The room of a level's feature list in an arena: twice what the grid
// needs, so that the sort has its second copy in place.
int64_t listRoom(const MvecDetectMulti2* d, int32_t w, int32_t h) {
    const int32_t capacity = FeatPntList_getCapacity(w, h, d->maxFeatPntsNum, d->adaptiveFeatPnts);
    return capacity < 0 ? -1 : 2 * int64_t{capacity};
}

// The largest response image of the levels, bytes; -1 when one does not fit.
int32_t responseRoom(const MvecDetectMulti2* d, int32_t count, const int32_t* levelWidth,
                     const int32_t* levelHeight) {
    int32_t most = 0;
    for (int32_t l = 0; l < count; ++l) {
        const int32_t bytes = FeatPnt_getResponseSize(levelWidth[l], levelHeight[l], d->maxFeatPntsNum);
        if (bytes < 0) return -1;
        most = bytes > most ? bytes : most;
    }
    return most;
}

// The pieces init carves from an arena, in its order, each with its padding,
// and the line that aligns the arena's start; -1 when one does not fit.
int64_t arenaBytes(const MvecDetectMulti2* d, int32_t images, int32_t count, const int32_t* levelWidth,
                   const int32_t* levelHeight) {
    int64_t total = kArenaAlign;
    total +=
        Arena_span(sizeof(MvecDetectMulti2_Mvec) * static_cast<size_t>(images) * static_cast<size_t>(count));
    total += Arena_span(sizeof(MvecDetectMulti2_Individual) * static_cast<size_t>(images));
    for (int32_t i = 0; i < images; ++i) {
        for (int32_t l = 0; l < count; ++l) {
            const int32_t bytes =
                Image_getSize(levelWidth[l], levelHeight[l], IMAGE_FORMAT_UINT8, IMAGE_SIZE_TOTAL);
            if (bytes <= 0) return -1;
            total += Arena_span(static_cast<size_t>(bytes));
        }
    }
    for (int32_t l = 0; l < count; ++l)
        total += Arena_span(sizeof(MvecDetectMulti2_Match) * static_cast<size_t>(d->maxFeatPntsNum));
    for (int32_t i = 0; i < listedImages(d, images); ++i) {
        for (int32_t l = 0; l < count; ++l) {
            const int64_t room = listRoom(d, levelWidth[l], levelHeight[l]);
            if (room < 0) return -1;
            if (room > 0) total += Arena_span(sizeof(FeatPnt) * static_cast<size_t>(room));
        }
    }
    const int32_t response = responseRoom(d, count, levelWidth, levelHeight);
    if (response < 0) return -1;
    if (response > 0) total += Arena_span(static_cast<size_t>(response));
    return total;
}

// A block of init: from the arena when there is one.
void* take(MvecDetectMulti2* d, size_t bytes) {
    return d->carvedFrom != nullptr ? Arena_alloc(d->carvedFrom, bytes) : Memory_alloc(bytes);
}

// The pyramid level buffers, and in an arena the feature lists and the
// response room; the records are constructed.
TLResult takeImages(MvecDetectMulti2* d) {
    const int32_t images = d->images, count = d->levelCount;
    const bool carved = d->carvedFrom != nullptr;
    TLResult r = TL_OK;
    for (int32_t i = 0; r == TL_OK && i < images; ++i) {
        for (int32_t l = 0; r == TL_OK && l < count; ++l) {
            const int32_t w = d->levelWidth[l], h = d->levelHeight[l];
            void* pixels = nullptr;
            if (carved) {
                pixels = Arena_alloc(d->carvedFrom, static_cast<size_t>(Image_getSize(
                                                        w, h, IMAGE_FORMAT_UINT8, IMAGE_SIZE_TOTAL)));
                if (pixels == nullptr) r = TL_ERROR_MEMORY;
            }
            if (r == TL_OK) r = Image_init(&d->individuals[i].level[l], w, h, pixels, IMAGE_FORMAT_UINT8);
        }
    }
    return r;
}

TLResult takeLists(MvecDetectMulti2* d) {
    if (d->carvedFrom == nullptr) return TL_OK;  // the lists take their own room when first filled
    TLResult r = TL_OK;
    for (int32_t i = 0; r == TL_OK && i < listedImages(d, d->images); ++i) {
        for (int32_t l = 0; r == TL_OK && l < d->levelCount; ++l) {
            const int64_t room = listRoom(d, d->levelWidth[l], d->levelHeight[l]);
            if (room <= 0) continue;  // an empty list (a level below 24 pixels); prepare refuses overflows
            FeatPnt* points = static_cast<FeatPnt*>(
                Arena_alloc(d->carvedFrom, sizeof(FeatPnt) * static_cast<size_t>(room)));
            r = points == nullptr ? TL_ERROR_MEMORY
                                  : FeatPntList_initWithBuffer(&d->individuals[i].list[l], points,
                                                               static_cast<int32_t>(room));
        }
    }
    const int32_t response = responseRoom(d, d->levelCount, d->levelWidth, d->levelHeight);
    if (r == TL_OK && response > 0) {
        d->responseWork = Arena_alloc(d->carvedFrom, static_cast<size_t>(response));
        d->responseWorkSize = d->responseWork != nullptr ? response : 0;
        if (d->responseWork == nullptr) r = TL_ERROR_MEMORY;
    }
    return r;
}

// Pyramid and, for images that serve as reference, feature lists.
TLResult processCurImage(MvecDetectMulti2* d, int32_t slot, const Image* image) {
    MvecDetectMulti2_Individual& ind = d->individuals[slot];
    const ImageStripeExec exec{d->pel, nullptr};
    TLResult r;
    if (d->shrinkRatio == 1) {
        r = Image_copy(&ind.level[0], image);
    } else {
        RatioJob job{&ind.level[0], image, d->shrinkRatio};
        r = ImageStripeExec_run(&exec, ratioStripe, &job, kBands);
    }
    for (int32_t l = 1; r == TL_OK && l < d->levelCount; ++l)
        r = MvecDetectMulti2_Shrink_shrink2ForMvecDetect(d->pel, &ind.level[l], &ind.level[l - 1],
                                                         d->simpleShrink2);
    const bool reference = slot == 0 || d->baseImageMatching == 0;
    for (int32_t l = 0; r == TL_OK && reference && l < d->levelCount; ++l) {
        r = MvecDetectMulti2_calcFeatPntListWithWork(d->pel, &ind.list[l], &ind.level[l], d->maxFeatPntsNum,
                                                     d->featPntWindowSize, d->adaptiveFeatPnts,
                                                     kStrengthScale, d->responseWork, d->responseWorkSize);
    }
    return r;
}

// The coarse-to-fine estimate of image k; results in estimate[k], *code and
// *reliability.
TLResult estimateImage(MvecDetectMulti2* d, int32_t k, uint32_t* code, int32_t* reliability) {
    const int32_t r = referenceOf(d, k), top = d->levelCount - 1;
    const ImageStripeExec exec{d->pel, nullptr};
    // The prediction from r to k, at the coarsest level: where image k - 1 was.
    MvecDetectMulti2_Mvec prediction = *estimateOf(d, k, top);
    if (k > 1) afterInverse(&prediction, estimateOf(d, k - 1, top), estimateOf(d, r, top));
    bool solved = false, finest = false;
    *code = 0;
    *reliability = 0;
    for (int32_t level = top; level >= 0; --level) {
        if (level < top) MvecDetectMulti2_Mvec_upscale(&prediction, &prediction);
        MvecDetectMulti2_Mvec& out = *estimateOf(d, k, level);
        const FeatPntList* list = &d->individuals[r].list[level];
        MvecDetectMulti2_MatchingFeatPntList* matches = &d->matchLists[level];
        matches->count = list->count < matches->capacity ? list->count : matches->capacity;
        uint32_t levelCode = MVEC_LSM_FAILURE_TOO_FEW_POINTS;
        if (matches->count > 0) {
            MatchJob job{d,
                         &d->individuals[r].level[level],
                         &d->individuals[k].level[level],
                         list,
                         matches,
                         &prediction,
                         level};
            TLResult rr = ImageStripeExec_run(&exec, matchStripe, &job, kBands);
            if (rr != TL_OK) return rr;
            weigh(d, matches, k);
            MvecDetectMulti2_Mvec fit = prediction;
            levelCode = fitLevel(d, level, r, k, &fit, &rr);
            if (rr != TL_OK) return rr;
            if (levelCode == 0) {
                prediction = fit;
                solved = true;
                finest = level == 0;
            }
            *code |= levelCode;
        }
        if (levelCode != 0) {
            // The estimate of this level is the prediction carried on.
            MvecDetectMulti2_Mvec_mult(&out, &prediction, estimateOf(d, r, level));
        } else {
            MvecDetectMulti2_Lsm_outputMvec(&d->lsm[level], &out, k);
        }
        if (level == 0 && finest) {
            int64_t all = 0, kept = 0;
            for (int32_t i = 0; i < matches->count; ++i) {
                const MvecDetectMulti2_Match& m = matches->matches[i];
                all += m.weight;
                kept += m.inlier != 0 ? m.weight : 0;
            }
            *reliability = all > 0 ? static_cast<int32_t>(kept * 32768 / all) : 0;
        }
    }
    if (!solved) *code |= MVEC_LSM_FAILURE_TOO_FEW_POINTS;
    if (!finest) MvecDetectMulti2_Mvec_setIdentity(estimateOf(d, k, 0));
    if (finest && *reliability < d->reliabilitySensitivity) *code |= MVEC_DETECT_FAILURE_LOW_RELIABILITY;
    return TL_OK;
}

// The history of every level's matches for the next image.
void keepHistory(MvecDetectMulti2* d) {
    for (int32_t l = 0; l < d->levelCount; ++l) {
        MvecDetectMulti2_MatchingFeatPntList& list = d->matchLists[l];
        for (int32_t i = 0; i < list.count; ++i) {
            MvecDetectMulti2_Match& m = list.matches[i];
            m.prevGood = m.inlier;
            m.prevResidual = m.inlier != 0 ? m.residual : 0;
        }
    }
}

int32_t toQ15(double v) {
    const double s = v * 32768.0;
    if (!(s == s)) return 0;
    if (s >= 2147483647.0) return INT32_MAX;
    if (s <= -2147483648.0) return INT32_MIN;
    return static_cast<int32_t>(s >= 0.0 ? s + 0.5 : s - 0.5);
}

}  // namespace

TLResult MvecDetectMulti2_Shrink_shrink2ForMvecDetect(Pel* pel, Image* dst, const Image* src,
                                                      int32_t simple) {
    if (!hasPixels(dst) || !hasPixels(src) || dst->format != IMAGE_FORMAT_UINT8 ||
        src->format != IMAGE_FORMAT_UINT8)
        return TL_ERROR_PARAM;
    if (dst->width != (src->width - 2) / 2 || dst->height != (src->height - 2) / 2) return TL_ERROR_PARAM;
    ShrinkJob job{dst, src, simple};
    const ImageStripeExec exec{pel, nullptr};
    return ImageStripeExec_run(&exec, shrinkStripe, &job, kBands);
}

void MvecDetectMulti2_Matching_process(const MvecDetectMulti2* d, const Image* base, const Image* target,
                                       int32_t x, int32_t y, int32_t px, int32_t py, int32_t* outX,
                                       int32_t* outY) {
    *outX = *outY = kMvecDetectInvalid;
    const int32_t hb = d->halfBlockMatchSize, hs = d->halfSearchSize;
    if (x < hb || y < hb || x >= base->width - hb || y >= base->height - hb) return;
    // The block, the search and the fit's neighbours must lie inside.
    const int32_t margin = hb + hs + 1;
    if (px < margin || py < margin || px >= target->width - margin || py >= target->height - margin) return;
    const bool fit = d->subpixelMatching != 0;
    if (hb == 2) {
        if (d->simpleSadMode != 0)
            search<2, false>(base, target, x, y, px, py, hs, fit, outX, outY);
        else
            search<2, true>(base, target, x, y, px, py, hs, fit, outX, outY);
    } else {
        if (d->simpleSadMode != 0)
            search<3, false>(base, target, x, y, px, py, hs, fit, outX, outY);
        else
            search<3, true>(base, target, x, y, px, py, hs, fit, outX, outY);
    }
}

int32_t MvecDetectMulti2_calcLevels(const MvecDetectMulti2* d, int32_t width, int32_t height) {
    if (d == nullptr || d->shrinkRatio < 1) return -1;
    int64_t w = width / d->shrinkRatio, h = height / d->shrinkRatio;
    int32_t n = 0;
    while (w * h >= d->coarsestPixsNum) {
        w = w < 1 ? 0 : (w - 2) / 2;
        h = h < 1 ? 0 : (h - 2) / 2;
        if (w < 0) w = 0;
        if (h < 0) h = 0;
        if (++n > 99) return -1;
    }
    if (d->coarsestMatching == 0) n = n - 1 > 1 ? n - 1 : 1;
    return n;
}

int32_t MvecDetectMulti2_getBufferSize(int32_t width, int32_t height, int32_t images, int32_t dof) {
    if (width < 1 || height < 1 || images < 2 || images > kMvecDetectMaxImages || !validDof(dof)) return -1;
    MvecDetectMulti2 d;
    construct_MvecDetectMulti2(&d, nullptr);
    const int32_t n = MvecDetectMulti2_calcLevels(&d, width, height);
    if (n < 0) return -1;
    int64_t bytes = sizeof(MvecDetectMulti2) + int64_t{images} * sizeof(MvecDetectMulti2_Individual);
    int64_t w = width, h = height;
    for (int32_t l = 0; l < (n > 1 ? n : 1) && w > 0 && h > 0; ++l) {
        bytes += int64_t{images} * Image_getSize(static_cast<int32_t>(w), static_cast<int32_t>(h),
                                                 IMAGE_FORMAT_UINT8, IMAGE_SIZE_TOTAL);
        // The reference's cells (about twice the features) and the matches.
        bytes += 2 * int64_t{d.maxFeatPntsNum} * sizeof(FeatPnt) +
                 int64_t{d.maxFeatPntsNum} * sizeof(MvecDetectMulti2_Match);
        bytes +=
            int64_t{images} * images * sizeof(MvecDetectMulti2_LsmPairSums) + sizeof(MvecDetectMulti2_Lsm6);
        w = (w - 2) / 2, h = (h - 2) / 2;
    }
    return bytes > INT32_MAX ? -1 : static_cast<int32_t>(bytes);
}

TLResult construct_MvecDetectMulti2(MvecDetectMulti2* d, Env* env) {
    if (d == nullptr) return TL_ERROR_PARAM;
    std::memset(d, 0, sizeof *d);
    d->env = env;
    d->dof = 8;
    d->shrinkRatio = 1;
    d->levels = -1;
    d->halfSearchSize = 3;
    d->halfBlockMatchSize = 3;
    d->featPntWindowSize = 4;
    d->baseImageMatching = 1;
    d->reliabilitySensitivity = 19660;
    d->outlierThresh = 0x240000000ull;
    d->coarsestPixsNum = 600;
    d->maxFeatPntsNum = 256;
    d->referenceFrameUpdateInterval = 1;
    d->coarsestMatching = 1;
    d->subpixelMatching = 1;
    d->viewAngle = 60.0 * kPi / 180.0;
    d->focalLength = 1000.0;
    for (MvecDetectMulti2_Lsm& lsm : d->lsm) construct_MvecDetectMulti2_Lsm(&lsm, env);
    return TL_OK;
}

TLResult destruct_MvecDetectMulti2(MvecDetectMulti2* d) {
    if (d == nullptr) return TL_ERROR_PARAM;
    releaseAll(d);
    std::memset(d, 0, sizeof *d);
    return TL_OK;
}

TLResult MvecDetectMulti2_setPel(MvecDetectMulti2* d, Pel* pel) {
    if (d == nullptr) return TL_ERROR_PARAM;
    d->pel = pel;
    return TL_OK;
}

namespace {

TLResult setIf(MvecDetectMulti2* d, int32_t* field, int32_t value, bool ok) {
    if (d == nullptr || !ok) return TL_ERROR_PARAM;
    *field = value;
    return TL_OK;
}

}  // namespace

TLResult MvecDetectMulti2_setDof(MvecDetectMulti2* d, int32_t dof) {
    return setIf(d, d != nullptr ? &d->dof : nullptr, dof, validDof(dof));
}
TLResult MvecDetectMulti2_setShrinkRatio(MvecDetectMulti2* d, int32_t ratio) {
    return setIf(d, d != nullptr ? &d->shrinkRatio : nullptr, ratio, ratio >= 1 && ratio <= 16);
}
TLResult MvecDetectMulti2_setHalfSearchSize(MvecDetectMulti2* d, int32_t size) {
    return setIf(d, d != nullptr ? &d->halfSearchSize : nullptr, size, size >= 1 && size <= kMaxHalfSearch);
}
TLResult MvecDetectMulti2_setHalfBlockMatchSize(MvecDetectMulti2* d, int32_t size) {
    return setIf(d, d != nullptr ? &d->halfBlockMatchSize : nullptr, size, size == 2 || size == 3);
}
TLResult MvecDetectMulti2_setFeatPntWindowSize(MvecDetectMulti2* d, int32_t size) {
    return setIf(d, d != nullptr ? &d->featPntWindowSize : nullptr, size, size == 3 || size == 4);
}
TLResult MvecDetectMulti2_setBaseImageMatchingActivated(MvecDetectMulti2* d, int32_t on) {
    return setIf(d, d != nullptr ? &d->baseImageMatching : nullptr, on != 0, true);
}
TLResult MvecDetectMulti2_setReliabilitySensitivity(MvecDetectMulti2* d, double value) {
    if (d == nullptr || !(value >= 0.0 && value <= 1.0)) return TL_ERROR_PARAM;
    d->reliabilitySensitivity = static_cast<int32_t>(value * 32768.0);
    return TL_OK;
}
TLResult MvecDetectMulti2_setOutlierThresh(MvecDetectMulti2* d, double value) {
    if (d == nullptr || !(value > 0.0 && value < 65536.0)) return TL_ERROR_PARAM;
    const uint64_t q = static_cast<uint64_t>(value * 32768.0);
    d->outlierThresh = q * q;
    return TL_OK;
}
TLResult MvecDetectMulti2_setCoarsestPixsNum(MvecDetectMulti2* d, int32_t pixels) {
    return setIf(d, d != nullptr ? &d->coarsestPixsNum : nullptr, pixels, pixels >= 256);
}
TLResult MvecDetectMulti2_setMaxFeatPntsNum(MvecDetectMulti2* d, int32_t count) {
    return setIf(d, d != nullptr ? &d->maxFeatPntsNum : nullptr, count, count >= 1 && count <= 4096);
}
TLResult MvecDetectMulti2_setReferenceFrameUpdateInterval(MvecDetectMulti2* d, int32_t interval) {
    return setIf(d, d != nullptr ? &d->referenceFrameUpdateInterval : nullptr, interval,
                 interval >= 1 && interval < kMvecDetectMaxImages);
}
TLResult MvecDetectMulti2_setCoarsestMatchingActivated(MvecDetectMulti2* d, int32_t on) {
    return setIf(d, d != nullptr ? &d->coarsestMatching : nullptr, on != 0, true);
}
TLResult MvecDetectMulti2_setAdaptiveFeatPntsActivated(MvecDetectMulti2* d, int32_t on) {
    return setIf(d, d != nullptr ? &d->adaptiveFeatPnts : nullptr, on != 0, true);
}
TLResult MvecDetectMulti2_setSubpixelMatchingActivated(MvecDetectMulti2* d, int32_t on) {
    return setIf(d, d != nullptr ? &d->subpixelMatching : nullptr, on != 0, true);
}
TLResult MvecDetectMulti2_setSimpleSadModeActivated(MvecDetectMulti2* d, int32_t on) {
    return setIf(d, d != nullptr ? &d->simpleSadMode : nullptr, on != 0, true);
}
TLResult MvecDetectMulti2_setSimpleShrink2ForMvecDetectModeActivated(MvecDetectMulti2* d, int32_t on) {
    return setIf(d, d != nullptr ? &d->simpleShrink2 : nullptr, on != 0, true);
}
TLResult MvecDetectMulti2_setViewAngle(MvecDetectMulti2* d, double degrees, int32_t kind) {
    if (d == nullptr || !(degrees > 0.0 && degrees < 180.0) || kind < 0 || kind > 2) return TL_ERROR_PARAM;
    d->viewAngle = degrees * kPi / 180.0;
    d->viewAngleKind = kind;
    return TL_OK;
}

TLResult MvecDetectMulti2_init(MvecDetectMulti2* d, int32_t width, int32_t height, int32_t images) {
    if (d == nullptr) return TL_ERROR_PARAM;
    releaseAll(d);
    const TLResult checked = checkInit(d, width, height, images);
    if (checked != TL_OK) return checked;
    const int32_t count = levelSizes(d, width, height, d->levelWidth, d->levelHeight);
    if (count < 0) return TL_ERROR_PARAM;
    const double size = d->viewAngleKind == 0   ? width
                        : d->viewAngleKind == 1 ? height
                                                : RawDouble_hypot(width, height);
    d->focalLength = size / (2.0 * RawDouble_tan(0.5 * d->viewAngle));
    d->width = width, d->height = height, d->images = images, d->levelCount = count;
    d->carvedFrom = d->arena;
    d->arenaMark = d->arena != nullptr ? Arena_mark(d->arena) : 0;
    d->estimates = static_cast<MvecDetectMulti2_Mvec*>(
        take(d, sizeof(MvecDetectMulti2_Mvec) * static_cast<size_t>(images) * static_cast<size_t>(count)));
    d->individuals = static_cast<MvecDetectMulti2_Individual*>(
        take(d, sizeof(MvecDetectMulti2_Individual) * static_cast<size_t>(images)));
    TLResult r = d->individuals != nullptr && d->estimates != nullptr ? TL_OK : TL_ERROR_MEMORY;
    for (int32_t i = 0; r == TL_OK && i < images; ++i) {
        for (int32_t l = 0; l < kMvecDetectMaxLevels; ++l) {
            construct_Image(&d->individuals[i].level[l], d->env);
            construct_FeatPntList(&d->individuals[i].list[l], d->env);
        }
    }
    if (r != TL_OK) d->images = 0;  // nothing constructed to release
    if (r == TL_OK) r = takeImages(d);
    for (int32_t l = 0; r == TL_OK && l < count; ++l) {
        d->matchLists[l].matches = static_cast<MvecDetectMulti2_Match*>(
            take(d, sizeof(MvecDetectMulti2_Match) * static_cast<size_t>(d->maxFeatPntsNum)));
        if (d->matchLists[l].matches == nullptr) r = TL_ERROR_MEMORY;
        d->matchLists[l].capacity = r == TL_OK ? d->maxFeatPntsNum : 0;
    }
    if (r == TL_OK) r = takeLists(d);
    for (int32_t l = 0; r == TL_OK && l < count; ++l) {
        r = MvecDetectMulti2_Lsm_init(&d->lsm[l], d->dof, d->levelWidth[l], d->levelHeight[l], images);
        if (r == TL_OK) r = MvecDetectMulti2_Lsm_setFocalLength(&d->lsm[l], levelFocal(d, l));
        for (int32_t i = 0; r == TL_OK && i < images; ++i)
            r = MvecDetectMulti2_Mvec_init(estimateOf(d, i, l), d->dof, levelFocal(d, l));
    }
    if (r != TL_OK) {
        releaseAll(d);
        return r;
    }
    for (int32_t l = 0; l < count; ++l)
        std::memset(d->matchLists[l].matches, 0, sizeof(MvecDetectMulti2_Match) * d->maxFeatPntsNum);
    return TL_OK;
}

int32_t MvecDetectMulti2_getArenaSize(const MvecDetectMulti2* d, int32_t width, int32_t height,
                                      int32_t images) {
    if (d == nullptr || checkInit(d, width, height, images) != TL_OK) return -1;
    int32_t levelWidth[kMvecDetectMaxLevels], levelHeight[kMvecDetectMaxLevels];
    const int32_t count = levelSizes(d, width, height, levelWidth, levelHeight);
    if (count < 0) return -1;
    const int64_t bytes = arenaBytes(d, images, count, levelWidth, levelHeight);
    return bytes < 0 || bytes > INT32_MAX ? -1 : static_cast<int32_t>(bytes);
}

TLResult MvecDetectMulti2_setArena(MvecDetectMulti2* d, Arena* arena) {
    if (d == nullptr) return TL_ERROR_PARAM;
    d->arena = arena;
    return TL_OK;
}

Image* MvecDetectMulti2_getNextImage(MvecDetectMulti2* d) {
    if (d == nullptr || d->levelCount == 0 || d->added >= d->images) return nullptr;
    if (d->levelWidth[0] != d->width || d->levelHeight[0] != d->height) return nullptr;
    return &d->individuals[d->added].level[0];
}

TLResult MvecDetectMulti2_addImage(MvecDetectMulti2* d, const Image* image) {
    if (d == nullptr) return TL_ERROR_PARAM;
    if (d->levelCount == 0) return TL_ERROR_STATE;
    if (!hasPixels(image)) return TL_ERROR_PARAM;
    if (image->format != IMAGE_FORMAT_UINT8) return TL_ERROR_UNSUPPORTED;
    if (image->width != d->width || image->height != d->height) return TL_ERROR_PARAM;
    if (d->added >= d->images) return TL_ERROR_STATE;
    const int32_t slot = d->added;
    TLResult r = processCurImage(d, slot, image);
    if (r != TL_OK) return r;
    uint32_t code = 0;
    int32_t reliability = 32768;
    if (slot > 0) {
        for (int32_t l = 0; l < d->levelCount; ++l) MvecDetectMulti2_Mvec_setIdentity(estimateOf(d, slot, l));
        r = estimateImage(d, slot, &code, &reliability);
        if (r != TL_OK) return r;
        keepHistory(d);
    }
    d->added = slot + 1;
    d->failureCode = code;
    d->reliability = reliability;
    return TL_OK;
}

TLResult MvecDetectMulti2_getMvec(MvecDetectMulti2* d, MvecDetectMulti2_Mvec* result) {
    if (d == nullptr || result == nullptr) return TL_ERROR_PARAM;
    if (d->added < 1) return TL_ERROR_STATE;
    MvecDetectMulti2_Mvec m = *estimateOf(d, d->added - 1, 0);
    const int32_t ratio = d->shrinkRatio;
    if (ratio > 1) {
        // Level 0 pixel x covers input pixels r x to r x + r - 1: with
        // S(p) = p / r - (r - 1) / (2 r), the input's motion is S^-1 m S.
        const double sigma = 1.0 / ratio, t = -(ratio - 1) / (2.0 * ratio);
        if (m.kind == MVEC_KIND_AFFINE) {
            Mvec6F32& a = m.u.affine;
            const double lx = (static_cast<double>(a.a) + a.b) / 32768.0,
                         ly = (static_cast<double>(a.d) + a.e) / 32768.0;
            a.c = toQ15((lx * t + a.c / 32768.0 - t) / sigma);
            a.f = toQ15((ly * t + a.f / 32768.0 - t) / sigma);
        } else if (m.kind == MVEC_KIND_PROJECTIVE) {
            const Mvec8Real s = {{sigma, 0, t, 0, sigma, t, 0, 0, 1}};
            const Mvec8Real si = {{ratio * 1.0, 0, -t * ratio, 0, ratio * 1.0, -t * ratio, 0, 0, 1}};
            Mvec8Real_mult(&m.u.projective, &m.u.projective, &s);
            Mvec8Real_mult(&m.u.projective, &si, &m.u.projective);
        } else {
            m.focalLength *= ratio;
        }
    }
    if (m.kind == MVEC_KIND_PROJECTIVE) Mvec8Real_normalize(&m.u.projective, &m.u.projective);
    *result = m;
    return TL_OK;
}

TLResult MvecDetectMulti2_outputMvec(MvecDetectMulti2* d, int32_t* result) {
    if (d == nullptr || result == nullptr) return TL_ERROR_PARAM;
    MvecDetectMulti2_Mvec m;
    const TLResult r = MvecDetectMulti2_getMvec(d, &m);
    if (r != TL_OK) return r;
    if (m.kind == MVEC_KIND_AFFINE) {
        const Mvec6F32& a = m.u.affine;
        const int32_t v[6] = {a.a, a.b, a.c, a.d, a.e, a.f};
        std::memcpy(result, v, sizeof v);
    } else if (m.kind == MVEC_KIND_PROJECTIVE) {
        for (int32_t i = 0; i < 9; ++i) result[i] = toQ15(m.u.projective.m[i]);
    } else {
        const MvecDetectMulti2_Quat& q = m.u.quat;
        result[0] = toQ15(q.w), result[1] = toQ15(q.x), result[2] = toQ15(q.y), result[3] = toQ15(q.z);
    }
    return TL_OK;
}

uint32_t MvecDetectMulti2_getFailureCode(const MvecDetectMulti2* d) {
    return d == nullptr ? ~0u : d->failureCode;
}

int32_t MvecDetectMulti2_getReliability(const MvecDetectMulti2* d) {
    return d == nullptr ? -1 : d->reliability;
}

}  // namespace vq_tl
