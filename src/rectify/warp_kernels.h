// Row kernels of the grid warp (Renderer2): the bilinear luma of one pair of
// destination rows, eight pixels per group, and the chroma of the 4:2:0
// semi-planar layouts.
//
// A group starts at pixel x with the source position px = xq + (x - L) dx,
// py = yq + (x - L) dy (Q15) and takes its lanes k = 0..7 from that start's
// sixteenth-pixel phase: column s + (subX + ((dx >> 3) k as 16 bits >> 8))
// / 16, row r + (yPos >> 4) - 2 with yPos = 32 + subY + (((dy >> 3) k +
// round) >> 8), round 255 for dy below 1 (s, r: px, py >> 15; subX, subY
// their sixteenths). Each output is ((16 - wy) h0 + wy h1 + 128) >> 8 of
// the horizontal sums h = (16 - wx) a + wx b, columns and rows clamped to
// the source; the second row of the pair reads one source row lower.
//
// Groups are drawn while they fit before groupEnd and their last lane stays
// within 11 columns of s (a 16-byte load from s covers every lane's pair of
// columns); the caller checks dx in [0, 61440) and |dy| below 8192 before.
//
// The scalar kernel is the definition of the result; the table's other
// forms give the same bytes (checked by the kernel harness).
#pragma once

#include <cstddef>
#include <cstdint>

