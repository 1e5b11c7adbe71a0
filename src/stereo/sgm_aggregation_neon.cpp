// Path updates with NEON: the D slots of one pixel in 16-byte chunks (and
// one 8-byte chunk where D is an odd multiple of 8), D = 8 to 64; larger D
// takes the scalar kernels. The plane sums go the same way for any D; the
// guided penalties stay scalar (32-bit NEON has no division).
#include <arm_neon.h>

#include "stereo/sgm_aggregation.h"

namespace vq_tl {

namespace {

// The wrapping byte arithmetic of the scalar form: vaddq_u8 wraps as the
// uint8_t casts do.
inline uint8x16_t update(uint8x16_t left, uint8x16_t right, uint8x16_t same, uint8x16_t cost, uint8x16_t p1,
                         uint8x16_t p2) {
    const uint8x16_t a = vminq_u8(left, right);
    const uint8x16_t b = vminq_u8(vaddq_u8(a, p1), p2);
    return vaddq_u8(vminq_u8(b, same), cost);
}

inline uint8x8_t update8(uint8x8_t left, uint8x8_t right, uint8x8_t same, uint8x8_t cost, uint8x8_t p1,
                         uint8x8_t p2) {
    const uint8x8_t a = vmin_u8(left, right);
    const uint8x8_t b = vmin_u8(vadd_u8(a, p1), p2);
    return vadd_u8(vmin_u8(b, same), cost);
}

// The smallest byte of v in every byte, by pairwise minima.
inline uint8x8_t minAll(uint8x8_t v) {
    v = vpmin_u8(v, v);
    v = vpmin_u8(v, v);
    v = vpmin_u8(v, v);
    return vdup_lane_u8(v, 0);
}

inline void sum8(uint16_t* A, uint8x8_t o, bool add) {
    vst1q_u16(A, add ? vaddw_u8(vld1q_u16(A), o) : vmovl_u8(o));
}

// Stores the D slots of one pixel (16-byte chunks o, then the low half of
// the last where D is an odd multiple of 8) and adds them to the sums.
template <int kD>
inline void finish(const AggregationRow* r, int32_t x, const uint8x16_t* o) {
    constexpr int kFull = kD / 16;
    uint8_t* out = r->out + static_cast<intptr_t>(x) * (kD + 1);
    for (int i = 0; i < kFull; ++i) vst1q_u8(out + 16 * i, o[i]);
    if (kD % 16 != 0) vst1_u8(out + 16 * kFull, vget_low_u8(o[kFull]));
    if (r->sumMode == AGG_SUM_NONE) return;
    const bool add = r->sumMode == AGG_SUM_ADD;
    uint16_t* A = r->sum + static_cast<intptr_t>(x) * (kD + 2);
    for (int i = 0; i < kFull; ++i) {
        sum8(A + 16 * i, vget_low_u8(o[i]), add);
        sum8(A + 16 * i + 8, vget_high_u8(o[i]), add);
    }
    if (kD % 16 != 0) sum8(A + 16 * kFull, vget_low_u8(o[kFull]), add);
    if (r->pads != 0) {
        A[-1] = A[1];
        A[kD] = A[kD - 2];
    }
}

template <int kD>
void crossRow(const AggregationRow* r) {
    constexpr int kFull = kD / 16, kN = (kD + 15) / 16;
    const uint8x16_t p1 = vdupq_n_u8(r->smallPenalty);
    const uint8x8_t ones8 = vdup_n_u8(255);
    for (int32_t x = 0; x < r->width; ++x) {
        const uint8_t* q = r->prev + static_cast<intptr_t>(x) * (kD + 1);
        const uint8_t* c = r->cost + static_cast<intptr_t>(x) * kD;
        const uint8x16_t p2 = vdupq_n_u8(r->p2[x * r->p2Step]);
        uint8x16_t l[kN];
        uint8x8_t mn = ones8;
        for (int i = 0; i < kFull; ++i) {
            const uint8_t* s = q + 16 * i;
            l[i] = update(vld1q_u8(s - 1), vld1q_u8(s + 1), vld1q_u8(s), vld1q_u8(c + 16 * i), p1, p2);
            mn = vmin_u8(mn, vmin_u8(vget_low_u8(l[i]), vget_high_u8(l[i])));
        }
        if (kD % 16 != 0) {
            // 8-byte loads: exactly the scalar form's bytes.
            const uint8_t* s = q + 16 * kFull;
            const uint8x8_t h = update8(vld1_u8(s - 1), vld1_u8(s + 1), vld1_u8(s), vld1_u8(c + 16 * kFull),
                                        vget_low_u8(p1), vget_low_u8(p2));
            mn = vmin_u8(mn, h);
            l[kFull] = vcombine_u8(h, ones8);
        }
        const uint8x8_t m8 = minAll(mn);
        const uint8x16_t m = vcombine_u8(m8, m8);
        for (int i = 0; i < kN; ++i) l[i] = vsubq_u8(l[i], m);
        finish<kD>(r, x, l);
    }
}

// Chain rows keep the previous pixel's slots in registers, with 255 in the
// lanes past slot D - 1 (the separator the scalar form reads at slot D), so
// that the neighbours are byte extractions across the chunks. Each pixel
// waits for the minimum of the one before, so two rows go side by side where
// the caller has them.
template <int kD>
struct Chain {
    static constexpr int kFull = kD / 16, kN = (kD + 15) / 16;
    uint8x16_t v[kN];

