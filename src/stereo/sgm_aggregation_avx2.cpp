// Path updates with AVX2: the D slots of one pixel in 32-byte chunks and one
// last chunk of 8, 16 or 24 slots, D = 8 to 64; larger D takes the scalar
// kernels (chain rows up to D = 24 in 16-byte chunks, eight rows as four
// pairs of rows in 256-bit registers). The plane sums go the same way for
// any D, the guided penalties 16 pixels at a time.
#include <immintrin.h>

#include "stereo/sgm_aggregation.h"
#include "stereo/sgm_aggregation_x86.h"

namespace vq_tl {

namespace {

inline __m128i load16(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline __m128i load8(const uint8_t* p) { return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)); }
inline __m256i load32(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }

// kBytes (8 to 32, a multiple of 8) bytes from p in the low lanes, zero
// above; never a byte past p + kBytes - 1.
template <int kBytes>
inline __m256i loadPart(const uint8_t* p) {
    if (kBytes == 32) return load32(p);
    if (kBytes == 24) return _mm256_inserti128_si256(_mm256_zextsi128_si256(load16(p)), load8(p + 16), 1);
    if (kBytes == 16) return _mm256_zextsi128_si256(load16(p));
    return _mm256_zextsi128_si256(load8(p));
}

template <int kBytes>
inline void storePart(uint8_t* p, __m256i v) {
    if (kBytes == 32) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v);
        return;
    }
    const __m128i lo = _mm256_castsi256_si128(v);
    if (kBytes == 8) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), lo);
        return;
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), lo);
    if (kBytes == 24) _mm_storel_epi64(reinterpret_cast<__m128i*>(p + 16), _mm256_extracti128_si256(v, 1));
}

// The wrapping byte arithmetic of the scalar form: add_epi8 wraps as the
// uint8_t casts do, min_epu8 is the unsigned min.
inline __m256i update(__m256i left, __m256i right, __m256i same, __m256i cost, __m256i p1, __m256i p2) {
    const __m256i a = _mm256_min_epu8(left, right);
    const __m256i b = _mm256_min_epu8(_mm256_add_epi8(a, p1), p2);
    return _mm256_add_epi8(_mm256_min_epu8(b, same), cost);
}

