#include "depth/separable_bilateral_filter.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "depth/separable_bilateral_kernels.h"
#include "imageproc/image_stripes.h"
#include "imageproc/kernel_clones.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

constexpr int32_t kMaxHalf = 127;
constexpr int32_t kMaxTaps = 2 * kMaxHalf + 1;
// Pixels of one line done at a time: the sums and the padded rows of a chunk
// live on the stack, so the filter allocates nothing.
constexpr int32_t kChunk = 256;
constexpr int32_t kTasks = 4;
// Kernel modes: the plain filter with weights in integers or in floats, and
// the weighted filter.
constexpr int kIntWeights = 0;
constexpr int kFloatWeights = 1;
constexpr int kWeighted = 2;

struct Pass {
    const Image* src;
    const Image* guide;
    Image* dst;
    const Image* srcWeight;  // weighted form only
    Image* dstWeight;
    int32_t half;
    int32_t range;
    uint8_t spatial[kMaxTaps];  // spatial[half + k] for tap k
};

// The weight sums are 32-bit integers: C is capped so that every tap at its
// largest weight, 128 C, still fits. For a window of 31 the cap is 541200,
// far above the largest guide difference (3 * 255^2 = 195075), so it only
// binds for sigmas no caller uses.
int32_t rangeOf(float c, int32_t window) {
    if (!(c > 0.0f)) return 0;
    const int32_t cap = INT32_MAX / (128 * (2 * (window >> 1) + 1));
    return c >= static_cast<float>(cap) ? cap : static_cast<int32_t>(c);
}

void setUp(Pass* p, int32_t window, float sigmaSpace, int32_t range) {
    p->half = window >> 1;
    p->range = range;
    const double twoVar = 2.0 * static_cast<double>(sigmaSpace) * static_cast<double>(sigmaSpace);
    for (int32_t k = -p->half; k <= p->half; ++k) {
        uint8_t w = 128;
        if (k != 0) {
            const float v = static_cast<float>(RawDouble_exp2(-static_cast<double>(k * k) / twoVar)) * 128.0f;
            w = v >= 0.0f ? static_cast<uint8_t>(v) : 0;  // NaN gives 0
        }
        p->spatial[p->half + k] = w;
    }
}

inline int32_t clampIndex(int32_t i, int32_t n) { return i < 0 ? 0 : (i >= n ? n - 1 : i); }

template <typename T>
T* rowAt(const Image* m, int32_t y) {
    return reinterpret_cast<T*>(m->plane[0] + static_cast<intptr_t>(m->pitch[0]) * y);
}

inline uint8_t saturateU8(double v) {
    if (!(v >= 0.0)) return 0;
    return v > 255.0 ? 255 : static_cast<uint8_t>(v);
}

