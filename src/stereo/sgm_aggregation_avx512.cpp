// Plane sums and guided penalties with AVX-512 (F, BW, VL, VBMI).
//
// Plane sums into 8-bit entries: up to D = 56 a
// pixel's D + 2 entries, pads included, are one byte permute of its slot
// sums (entry 0 from slot 1, entry D + 1 from slot D - 2) and one store of
// 32 bytes (D <= 30) or 64: no pad is read back from a store that may not
// have finished, the stall that bounds the one-pixel AVX2 form. A store's
// lanes past the pixel fall on the next pixels' entries, which those pixels
// write afterwards; the last pixels, where full loads or stores would pass
// what the scalar form touches, use masks. Larger D is summed in 64-slot
// chunks, with masks, and the pads taken from the registers.
#include <immintrin.h>

#include <cstdint>

#include "stereo/sgm_aggregation.h"
#include "stereo/sgm_avx512.h"

namespace vq_tl {

namespace {

struct V256 {
    using T = __m256i;
    static constexpr int32_t kBytes = 32;
    static T load(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
    static T load(const uint8_t* p, __mmask64 m) {
        return _mm256_maskz_loadu_epi8(static_cast<__mmask32>(m), p);
    }
    static void store(uint8_t* p, T v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
    static void store(uint8_t* p, T v, __mmask64 m) {
        _mm256_mask_storeu_epi8(p, static_cast<__mmask32>(m), v);
    }
    static T add(T a, T b) { return _mm256_add_epi8(a, b); }
    static T permute(T index, T v) { return _mm256_permutexvar_epi8(index, v); }
};

struct V512 {
    using T = __m512i;
    static constexpr int32_t kBytes = 64;
    static T load(const uint8_t* p) { return _mm512_loadu_si512(reinterpret_cast<const void*>(p)); }
    static T load(const uint8_t* p, __mmask64 m) { return _mm512_maskz_loadu_epi8(m, p); }
    static void store(uint8_t* p, T v) { _mm512_storeu_si512(reinterpret_cast<void*>(p), v); }
    static void store(uint8_t* p, T v, __mmask64 m) { _mm512_mask_storeu_epi8(p, m, v); }
    static T add(T a, T b) { return _mm512_add_epi8(a, b); }
    static T permute(T index, T v) { return vq_tl::permute(index, v); }
};

// D + 2 <= V::kBytes.
template <class V>
void sumPixels(const AggregationPlaneSum* r) {
    using T = typename V::T;
    constexpr int32_t kB = V::kBytes;
    const int32_t D = r->numDisparities, S = D + 1, E = D + 2, n = r->numPlanes, W = r->width;
    // Entry j of a pixel from slot j - 1, the pads from slots 1 and D - 2.
    alignas(64) uint8_t order[kB];
    for (int32_t j = 0; j < kB; ++j) order[j] = static_cast<uint8_t>(j == 0 ? 1 : j == D + 1 ? D - 2 : j - 1);
    const T index = V::load(order);
    uint8_t* out = static_cast<uint8_t*>(r->out);
    int32_t x = 0;
    // Full loads end at byte x * S + kB - 1 of the planes, within the
    // scalar form's last, (W - 1) * S + D - 1; full stores at entry
    // x * E + kB - 1, within the row's W * E entries.
    for (; x < W && x * S + kB <= (W - 1) * S + D && x * E + kB <= W * E; ++x) {
        const intptr_t off = static_cast<intptr_t>(x) * S;
        T s = V::load(r->planes[0] + off);
        for (int32_t i = 1; i < n; ++i) s = V::add(s, V::load(r->planes[i] + off));
        V::store(out + static_cast<intptr_t>(x) * E, V::permute(index, s));
    }
    const __mmask64 slots = lowBits(D), entries = lowBits(E);
    for (; x < W; ++x) {
        const intptr_t off = static_cast<intptr_t>(x) * S;
        T s = V::load(r->planes[0] + off, slots);
        for (int32_t i = 1; i < n; ++i) s = V::add(s, V::load(r->planes[i] + off, slots));
        V::store(out + static_cast<intptr_t>(x) * E, V::permute(index, s), entries);
    }
}

inline uint8_t byteAt(__m512i v, int32_t i) {
    return static_cast<uint8_t>(_mm512_cvtsi512_si32(permute(_mm512_set1_epi8(static_cast<char>(i)), v)));
}

void sumU8_avx512(const AggregationPlaneSum* r) {
    const int32_t D = r->numDisparities, S = D + 1, n = r->numPlanes;
    if (D + 2 <= 32) return sumPixels<V256>(r);
    if (D + 2 <= 64) return sumPixels<V512>(r);
    for (int32_t x = 0; x < r->width; ++x) {
        uint8_t* A = static_cast<uint8_t*>(r->out) + static_cast<intptr_t>(x) * (D + 2);
        const intptr_t off = static_cast<intptr_t>(x) * S;
        uint8_t first = 0, last = 0;
        for (int32_t k = 0; k < D; k += 64) {
            const __mmask64 part = lowBits(D - k);
            __m512i s = _mm512_maskz_loadu_epi8(part, r->planes[0] + off + k);
            for (int32_t i = 1; i < n; ++i)
                s = _mm512_add_epi8(s, _mm512_maskz_loadu_epi8(part, r->planes[i] + off + k));
            _mm512_mask_storeu_epi8(A + 1 + k, part, s);
            if (k == 0) first = byteAt(s, 1);
            if (D - 2 - k < 64) last = byteAt(s, D - 2 - k);
        }
        A[0] = first;
        A[D + 1] = last;
    }
}

// --- Guided penalties: 64 pixels per step ----------------------------------
//
// 64 bytes from p, or the first count with the rest 0 (masked-off bytes
// are not read); full loads where they can, since masked ones cost more.
inline __m512i loadPart(const uint8_t* p, int32_t count) {
    return count >= 64 ? _mm512_loadu_si512(reinterpret_cast<const void*>(p))
                       : _mm512_maskz_loadu_epi8(lowBits(count), p);
}

inline __m512i absDiff(__m512i a, __m512i b) {
    return _mm512_or_si512(_mm512_subs_epu8(a, b), _mm512_subs_epu8(b, a));
}

// The guide steps g (0 to 255) of 64 pixels as bytes: |dU| + |dV| summed in
// words and halved, the words' low bytes gathered by one permute.
template <int kChannels>
inline __m512i guideSteps(const uint8_t* gp, const uint8_t* gq, int32_t count) {
    if (kChannels == 1) return absDiff(loadPart(gp, count), loadPart(gq, count));
    const __m512i ones = _mm512_set1_epi8(1);
    const __m512i d0 = absDiff(loadPart(gp, 2 * count), loadPart(gq, 2 * count));
    const __m512i d1 = absDiff(loadPart(gp + 64, 2 * count - 64), loadPart(gq + 64, 2 * count - 64));
    const __m512i w0 = _mm512_srli_epi16(_mm512_maddubs_epi16(d0, ones), 1);
    const __m512i w1 = _mm512_srli_epi16(_mm512_maddubs_epi16(d1, ones), 1);
    alignas(64) static constexpr uint8_t kEven[64] = {
        0,  2,  4,  6,  8,  10, 12,  14,  16,  18,  20,  22,  24,  26,  28,  30,  32,  34,  36,  38, 40, 42,
        44, 46, 48, 50, 52, 54, 56,  58,  60,  62,  64,  66,  68,  70,  72,  74,  76,  78,  80,  82, 84, 86,
        88, 90, 92, 94, 96, 98, 100, 102, 104, 106, 108, 110, 112, 114, 116, 118, 120, 122, 124, 126};
    return _mm512_permutex2var_epi8(w0, _mm512_load_si512(reinterpret_cast<const void*>(kEven)), w1);
}

// max((p2 + ((1 + g) >> 1)) / (1 + g), lower) as a byte for 16 pixels (g and
// p2 as 32-bit lanes): the float division truncated is the integer quotient
// (the numerator is at most 383; see the AVX2 form).
inline __m128i quotients16(__m512i g, __m512i p2, __m512i lower) {
    const __m512i den = _mm512_add_epi32(g, _mm512_set1_epi32(1));
    const __m512i n = _mm512_add_epi32(p2, _mm512_srli_epi32(den, 1));
    const __m512i q = _mm512_cvttps_epi32(_mm512_div_ps(_mm512_cvtepi32_ps(n), _mm512_cvtepi32_ps(den)));
    // At most 256; its byte is 0, as in the scalar form's cast.
    return _mm512_cvtepi32_epi8(_mm512_max_epi32(q, lower));
}

template <int kChannels>
void penaltyRow(const AggregationPenalty* r) {
    const __m512i lower = _mm512_set1_epi32(r->lower);
    if (r->p2Step == 0) {
        // One P2 for the row: the 256 values of g, four registers, looked up.
        // The matcher asks for rows of a few hundred pixels with the same P2
        // and bound thousands of times a call, and the table's 16 divisions
        // cost about as much as such a row's lookups: each thread keeps its
        // last table.
        struct Table {
            int32_t p2 = -1, lower = -1;
            alignas(64) uint8_t values[256];
        };
        static thread_local Table last;
        uint8_t* table = last.values;
        if (last.p2 != r->p2[0] || last.lower != r->lower) {
            const __m512i p2 = _mm512_set1_epi32(r->p2[0]);
            const __m512i step = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
            for (int32_t g = 0; g < 256; g += 16) {
                _mm_store_si128(reinterpret_cast<__m128i*>(table + g),
                                quotients16(_mm512_add_epi32(_mm512_set1_epi32(g), step), p2, lower));
            }
            last.p2 = r->p2[0];
            last.lower = r->lower;
        }
        const __m512i t0 = _mm512_load_si512(reinterpret_cast<const void*>(table)),
                      t1 = _mm512_load_si512(reinterpret_cast<const void*>(table + 64)),
                      t2 = _mm512_load_si512(reinterpret_cast<const void*>(table + 128)),
                      t3 = _mm512_load_si512(reinterpret_cast<const void*>(table + 192));
        for (int32_t x = 0; x < r->width; x += 64) {
            const int32_t count = r->width - x < 64 ? r->width - x : 64;
            const __m512i g =
                guideSteps<kChannels>(r->guide + x * kChannels, r->guidePrev + x * kChannels, count);
            const __m512i v =
                _mm512_mask_blend_epi8(_mm512_movepi8_mask(g), _mm512_permutex2var_epi8(t0, g, t1),
                                       _mm512_permutex2var_epi8(t2, g, t3));
            if (count == 64) {
                _mm512_storeu_si512(reinterpret_cast<void*>(r->out + x), v);
            } else {
                _mm512_mask_storeu_epi8(r->out + x, lowBits(count), v);
            }
        }
        return;
    }
    for (int32_t x = 0; x < r->width; x += 64) {
        const int32_t count = r->width - x < 64 ? r->width - x : 64;
        const __m512i g =
            guideSteps<kChannels>(r->guide + x * kChannels, r->guidePrev + x * kChannels, count);
        alignas(64) uint8_t steps[64], out[64];
        _mm512_store_si512(reinterpret_cast<void*>(steps), g);
        const __m512i p2 = loadPart(r->p2 + x, count);
        alignas(64) uint8_t p2s[64];
        _mm512_store_si512(reinterpret_cast<void*>(p2s), p2);
        for (int32_t i = 0; i < 64; i += 16) {
            const __m512i gi =
                _mm512_cvtepu8_epi32(_mm_load_si128(reinterpret_cast<const __m128i*>(steps + i)));
            const __m512i pi =
                _mm512_cvtepu8_epi32(_mm_load_si128(reinterpret_cast<const __m128i*>(p2s + i)));
            _mm_store_si128(reinterpret_cast<__m128i*>(out + i), quotients16(gi, pi, lower));
        }
        _mm512_mask_storeu_epi8(r->out + x, lowBits(count),
                                _mm512_load_si512(reinterpret_cast<const void*>(out)));
    }
}

void penaltyU8_avx512(const AggregationPenalty* r) { penaltyRow<1>(r); }
void penaltyU88_avx512(const AggregationPenalty* r) { penaltyRow<2>(r); }

}  // namespace

void AggregationKernels_addAvx512(AggregationKernels* table) {
    table->sumU8 = sumU8_avx512;
    table->penaltyU8 = penaltyU8_avx512;
    table->penaltyU88 = penaltyU88_avx512;
}

}  // namespace vq_tl