// The smallest byte of v in every byte: the halves folded, then per word the
// smaller of its bytes in the low byte (the high byte 0) and minpos.
inline __m256i minAll(__m256i v) {
    const __m128i h = _mm_min_epu8(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    const __m128i pairs = _mm_min_epu8(h, _mm_srli_epi16(h, 8));
    return _mm256_broadcastb_epi8(_mm_minpos_epu16(pairs));
}

// Slot k - 1 and slot k + 1 of a chunk whose neighbour chunks are `before`
// and `after`: byte shifts across the two 128-bit halves.
inline __m256i leftOf(__m256i v, __m256i before) {
    return _mm256_alignr_epi8(v, _mm256_permute2x128_si256(v, before, 0x03), 15);
}
inline __m256i rightOf(__m256i v, __m256i after) {
    return _mm256_alignr_epi8(_mm256_permute2x128_si256(v, after, 0x21), v, 1);
}

// kBytes slots (low lanes of o) into the 16-bit sums.
inline void sum8(uint16_t* A, __m128i o, bool add) {
    __m128i w = _mm_cvtepu8_epi16(o);
    if (add) w = _mm_add_epi16(w, _mm_loadu_si128(reinterpret_cast<const __m128i*>(A)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(A), w);
}
inline void sum16(uint16_t* A, __m128i o, bool add) {
    __m256i w = _mm256_cvtepu8_epi16(o);
    if (add) w = _mm256_add_epi16(w, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(A)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(A), w);
}
template <int kBytes>
inline void sumPart(uint16_t* A, __m256i o, bool add) {
    const __m128i lo = _mm256_castsi256_si128(o);
    if (kBytes == 8) {
        sum8(A, lo, add);
        return;
    }
    sum16(A, lo, add);
    if (kBytes == 24) sum8(A + 16, _mm256_extracti128_si256(o, 1), add);
    if (kBytes == 32) sum16(A + 16, _mm256_extracti128_si256(o, 1), add);
}

template <int kD>
struct Layout {
    static constexpr int kFull = kD / 32;            // 32-slot chunks
    static constexpr int kRest = kD % 32;            // slots of the last chunk (0: none)
    static constexpr int kN = kFull + (kRest != 0);  // chunks
    static constexpr int bytes(int i) { return i < kFull ? 32 : kRest; }
};

// Stores the D slots of one pixel (chunks o) and adds them to the sums.
template <int kD>
inline void finish(const AggregationRow* r, int32_t x, const __m256i* o) {
    using L = Layout<kD>;
    uint8_t* out = r->out + static_cast<intptr_t>(x) * (kD + 1);
    for (int i = 0; i < L::kFull; ++i) storePart<32>(out + 32 * i, o[i]);
    if (L::kRest != 0) storePart<L::kRest == 0 ? 32 : L::kRest>(out + 32 * L::kFull, o[L::kFull]);
    if (r->sumMode == AGG_SUM_NONE) return;
    const bool add = r->sumMode == AGG_SUM_ADD;
    uint16_t* A = r->sum + static_cast<intptr_t>(x) * (kD + 2);
    for (int i = 0; i < L::kFull; ++i) sumPart<32>(A + 32 * i, o[i], add);
    if (L::kRest != 0) sumPart<L::kRest == 0 ? 32 : L::kRest>(A + 32 * L::kFull, o[L::kFull], add);
    if (r->pads != 0) {
        A[-1] = A[1];
        A[kD] = A[kD - 2];
    }
}

// 255 in the lanes past the last chunk's slots, 0 elsewhere.
template <int kD>
inline __m256i tailMask() {
    constexpr int kRest = Layout<kD>::kRest;
    alignas(32) uint8_t m[32];
    for (int i = 0; i < 32; ++i) m[i] = i < kRest ? 0 : 255;
    return _mm256_load_si256(reinterpret_cast<const __m256i*>(m));
}

constexpr int32_t kCostPrefetch = 3072;

template <int kD>
void crossRow(const AggregationRow* r) {
    using L = Layout<kD>;
    constexpr int kRestBytes = L::kRest == 0 ? 32 : L::kRest;
    // A full load of the last chunk reads up to byte c + 32 * kFull + 31 of
    // the costs and q + 32 * kFull + 32 of the previous row; pixel x + 1
    // reads up to c + 2 * D - 1 and q + 2 * D + 1, so both are covered where
    // 32 * kFull + 32 <= 2 * D (all D from 16; D = 8 would need pixel x + 3).
    constexpr bool kWideRest = 32 * L::kFull + 32 <= 2 * kD;
    const __m256i p1 = _mm256_set1_epi8(static_cast<char>(r->smallPenalty));
    const __m256i ones = _mm256_set1_epi8(-1);
    const __m256i tail = tailMask<kD>();
    for (int32_t x = 0; x < r->width; ++x) {
        const uint8_t* q = r->prev + static_cast<intptr_t>(x) * (kD + 1);
        const uint8_t* c = r->cost + static_cast<intptr_t>(x) * kD;
        // The cost rows come from memory and the prefetcher alone leaves the
        // loads waiting: ask for the row about 3 KB ahead (some 130 pixels at
        // D = 24, a few hundred nanoseconds). A prefetch past the row is
        // harmless.
        _mm_prefetch(reinterpret_cast<const char*>(c + kCostPrefetch), _MM_HINT_T0);
        const __m256i p2 = _mm256_set1_epi8(static_cast<char>(r->p2[x * r->p2Step]));
        __m256i l[L::kN];
        __m256i mn = ones;
        for (int i = 0; i < L::kFull; ++i) {
            const uint8_t* s = q + 32 * i;
            l[i] = update(load32(s - 1), load32(s + 1), load32(s), load32(c + 32 * i), p1, p2);
            mn = _mm256_min_epu8(mn, l[i]);
        }
        if (L::kRest != 0) {
            // The lanes above the last chunk's slots are kept out of the
            // minimum and never stored, so what they hold does not matter.
            // Before the last pixel a full 32-byte load reads only bytes the
            // scalar form reads for pixel x + 1 (its previous costs from
            // q + D and its costs from c + D, at least 32 bytes on from the
            // chunk's start for D >= 16): one load instead of two and an
            // insert. The last pixel takes the part loads.
            const uint8_t* s = q + 32 * L::kFull;
            const uint8_t* cc = c + 32 * L::kFull;
            if (kWideRest && x + 1 < r->width) {
                l[L::kFull] = update(load32(s - 1), load32(s + 1), load32(s), load32(cc), p1, p2);
            } else {
                l[L::kFull] = update(loadPart<kRestBytes>(s - 1), loadPart<kRestBytes>(s + 1),
                                     loadPart<kRestBytes>(s), loadPart<kRestBytes>(cc), p1, p2);
            }
            mn = _mm256_min_epu8(mn, _mm256_or_si256(l[L::kFull], tail));
        }
        const __m256i m = minAll(mn);
        for (int i = 0; i < L::kN; ++i) l[i] = _mm256_sub_epi8(l[i], m);
        finish<kD>(r, x, l);
    }
}

// Chain rows keep the previous pixel's slots in registers, with 255 in the
// lanes past slot D - 1 (the separator the scalar form reads at slot D). Each
// pixel waits for the minimum of the one before, so two rows go side by side
// where the caller has them.
template <int kD>
struct Chain {
    using L = Layout<kD>;
    static constexpr int kRestBytes = L::kRest == 0 ? 32 : L::kRest;
    __m256i v[L::kN];

    void start(const AggregationRow* r, int32_t x, __m256i tail) {
        const uint8_t* q = r->out + static_cast<intptr_t>(x + r->dx) * (kD + 1);
        for (int i = 0; i < L::kFull; ++i) v[i] = load32(q + 32 * i);
        if (L::kRest != 0) v[L::kFull] = _mm256_or_si256(loadPart<kRestBytes>(q + 32 * L::kFull), tail);
    }

    void step(const AggregationRow* r, int32_t x, __m256i p1, __m256i ones, __m256i tail) {
        const uint8_t* c = r->cost + static_cast<intptr_t>(x) * kD;
        const __m256i p2 = _mm256_set1_epi8(static_cast<char>(r->p2[x * r->p2Step]));
        __m256i l[L::kN];
        __m256i mn = ones;
        for (int i = 0; i < L::kN; ++i) {
            const __m256i left = leftOf(v[i], i == 0 ? ones : v[i - 1]);
            const __m256i right = rightOf(v[i], i + 1 < L::kN ? v[i + 1] : ones);
            const __m256i cost = i < L::kFull ? load32(c + 32 * i) : loadPart<kRestBytes>(c + 32 * i);
            l[i] = update(left, right, v[i], cost, p1, p2);
            mn = _mm256_min_epu8(mn, i < L::kFull ? l[i] : _mm256_or_si256(l[i], tail));
        }
        const __m256i m = minAll(mn);
        for (int i = 0; i < L::kN; ++i) {
            v[i] = _mm256_sub_epi8(l[i], m);
            if (i == L::kFull) v[i] = _mm256_or_si256(v[i], tail);
        }
        finish<kD>(r, x, v);
    }
};

// With D up to 24 the 256-bit chunk's shifts across its halves cost more
// than they save on the chain's critical path: the SSE4.1 form's 16-byte
// chunks instead (sgm_aggregation_x86.h), with this finish: a pixel's slots
// stored and added to the sums.
template <int kD>
struct Finish128 {
    static void run(const AggregationRow* r, int32_t x, const __m128i* v) {
        constexpr int kFull = kD / 16;
        uint8_t* out = r->out + static_cast<intptr_t>(x) * (kD + 1);
        for (int i = 0; i < kFull; ++i) _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16 * i), v[i]);
        if (kD % 16 != 0) _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 16 * kFull), v[kFull]);
        if (r->sumMode == AGG_SUM_NONE) return;
        const bool add = r->sumMode == AGG_SUM_ADD;
        uint16_t* A = r->sum + static_cast<intptr_t>(x) * (kD + 2);
        for (int i = 0; i < kFull; ++i) sum16(A + 16 * i, v[i], add);
        if (kD % 16 != 0) sum8(A + 16 * kFull, v[kFull], add);
        if (r->pads != 0) {
            A[-1] = A[1];
            A[kD] = A[kD - 2];
        }
    }
};

