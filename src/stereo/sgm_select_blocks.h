// The slot-major winner blocks of UINT8 volumes, written once over V, the
// block operations of one instruction-set file (AVX2: 32 pixels a block,
// AVX-512: 64): type Reg of kPixels bytes, load, loadAligned, store, set1,
// add, sub, min, select(a, take(low, cost), b) (b where low equals cost, else
// a), transposeEntries(dst, stride, src, pitch, n) (entries 0 to n - 1 of
// kPixels pixels into rows of dst) and storeFit(out, v, a, b, f, swapped).
// Included only by those files, after their intrinsics header: everything
// is in an unnamed namespace, so each file compiles its own copy.
//
// A block of pixels is transposed so that one entry of all of them is
// kPixels contiguous bytes; a winner is then found for the whole block at
// once in 8-bit lanes, costs being compared as they are (no key, no
// sentinel value).
#pragma once

#include <cstdint>

#include "stereo/sgm_select.h"

namespace vq_tl {
namespace {

// One slot of the walk: its cost where it is at most the smallest so far,
// and with it its value and neighbours.
template <class V>
struct Walk {
    typename V::Reg best, won, left, right;
};

template <class V>
inline void walkSlot(Walk<V>* w, typename V::Reg cost, typename V::Reg below, typename V::Reg above,
                     typename V::Reg v) {
    const typename V::Reg low = V::min(w->best, cost);
    const auto take = V::take(low, cost);
    w->best = low;
    w->won = V::select(w->won, take, v);
    w->left = V::select(w->left, take, below);
    w->right = V::select(w->right, take, above);
}

template <class V>
inline void storeWalk(uint8_t* out, const Walk<V>& w, int32_t f, int32_t swapped) {
    V::storeFit(out, w.won, V::sub(w.left, w.best), V::sub(w.right, w.best), f, swapped);
}

// Base view: entries 0 to D + 1 (D <= 128) of kPixels pixels slot-major,
// then the slots in order of decreasing value v, each taking the pixels
// where its cost is at most the smallest so far: the last to take a pixel is
// the smallest cost with, of equal costs, the smallest v. Each row is loaded
// once, as the cost of one slot and a neighbour of the two beside it. Rows of
// kPixels or more pixels; the last block overlaps its predecessor rather
// than end short.
template <class V, bool kSwapped>
void SelectBlocks_base(uint8_t* out, const uint8_t* row, int32_t D, int32_t f, int32_t x0, int32_t x1) {
    using Reg = typename V::Reg;
    constexpr int32_t kP = V::kPixels;
    const intptr_t pitch = D + 2;
    alignas(64) uint8_t buf[130 * kP];
    const Reg minusOne = V::set1(-1), zero = V::set1(0);
    const auto rowOf = [&](int32_t e) { return V::loadAligned(buf + kP * e); };
    for (int32_t x = x0; x < x1; x += kP) {
        if (x1 - x < kP) x = x1 - kP;
        V::transposeEntries(buf, kP, row + x * pitch, pitch, D + 2);
        Walk<V> w{minusOne, zero, zero, zero};
        Reg v = V::set1(static_cast<int8_t>(D - 1));
        if constexpr (kSwapped) {
            // v = D - 1 - k: slots upwards.
            Reg lo = rowOf(0), cur = rowOf(1);
            for (int32_t k = 0; k < D; ++k) {
                const Reg hi = rowOf(k + 2);
                walkSlot(&w, cur, lo, hi, v);
                v = V::add(v, minusOne);
                lo = cur;
                cur = hi;
            }
        } else {
            Reg hi = rowOf(D + 1), cur = rowOf(D);
            for (int32_t k = D - 1; k >= 0; --k) {
                const Reg lo = rowOf(k);
                walkSlot(&w, cur, lo, hi, v);
                v = V::add(v, minusOne);
                hi = cur;
                cur = lo;
            }
        }
        storeWalk(out + x, w, f, kSwapped ? 1 : 0);
    }
}

// Match view, interior columns (every slot's base pixel inside the row): slot
// k of match column x is slot k of the base pixel x + c - k, so with the base
// pixels slot-major (slot k of pixel p at row k, column p - pb0) slot k of
// kPixels columns is kPixels contiguous bytes of row k, one column earlier
// per slot, and its neighbours k - 1 and k + 1 one column later and earlier
// in the rows beside. The fit's neighbours are mirrored at slots 0 and D - 1.

// The base pixels pb0 to pb0 + count - 1 (count >= kPixels) slot-major into
// rows of buf, pixel pb0 + j at column j, in groups of kPixels, the last one
// overlapping its predecessor.
template <class V>
inline void SelectBlocks_transposePixels(uint8_t* buf, intptr_t stride, const uint8_t* bytes, int32_t D,
                                         int32_t pb0, int32_t count) {
    constexpr int32_t kP = V::kPixels;
    const intptr_t pitch = D + 2;
    for (int32_t g = 0;; g += kP) {
        if (g + kP > count) g = count - kP;
        V::transposeEntries(buf + g, stride, bytes + (pb0 + g) * pitch + 1, pitch, D);
        if (g + kP >= count) break;
    }
}

// kPixels interior columns; B: row 0 at the columns' slot 0 (column D - 1 of
// the block's first column). Slots in order of decreasing value as in the
// base view; the neighbours of slot k are the costs of slots k - 1 and k + 1,
// so each is loaded once.
template <class V>
inline void SelectBlocks_matchColumns(uint8_t* out, const uint8_t* B, intptr_t stride, int32_t D, int32_t f,
                                      int32_t swapped) {
    using Reg = typename V::Reg;
    const Reg minusOne = V::set1(-1);
    Walk<V> w{minusOne, V::set1(0), minusOne, minusOne};
    Reg v = V::set1(static_cast<int8_t>(D - 1));
    const intptr_t diagonal = stride - 1;
    if (swapped != 0) {
        // v = D - 1 - k: slots upwards, slot D - 2 on both sides of D - 1.
        Reg cur = V::load(B), hi = V::load(B + diagonal), lo;
        walkSlot(&w, cur, hi, hi, v);
        for (int32_t k = 1; k < D - 1; ++k) {
            v = V::add(v, minusOne);
            lo = cur;
            cur = hi;
            hi = V::load(B + (k + 1) * diagonal);
            walkSlot(&w, cur, lo, hi, v);
        }
        v = V::add(v, minusOne);
        walkSlot(&w, hi, cur, cur, v);
    } else {
        Reg cur = V::load(B + (D - 1) * diagonal), lo = V::load(B + (D - 2) * diagonal), hi;
        walkSlot(&w, cur, lo, lo, v);
        for (int32_t k = D - 2; k > 0; --k) {
            v = V::add(v, minusOne);
            hi = cur;
            cur = lo;
            lo = V::load(B + (k - 1) * diagonal);
            walkSlot(&w, cur, lo, hi, v);
        }
        v = V::add(v, minusOne);
        walkSlot(&w, lo, cur, cur, v);
    }
    storeWalk(out, w, f, swapped);
}

// Interior columns xi0 to xi1 - 1 (at least kPixels of them) in blocks of up
// to 512 columns whose base pixels' D rows fit buf's kBuffer bytes; the last
// block overlaps its predecessor rather than end short.
template <class V, int32_t kBuffer>
void SelectBlocks_matchInterior(uint8_t* out, const uint8_t* bytes, int32_t D, int32_t c, int32_t f,
                                int32_t swapped, int32_t xi0, int32_t xi1, uint8_t* buf) {
    constexpr int32_t kP = V::kPixels;
    // Columns per block and the stride of the rows (their D - 1 more base
    // pixels, rounded up to kPixels): D * stride <= kBuffer.
    int32_t n = kBuffer / D - (D - 1) - (kP - 1);
    n = n > 512 ? 512 : (n / kP) * kP;
    const intptr_t stride = ((n + D - 1) + kP - 1) / kP * kP;
    for (int32_t x = xi0; x < xi1;) {
        if (xi1 - x < kP) x = xi1 - kP;
        const int32_t nb = n < ((xi1 - x) / kP) * kP ? n : ((xi1 - x) / kP) * kP;
        SelectBlocks_transposePixels<V>(buf, stride, bytes, D, x + c - D + 1, nb + D - 1);
        for (int32_t i = 0; i < nb; i += kP)
            SelectBlocks_matchColumns<V>(out + x + i, buf + i + (D - 1), stride, D, f, swapped);
        x += nb;
    }
}

}  // namespace
}  // namespace vq_tl
