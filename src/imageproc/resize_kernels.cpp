#include "imageproc/resize_kernels.h"

#include <cstddef>

#include "runtime/cpu_features.h"

namespace vq_tl {

void areaRow_c(uint32_t* sums, const uint8_t* src, int32_t n, uint32_t weight, int32_t add) {
    if (add != 0) {
        for (int32_t i = 0; i < n; ++i) sums[i] += src[i] * weight;
    } else {
        for (int32_t i = 0; i < n; ++i) sums[i] = src[i] * weight;
    }
}

void areaColumns_c(uint8_t* out, const uint32_t* sums, const AreaTaps* taps, int32_t x0, int32_t x1) {
    const int32_t channels = taps->channels;
    const uint64_t half = taps->total / 2;
    for (int32_t x = x0; x < x1; ++x) {
        const uint32_t* w = taps->weights + static_cast<ptrdiff_t>(x) * taps->count;
        for (int32_t c = 0; c < channels; ++c) {
            const uint32_t* s = sums + static_cast<ptrdiff_t>(taps->first[x]) * channels + c;
            uint64_t acc = 0;
            for (int32_t k = 0; k < taps->count; ++k) acc += uint64_t{s[k * channels]} * w[k];
            out[x * channels + c] = static_cast<uint8_t>((acc + half) / taps->total);
        }
    }
}

void linearElements_c(int32_t* out, const uint8_t* src, const ResizeTap* taps, int32_t channels, int32_t e0,
                      int32_t e1) {
    for (int32_t e = e0; e < e1; ++e) {
        const ResizeTap& t = taps[e / channels];
        const int32_t c = e % channels;
        out[e] = src[t.i0 * channels + c] * (32768 - t.frac) + src[t.i1 * channels + c] * t.frac;
    }
}

void linearRow_c(int32_t* out, const uint8_t* src, const ResizeTap* taps, const LinearWindow* windows,
                 int32_t width, int32_t channels) {
    (void)windows;
    if (channels == 1) {
        for (int32_t x = 0; x < width; ++x)
            out[x] = src[taps[x].i0] * (32768 - taps[x].frac) + src[taps[x].i1] * taps[x].frac;
        return;
    }
    for (int32_t x = 0; x < width; ++x) {
        const uint8_t* a = src + taps[x].i0 * channels;
        const uint8_t* b = src + taps[x].i1 * channels;
        const int32_t f = taps[x].frac;
        for (int32_t c = 0; c < channels; ++c) out[x * channels + c] = a[c] * (32768 - f) + b[c] * f;
    }
}

void LinearWindow_fill(LinearWindow* windows, const ResizeTap* taps, int32_t width, int32_t channels,
                       int32_t srcWidth) {
    const int32_t rowBytes = srcWidth * channels;
    for (int32_t w = 0; w < width * channels / 4; ++w) {
        LinearWindow& win = windows[w];
        const int32_t first = 4 * w;
        // Taps never move left, so the first element's a is the lowest byte.
        win.base = taps[first / channels].i0 * channels + first % channels;
        for (int32_t k = 0; k < 4; ++k) {
            const int32_t e = first + k;
            const ResizeTap& t = taps[e / channels];
            const int32_t a = t.i0 * channels + e % channels - win.base;
            const int32_t b = t.i1 * channels + e % channels - win.base;
            if (a < 0 || b > 15) win.base = -1;
            win.pick[4 * k] = static_cast<uint8_t>(a & 15);
            win.pick[4 * k + 1] = 0x80;  // pshufb: a zero byte
            win.pick[4 * k + 2] = static_cast<uint8_t>(b & 15);
            win.pick[4 * k + 3] = 0x80;
            win.weights[2 * k] = static_cast<int16_t>(-t.frac);
            win.weights[2 * k + 1] = static_cast<int16_t>(t.frac);
        }
        if (win.base + 16 > rowBytes) win.base = -1;
    }
}

void ResizeKernels_fill(ResizeKernels* table, uint32_t features) {
    table->areaRow = areaRow_c;
    table->areaColumns = areaColumns_c;
    table->linearRow = linearRow_c;
#if defined(VQ_TL_KERNELS_X86)
    if ((features & kCpuSse41) != 0) ResizeKernels_addSse41(table);
    if ((features & kCpuSse41) != 0 && (features & kCpuAvx2) != 0) ResizeKernels_addAvx2(table);
#endif
#if defined(VQ_TL_KERNELS_NEON)
    if ((features & kCpuNeon) != 0) ResizeKernels_addNeon(table);
#endif
    (void)features;
}

const ResizeKernels* ResizeKernels_get() {
    static const ResizeKernels table = [] {
        ResizeKernels t;
        ResizeKernels_fill(&t, Cpu_getFeatures());
        return t;
    }();
    return &table;
}

}  // namespace vq_tl