// One run of n output pixels. g[t] and s[t] point at the guide and the
// values of tap t (t = half + k) for the run's first pixel; the centre is
// t = half. H fixes half for the short windows, 0 takes p.half. With F the
// integer weights are carried in floats, which the vector units multiply
// faster; the caller chooses F only where every sum stays an integer below
// 2^24, so the results are the same.
template <int C, typename T, int H, bool F>
VQ_TL_KERNEL_CLONES void filterRun(T* out, const uint8_t* const* g, const T* const* s, const Pass& p,
                                   int32_t n) {
    using W = std::conditional_t<F, float, int32_t>;
    const int32_t half = H > 0 ? H : p.half;
    const T* sc = s[half];
    if (p.range == 0) {
        // C is 0: no tap has weight, not even the centre; the values stay.
        for (int32_t i = 0; i < n; ++i) out[i] = sc[i];
        return;
    }
    W wSum[kChunk];
    float vSum[kChunk];
    const W start = static_cast<W>(p.range * 128);
    const uint8_t* gc = g[half];
    for (int32_t i = 0; i < n; ++i) {
        wSum[i] = start;
        vSum[i] = static_cast<float>(start) * static_cast<float>(sc[i]);
    }
    for (int32_t t = 0; t <= 2 * half; ++t) {
        if (t == half) continue;
        const W sp = static_cast<W>(p.spatial[t]);
        const W range = static_cast<W>(p.range);
        const uint8_t* gt = g[t];
        const T* st = s[t];
        for (int32_t i = 0; i < n; ++i) {
            W e = 0;
            for (int c = 0; c < C; ++c) {
                const W d = static_cast<W>(gc[i * C + c]) - static_cast<W>(gt[i * C + c]);
                e += d * d;
            }
            W r = range - e;
            r = r < 0 ? 0 : r;
            const W w = r * sp;
            wSum[i] += w;
            vSum[i] += static_cast<float>(w) * static_cast<float>(st[i]);
        }
    }
    // The centre keeps every sum positive; the mean of values of 0 to 255
    // stays within 0 to 255 up to float rounding.
    for (int32_t i = 0; i < n; ++i) {
        const float q = vSum[i] / static_cast<float>(wSum[i]);
        if constexpr (std::is_floating_point_v<T>) {
            out[i] = q;
        } else {
            const double v = static_cast<double>(q) + 0.5;
            out[i] = static_cast<T>(static_cast<int32_t>(v < 255.0 ? v : 255.0));
        }
    }
}

// The weighted run: every tap, the centre included, counts by its weight.
template <int C>
VQ_TL_KERNEL_CLONES void weightedRun(uint8_t* out, uint8_t* outWeight, const uint8_t* const* g,
                                     const uint8_t* const* s, const uint8_t* const* wt, const Pass& p,
                                     int32_t n) {
    const int32_t half = p.half;
    float s0[kChunk], s1[kChunk], s2[kChunk];
    for (int32_t i = 0; i < n; ++i) s0[i] = s1[i] = s2[i] = 0.0f;
    const uint8_t* gc = g[half];
    for (int32_t t = 0; t <= 2 * half; ++t) {
        const int32_t sp = p.spatial[t];
        const int32_t range = p.range;
        const uint8_t* gt = g[t];
        const uint8_t* st = s[t];
        const uint8_t* wtt = wt[t];
        for (int32_t i = 0; i < n; ++i) {
            int32_t e = 0;
            for (int c = 0; c < C; ++c) {
                const int32_t d = static_cast<int32_t>(gc[i * C + c]) - static_cast<int32_t>(gt[i * C + c]);
                e += d * d;
            }
            int32_t r = range - e;
            r = r < 0 ? 0 : r;
            const float base = static_cast<float>(r * sp);
            const float masked = base * static_cast<float>(wtt[i]);
            s0[i] += base;
            s1[i] += masked;
            s2[i] += masked * static_cast<float>(st[i]);
        }
    }
    for (int32_t i = 0; i < n; ++i) {
        out[i] = saturateU8(static_cast<double>(s2[i] / s1[i]) + 0.5);
        outWeight[i] = saturateU8(static_cast<double>(s1[i] / s0[i]) + 0.5);
    }
}

// Copies guide and values of one row over [x0 - half, x0 + n + half), the
// border repeated, so that the taps of a run are plain offsets.
template <int C, typename T>
void padChunk(uint8_t* gp, T* sp, uint8_t* wp, const Pass& p, int32_t y, int32_t x0, int32_t n) {
    const int32_t w = p.src->width;
    const uint8_t* g = rowAt<const uint8_t>(p.guide, y);
    const T* s = rowAt<const T>(p.src, y);
    const uint8_t* wr = p.srcWeight != nullptr ? rowAt<const uint8_t>(p.srcWeight, y) : nullptr;
    const int32_t lo = x0 - p.half, hi = x0 + n + p.half;    // columns [lo, hi)
    const int32_t a = lo < 0 ? 0 : lo, b = hi > w ? w : hi;  // of which inside
    auto copyOne = [&](int32_t j, int32_t x) {
        for (int c = 0; c < C; ++c) gp[j * C + c] = g[x * C + c];
        sp[j] = s[x];
        if (wr != nullptr) wp[j] = wr[x];
    };
    for (int32_t j = 0; j < a - lo; ++j) copyOne(j, 0);
    std::memcpy(gp + (a - lo) * C, g + a * C, static_cast<size_t>(b - a) * C);
    std::memcpy(sp + (a - lo), s + a, sizeof(T) * static_cast<size_t>(b - a));
    if (wr != nullptr) std::memcpy(wp + (a - lo), wr + a, static_cast<size_t>(b - a));
    for (int32_t j = b - lo; j < hi - lo; ++j) copyOne(j, w - 1);
}