// Two rows in one 256-bit register up to D = 24: row A's 16-byte chunks in
// the low half, row B's in the high half. alignr, the byte arithmetic and
// the unpacks work within the halves, so the two rows cost one instruction
// where the 16-byte chain spends one per row; only the loads, stores and
// sums go per row. Part chunks (8 slots) hold 255 in bytes 8 to 15 of each
// half, as in the 16-byte chain. The per-row minimum becomes a serial
// in-half reduction (about nine steps), so a pair pays off only with enough
// pairs beside it: one or two pairs were slower than the 16-byte chain's two
// or four rows; four pairs (the eight-row form) take about a third less
// time than two four-row calls.
inline __m256i loadPair16(const uint8_t* a, const uint8_t* b) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(load16(a)), load16(b), 1);
}
inline __m256i loadPair8(const uint8_t* a, const uint8_t* b) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(load8(a)), load8(b), 1);
}

// Byte 0 of each half in all of that half's bytes.
inline __m256i broadcastHalves(__m256i v) { return _mm256_shuffle_epi8(v, _mm256_setzero_si256()); }

// The smallest of bytes 0 to 7 of each half in byte 0 of that half (the
// other bytes hold partial minima): element shifts, which stay off the
// shuffle port that alignr and the unpacks load.
inline __m256i min8InByte0(__m256i v) {
    v = _mm256_min_epu8(v, _mm256_srli_epi64(v, 32));
    v = _mm256_min_epu8(v, _mm256_srli_epi32(v, 16));
    return _mm256_min_epu8(v, _mm256_srli_epi16(v, 8));
}

