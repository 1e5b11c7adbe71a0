#include "stereo/sgm_aggregation.h"

#include "runtime/cpu_features.h"

namespace vq_tl {

namespace {

inline uint8_t minU8(uint8_t a, uint8_t b) { return b < a ? b : a; }

// One pixel of one path: out gets L' of p from prev, L' of the previous
// pixel q, and the pixel's costs. prev[-1] and prev[D] are separators, so
// the loop over the slots has no range test.
inline void pathStep(uint8_t* __restrict out, const uint8_t* __restrict prev, const uint8_t* __restrict cost,
                     int32_t D, uint8_t P1, uint8_t P2) {
    uint8_t m = 255;
    for (int32_t k = 0; k < D; ++k) {
        const uint8_t a = minU8(prev[k - 1], prev[k + 1]);
        const uint8_t b = minU8(static_cast<uint8_t>(a + P1), P2);
        const uint8_t l = static_cast<uint8_t>(minU8(b, prev[k]) + cost[k]);
        out[k] = l;
        m = minU8(m, l);
    }
    for (int32_t k = 0; k < D; ++k) out[k] = static_cast<uint8_t>(out[k] - m);
}

inline void addToSum(const AggregationRow* r, int32_t x, const uint8_t* out) {
    const int32_t D = r->numDisparities;
    uint16_t* A = r->sum + static_cast<intptr_t>(x) * (D + 2);
    if (r->sumMode == AGG_SUM_SET) {
        for (int32_t k = 0; k < D; ++k) A[k] = out[k];
    } else {
        for (int32_t k = 0; k < D; ++k) A[k] = static_cast<uint16_t>(A[k] + out[k]);
    }
    if (r->pads != 0) {
        A[-1] = A[1];
        A[D] = A[D - 2];
    }
}

}  // namespace

void aggregationCrossRow_c(const AggregationRow* r) {
    const int32_t D = r->numDisparities, S = D + 1;
    for (int32_t x = 0; x < r->width; ++x) {
        uint8_t* out = r->out + static_cast<intptr_t>(x) * S;
        pathStep(out, r->prev + static_cast<intptr_t>(x) * S, r->cost + static_cast<intptr_t>(x) * D, D,
                 r->smallPenalty, r->p2[x * r->p2Step]);
        if (r->sumMode != AGG_SUM_NONE) addToSum(r, x, out);
    }
}

void aggregationChainRow_c(const AggregationRow* r) {
    const int32_t D = r->numDisparities, S = D + 1, W = r->width;
    for (int32_t m = 0; m < W; ++m) {
        const int32_t x = r->dx < 0 ? m : W - 1 - m;
        uint8_t* out = r->out + static_cast<intptr_t>(x) * S;
        pathStep(out, out + r->dx * S, r->cost + static_cast<intptr_t>(x) * D, D, r->smallPenalty,
                 r->p2[x * r->p2Step]);
        if (r->sumMode != AGG_SUM_NONE) addToSum(r, x, out);
    }
}

void aggregationChainRows2_c(const AggregationRow* row0, const AggregationRow* row1) {
    aggregationChainRow_c(row0);
    aggregationChainRow_c(row1);
}

void aggregationChainRows4_c(const AggregationRow* rows) {
    for (int32_t i = 0; i < 4; ++i) aggregationChainRow_c(&rows[i]);
}

void aggregationChainRows8_c(const AggregationRow* rows) {
    for (int32_t i = 0; i < 8; ++i) aggregationChainRow_c(&rows[i]);
}

namespace {

template <int kChannels>
inline void penaltyRow(const AggregationPenalty* r) {
    const uint8_t* gp = r->guide;
    const uint8_t* gq = r->guidePrev;
    for (int32_t x = 0; x < r->width; ++x) {
        const int32_t p2 = r->p2[x * r->p2Step];
        int32_t g;
        if (kChannels == 1) {
            const int32_t d = gp[x] - gq[x];
            g = d < 0 ? -d : d;
        } else {
            const int32_t du = gp[2 * x] - gq[2 * x], dv = gp[2 * x + 1] - gq[2 * x + 1];
            g = ((du < 0 ? -du : du) + (dv < 0 ? -dv : dv)) >> 1;
        }
        // 1 + g reaches 256 only for g = 255; as a byte that would wrap to a
        // division by zero, so the unwrapped 256 is taken there.
        const int32_t den = 1 + g;
        const int32_t q = (p2 + (den >> 1)) / den;
        r->out[x] = static_cast<uint8_t>(q > r->lower ? q : r->lower);
    }
}

// The plane count as a constant, as the loops this replaced had it: the
// compiler vectorises the slots then.
template <typename T, int kPlanes>
inline void sumRow(const AggregationPlaneSum* r) {
    const int32_t D = r->numDisparities, S = D + 1;
    for (int32_t x = 0; x < r->width; ++x) {
        T* A = static_cast<T*>(r->out) + static_cast<intptr_t>(x) * (D + 2);
        const intptr_t off = static_cast<intptr_t>(x) * S;
        for (int32_t k = 0; k < D; ++k) {
            uint32_t s = 0;
            for (int32_t i = 0; i < kPlanes; ++i) s += r->planes[i][off + k];
            A[k + 1] = static_cast<T>(s);
        }
        A[0] = A[2];
        A[D + 1] = A[D - 1];
    }
}

}  // namespace

void aggregationSumU8_c(const AggregationPlaneSum* row) {
    if (row->numPlanes == 4) {
        sumRow<uint8_t, 4>(row);
    } else {
        sumRow<uint8_t, 8>(row);
    }
}

void aggregationSumU16_c(const AggregationPlaneSum* row) {
    if (row->numPlanes == 4) {
        sumRow<uint16_t, 4>(row);
    } else {
        sumRow<uint16_t, 8>(row);
    }
}

void aggregationPenaltyU8_c(const AggregationPenalty* row) { penaltyRow<1>(row); }
void aggregationPenaltyU88_c(const AggregationPenalty* row) { penaltyRow<2>(row); }

void AggregationKernels_fill(AggregationKernels* table, uint32_t features) {
    table->crossRow = aggregationCrossRow_c;
    table->chainRow = aggregationChainRow_c;
    table->chainRows2 = aggregationChainRows2_c;
    table->chainRows4 = aggregationChainRows4_c;
    table->chainRows8 = nullptr;
    table->penaltyU8 = aggregationPenaltyU8_c;
    table->penaltyU88 = aggregationPenaltyU88_c;
    table->sumU8 = aggregationSumU8_c;
    table->sumU16 = aggregationSumU16_c;
#if defined(VQ_TL_KERNELS_X86)
    if ((features & kCpuSse41) != 0) AggregationKernels_addSse41(table);
    if ((features & kCpuSse41) != 0 && (features & kCpuAvx2) != 0) AggregationKernels_addAvx2(table);
    if ((features & kCpuSse41) != 0 && (features & kCpuAvx2) != 0 && (features & kCpuAvx512) != 0)
        AggregationKernels_addAvx512(table);
#endif
#if defined(VQ_TL_KERNELS_NEON)
    if ((features & kCpuNeon) != 0) AggregationKernels_addNeon(table);
#endif
    (void)features;
}

const AggregationKernels* AggregationKernels_get() {
    static const AggregationKernels table = [] {
        AggregationKernels t;
        AggregationKernels_fill(&t, Cpu_getFeatures());
        return t;
    }();
    return &table;
}

}  // namespace vq_tl
