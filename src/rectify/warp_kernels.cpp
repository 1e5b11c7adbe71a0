#include "rectify/warp_kernels.h"

#include "runtime/cpu_features.h"

namespace vq_tl {

namespace {

inline int32_t clampInt(int32_t v, int32_t low, int32_t high) {
    return v < low ? low : (v > high ? high : v);
}

// (16 - wx) * a(col) + wx * a(col + 1), both columns kept inside the row.
inline int32_t horizontal(const WarpLumaRow* w, const uint8_t* s, int32_t col, int32_t wx) {
    const int32_t c0 = clampInt(col, 0, w->srcW - 1);
    const int32_t c1 = clampInt(col + 1, 0, w->srcW - 1);
    return (16 - wx) * s[c0 * w->stride] + wx * s[c1 * w->stride];
}

inline const uint8_t* sourceRow(const WarpLumaRow* w, int32_t r) {
    return w->src + w->srcPitch * clampInt(r, 0, w->srcH - 1);
}

void drawGroup(const WarpLumaRow* w, int32_t x) {
    const int32_t px = w->xq + (x - w->L) * w->dx, py = w->yq + (x - w->L) * w->dy;
    const int32_t s = px >> 15, r = py >> 15;
    const int32_t subX = (px >> 11) & 15, subY = (py >> 11) & 15;
    const int32_t round = w->dy < 1 ? 255 : 0;
    for (int32_t k = 0; k < 8; ++k) {
        // The lane step is a 16-bit product, as in the vector forms.
        const int32_t xPos = subX + (static_cast<uint16_t>((w->dx >> 3) * k) >> 8);
        const int32_t col = s + (xPos >> 4), wx = xPos & 15;
        // Biased by two rows so that the row selection stays positive.
        const int32_t yPos = 32 + subY + ((((w->dy >> 3) * k) + round) >> 8);
        const int32_t sel = r + (yPos >> 4) - 2, wy = yPos & 15;
        const int32_t h0 = horizontal(w, sourceRow(w, sel), col, wx);
        const int32_t h1 = horizontal(w, sourceRow(w, sel + 1), col, wx);
        // At most 16 * 4080 + 128 before the shift: 255 at most after it.
        const int32_t v1 = ((16 - wy) * h0 + wy * h1 + 128) >> 8;
        w->d1[(x + k) * w->stride] = static_cast<uint8_t>(v1 > 255 ? 255 : v1);
        if (w->d2 != nullptr) {
            const int32_t h2 = horizontal(w, sourceRow(w, sel + 2), col, wx);
            const int32_t v2 = ((16 - wy) * h1 + wy * h2 + 128) >> 8;
            w->d2[(x + k) * w->stride] = static_cast<uint8_t>(v2 > 255 ? 255 : v2);
        }
    }
}

}  // namespace

int32_t warpGroups_c(const WarpLumaRow* row, int32_t x, int32_t groupEnd) {
    const int32_t lastLane = static_cast<uint16_t>((row->dx >> 3) * 7) >> 8;
    for (; x <= groupEnd; x += 8) {
        const int32_t px = row->xq + (x - row->L) * row->dx;
        if ((((px >> 11) & 15) + lastLane) >> 4 > 11) break;
        drawGroup(row, x);
    }
    return x;
}

void warpChroma_c(const WarpChromaRow* row, int32_t x0, int32_t x1) {
    for (int32_t x = x0; x < x1; x += 2) {
        const int32_t cx = row->xq + (x - row->L) * row->dx + row->cxOffset;
        const int32_t cy = row->yq + (x - row->L) * row->dy + row->cyOffset;
        const int32_t r = clampInt(cy >> 16, 0, row->srcCh - 1);
        const int32_t col = clampInt((cx >> 15) & ~1, 0, 2 * (row->srcCw - 1));
        const uint8_t* s = row->src + row->srcPitch * r + col;
        row->dst[x] = s[0];
        row->dst[x + 1] = s[1];
    }
}

void WarpKernels_fill(WarpKernels* table, uint32_t features) {
    table->groups = warpGroups_c;
    table->chroma = warpChroma_c;
#if defined(VQ_TL_KERNELS_X86)
    if ((features & kCpuSse41) != 0) WarpKernels_addSse41(table);
#endif
#if defined(VQ_TL_KERNELS_NEON)
    if ((features & kCpuNeon) != 0) WarpKernels_addNeon(table);
#endif
    (void)features;
}

const WarpKernels* WarpKernels_get() {
    static const WarpKernels table = [] {
        WarpKernels t;
        WarpKernels_fill(&t, Cpu_getFeatures());
        return t;
    }();
    return &table;
}

}  // namespace vq_tl
