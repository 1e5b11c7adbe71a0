#include "stereo/sgm_cost.h"

#include "runtime/cpu_features.h"

namespace vq_tl {

namespace {

// Candidates per lane: D is a multiple of it.
constexpr int32_t kLane = 8;

inline uint8_t popcount(uint8_t v) {
    v = static_cast<uint8_t>(v - ((v >> 1) & 0x55u));
    v = static_cast<uint8_t>((v & 0x33u) + ((v >> 2) & 0x33u));
    return static_cast<uint8_t>((v + (v >> 4)) & 0x0Fu);
}

// Shifts and adds only, so that the lane loops vectorise without a 32-bit
// vector multiply.
inline uint32_t popcount(uint32_t v) {
    v = v - ((v >> 1) & 0x55555555u);
    v = (v & 0x33333333u) + ((v >> 2) & 0x33333333u);
    v = (v + (v >> 4)) & 0x0F0F0F0Fu;
    v = v + (v >> 8);
    v = v + (v >> 16);
    return v & 0x3Fu;
}

// The Hamming distances of one lane of candidates, then their minimum with
// another row's, then the masked store. The lane is kept in census words, so
// that the loops need no narrowing until the store.
template <typename Word>
inline void laneFirst(Word* __restrict lane, const Word* __restrict match, Word base) {
    for (int32_t k = 0; k < kLane; ++k) lane[k] = popcount(static_cast<Word>(base ^ match[k]));
}

template <typename Word>
inline void laneMin(Word* __restrict lane, const Word* __restrict match, Word base) {
    for (int32_t k = 0; k < kLane; ++k) {
        const Word h = popcount(static_cast<Word>(base ^ match[k]));
        lane[k] = h < lane[k] ? h : lane[k];
    }
}

template <typename Word>
inline void laneStore(uint8_t* __restrict cost, const Word* __restrict lane, uint8_t mask) {
    for (int32_t k = 0; k < kLane; ++k) cost[k] = static_cast<uint8_t>(lane[k]) & mask;
}

// kRows is the row window (1 to 9), or 0 for any count. Candidates run
// innermost and the rows of the window are unrolled outside them, so the
// loop over slots has no branch.
template <typename Word, int kRows>
void hammingRow(uint8_t* out, const uint8_t* baseRow, const uint8_t* const* matchRows, int32_t rowCount,
                const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
    const int32_t rows = kRows > 0 ? kRows : rowCount;
    const Word* base = reinterpret_cast<const Word*>(baseRow);
    for (int32_t x = x0; x < x1; ++x) {
        const Word b = base[x];
        const uint8_t m = mask != nullptr ? mask[x] : 0xFF;  // no mask: all ones
        const intptr_t at = x + dLow;
        // Eight candidates at a time: the minimum over the rows stays in
        // `lane` and is stored once.
        for (int32_t k0 = 0; k0 < D; k0 += kLane) {
            Word lane[kLane];
            laneFirst(lane, reinterpret_cast<const Word*>(matchRows[0]) + at + k0, b);
            for (int32_t i = 1; i < rows; ++i)
                laneMin(lane, reinterpret_cast<const Word*>(matchRows[i]) + at + k0, b);
            laneStore(out + static_cast<size_t>(x) * D + k0, lane, m);
        }
    }
}

template <typename Word>
void hammingRowAny(uint8_t* out, const uint8_t* base, const uint8_t* const* match, int32_t rows,
                   const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
    switch (rows) {
        case 1: return hammingRow<Word, 1>(out, base, match, rows, mask, D, dLow, x0, x1);
        case 3: return hammingRow<Word, 3>(out, base, match, rows, mask, D, dLow, x0, x1);
        case 5: return hammingRow<Word, 5>(out, base, match, rows, mask, D, dLow, x0, x1);
        case 7: return hammingRow<Word, 7>(out, base, match, rows, mask, D, dLow, x0, x1);
        case 9: return hammingRow<Word, 9>(out, base, match, rows, mask, D, dLow, x0, x1);
        default: return hammingRow<Word, 0>(out, base, match, rows, mask, D, dLow, x0, x1);
    }
}

}  // namespace

void hamming8Row_c(uint8_t* out, const uint8_t* base, const uint8_t* const* match, int32_t rows,
                   const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
    hammingRowAny<uint8_t>(out, base, match, rows, mask, D, dLow, x0, x1);
}

void hamming32Row_c(uint8_t* out, const uint8_t* base, const uint8_t* const* match, int32_t rows,
                    const uint8_t* mask, int32_t D, int32_t dLow, int32_t x0, int32_t x1) {
    hammingRowAny<uint32_t>(out, base, match, rows, mask, D, dLow, x0, x1);
}

void SgmCostKernels_fill(SgmCostKernels* table, uint32_t features) {
    table->hamming8 = hamming8Row_c;
    table->hamming32 = hamming32Row_c;
#if defined(VQ_TL_KERNELS_X86)
    if ((features & kCpuSse41) != 0) SgmCostKernels_addSse41(table);
    if ((features & kCpuSse41) != 0 && (features & kCpuAvx2) != 0) SgmCostKernels_addAvx2(table);
    if ((features & kCpuSse41) != 0 && (features & kCpuAvx2) != 0 && (features & kCpuAvx512) != 0)
        SgmCostKernels_addAvx512(table);
#endif
#if defined(VQ_TL_KERNELS_NEON)
    if ((features & kCpuNeon) != 0) SgmCostKernels_addNeon(table);
#endif
    (void)features;
}

const SgmCostKernels* SgmCostKernels_get() {
    static const SgmCostKernels table = [] {
        SgmCostKernels t;
        SgmCostKernels_fill(&t, Cpu_getFeatures());
        return t;
    }();
    return &table;
}

}  // namespace vq_tl