template <int C, typename T, int H, int Mode>
TLResult horizontalTask(void* arg, int32_t index, int32_t count) {
    const Pass& p = *static_cast<const Pass*>(arg);
    const int32_t w = p.src->width, taps = 2 * p.half + 1;
    int32_t first, last;
    ImageStripe_rows(p.src->height, index, count, &first, &last);
    uint8_t gp[(kChunk + 2 * kMaxHalf) * C];
    T sp[kChunk + 2 * kMaxHalf];
    uint8_t wp[Mode == kWeighted ? kChunk + 2 * kMaxHalf : 1];
    const uint8_t* g[kMaxTaps];
    const T* s[kMaxTaps];
    const uint8_t* wt[kMaxTaps];
    for (int32_t t = 0; t < taps; ++t) {
        g[t] = gp + t * C;
        s[t] = sp + t;
        wt[t] = wp + (Mode == kWeighted ? t : 0);
    }
    for (int32_t y = first; y < last; ++y) {
        for (int32_t x0 = 0; x0 < w; x0 += kChunk) {
            const int32_t n = w - x0 < kChunk ? w - x0 : kChunk;
            // The whole chunk is read before any of it is written, and a
            // chunk reaches back at most half columns: in place is safe.
            padChunk<C, T>(gp, sp, Mode == kWeighted ? wp : nullptr, p, y, x0, n);
            if constexpr (Mode == kWeighted) {
                weightedRun<C>(rowAt<uint8_t>(p.dst, y) + x0, rowAt<uint8_t>(p.dstWeight, y) + x0, g, s, wt,
                               p, n);
            } else {
                filterRun<C, T, H, Mode == kFloatWeights>(rowAt<T>(p.dst, y) + x0, g, s, p, n);
            }
        }
    }
    return TL_OK;
}

template <int C, typename T, int H, int Mode>
TLResult verticalTask(void* arg, int32_t index, int32_t count) {
    const Pass& p = *static_cast<const Pass*>(arg);
    const int32_t h = p.src->height, taps = 2 * p.half + 1;
    int32_t first, last;
    ImageStripe_rows(p.src->width, index, count, &first, &last);
    const uint8_t* g[kMaxTaps];
    const T* s[kMaxTaps];
    const uint8_t* wt[kMaxTaps];
    for (int32_t x0 = first; x0 < last; x0 += kChunk) {
        const int32_t n = last - x0 < kChunk ? last - x0 : kChunk;
        // Rows top to bottom: a row of dst is written after every read of
        // the rows it may cover.
        for (int32_t y = 0; y < h; ++y) {
            for (int32_t t = 0; t < taps; ++t) {
                const int32_t yy = clampIndex(y - p.half + t, h);
                g[t] = rowAt<const uint8_t>(p.guide, yy) + x0 * C;
                s[t] = rowAt<const T>(p.src, yy) + x0;
                if constexpr (Mode == kWeighted) wt[t] = rowAt<const uint8_t>(p.srcWeight, yy) + x0;
            }
            if constexpr (Mode == kWeighted) {
                weightedRun<C>(rowAt<uint8_t>(p.dst, y) + x0, rowAt<uint8_t>(p.dstWeight, y) + x0, g, s, wt,
                               p, n);
            } else {
                filterRun<C, T, H, Mode == kFloatWeights>(rowAt<T>(p.dst, y) + x0, g, s, p, n);
            }
        }
    }
    return TL_OK;
}

