// Census rows with SSE4.1: 16 pixels per step (the kernels themselves are
// Census_3x3Row and Census_5x5Row of the family's header).
#include <smmintrin.h>

#include "stereo/census.h"

namespace vq_tl {

namespace {

struct V {
    using Reg = __m128i;
    static constexpr int32_t kLanes = 16;
    const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
    static Reg load(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
    static void store(uint8_t* p, Reg v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }
    static Reg zero() { return _mm_setzero_si128(); }
    // Unsigned "greater than" as a signed compare of both sides moved by 128.
    Reg greater(Reg a, Reg c) const { return _mm_cmpgt_epi8(_mm_xor_si128(a, bias), _mm_xor_si128(c, bias)); }
    static Reg push(Reg acc, Reg g) { return _mm_sub_epi8(_mm_add_epi8(acc, acc), g); }
    static void storeWords(uint32_t* out, Reg hi, Reg mid, Reg low) {
        const __m128i zero = _mm_setzero_si128();
        const __m128i lm0 = _mm_unpacklo_epi8(low, mid), lm1 = _mm_unpackhi_epi8(low, mid);
        const __m128i h0 = _mm_unpacklo_epi8(hi, zero), h1 = _mm_unpackhi_epi8(hi, zero);
        __m128i* o = reinterpret_cast<__m128i*>(out);
        _mm_storeu_si128(o + 0, _mm_unpacklo_epi16(lm0, h0));
        _mm_storeu_si128(o + 1, _mm_unpackhi_epi16(lm0, h0));
        _mm_storeu_si128(o + 2, _mm_unpacklo_epi16(lm1, h1));
        _mm_storeu_si128(o + 3, _mm_unpackhi_epi16(lm1, h1));
    }
};

}  // namespace

void CensusKernels_addSse41(CensusKernels* table) { Census_setRows<V>(table); }

}  // namespace vq_tl