    void start(const AggregationRow* r, int32_t x) {
        const uint8_t* q = r->out + static_cast<intptr_t>(x + r->dx) * (kD + 1);
        for (int i = 0; i < kFull; ++i) v[i] = vld1q_u8(q + 16 * i);
        if (kD % 16 != 0) v[kFull] = vcombine_u8(vld1_u8(q + 16 * kFull), vdup_n_u8(255));
    }

    void step(const AggregationRow* r, int32_t x, uint8x16_t p1) {
        const uint8x16_t ones = vdupq_n_u8(255);
        const uint8x8_t ones8 = vdup_n_u8(255);
        const uint8_t* c = r->cost + static_cast<intptr_t>(x) * kD;
        const uint8x16_t p2 = vdupq_n_u8(r->p2[x * r->p2Step]);
        uint8x16_t l[kN];
        uint8x8_t mn = ones8;
        for (int i = 0; i < kN; ++i) {
            const uint8x16_t left = vextq_u8(i == 0 ? ones : v[i - 1], v[i], 15);
            const uint8x16_t right = vextq_u8(v[i], i + 1 < kN ? v[i + 1] : ones, 1);
            const uint8x16_t cost =
                i < kFull ? vld1q_u8(c + 16 * i) : vcombine_u8(vld1_u8(c + 16 * i), ones8);
            l[i] = update(left, right, v[i], cost, p1, p2);
            mn = vmin_u8(mn, i < kFull ? vmin_u8(vget_low_u8(l[i]), vget_high_u8(l[i])) : vget_low_u8(l[i]));
        }
        const uint8x8_t m8 = minAll(mn);
        const uint8x16_t m = vcombine_u8(m8, m8);
        for (int i = 0; i < kN; ++i) {
            v[i] = vsubq_u8(l[i], m);
            if (i == kFull) v[i] = vcombine_u8(vget_low_u8(v[i]), ones8);
        }
        finish<kD>(r, x, v);
    }
};

template <int kD>
void chainRow(const AggregationRow* r) {
    const uint8x16_t p1 = vdupq_n_u8(r->smallPenalty);
    const int32_t W = r->width, dx = r->dx;
    int32_t x = dx < 0 ? 0 : W - 1;
    Chain<kD> a;
    a.start(r, x);
    for (int32_t n = 0; n < W; ++n, x -= dx) a.step(r, x, p1);
}

template <int kD>
void chainRows2(const AggregationRow* r0, const AggregationRow* r1) {
    const uint8x16_t p1 = vdupq_n_u8(r0->smallPenalty);
    const int32_t W = r0->width, dx = r0->dx;
    int32_t x = dx < 0 ? 0 : W - 1;
    Chain<kD> a, b;
    a.start(r0, x);
    b.start(r1, x);
    for (int32_t n = 0; n < W; ++n, x -= dx) {
        a.step(r0, x, p1);
        b.step(r1, x, p1);
    }
}

// --- Sums of the path planes -----------------------------------------------

// D slots of the planes into entries 1 to D of pixel x: 16 bytes per step
// and an 8-byte step where D is an odd multiple of 8.
void sumU8_neon(const AggregationPlaneSum* r) {
    const int32_t D = r->numDisparities, S = D + 1, n = r->numPlanes;
    for (int32_t x = 0; x < r->width; ++x) {
        uint8_t* A = static_cast<uint8_t*>(r->out) + static_cast<intptr_t>(x) * (D + 2);
        const intptr_t off = static_cast<intptr_t>(x) * S;
        int32_t k = 0;
        for (; k + 16 <= D; k += 16) {
            uint8x16_t s = vld1q_u8(r->planes[0] + off + k);
            for (int32_t i = 1; i < n; ++i) s = vaddq_u8(s, vld1q_u8(r->planes[i] + off + k));
            vst1q_u8(A + 1 + k, s);
        }
        if (k < D) {
            uint8x8_t s = vld1_u8(r->planes[0] + off + k);
            for (int32_t i = 1; i < n; ++i) s = vadd_u8(s, vld1_u8(r->planes[i] + off + k));
            vst1_u8(A + 1 + k, s);
        }
        A[0] = A[2];
        A[D + 1] = A[D - 1];
    }
}

void sumU16_neon(const AggregationPlaneSum* r) {
    const int32_t D = r->numDisparities, S = D + 1, n = r->numPlanes;
    for (int32_t x = 0; x < r->width; ++x) {
        uint16_t* A = static_cast<uint16_t*>(r->out) + static_cast<intptr_t>(x) * (D + 2);
        const intptr_t off = static_cast<intptr_t>(x) * S;
        for (int32_t k = 0; k < D; k += 8) {
            uint16x8_t s = vmovl_u8(vld1_u8(r->planes[0] + off + k));
            for (int32_t i = 1; i < n; ++i) s = vaddw_u8(s, vld1_u8(r->planes[i] + off + k));
            vst1q_u16(A + 1 + k, s);
        }
        A[0] = A[2];
        A[D + 1] = A[D - 1];
    }
}

template <int kD>
struct CrossRowK {
    static void run(const AggregationRow* r) { crossRow<kD>(r); }
};
template <int kD>
struct ChainRowK {
    static void run(const AggregationRow* r) { chainRow<kD>(r); }
};
template <int kD>
struct ChainRows2K {
    static void run(const AggregationRow* r0, const AggregationRow* r1) { chainRows2<kD>(r0, r1); }
};

void crossRow_neon(const AggregationRow* r) {
    Aggregation_byCandidates<CrossRowK>(r->numDisparities, aggregationCrossRow_c, r);
}

void chainRow_neon(const AggregationRow* r) {
    Aggregation_byCandidates<ChainRowK>(r->numDisparities, aggregationChainRow_c, r);
}

void chainRows2_neon(const AggregationRow* r0, const AggregationRow* r1) {
    Aggregation_byCandidates<ChainRows2K>(r0->numDisparities, aggregationChainRows2_c, r0, r1);
}

// Two pairs: with 32-bit Arm's 16 quad registers four rows' state and
// temporaries would spill.
void chainRows4_neon(const AggregationRow* rows) {
    chainRows2_neon(&rows[0], &rows[1]);
    chainRows2_neon(&rows[2], &rows[3]);
}

}  // namespace

void AggregationKernels_addNeon(AggregationKernels* table) {
    table->crossRow = crossRow_neon;
    table->chainRow = chainRow_neon;
    table->chainRows2 = chainRows2_neon;
    table->chainRows4 = chainRows4_neon;
    table->sumU8 = sumU8_neon;
    table->sumU16 = sumU16_neon;
}

}  // namespace vq_tl