// ---- Blocked passes for windows up to 31 with weights in floats -------------
//
// The same sums as filterRun in the same order, with the guide and the values
// converted to floats once per line instead of once per tap, the channels of
// the guide in planes of their own, and kLanes outputs summed over all taps
// in registers before the next kLanes: every sum is an integer below 2^24
// except vSum, whose additions happen in filterRun's order, so the bits are
// the same.

constexpr int32_t kFastMaxHalf = kBilateralBlockMaxHalf;
// Columns of a vertical band done at a time: the band's window of rows is
// kept converted, 2 kFastMaxHalf + 1 rows of kVChunk + kLanes floats per
// guide channel and for the values (40 KB for one channel, 80 KB for three).
constexpr int32_t kVChunk = 128;
constexpr int32_t kLanes = kBilateralBlockLanes;

// The block kernel of the process's table for the values T, C channels and H.
template <int C, typename T, int H>
void blockRun(float* q, const float* const* g, const float* const* s, const Pass& p, int32_t n) {
    const BilateralBlockParams params{H > 0 ? H : p.half, p.range, p.spatial};
    const BilateralKernels* k = BilateralKernels_get();
    (std::is_floating_point_v<T> ? k->floats : k->bytes)[C - 1][H](q, g, s, &params, n);
}

// Stores n quotients as filterRun does: FLOAT as they are; UINT8 as
// trunc(q + 0.5) in doubles, at most 255. For 0 <= q < 2^24 that is k =
// trunc(q) plus trunc(2 (q - k)), all exact in floats, which the compiler
// vectorises.
template <typename T>
VQ_TL_KERNEL_CLONES void storeRun(T* out, const float* q, int32_t n) {
    if constexpr (std::is_floating_point_v<T>) {
        std::memcpy(out, q, sizeof(float) * static_cast<size_t>(n));
    } else {
        for (int32_t i = 0; i < n; ++i) {
            const int32_t k = static_cast<int32_t>(q[i]);
            const int32_t v = k + static_cast<int32_t>((q[i] - static_cast<float>(k)) * 2.0f);
            out[i] = static_cast<T>(v < 255 ? v : 255);
        }
    }
}

template <int C, typename T, int H>
TLResult fastHorizontalTask(void* arg, int32_t index, int32_t count) {
    const Pass& p = *static_cast<const Pass*>(arg);
    const int32_t w = p.src->width, half = H > 0 ? H : p.half, taps = 2 * half + 1;
    constexpr int32_t kPadded = kChunk + 2 * kFastMaxHalf + kLanes;
    int32_t first, last;
    ImageStripe_rows(p.src->height, index, count, &first, &last);
    float gp[C][kPadded], sp[kPadded], q[kChunk + kLanes];
    const float* g[(2 * kFastMaxHalf + 1) * C];
    const float* s[2 * kFastMaxHalf + 1];
    for (int32_t t = 0; t < taps; ++t) {
        for (int c = 0; c < C; ++c) g[t * C + c] = gp[c] + t;
        s[t] = sp + t;
    }
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* gr = rowAt<const uint8_t>(p.guide, y);
        const T* sr = rowAt<const T>(p.src, y);
        for (int32_t x0 = 0; x0 < w; x0 += kChunk) {
            const int32_t n = w - x0 < kChunk ? w - x0 : kChunk;
            const int32_t blocks = (n + kLanes - 1) / kLanes * kLanes;
            // Columns [x0 - half, x0 + blocks + half), the border repeated;
            // the whole chunk is read before any of it is written, and a
            // chunk reaches back at most half columns: in place is safe.
            const int32_t lo = x0 - half, hi = x0 + blocks + half;   // columns [lo, hi)
            const int32_t a = lo < 0 ? 0 : lo, b = hi > w ? w : hi;  // of which inside
            auto convert = [&](int32_t j, int32_t x) {
                for (int c = 0; c < C; ++c) gp[c][j] = static_cast<float>(gr[x * C + c]);
                sp[j] = static_cast<float>(sr[x]);
            };
            for (int32_t j = 0; j < a - lo; ++j) convert(j, 0);
            if constexpr (std::is_same_v<T, uint8_t>) {
                float* planes[C];
                for (int c = 0; c < C; ++c) planes[c] = gp[c] + (a - lo);
                BilateralKernels_get()->split[C - 1](planes, sp + (a - lo), gr + a * C, sr + a, b - a);
            } else {
                for (int32_t x = a; x < b; ++x) convert(x - lo, x);
            }
            for (int32_t j = b - lo; j < hi - lo; ++j) convert(j, w - 1);
            blockRun<C, T, H>(q, g, s, p, blocks);
            storeRun<T>(rowAt<T>(p.dst, y) + x0, q, n);
        }
    }
    return TL_OK;
}