// One row of a pair: its pointers at the current pixel, kept in locals so
// that the byte stores, which may alias anything, do not make the compiler
// read them back from the row descriptions every pixel.
struct PairRow {
    uint8_t* out;
    const uint8_t* cost;
    const uint8_t* p2;
    uint16_t* sum;
    intptr_t p2Step;
    int32_t sumMode, pads;
};

template <int kD>
inline PairRow PairRow_at(const AggregationRow* r, int32_t x) {
    PairRow p;
    p.out = r->out + static_cast<intptr_t>(x) * (kD + 1);
    p.cost = r->cost + static_cast<intptr_t>(x) * kD;
    p.p2Step = r->p2Step;
    p.p2 = r->p2 + x * p.p2Step;
    p.sum = r->sumMode == AGG_SUM_NONE ? nullptr : r->sum + static_cast<intptr_t>(x) * (kD + 2);
    p.sumMode = r->sumMode;
    p.pads = r->pads;
    return p;
}

template <int kD>
struct ChainPair {
    static constexpr int kFull = kD / 16, kN = (kD + 15) / 16;
    __m256i v[kN];
    PairRow a, b;

    void start(const AggregationRow* ra, const AggregationRow* rb, int32_t x, __m256i ones) {
        a = PairRow_at<kD>(ra, x);
        b = PairRow_at<kD>(rb, x);
        const uint8_t* qa = a.out + static_cast<intptr_t>(ra->dx) * (kD + 1);
        const uint8_t* qb = b.out + static_cast<intptr_t>(rb->dx) * (kD + 1);
        for (int i = 0; i < kFull; ++i) v[i] = loadPair16(qa + 16 * i, qb + 16 * i);
        if (kD % 16 != 0) v[kFull] = _mm256_unpacklo_epi64(loadPair8(qa + 16 * kFull, qb + 16 * kFull), ones);
    }