namespace vq_tl {

struct WarpLumaRow {
    const uint8_t* src;  // the first luma sample of source row 0
    ptrdiff_t srcPitch;
    int32_t srcW, srcH;  // luma samples
    int32_t stride;      // bytes from one luma sample to the next: 1, or 2 in interleaved 4:2:2
    uint8_t* d1;         // the first luma sample of the pair's destination rows;
    uint8_t* d2;         // d2 null when the pair has one row
    int32_t xq, yq, dx, dy, L;
};

// Groups from pixel x on while x <= groupEnd; returns the first pixel not drawn.
using WarpGroupsFn = int32_t (*)(const WarpLumaRow* row, int32_t x, int32_t groupEnd);

// The chroma row of a pair of destination rows, semi-planar: each pair of
// pixels (x even) copies the byte pair at column ((cx >> 15) with bit 0
// cleared) of row cy >> 16, both clamped to the source's chroma, where
// cx = xq + (x - L) dx + cxOffset and cy = yq + (x - L) dy + cyOffset.
struct WarpChromaRow {
    const uint8_t* src;  // the chroma plane's row 0
    ptrdiff_t srcPitch;
    int32_t srcCw, srcCh;  // chroma samples (byte pairs) across, and rows
    uint8_t* dst;          // the destination chroma row, at pixel 0
    int32_t xq, yq, dx, dy, L;
    int32_t cxOffset, cyOffset;  // high quality: dx / 2 + 16384, yStep / 4 + 16384; else 0
};

// Pairs x = x0, x0 + 2, ... while x < x1 (x0 even); each writes dst[x] and dst[x + 1].
using WarpChromaFn = void (*)(const WarpChromaRow* row, int32_t x0, int32_t x1);

struct WarpKernels {
    WarpGroupsFn groups;
    WarpChromaFn chroma;
};

int32_t warpGroups_c(const WarpLumaRow* row, int32_t x, int32_t groupEnd);
void warpChroma_c(const WarpChromaRow* row, int32_t x0, int32_t x1);

// The table for the instruction sets of `features` (kCpu* bits) that this
// build holds; 0 gives the scalar table.
void WarpKernels_fill(WarpKernels* table, uint32_t features);
// The process's table, for Cpu_getFeatures().
const WarpKernels* WarpKernels_get();

// The vector forms' walkers, written once over an instruction-set file's
// types; instantiated only with those, so no copy compiled with one set's
// instructions is shared with another. All scalar decisions (where a group
// or step lies, whether it falls back to the scalar form) are made here.
//
// G(w, round): the lanes' steps of one row; g.draw(w, x, subX, subY, s,
// baseRow, selLow, selHigh) draws the group at x from the 16-byte loads of
// rows selLow to selLow + 3 at column s, lanes below row baseRow (of the
// group's window) taking the lower row set.
template <class G>
int32_t Warp_groups(const WarpLumaRow* w, int32_t x, int32_t groupEnd) {
    if (w->stride != 1) return warpGroups_c(w, x, groupEnd);
    const int32_t round = w->dy < 1 ? 255 : 0;
    const G g(w, round);
    // dx >> 3 is below 7680 and |dy >> 3| at most 1024: the products, and
    // the rounded ones, fit 16 bits.
    const int32_t yLast = (((w->dy >> 3) * 7) + round) >> 8;
    const int32_t yLow = yLast < 0 ? yLast : 0, yHigh = yLast > 0 ? yLast : 0;
    const int32_t lastLane = static_cast<uint16_t>((w->dx >> 3) * 7) >> 8;
    for (; x <= groupEnd; x += 8) {
        const int32_t px = w->xq + (x - w->L) * w->dx, py = w->yq + (x - w->L) * w->dy;
        const int32_t subX = (px >> 11) & 15, subY = (py >> 11) & 15;
        // The last lane reaches too far: the row's groups end here.
        if ((subX + lastLane) >> 4 > 11) break;
        const int32_t s = px >> 15, r = py >> 15;
        const int32_t baseRow = (32 + subY + yLow) >> 4;
        const int32_t selLow = r + baseRow - 2, selHigh = r + ((32 + subY + yHigh) >> 4) - 2;
        // Near the source's edges: the scalar form.
        if (s < 0 || s > w->srcW - 16 || selLow < 0 || selHigh + 2 > w->srcH - 1 || selHigh - selLow > 1)
            warpGroups_c(w, x, x);
        else
            g.draw(w, x, subX, subY, s, baseRow, selLow, selHigh);
    }
    return x;
}

// K(w): the lanes' steps of one chroma row; k.columns(cx0) the byte columns
// of the four pairs from cx0 on (even, clamped to the row), k.ends(cols, &c0,
// &c3) its first and last, k.copy(dst, src, cols, low) the four byte pairs
// from the 16 bytes at src, column low.
template <class K>
void Warp_chroma(const WarpChromaRow* w, int32_t x0, int32_t x1) {
    const int32_t rowMax = w->srcCh - 1;
    const auto clampRow = [rowMax](int32_t v) { return v < 0 ? 0 : (v > rowMax ? rowMax : v); };
    const int32_t rowBytes = 2 * w->srcCw;
    const K k(w);
    int32_t x = x0;
    for (; x + 6 < x1; x += 8) {
        const int32_t cy0 = w->yq + (x - w->L) * w->dy + w->cyOffset;
        const int32_t cy3 = w->yq + (x + 6 - w->L) * w->dy + w->cyOffset;
        const int32_t r0 = clampRow(cy0 >> 16), r3 = clampRow(cy3 >> 16);
        const int32_t cx0 = w->xq + (x - w->L) * w->dx + w->cxOffset;
        const auto cols = k.columns(cx0);
        // Columns move one way along the row: the ends bound them.
        int32_t c0, c3;
        k.ends(cols, &c0, &c3);
        const int32_t low = c0 < c3 ? c0 : c3, high = c0 < c3 ? c3 : c0;
        if (r0 != r3 || high + 2 - low > 16 || low + 16 > rowBytes)
            warpChroma_c(w, x, x + 7);
        else
            k.copy(w->dst + x, w->src + w->srcPitch * r0 + low, cols, low);
    }
    warpChroma_c(w, x, x1);
}

// No AVX2 forms: two groups per step in 256-bit registers drew the 12-megapixel
// warp a third slower than the SSE4.1 form on the development machine, and
// the chroma steps are too short to gain; an AVX2 processor takes SSE4.1's.
void WarpKernels_addSse41(WarpKernels* table);
void WarpKernels_addNeon(WarpKernels* table);

}  // namespace vq_tl