template <int C, typename T, int H>
TLResult fastVerticalTask(void* arg, int32_t index, int32_t count) {
    const Pass& p = *static_cast<const Pass*>(arg);
    const int32_t h = p.src->height, half = H > 0 ? H : p.half, taps = 2 * half + 1;
    constexpr int32_t kRing = 2 * kFastMaxHalf + 1;
    constexpr int32_t kWidth = kVChunk + kLanes;
    int32_t first, last;
    ImageStripe_rows(p.src->width, index, count, &first, &last);
    float gr[C][kRing][kWidth], sr[kRing][kWidth], q[kWidth];
    const float* g[kRing * C];
    const float* s[kRing];
    for (int32_t x0 = first; x0 < last; x0 += kVChunk) {
        const int32_t n = last - x0 < kVChunk ? last - x0 : kVChunk;
        const int32_t blocks = (n + kLanes - 1) / kLanes * kLanes;
        // Row r of the band lives in slot r mod taps, converted once. Rows
        // top to bottom: every row a dst row may cover is converted before
        // the dst row is written, so in place is safe.
        auto load = [&](int32_t r) {
            const uint8_t* gs = rowAt<const uint8_t>(p.guide, r) + x0 * C;
            const T* ss = rowAt<const T>(p.src, r) + x0;
            const int32_t slot = r % taps;
            if constexpr (std::is_same_v<T, uint8_t>) {
                float* planes[C];
                for (int c = 0; c < C; ++c) planes[c] = gr[c][slot];
                BilateralKernels_get()->split[C - 1](planes, sr[slot], gs, ss, n);
            } else {
                for (int32_t j = 0; j < n; ++j) {
                    for (int c = 0; c < C; ++c) gr[c][slot][j] = static_cast<float>(gs[j * C + c]);
                    sr[slot][j] = static_cast<float>(ss[j]);
                }
            }
            for (int32_t j = n; j < blocks; ++j) {
                for (int c = 0; c < C; ++c) gr[c][slot][j] = 0.0f;
                sr[slot][j] = 0.0f;
            }
        };
        for (int32_t r = 0; r < half && r < h; ++r) load(r);
        for (int32_t y = 0; y < h; ++y) {
            if (y + half < h) load(y + half);
            for (int32_t t = 0; t < taps; ++t) {
                const int32_t slot = clampIndex(y - half + t, h) % taps;
                for (int c = 0; c < C; ++c) g[t * C + c] = gr[c][slot];
                s[t] = sr[slot];
            }
            blockRun<C, T, H>(q, g, s, p, blocks);
            storeRun<T>(rowAt<T>(p.dst, y) + x0, q, n);
        }
    }
    return TL_OK;
}

// Kernels by guide channels, value type, window (3, 5, 7 or any) and pass:
// the short windows are the same arithmetic with the tap count fixed.
struct PassKernels {
    ImageStripeFn horizontal;
    ImageStripeFn vertical;
};