    static void store(const PairRow& r, const __m128i* o) {
        for (int i = 0; i < kFull; ++i) _mm_storeu_si128(reinterpret_cast<__m128i*>(r.out + 16 * i), o[i]);
        if (kD % 16 != 0) _mm_storel_epi64(reinterpret_cast<__m128i*>(r.out + 16 * kFull), o[kFull]);
        if (r.sumMode == AGG_SUM_NONE) return;
        const bool add = r.sumMode == AGG_SUM_ADD;
        uint16_t* A = r.sum;
        for (int i = 0; i < kFull; ++i) sum16(A + 16 * i, o[i], add);
        if (kD % 16 != 0) sum8(A + 16 * kFull, o[kFull], add);
        if (r.pads != 0) {
            A[-1] = A[1];
            A[kD] = A[kD - 2];
        }
    }

    // One pixel of both rows.
    void step(__m256i p1, __m256i ones, __m256i halfIndex) {
        // Row A's P2 in byte 0 of the word, row B's in byte 1; the word in
        // every word, then byte 0 across the low half and byte 1 across the
        // high half.
        const uint32_t pa = *a.p2, pb = *b.p2;
        const __m256i p2 = _mm256_shuffle_epi8(
            _mm256_broadcastw_epi16(_mm_cvtsi32_si128(static_cast<int>(pa | pb << 8))), halfIndex);
        __m256i l[kN];
        for (int i = 0; i < kN; ++i) {
            const __m256i left = _mm256_alignr_epi8(v[i], i == 0 ? ones : v[i - 1], 15);
            const __m256i right = _mm256_alignr_epi8(i + 1 < kN ? v[i + 1] : ones, v[i], 1);
            const __m256i cost = i < kFull ? loadPair16(a.cost + 16 * i, b.cost + 16 * i)
                                           : loadPair8(a.cost + 16 * i, b.cost + 16 * i);
            l[i] = update(left, right, v[i], cost, p1, p2);
        }
        // Each half's minimum over its row's D slots. D = 8: bytes 0 to 7.
        // D = 16: the upper 8 bytes folded onto the lower. D = 24: the part
        // chunk's 8 slots (its upper bytes are not slots and stay out) and
        // that fold side by side.
        __m256i mn = l[0];
        if (kD == 16) mn = _mm256_min_epu8(mn, _mm256_srli_si256(mn, 8));
        if (kD == 24) mn = _mm256_min_epu8(_mm256_min_epu8(l[0], l[1]), _mm256_srli_si256(l[0], 8));
        const __m256i m = broadcastHalves(min8InByte0(mn));
        __m128i lo[kN], hi[kN];
        for (int i = 0; i < kN; ++i) {
            v[i] = _mm256_sub_epi8(l[i], m);
            if (i == kFull) v[i] = _mm256_unpacklo_epi64(v[i], ones);
            lo[i] = _mm256_castsi256_si128(v[i]);
            hi[i] = _mm256_extracti128_si256(v[i], 1);
        }
        store(a, lo);
        store(b, hi);
    }

    // Both rows' pointers moved by dx pixels the other way, to the next
    // pixel of the chain (only while there is one, so that no pointer
    // leaves the rows).
    void advance(intptr_t back) {
        advanceRow(&a, back);
        advanceRow(&b, back);
    }

    static void advanceRow(PairRow* r, intptr_t back) {
        r->out -= back * (kD + 1);
        r->cost -= back * kD;
        r->p2 -= back * r->p2Step;
        if (r->sum != nullptr) r->sum -= back * (kD + 2);
    }
};

inline __m256i pairHalfIndex() { return _mm256_setr_m128i(_mm_setzero_si128(), _mm_set1_epi8(1)); }

