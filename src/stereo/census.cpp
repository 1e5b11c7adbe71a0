#include "stereo/census.h"

#include "runtime/cpu_features.h"

namespace vq_tl {

namespace {

template <int R, typename Word>
inline void censusRow(Word* out, const uint8_t* const* rows, int32_t x0, int32_t x1) {
    for (int32_t x = x0; x < x1; ++x) {
        const uint8_t c = rows[R][x];
        Word w = 0;
        for (int32_t dy = 0; dy <= 2 * R; ++dy) {
            for (int32_t dx = -R; dx <= R; ++dx) {
                if (dy == R && dx == 0) continue;
                w = static_cast<Word>((w << 1) | (rows[dy][x + dx] > c ? 1u : 0u));
            }
        }
        out[x] = w;
    }
}

}  // namespace

void census3x3Row_c(uint8_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1) {
    censusRow<1>(out, rows, x0, x1);
}

void census5x5Row_c(uint32_t* out, const uint8_t* const* rows, int32_t x0, int32_t x1) {
    censusRow<2>(out, rows, x0, x1);
}

void CensusKernels_fill(CensusKernels* table, uint32_t features) {
    table->census3x3 = census3x3Row_c;
    table->census5x5 = census5x5Row_c;
#if defined(VQ_TL_KERNELS_X86)
    if ((features & kCpuSse41) != 0) CensusKernels_addSse41(table);
    if ((features & kCpuSse41) != 0 && (features & kCpuAvx2) != 0) CensusKernels_addAvx2(table);
#endif
#if defined(VQ_TL_KERNELS_NEON)
    if ((features & kCpuNeon) != 0) CensusKernels_addNeon(table);
#endif
    (void)features;
}

const CensusKernels* CensusKernels_get() {
    static const CensusKernels table = [] {
        CensusKernels t;
        CensusKernels_fill(&t, Cpu_getFeatures());
        return t;
    }();
    return &table;
}

}  // namespace vq_tl