template <int C, typename T, int H, int Mode>
constexpr PassKernels passKernels() {
    return PassKernels{horizontalTask<C, T, H, Mode>, verticalTask<C, T, H, Mode>};
}

template <int C, typename T, int Mode>
constexpr std::array<PassKernels, 4> byWindow() {
    return {passKernels<C, T, 0, Mode>(), passKernels<C, T, 1, Mode>(), passKernels<C, T, 2, Mode>(),
            passKernels<C, T, 3, Mode>()};
}

template <int C>
constexpr std::array<std::array<PassKernels, 4>, 4> byValueAndWeights() {
    return {byWindow<C, uint8_t, kIntWeights>(), byWindow<C, uint8_t, kFloatWeights>(),
            byWindow<C, float, kIntWeights>(), byWindow<C, float, kFloatWeights>()};
}

template <int C, typename T>
constexpr std::array<PassKernels, 4> fastByWindow() {
    return {PassKernels{fastHorizontalTask<C, T, 0>, fastVerticalTask<C, T, 0>},
            PassKernels{fastHorizontalTask<C, T, 1>, fastVerticalTask<C, T, 1>},
            PassKernels{fastHorizontalTask<C, T, 2>, fastVerticalTask<C, T, 2>},
            PassKernels{fastHorizontalTask<C, T, 3>, fastVerticalTask<C, T, 3>}};
}

// Weights in floats and windows up to 31 take the blocked passes.
const PassKernels& plainKernels(int32_t channels, bool isFloat, int32_t half, bool floatWeights) {
    static constexpr std::array<std::array<PassKernels, 4>, 4> table[3] = {
        byValueAndWeights<1>(), byValueAndWeights<2>(), byValueAndWeights<3>()};
    static constexpr std::array<std::array<PassKernels, 4>, 2> fast[3] = {
        {fastByWindow<1, uint8_t>(), fastByWindow<1, float>()},
        {fastByWindow<2, uint8_t>(), fastByWindow<2, float>()},
        {fastByWindow<3, uint8_t>(), fastByWindow<3, float>()}};
    const int32_t byHalf = half >= 1 && half <= 3 ? half : 0;
    if (floatWeights && half <= kFastMaxHalf) return fast[channels - 1][isFloat ? 1 : 0][byHalf];
    return table[channels - 1][(isFloat ? 2 : 0) + (floatWeights ? 1 : 0)][byHalf];
}

const PassKernels& weightedKernels(int32_t channels) {
    static constexpr PassKernels table[3] = {
        {horizontalTask<1, uint8_t, 0, kWeighted>, verticalTask<1, uint8_t, 0, kWeighted>},
        {horizontalTask<2, uint8_t, 0, kWeighted>, verticalTask<2, uint8_t, 0, kWeighted>},
        {horizontalTask<3, uint8_t, 0, kWeighted>, verticalTask<3, uint8_t, 0, kWeighted>},
    };
    return table[channels - 1];
}

int32_t guideChannels(uint32_t format) {
    switch (format) {
        case IMAGE_FORMAT_UINT8: return 1;
        case IMAGE_FORMAT_UINT88: return 2;
        case IMAGE_FORMAT_RGB888: return 3;
        default: return 0;
    }
}

bool isValueFormat(uint32_t f) { return f == IMAGE_FORMAT_UINT8 || f == IMAGE_FORMAT_FLOAT; }

bool usable(const Image* m, const Image* like) {
    return m->plane[0] != nullptr && m->width == like->width && m->height == like->height;
}