// Eight rows as four pairs: a pair's minimum runs through a serial chain
// of shifts, and four pairs keep the vector units busy while each waits.
template <int kD>
void chainRows8_pair(const AggregationRow* rows) {
    const __m256i p1 = _mm256_set1_epi8(static_cast<char>(rows[0].smallPenalty));
    const __m256i ones = _mm256_set1_epi8(-1);
    const __m256i halfIndex = pairHalfIndex();
    const int32_t W = rows[0].width, dx = rows[0].dx;
    const int32_t x = dx < 0 ? 0 : W - 1;
    ChainPair<kD> a, b, c, d;
    a.start(&rows[0], &rows[1], x, ones);
    b.start(&rows[2], &rows[3], x, ones);
    c.start(&rows[4], &rows[5], x, ones);
    d.start(&rows[6], &rows[7], x, ones);
    for (int32_t n = 1;; ++n) {
        a.step(p1, ones, halfIndex);
        b.step(p1, ones, halfIndex);
        c.step(p1, ones, halfIndex);
        d.step(p1, ones, halfIndex);
        if (n == W) break;
        a.advance(dx);
        b.advance(dx);
        c.advance(dx);
        d.advance(dx);
    }
}

template <int kD>
void chainRow(const AggregationRow* r) {
    const __m256i p1 = _mm256_set1_epi8(static_cast<char>(r->smallPenalty));
    const __m256i ones = _mm256_set1_epi8(-1);
    const __m256i tail = tailMask<kD>();
    const int32_t W = r->width, dx = r->dx;
    int32_t x = dx < 0 ? 0 : W - 1;
    Chain<kD> a;
    a.start(r, x, tail);
    for (int32_t n = 0; n < W; ++n, x -= dx) a.step(r, x, p1, ones, tail);
}

template <int kD>
void chainRows2(const AggregationRow* r0, const AggregationRow* r1) {
    const __m256i p1 = _mm256_set1_epi8(static_cast<char>(r0->smallPenalty));
    const __m256i ones = _mm256_set1_epi8(-1);
    const __m256i tail = tailMask<kD>();
    const int32_t W = r0->width, dx = r0->dx;
    int32_t x = dx < 0 ? 0 : W - 1;
    Chain<kD> a, b;
    a.start(r0, x, tail);
    b.start(r1, x, tail);
    for (int32_t n = 0; n < W; ++n, x -= dx) {
        a.step(r0, x, p1, ones, tail);
        b.step(r1, x, p1, ones, tail);
    }
}

// --- Guided penalties: 16 pixels per step ----------------------------------
//
// The quotient (P2 + (den >> 1)) / den has a numerator n <= 383 and den in
// 1..256, so float division truncated gives the integer quotient exactly:
// where n / den is not a whole number it lies at least 1 / den below the
// next one, and the rounding of the division moves it by at most
// n / den * 2^-24, far less.

// The guide steps of 16 pixels as 16-bit words.
template <int kChannels>
inline __m256i guideSteps(const uint8_t* gp, const uint8_t* gq) {
    if (kChannels == 1) {
        const __m128i a = load16(gp), b = load16(gq);
        return _mm256_cvtepu8_epi16(_mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a)));
    }
    const __m256i a = load32(gp), b = load32(gq);
    const __m256i d = _mm256_or_si256(_mm256_subs_epu8(a, b), _mm256_subs_epu8(b, a));
    // |dU| + |dV| per pixel (at most 510), halved; maddubs keeps each
    // pixel's pair in its own 128-bit half, so the words stay in order.
    return _mm256_srli_epi16(_mm256_maddubs_epi16(d, _mm256_set1_epi8(1)), 1);
}

inline __m256i quotients8(__m128i n, __m128i den) {
    const __m256 q = _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(n)),
                                   _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(den)));
    return _mm256_cvttps_epi32(q);
}

