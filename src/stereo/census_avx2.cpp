// Census rows with AVX2: 32 pixels per step (the kernels themselves are
// Census_3x3Row and Census_5x5Row of the family's header).
#include <immintrin.h>

#include "stereo/census.h"

namespace vq_tl {

namespace {

struct V {
    using Reg = __m256i;
    static constexpr int32_t kLanes = 32;
    const __m256i bias = _mm256_set1_epi8(static_cast<char>(0x80));
    static Reg load(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
    static void store(uint8_t* p, Reg v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
    static Reg zero() { return _mm256_setzero_si256(); }
    // Unsigned "greater than" as a signed compare of both sides moved by 128.
    Reg greater(Reg a, Reg c) const {
        return _mm256_cmpgt_epi8(_mm256_xor_si256(a, bias), _mm256_xor_si256(c, bias));
    }
    static Reg push(Reg acc, Reg g) { return _mm256_sub_epi8(_mm256_add_epi8(acc, acc), g); }
    static void storeWords(uint32_t* out, Reg hi, Reg mid, Reg low) {
        const __m256i zero = _mm256_setzero_si256();
        // The unpacks work within 128-bit halves: w0 holds pixels 0-3 and
        // 16-19, w1 4-7 and 20-23, w2 8-11 and 24-27, w3 12-15 and 28-31.
        const __m256i lm0 = _mm256_unpacklo_epi8(low, mid), lm1 = _mm256_unpackhi_epi8(low, mid);
        const __m256i h0 = _mm256_unpacklo_epi8(hi, zero), h1 = _mm256_unpackhi_epi8(hi, zero);
        const __m256i w0 = _mm256_unpacklo_epi16(lm0, h0), w1 = _mm256_unpackhi_epi16(lm0, h0);
        const __m256i w2 = _mm256_unpacklo_epi16(lm1, h1), w3 = _mm256_unpackhi_epi16(lm1, h1);
        __m256i* o = reinterpret_cast<__m256i*>(out);
        _mm256_storeu_si256(o + 0, _mm256_permute2x128_si256(w0, w1, 0x20));
        _mm256_storeu_si256(o + 1, _mm256_permute2x128_si256(w2, w3, 0x20));
        _mm256_storeu_si256(o + 2, _mm256_permute2x128_si256(w0, w1, 0x31));
        _mm256_storeu_si256(o + 3, _mm256_permute2x128_si256(w2, w3, 0x31));
    }
};

}  // namespace

void CensusKernels_addAvx2(CensusKernels* table) { Census_setRows<V>(table); }

}  // namespace vq_tl