// The checks shared by every call; images[0] is the guide, the others carry
// values (or weights) of the guide's size. want: the channel count a _Nch
// call names, 0 for the dispatchers. Returns the guide's channel count in
// *channels.
TLResult check(const SeparableBilateralFilter* self, const Image* const* images, int32_t count,
               int32_t window, int32_t want, int32_t* channels) {
    if (self == nullptr) return TL_ERROR_PARAM;
    for (int32_t i = 0; i < count; ++i) {
        if (images[i] == nullptr) return TL_ERROR_PARAM;
    }
    if (window < 0 || window > kMaxTaps) return TL_ERROR_PARAM;
    *channels = guideChannels(images[0]->format);
    if (*channels == 0 || (want != 0 && want != *channels)) return TL_ERROR_UNSUPPORTED;
    // Sizes are checked as well: a smaller picture would be read beyond its end.
    for (int32_t i = 0; i < count; ++i) {
        if (!usable(images[i], images[0])) return TL_ERROR_PARAM;
    }
    return TL_OK;
}

TLResult run(const SeparableBilateralFilter* self, ImageStripeFn fn, Pass* pass) {
    const ImageStripeExec exec{self->pel, nullptr};
    return ImageStripeExec_run(&exec, fn, pass, kTasks);
}

float plainRange(float sigmaRange, int32_t channels) {
    return sigmaRange * (sigmaRange * static_cast<float>(2 * channels));
}

// One plain pass, or both when temporary is given.
TLResult plain(SeparableBilateralFilter* self, Image* dst, const Image* src, const Image* guide,
               Image* temporary, int32_t window, float sigmaSpace, float sigmaRange, int32_t want,
               int passes) {
    const Image* images[4] = {guide, dst, src, temporary};
    int32_t channels = 0;
    TLResult r = check(self, images, passes == 2 ? 4 : 3, window, want, &channels);
    if (r != TL_OK) return r;
    if (!isValueFormat(src->format) || dst->format != src->format ||
        (temporary != nullptr && temporary->format != src->format)) {
        return TL_ERROR_UNSUPPORTED;
    }
    Pass pass{src, guide, dst, nullptr, nullptr, 0, 0, {}};
    setUp(&pass, window, sigmaSpace, rangeOf(plainRange(sigmaRange, channels), window));
    const int64_t largestSum = int64_t{2 * pass.half + 1} * 128 * pass.range;
    const PassKernels& k = plainKernels(channels, src->format == IMAGE_FORMAT_FLOAT, pass.half,
                                        largestSum <= (int64_t{1} << 24));
    if (passes == 1) return run(self, k.horizontal, &pass);  // horizontal
    if (passes == -1) return run(self, k.vertical, &pass);   // vertical
    pass.dst = temporary;
    r = run(self, k.horizontal, &pass);
    if (r != TL_OK) return r;
    pass.src = temporary;
    pass.dst = dst;
    return run(self, k.vertical, &pass);
}

TLResult weighted(SeparableBilateralFilter* self, Image* dst, Image* dstWeight, const Image* src,
                  const Image* srcWeight, const Image* guide, Image* temporary, Image* temporaryWeight,
                  int32_t window, float sigmaSpace, float sigmaRange, int32_t want) {
    const Image* images[7] = {guide, dst, dstWeight, src, srcWeight, temporary, temporaryWeight};
    int32_t channels = 0;
    TLResult r = check(self, images, 7, window, want, &channels);
    if (r != TL_OK) return r;
    for (int32_t i = 1; i < 7; ++i) {
        if (images[i]->format != IMAGE_FORMAT_UINT8) return TL_ERROR_UNSUPPORTED;
    }
    Pass pass{src, guide, temporary, srcWeight, temporaryWeight, 0, 0, {}};
    setUp(&pass, window, sigmaSpace,
          rangeOf(sigmaRange * sigmaRange * static_cast<float>(2 * channels), window));
    const PassKernels& k = weightedKernels(channels);
    r = run(self, k.horizontal, &pass);
    if (r != TL_OK) return r;
    pass.src = temporary;
    pass.srcWeight = temporaryWeight;
    pass.dst = dst;
    pass.dstWeight = dstWeight;
    return run(self, k.vertical, &pass);
}

}  // namespace

int32_t SeparableBilateralFilter_getBufferSize(int32_t width, int32_t height) {
    return width < 1 || height < 1 ? -1 : 0;
}