template <int kChannels>
void penaltyRow(const AggregationPenalty* r) {
    const __m256i one = _mm256_set1_epi16(1), lower = _mm256_set1_epi16(static_cast<int16_t>(r->lower));
    const __m256i low8 = _mm256_set1_epi16(0xFF);
    const __m128i p2c = _mm_set1_epi8(static_cast<char>(r->p2Step == 0 ? r->p2[0] : 0));
    int32_t x = 0;
    for (; x + 16 <= r->width; x += 16) {
        const __m256i g = guideSteps<kChannels>(r->guide + x * kChannels, r->guidePrev + x * kChannels);
        const __m256i p2 = _mm256_cvtepu8_epi16(r->p2Step != 0 ? load16(r->p2 + x) : p2c);
        const __m256i den = _mm256_add_epi16(g, one);
        const __m256i n = _mm256_add_epi16(p2, _mm256_srli_epi16(den, 1));
        const __m256i q0 = quotients8(_mm256_castsi256_si128(n), _mm256_castsi256_si128(den));
        const __m256i q1 = quotients8(_mm256_extracti128_si256(n, 1), _mm256_extracti128_si256(den, 1));
        // packus works per half: the quarters go back in pixel order.
        const __m256i q = _mm256_permute4x64_epi64(_mm256_packus_epi32(q0, q1), 0xD8);
        // At most 256 after the max; the byte of 256 is 0, as in the scalar
        // form's cast.
        const __m256i m = _mm256_and_si256(_mm256_max_epi16(q, lower), low8);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(r->out + x),
                         _mm_packus_epi16(_mm256_castsi256_si128(m), _mm256_extracti128_si256(m, 1)));
    }
    if (x < r->width) {
        AggregationPenalty rest = *r;
        rest.out += x;
        rest.guide += x * kChannels;
        rest.guidePrev += x * kChannels;
        rest.p2 += x * r->p2Step;
        rest.width = r->width - x;
        if (kChannels == 1) {
            aggregationPenaltyU8_c(&rest);
        } else {
            aggregationPenaltyU88_c(&rest);
        }
    }
}

// --- Sums of the path planes -----------------------------------------------

// D slots of the planes into entries 1 to D of pixel x: 32 bytes per step,
// then 16 and 8 as D leaves.
void sumU8_avx2(const AggregationPlaneSum* r) {
    const int32_t D = r->numDisparities, S = D + 1, n = r->numPlanes;
    // Where D leaves a part chunk of 16 or 24 slots (D % 32 >= 16), a pixel
    // before the last one takes it as one 32-byte step: the loads end at
    // byte off + D / 32 * 32 + 31 <= off + 2 * D, the last of pixel x + 1's
    // slots (the separator between the pixels is read and dropped), and the
    // store ends at entry D / 32 * 32 + 32 <= 2 * D + 3,
    // inside pixel x + 1's entries, which that pixel writes afterwards. The
    // part chunk's lanes past slot D - 1 land on the pad (set below) and on
    // pixel x + 1's entries.
    const bool wideRest = D % 32 >= 16;
    for (int32_t x = 0; x < r->width; ++x) {
        uint8_t* A = static_cast<uint8_t*>(r->out) + static_cast<intptr_t>(x) * (D + 2);
        const intptr_t off = static_cast<intptr_t>(x) * S;
        int32_t k = 0;
        for (; k + 32 <= D; k += 32) {
            __m256i s = load32(r->planes[0] + off + k);
            for (int32_t i = 1; i < n; ++i) s = _mm256_add_epi8(s, load32(r->planes[i] + off + k));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(A + 1 + k), s);
        }
        if (k < D && wideRest && x + 1 < r->width) {
            __m256i s = load32(r->planes[0] + off + k);
            for (int32_t i = 1; i < n; ++i) s = _mm256_add_epi8(s, load32(r->planes[i] + off + k));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(A + 1 + k), s);
            k = D;
        }
        if (k + 16 <= D) {
            __m128i s = load16(r->planes[0] + off + k);
            for (int32_t i = 1; i < n; ++i) s = _mm_add_epi8(s, load16(r->planes[i] + off + k));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(A + 1 + k), s);
            k += 16;
        }
        if (k < D) {
            __m128i s = load8(r->planes[0] + off + k);
            for (int32_t i = 1; i < n; ++i) s = _mm_add_epi8(s, load8(r->planes[i] + off + k));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(A + 1 + k), s);
        }
        A[0] = A[2];
        A[D + 1] = A[D - 1];
    }
}