TLResult construct_SeparableBilateralFilter(SeparableBilateralFilter* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    *self = SeparableBilateralFilter{env, nullptr};
    return TL_OK;
}

TLResult destruct_SeparableBilateralFilter(SeparableBilateralFilter* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    *self = SeparableBilateralFilter{};
    return TL_OK;
}

TLResult SeparableBilateralFilter_init(SeparableBilateralFilter* self, int32_t width, int32_t height) {
    if (self == nullptr || width < 1 || height < 1) return TL_ERROR_PARAM;
    return TL_OK;
}

TLResult SeparableBilateralFilter_recycle(SeparableBilateralFilter* self) {
    return self == nullptr ? TL_ERROR_PARAM : TL_OK;
}

TLResult SeparableBilateralFilter_setPel(SeparableBilateralFilter* self, Pel* pel) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->pel = pel;
    return TL_OK;
}

#define VQ_TL_SBF_PLAIN(name, want, passes)                                                                \
    TLResult SeparableBilateralFilter_##name(SeparableBilateralFilter* self, Image* dst, const Image* src, \
                                             const Image* guide, Image* temporary, int32_t window,         \
                                             float sigmaSpace, float sigmaRange) {                         \
        if (temporary == nullptr) return TL_ERROR_PARAM;                                                   \
        return plain(self, dst, src, guide, temporary, window, sigmaSpace, sigmaRange, want, passes);      \
    }
VQ_TL_SBF_PLAIN(crossFilter, 0, 2)
VQ_TL_SBF_PLAIN(crossFilter1ch, 1, 2)
VQ_TL_SBF_PLAIN(crossFilter2ch, 2, 2)
VQ_TL_SBF_PLAIN(crossFilter3ch, 3, 2)
#undef VQ_TL_SBF_PLAIN

#define VQ_TL_SBF_PASS(name, want, passes)                                                                 \
    TLResult SeparableBilateralFilter_##name(SeparableBilateralFilter* self, Image* dst, const Image* src, \
                                             const Image* guide, int32_t window, float sigmaSpace,         \
                                             float sigmaRange) {                                           \
        return plain(self, dst, src, guide, nullptr, window, sigmaSpace, sigmaRange, want, passes);        \
    }
VQ_TL_SBF_PASS(crossFilterHorizontally, 0, 1)
VQ_TL_SBF_PASS(crossFilterHorizontally1ch, 1, 1)
VQ_TL_SBF_PASS(crossFilterHorizontally2ch, 2, 1)
VQ_TL_SBF_PASS(crossFilterHorizontally3ch, 3, 1)
VQ_TL_SBF_PASS(crossFilterVertically, 0, -1)
VQ_TL_SBF_PASS(crossFilterVertically1ch, 1, -1)
VQ_TL_SBF_PASS(crossFilterVertically2ch, 2, -1)
VQ_TL_SBF_PASS(crossFilterVertically3ch, 3, -1)
#undef VQ_TL_SBF_PASS

#define VQ_TL_SBF_WEIGHTED(name, want)                                                                     \
    TLResult SeparableBilateralFilter_##name(SeparableBilateralFilter* self, Image* dst, Image* dstWeight, \
                                             const Image* src, const Image* srcWeight, const Image* guide, \
                                             Image* temporary, Image* temporaryWeight, int32_t window,     \
                                             float sigmaSpace, float sigmaRange) {                         \
        return weighted(self, dst, dstWeight, src, srcWeight, guide, temporary, temporaryWeight, window,   \
                        sigmaSpace, sigmaRange, want);                                                     \
    }
VQ_TL_SBF_WEIGHTED(weightedCrossFilter, 0)
VQ_TL_SBF_WEIGHTED(weightedCrossFilter1ch, 1)
VQ_TL_SBF_WEIGHTED(weightedCrossFilter2ch, 2)
VQ_TL_SBF_WEIGHTED(weightedCrossFilter3ch, 3)
#undef VQ_TL_SBF_WEIGHTED

}  // namespace vq_tl