void sumU16_avx2(const AggregationPlaneSum* r) {
    const int32_t D = r->numDisparities, S = D + 1, n = r->numPlanes;
    for (int32_t x = 0; x < r->width; ++x) {
        uint16_t* A = static_cast<uint16_t*>(r->out) + static_cast<intptr_t>(x) * (D + 2);
        const intptr_t off = static_cast<intptr_t>(x) * S;
        int32_t k = 0;
        for (; k + 16 <= D; k += 16) {
            __m256i s = _mm256_cvtepu8_epi16(load16(r->planes[0] + off + k));
            for (int32_t i = 1; i < n; ++i)
                s = _mm256_add_epi16(s, _mm256_cvtepu8_epi16(load16(r->planes[i] + off + k)));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(A + 1 + k), s);
        }
        if (k < D) {
            __m128i s = _mm_cvtepu8_epi16(load8(r->planes[0] + off + k));
            for (int32_t i = 1; i < n; ++i)
                s = _mm_add_epi16(s, _mm_cvtepu8_epi16(load8(r->planes[i] + off + k)));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(A + 1 + k), s);
        }
        A[0] = A[2];
        A[D + 1] = A[D - 1];
    }
}

template <int kD>
struct CrossRowK {
    static void run(const AggregationRow* r) { crossRow<kD>(r); }
};
// Up to 24 slots a pixel fits 16-byte chunks.
template <int kD>
struct ChainRowK {
    static void run(const AggregationRow* r) {
        if constexpr (kD <= 24) {
            AggX86_chainRow<kD, Finish128>(r);
        } else {
            chainRow<kD>(r);
        }
    }
};
template <int kD>
struct ChainRows2K {
    static void run(const AggregationRow* r0, const AggregationRow* r1) {
        if constexpr (kD <= 24) {
            AggX86_chainRows2<kD, Finish128>(r0, r1);
        } else {
            chainRows2<kD>(r0, r1);
        }
    }
};

void crossRow_avx2(const AggregationRow* r) {
    Aggregation_byCandidates<CrossRowK>(r->numDisparities, aggregationCrossRow_c, r);
}

void chainRow_avx2(const AggregationRow* r) {
    Aggregation_byCandidates<ChainRowK>(r->numDisparities, aggregationChainRow_c, r);
}

void chainRows2_avx2(const AggregationRow* r0, const AggregationRow* r1) {
    Aggregation_byCandidates<ChainRows2K>(r0->numDisparities, aggregationChainRows2_c, r0, r1);
}

// Above D = 24 the four rows' state would not fit the 16 registers: two
// pairs.
void chainRows4_avx2(const AggregationRow* rows) {
    switch (rows[0].numDisparities) {
        case 8: return AggX86_chainRows4<8, Finish128>(rows);
        case 16: return AggX86_chainRows4<16, Finish128>(rows);
        case 24: return AggX86_chainRows4<24, Finish128>(rows);
        default:
            chainRows2_avx2(&rows[0], &rows[1]);
            chainRows2_avx2(&rows[2], &rows[3]);
            return;
    }
}

// Up to D = 24 four pairs side by side: with two, each pixel still waits
// on its pair's minimum. Above that the state of eight rows would not fit
// the registers, and the four-row form takes them in two calls.
void chainRows8_avx2(const AggregationRow* rows) {
    switch (rows[0].numDisparities) {
        case 8: return chainRows8_pair<8>(rows);
        case 16: return chainRows8_pair<16>(rows);
        case 24: return chainRows8_pair<24>(rows);
        default:
            chainRows4_avx2(&rows[0]);
            chainRows4_avx2(&rows[4]);
            return;
    }
}

void penaltyU8_avx2(const AggregationPenalty* r) { penaltyRow<1>(r); }
void penaltyU88_avx2(const AggregationPenalty* r) { penaltyRow<2>(r); }

}  // namespace

void AggregationKernels_addAvx2(AggregationKernels* table) {
    table->crossRow = crossRow_avx2;
    table->chainRow = chainRow_avx2;
    table->chainRows2 = chainRows2_avx2;
    table->chainRows4 = chainRows4_avx2;
    table->chainRows8 = chainRows8_avx2;
    table->sumU8 = sumU8_avx2;
    table->sumU16 = sumU16_avx2;
    table->penaltyU8 = penaltyU8_avx2;
    table->penaltyU88 = penaltyU88_avx2;
}

}  // namespace vq_tl
