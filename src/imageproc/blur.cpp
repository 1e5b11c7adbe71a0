#include "imageproc/blur.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <type_traits>

#include "imageproc/kernel_clones.h"
#include "imageproc/plane_views.h"
#include "imageproc/resize.h"
#include "runtime/memory.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

// The last pass of the pyramid: 1.8 exactly as the double 0x3FFCCCCCCCCCCCCD.
static_assert(std::bit_cast<uint64_t>(kBlurDirectSigma) == 0x3FFCCCCCCCCCCCCDull);
// 1.8 squared: the variance the final pass contributes.
constexpr double kDirectVariance = 3.24;
constexpr double kMinSigma = 1e-16;
// Below this size in either direction a plane is not halved.
constexpr int32_t kPyramidMinSide = 33;
// The 7-tap kernels reach 3 pixels; the general ones up to the table's end.
constexpr int32_t kDirectRadius = 3;
constexpr int32_t kMaxRadius = kBlurTapCenter;

using RowsFn = void (*)(int32_t rows, int32_t index, int32_t count, int32_t* first, int32_t* last);

// How the rows of one call are shared out: the Pel rule in 4 stripes, or
// the executor rule in as many stripes as the executor has workers.
struct Stripes {
    const ImageStripeExec* exec;
    RowsFn rows;
    int32_t count;
};

Stripes stripesOf(const ImageStripeExec* exec) {
    if (exec != nullptr && exec->pel == nullptr && exec->executor != nullptr)
        return Stripes{exec, ImageStripe_rowsEven, ImageStripe_getExecutorCount(exec->executor)};
    return Stripes{exec, ImageStripe_rows, kImageStripeDefaultCount};
}

size_t alignUp(size_t bytes) { return (bytes + 15) & ~size_t{15}; }

template <typename T>
T* rowAt(uint8_t* base, int32_t pitch, int32_t row) {
    return reinterpret_cast<T*>(base + static_cast<intptr_t>(pitch) * row);
}

inline int32_t clampIndex(int32_t i, int32_t n) { return i < 0 ? 0 : (i >= n ? n - 1 : i); }

// Row of n pixels of C channels with radius copies of the edge pixels on
// either side, so that the passes need no index clamping; P may be a wider
// type than T, so that the pixels are converted once.
template <typename T, typename P, int C>
void padRow(P* pad, const T* s, int32_t width, int32_t radius) {
    for (int32_t x = 0; x < radius; ++x) {
        for (int c = 0; c < C; ++c) {
            pad[x * C + c] = static_cast<P>(s[c]);
            pad[(radius + width + x) * C + c] = static_cast<P>(s[(width - 1) * C + c]);
        }
    }
    P* mid = pad + radius * C;
    for (int32_t i = 0; i < width * C; ++i) mid[i] = static_cast<P>(s[i]);
}

// ---- Convolution ------------------------------------------------------------

// Sums of Q15 taps times pixels, with taps whose magnitudes add up to 65536
// at most: for 8-bit pixels every partial sum is an integer below 2^24, exact
// in a float, for 16-bit ones below 2^32, exact in a double. The sums are the
// integer sums, and floats are what the vector units multiply fastest.
template <typename T>
struct Px;
template <>
struct Px<uint8_t> {
    using Acc = float;
    using Int = int32_t;
    static constexpr int32_t kMax = 255;
};
template <>
struct Px<uint16_t> {
    using Acc = double;
    using Int = int64_t;
    static constexpr int32_t kMax = 65535;
};
template <>
struct Px<float> {
    using Acc = float;
};

// (sum + 16384) >> 15, clamped: the rounded taps may add up to a little more
// than 32768, so a bright flat area can reach one above the type's range.
template <typename T>
inline T fromQ15(typename Px<T>::Acc a) {
    if constexpr (std::is_floating_point_v<T>) {
        return a * (1.0f / 32768.0f);
    } else {
        using I = typename Px<T>::Int;
        const I v = (static_cast<I>(a) + 16384) >> 15;
        return static_cast<T>(v < 0 ? 0 : (v > Px<T>::kMax ? Px<T>::kMax : v));
    }
}

struct ConvJob {
    const uint8_t* src;
    uint8_t* dst;
    int32_t srcPitch, dstPitch;
    int32_t width, height;
    const int32_t* taps;  // 2 radius + 1, taps[0] at offset -radius
    int32_t radius;
    RowsFn rows;
    uint8_t* scratch;  // per stripe: a padded row, then rows of sums
    size_t stride;
};

// ---- General radius: a row pass into an intermediate picture, then a
// column pass.

template <typename T, int C>
size_t convScratchBytes(int32_t width, int32_t radius) {
    const size_t n = static_cast<size_t>(width) * C;
    return alignUp(sizeof(typename Px<T>::Acc) * (n + 2 * static_cast<size_t>(radius) * C)) +
           alignUp(sizeof(typename Px<T>::Acc) * n);
}

template <typename T, int C>
VQ_TL_KERNEL_CLONES TLResult convRowStripe(void* arg, int32_t index, int32_t count) {
    using A = typename Px<T>::Acc;
    const ConvJob& j = *static_cast<const ConvJob*>(arg);
    const int32_t r = j.radius;
    const int32_t n = j.width * C;
    int32_t first, last;
    j.rows(j.height, index, count, &first, &last);
    uint8_t* base = j.scratch + j.stride * static_cast<size_t>(index);
    A* pad = reinterpret_cast<A*>(base);
    A* acc = reinterpret_cast<A*>(base + alignUp(sizeof(A) * (static_cast<size_t>(n) + 2 * r * C)));
    for (int32_t y = first; y < last; ++y) {
        padRow<T, A, C>(pad, rowAt<const T>(const_cast<uint8_t*>(j.src), j.srcPitch, y), j.width, r);
        T* d = rowAt<T>(j.dst, j.dstPitch, y);
        const A t0 = static_cast<A>(j.taps[0]);
        for (int32_t i = 0; i < n; ++i) acc[i] = t0 * pad[i];
        for (int32_t k = 1; k <= 2 * r; ++k) {
            const A t = static_cast<A>(j.taps[k]);
            const A* p = pad + k * C;
            for (int32_t i = 0; i < n; ++i) acc[i] += t * p[i];
        }
        for (int32_t i = 0; i < n; ++i) d[i] = fromQ15<T>(acc[i]);
    }
    return TL_OK;
}

template <typename T, int C>
VQ_TL_KERNEL_CLONES TLResult convColumnStripe(void* arg, int32_t index, int32_t count) {
    using A = typename Px<T>::Acc;
    const ConvJob& j = *static_cast<const ConvJob*>(arg);
    const int32_t r = j.radius;
    const int32_t n = j.width * C;
    int32_t first, last;
    j.rows(j.height, index, count, &first, &last);
    uint8_t* base = j.scratch + j.stride * static_cast<size_t>(index);
    A* acc = reinterpret_cast<A*>(base + alignUp(sizeof(A) * (static_cast<size_t>(n) + 2 * r * C)));
    const T* p[2 * kMaxRadius + 1];
    for (int32_t y = first; y < last; ++y) {
        for (int32_t k = 0; k <= 2 * r; ++k)
            p[k] = rowAt<const T>(const_cast<uint8_t*>(j.src), j.srcPitch, clampIndex(y + k - r, j.height));
        T* d = rowAt<T>(j.dst, j.dstPitch, y);
        const A t0 = static_cast<A>(j.taps[0]);
        for (int32_t i = 0; i < n; ++i) acc[i] = t0 * static_cast<A>(p[0][i]);
        for (int32_t k = 1; k <= 2 * r; ++k) {
            const A t = static_cast<A>(j.taps[k]);
            const T* q = p[k];
            for (int32_t i = 0; i < n; ++i) acc[i] += t * static_cast<A>(q[i]);
        }
        for (int32_t i = 0; i < n; ++i) d[i] = fromQ15<T>(acc[i]);
    }
    return TL_OK;
}

// ---- Radius 1 to 3: both passes in one sweep --------------------------------
//
// Each stripe keeps the last 2R + 1 rows of the row pass in a ring, as
// accumulator values of the rounded row results, and runs the column pass
// from the ring as soon as a row's window is complete: no intermediate
// picture, and every pixel converted once. The R rows above a stripe and the
// R below it, which belong to its neighbours, are made by a first run over
// all stripes, before anything is written, so dst may be src: within a stripe
// row y + R is made before row y is written.
//
// With symmetric taps the pairs of pixels at equal distance are added first:
// for integer pixels every partial sum is an integer below 2^24 (or 2^53),
// so the sums are the same; float pixels keep the order of the taps.

template <typename T, int C, int R>
size_t sweepScratchBytes(int32_t width) {
    const size_t n = static_cast<size_t>(width) * C, a = sizeof(typename Px<T>::Acc);
    return alignUp(a * (n + 2 * R * C)) + alignUp(a * n) * (4 * R + 1);
}

template <typename T, int C, int R, bool Sym>
inline void sweepRow(typename Px<T>::Acc* __restrict out, typename Px<T>::Acc* __restrict pad, const T* s,
                     int32_t width, const typename Px<T>::Acc* t) {
    using A = typename Px<T>::Acc;
    padRow<T, A, C>(pad, s, width, R);
    for (int32_t i = 0; i < width * C; ++i) {
        A a = 0;
        if constexpr (Sym) {
            a = t[R] * pad[i + R * C];
            for (int k = 0; k < R; ++k) a += t[k] * (pad[i + k * C] + pad[i + (2 * R - k) * C]);
        } else {
            for (int k = 0; k <= 2 * R; ++k) a += t[k] * pad[i + k * C];
        }
        if constexpr (std::is_floating_point_v<T>) {
            out[i] = fromQ15<T>(a);
        } else {
            // fromQ15 with the clamp as min and max, which the compiler
            // turns into vector instructions.
            using I = typename Px<T>::Int;
            const I v = (static_cast<I>(a) + 16384) >> 15;
            out[i] = static_cast<A>(std::min<I>(std::max<I>(v, 0), Px<T>::kMax));
        }
    }
}

template <typename T, int C, int R, bool Sym>
inline void sweepColumn(T* d, const typename Px<T>::Acc* const* m, int32_t n, const typename Px<T>::Acc* t) {
    using A = typename Px<T>::Acc;
    for (int32_t i = 0; i < n; ++i) {
        A a = 0;
        if constexpr (Sym) {
            a = t[R] * m[R][i];
            for (int k = 0; k < R; ++k) a += t[k] * (m[k][i] + m[2 * R - k][i]);
        } else {
            for (int k = 0; k <= 2 * R; ++k) a += t[k] * m[k][i];
        }
        if constexpr (std::is_floating_point_v<T>) {
            d[i] = fromQ15<T>(a);
        } else {
            using I = typename Px<T>::Int;
            const I v = (static_cast<I>(a) + 16384) >> 15;
            d[i] = static_cast<T>(std::min<I>(std::max<I>(v, 0), Px<T>::kMax));
        }
    }
}

// Where a stripe keeps its rows: the padded row, the ring, then the 2R rows
// of its neighbours (R above, R below).
template <typename T, int C, int R>
struct SweepRows {
    using A = typename Px<T>::Acc;
    A* pad;
    A* ring;
    A* edge;
    size_t rowStride;  // in elements
    SweepRows(const ConvJob& j, int32_t index) {
        const size_t n = static_cast<size_t>(j.width) * C;
        uint8_t* base = j.scratch + j.stride * static_cast<size_t>(index);
        pad = reinterpret_cast<A*>(base);
        rowStride = alignUp(sizeof(A) * n) / sizeof(A);
        ring = reinterpret_cast<A*>(base + alignUp(sizeof(A) * (n + 2 * R * C)));
        edge = ring + rowStride * (2 * R + 1);
    }
};

template <typename T, int C, int R>
VQ_TL_KERNEL_CLONES TLResult sweepEdgeStripe(void* arg, int32_t index, int32_t count) {
    using A = typename Px<T>::Acc;
    const ConvJob& j = *static_cast<const ConvJob*>(arg);
    int32_t first, last;
    j.rows(j.height, index, count, &first, &last);
    const SweepRows<T, C, R> w(j, index);
    A t[2 * R + 1];
    for (int k = 0; k <= 2 * R; ++k) t[k] = static_cast<A>(j.taps[k]);
    for (int32_t e = 0; e < 2 * R && first < last; ++e) {
        const int32_t r = e < R ? first - R + e : last + e - R;
        if (r < 0 || r >= j.height || (r >= first && r < last)) continue;
        sweepRow<T, C, R, false>(w.edge + w.rowStride * e, w.pad,
                                 rowAt<const T>(const_cast<uint8_t*>(j.src), j.srcPitch, r), j.width, t);
    }
    return TL_OK;
}

template <typename T, int C, int R, bool Sym>
VQ_TL_KERNEL_CLONES TLResult sweepStripe(void* arg, int32_t index, int32_t count) {
    using A = typename Px<T>::Acc;
    const ConvJob& j = *static_cast<const ConvJob*>(arg);
    int32_t first, last;
    j.rows(j.height, index, count, &first, &last);
    const SweepRows<T, C, R> w(j, index);
    A t[2 * R + 1];
    for (int k = 0; k <= 2 * R; ++k) t[k] = static_cast<A>(j.taps[k]);
    const A* m[2 * R + 1];
    int32_t next = first;  // the next of the stripe's own rows to make
    for (int32_t y = first; y < last; ++y) {
        for (; next < last && next <= y + R; ++next) {
            sweepRow<T, C, R, Sym>(w.ring + w.rowStride * (next % (2 * R + 1)), w.pad,
                                   rowAt<const T>(const_cast<uint8_t*>(j.src), j.srcPitch, next), j.width, t);
        }
        for (int k = 0; k <= 2 * R; ++k) {
            const int32_t r = clampIndex(y + k - R, j.height);
            if (r >= first && r < last) {
                m[k] = w.ring + w.rowStride * (r % (2 * R + 1));
            } else {
                m[k] = w.edge + w.rowStride * (r < first ? r - first + R : r - last + R);
            }
        }
        sweepColumn<T, C, R, Sym>(rowAt<T>(j.dst, j.dstPitch, y), m, j.width * C, t);
    }
    return TL_OK;
}

using ScratchFn = size_t (*)(int32_t width, int32_t radius);
using SweepScratchFn = size_t (*)(int32_t width);

struct ConvKernels {
    ImageStripeFn rows;  // general radius
    ImageStripeFn columns;
    ScratchFn scratch;
    ImageStripeFn edges[3];      // radius 1 to 3
    ImageStripeFn sweeps[3][2];  // by radius 1 to 3, then asymmetric or symmetric taps
    SweepScratchFn sweepScratch[3];
    int32_t pixelBytes;
    bool exactSums;  // integer pixels: the symmetric sweep gives the same sums
};

template <typename T, int C>
constexpr ConvKernels convKernelsOf() {
    return ConvKernels{convRowStripe<T, C>,
                       convColumnStripe<T, C>,
                       convScratchBytes<T, C>,
                       {sweepEdgeStripe<T, C, 1>, sweepEdgeStripe<T, C, 2>, sweepEdgeStripe<T, C, 3>},
                       {{sweepStripe<T, C, 1, false>, sweepStripe<T, C, 1, true>},
                        {sweepStripe<T, C, 2, false>, sweepStripe<T, C, 2, true>},
                        {sweepStripe<T, C, 3, false>, sweepStripe<T, C, 3, true>}},
                       {sweepScratchBytes<T, C, 1>, sweepScratchBytes<T, C, 2>, sweepScratchBytes<T, C, 3>},
                       static_cast<int32_t>(sizeof(T) * C),
                       !std::is_floating_point_v<T>};
}

// Kernels by the format of a single-plane picture; null without one.
const ConvKernels* convKernelsFor(uint32_t format) {
    static constexpr ConvKernels u8x1 = convKernelsOf<uint8_t, 1>();
    static constexpr ConvKernels u8x2 = convKernelsOf<uint8_t, 2>();
    static constexpr ConvKernels u8x3 = convKernelsOf<uint8_t, 3>();
    static constexpr ConvKernels u8x4 = convKernelsOf<uint8_t, 4>();
    static constexpr ConvKernels u16x1 = convKernelsOf<uint16_t, 1>();
    static constexpr ConvKernels u16x2 = convKernelsOf<uint16_t, 2>();
    static constexpr ConvKernels f32x1 = convKernelsOf<float, 1>();
    if (format >= 4 && format <= 15) return &u8x4;
    if ((format >= 30 && format <= 35) || format == 2 || format == 3 || format == IMAGE_FORMAT_HSV)
        return &u8x3;
    switch (format) {
        case IMAGE_FORMAT_UINT8: return &u8x1;
        case IMAGE_FORMAT_UINT88: return &u8x2;
        case IMAGE_FORMAT_UINT16: return &u16x1;
        case IMAGE_FORMAT_UINT1616: return &u16x2;
        case IMAGE_FORMAT_FLOAT: return &f32x1;
        default: return nullptr;
    }
}

bool hasConvKernel(uint32_t format) { return convKernelsFor(format) != nullptr; }

// One plane. variant 0: row pass into an intermediate of the plane's size and
// type, then the column pass into dst; 1 to 3: the sweep of that radius.
TLResult convPlane(const Stripes& st, Image* dst, const Image* src, const int32_t* taps, int32_t radius,
                   int32_t variant) {
    const ConvKernels* k = convKernelsFor(src->format);
    if (k == nullptr) return TL_ERROR_UNSUPPORTED;
    const int32_t w = src->width, h = src->height;
    if (variant > 0) {
        const size_t stride = alignUp(k->sweepScratch[variant - 1](w));
        uint8_t* block = static_cast<uint8_t*>(Memory_alloc(stride * static_cast<size_t>(st.count)));
        if (block == nullptr) return TL_ERROR_MEMORY;
        bool symmetric = k->exactSums;
        for (int32_t i = 0; i < radius; ++i) symmetric = symmetric && taps[i] == taps[2 * radius - i];
        ConvJob job{src->plane[0], dst->plane[0], src->pitch[0], dst->pitch[0], w,     h,
                    taps,          radius,        st.rows,       block,         stride};
        TLResult r = ImageStripeExec_run(st.exec, k->edges[variant - 1], &job, st.count);
        if (r == TL_OK)
            r = ImageStripeExec_run(st.exec, k->sweeps[variant - 1][symmetric ? 1 : 0], &job, st.count);
        Memory_free(block);
        return r;
    }
    const size_t midPitch = alignUp(static_cast<size_t>(w) * k->pixelBytes);
    const size_t midBytes = midPitch * static_cast<size_t>(h);
    const size_t stride = alignUp(k->scratch(w, radius));
    uint8_t* block = static_cast<uint8_t*>(Memory_alloc(midBytes + stride * static_cast<size_t>(st.count)));
    if (block == nullptr) return TL_ERROR_MEMORY;
    ConvJob job{
        src->plane[0],    block, src->pitch[0], static_cast<int32_t>(midPitch), w, h, taps, radius, st.rows,
        block + midBytes, stride};
    TLResult r = ImageStripeExec_run(st.exec, k->rows, &job, st.count);
    if (r == TL_OK) {
        job.src = block;
        job.srcPitch = static_cast<int32_t>(midPitch);
        job.dst = dst->plane[0];
        job.dstPitch = dst->pitch[0];
        r = ImageStripeExec_run(st.exec, k->columns, &job, st.count);
    }
    Memory_free(block);
    return r;
}

// ---- Box filter ---------------------------------------------------------------

struct BoxJob {
    const uint8_t* src;
    uint8_t* dst;
    uint8_t* mid;  // row sums
    int32_t srcPitch, dstPitch, midPitch;
    int32_t width, height;  // in pixels
    int32_t radius;
    RowsFn rows;
    uint8_t* scratch;  // per stripe: a padded source row or a row of column sums
    size_t stride;
};

// Row sums of width * C elements: exact 32-bit running sums for integers,
// direct sums in doubles for floats (a running sum would make the result
// depend on where a stripe starts).
template <typename TIn, int C, typename S, bool Square>
TLResult boxRowStripe(void* arg, int32_t index, int32_t count) {
    const BoxJob& j = *static_cast<const BoxJob*>(arg);
    const int32_t r = j.radius, n = j.width * C;
    int32_t first, last;
    j.rows(j.height, index, count, &first, &last);
    TIn* pad = reinterpret_cast<TIn*>(j.scratch + j.stride * static_cast<size_t>(index));
    auto f = [](TIn v) { return Square ? static_cast<S>(v) * static_cast<S>(v) : static_cast<S>(v); };
    for (int32_t y = first; y < last; ++y) {
        padRow<TIn, TIn, C>(pad, rowAt<const TIn>(const_cast<uint8_t*>(j.src), j.srcPitch, y), j.width, r);
        S* m = rowAt<S>(j.mid, j.midPitch, y);
        if constexpr (std::is_floating_point_v<S>) {
            for (int32_t i = 0; i < n; ++i) {
                S sum = 0;
                for (int32_t k = 0; k <= 2 * r; ++k) sum += f(pad[i + k * C]);
                m[i] = sum;
            }
        } else {
            for (int c = 0; c < C; ++c) {
                S sum = 0;
                for (int32_t k = 0; k <= 2 * r; ++k) sum += f(pad[k * C + c]);
                m[c] = sum;
                for (int32_t x = 1; x < j.width; ++x) {
                    sum += f(pad[(x + 2 * r) * C + c]) - f(pad[(x - 1) * C + c]);
                    m[x * C + c] = sum;
                }
            }
        }
    }
    return TL_OK;
}

template <typename S, typename TOut, bool Mean>
inline TOut boxOut(S sum, S area) {
    if constexpr (std::is_floating_point_v<S>) {
        return static_cast<TOut>(Mean ? sum / area : sum);
    } else {
        return static_cast<TOut>(Mean ? (sum + area / 2) / area : sum);
    }
}

template <typename S, int C, typename TOut, bool Mean>
TLResult boxColumnStripe(void* arg, int32_t index, int32_t count) {
    const BoxJob& j = *static_cast<const BoxJob*>(arg);
    const int32_t r = j.radius, n = j.width * C, h = j.height;
    const S area = static_cast<S>((2 * r + 1) * (2 * r + 1));
    int32_t first, last;
    j.rows(h, index, count, &first, &last);
    S* acc = reinterpret_cast<S*>(j.scratch + j.stride * static_cast<size_t>(index));
    auto mid = [&](int32_t y) { return rowAt<const S>(j.mid, j.midPitch, clampIndex(y, h)); };
    for (int32_t y = first; y < last; ++y) {
        if (std::is_floating_point_v<S> || y == first) {
            for (int32_t i = 0; i < n; ++i) acc[i] = 0;
            for (int32_t k = -r; k <= r; ++k) {
                const S* m = mid(y + k);
                for (int32_t i = 0; i < n; ++i) acc[i] += m[i];
            }
        } else {
            const S* in = mid(y + r);
            const S* out = mid(y - r - 1);
            for (int32_t i = 0; i < n; ++i) acc[i] += in[i] - out[i];
        }
        TOut* d = rowAt<TOut>(j.dst, j.dstPitch, y);
        for (int32_t i = 0; i < n; ++i) d[i] = boxOut<S, TOut, Mean>(acc[i], area);
    }
    return TL_OK;
}

struct BoxKernels {
    ImageStripeFn rows;
    ImageStripeFn columns;
    uint32_t dstFormat;  // 0: src's format
    int32_t channels;
    int32_t inBytes;   // per element
    int32_t sumBytes;  // per row sum
};

template <typename TIn, int C, typename TOut, bool Square, bool Mean>
constexpr BoxKernels boxKernelsOf(uint32_t dstFormat) {
    using S = std::conditional_t<std::is_floating_point_v<TIn>, double, int32_t>;
    return BoxKernels{boxRowStripe<TIn, C, S, Square>,   boxColumnStripe<S, C, TOut, Mean>, dstFormat, C,
                      static_cast<int32_t>(sizeof(TIn)), static_cast<int32_t>(sizeof(S))};
}

const BoxKernels* boxKernelsFor(uint32_t format, BlurBoxForm form) {
    static constexpr BoxKernels meanU8[4] = {
        boxKernelsOf<uint8_t, 1, uint8_t, false, true>(0), boxKernelsOf<uint8_t, 2, uint8_t, false, true>(0),
        boxKernelsOf<uint8_t, 3, uint8_t, false, true>(0), boxKernelsOf<uint8_t, 4, uint8_t, false, true>(0)};
    static constexpr BoxKernels meanU16[2] = {boxKernelsOf<uint16_t, 1, uint16_t, false, true>(0),
                                              boxKernelsOf<uint16_t, 2, uint16_t, false, true>(0)};
    static constexpr BoxKernels meanF32 = boxKernelsOf<float, 1, float, false, true>(0);
    static constexpr BoxKernels sumU8 = boxKernelsOf<uint8_t, 1, int32_t, false, false>(IMAGE_FORMAT_INT32);
    static constexpr BoxKernels sumU16 = boxKernelsOf<uint16_t, 1, int32_t, false, false>(IMAGE_FORMAT_INT32);
    static constexpr BoxKernels sumF32 = boxKernelsOf<float, 1, float, false, false>(IMAGE_FORMAT_FLOAT);
    static constexpr BoxKernels meanSqU8 =
        boxKernelsOf<uint8_t, 1, uint16_t, true, true>(IMAGE_FORMAT_UINT16);
    static constexpr BoxKernels meanSqF32 = boxKernelsOf<float, 1, float, true, true>(IMAGE_FORMAT_FLOAT);
    static constexpr BoxKernels sumSqU8 = boxKernelsOf<uint8_t, 1, int32_t, true, false>(IMAGE_FORMAT_INT32);
    static constexpr BoxKernels sumSqF32 = boxKernelsOf<float, 1, float, true, false>(IMAGE_FORMAT_FLOAT);
    switch (form) {
        case BLUR_BOX_MEAN:
            if (format >= 4 && format <= 15) return &meanU8[3];
            if ((format >= 30 && format <= 35) || format == 2 || format == 3 || format == IMAGE_FORMAT_HSV)
                return &meanU8[2];
            if (format == IMAGE_FORMAT_UINT8) return &meanU8[0];
            if (format == IMAGE_FORMAT_UINT88) return &meanU8[1];
            if (format == IMAGE_FORMAT_UINT16) return &meanU16[0];
            if (format == IMAGE_FORMAT_UINT1616) return &meanU16[1];
            return format == IMAGE_FORMAT_FLOAT ? &meanF32 : nullptr;
        case BLUR_BOX_SUM:
            if (format == IMAGE_FORMAT_UINT8) return &sumU8;
            if (format == IMAGE_FORMAT_UINT16) return &sumU16;
            return format == IMAGE_FORMAT_FLOAT ? &sumF32 : nullptr;
        case BLUR_BOX_MEAN_SQUARES:
            if (format == IMAGE_FORMAT_UINT8) return &meanSqU8;
            return format == IMAGE_FORMAT_FLOAT ? &meanSqF32 : nullptr;
        case BLUR_BOX_SUM_SQUARES:
            if (format == IMAGE_FORMAT_UINT8) return &sumSqU8;
            return format == IMAGE_FORMAT_FLOAT ? &sumSqF32 : nullptr;
        default: return nullptr;
    }
}

bool hasBoxMeanKernel(uint32_t format) { return boxKernelsFor(format, BLUR_BOX_MEAN) != nullptr; }

TLResult boxPlane(const Stripes& st, Image* dst, const Image* src, int32_t radius, const BoxKernels* k) {
    const int32_t w = src->width, h = src->height;
    const size_t n = static_cast<size_t>(w) * k->channels;
    const size_t midPitch = alignUp(n * k->sumBytes);
    const size_t midBytes = midPitch * static_cast<size_t>(h);
    const size_t padBytes = (n + 2 * static_cast<size_t>(radius) * k->channels) * k->inBytes;
    const size_t accBytes = n * k->sumBytes;
    const size_t stride = alignUp(padBytes > accBytes ? padBytes : accBytes);
    uint8_t* block = static_cast<uint8_t*>(Memory_alloc(midBytes + stride * static_cast<size_t>(st.count)));
    if (block == nullptr) return TL_ERROR_MEMORY;
    BoxJob job{src->plane[0],
               dst->plane[0],
               block,
               src->pitch[0],
               dst->pitch[0],
               static_cast<int32_t>(midPitch),
               w,
               h,
               radius,
               st.rows,
               block + midBytes,
               stride};
    TLResult r = ImageStripeExec_run(st.exec, k->rows, &job, st.count);
    if (r == TL_OK) r = ImageStripeExec_run(st.exec, k->columns, &job, st.count);
    Memory_free(block);
    return r;
}

// ---- Gaussian -----------------------------------------------------------------

TLResult gaussPlane(const Stripes& st, Image* dst, const Image* src, double sigma) {
    int32_t taps[kBlurTapCount];
    // Sigmas up to 1.8 keep taps above 1/4096 out to 6 pixels; the 7-tap
    // kernels cut the table at 3 and renormalise, as a small plane does.
    const bool direct = sigma <= kBlurDirectSigma;
    const int32_t r =
        Blur_makeGaussTaps(taps, sigma, src->width, src->height, direct ? kDirectRadius : kMaxRadius);
    if (direct)
        return convPlane(st, dst, src, taps + kBlurTapCenter - kDirectRadius, kDirectRadius, kDirectRadius);
    return convPlane(st, dst, src, taps + kBlurTapCenter - r, r, 0);
}

TLResult pgaussPlane(const Stripes& st, Image* dst, const Image* src, double sigma) {
    if (!(sigma >= kMinSigma)) return TL_ERROR_PARAM;
    if (sigma <= kBlurDirectSigma) return gaussPlane(st, dst, src, sigma);
    const double q = RawDouble_sqrt(sigma * sigma - kDirectVariance);
    if (src->width < kPyramidMinSide || src->height < kPyramidMinSide) return gaussPlane(st, dst, src, sigma);
    const int32_t hw = static_cast<int32_t>(src->width * 0.5) & ~1;
    const int32_t hh = static_cast<int32_t>(src->height * 0.5) & ~1;
    Image half;
    construct_Image(&half, src->env);
    TLResult r = Image_init(&half, hw, hh, nullptr, src->format);
    if (r == TL_OK) r = Resize_resizeImage(st.exec, &half, src);
    if (r == TL_OK) r = pgaussPlane(st, &half, &half, q * 0.5);
    if (r == TL_OK) r = Resize_resizeImage(st.exec, dst, &half);
    destruct_Image(&half);
    if (r == TL_OK) r = gaussPlane(st, dst, dst, kBlurDirectSigma);
    return r;
}

bool hasPixels(const Image* m) {
    const int32_t planes = Image_getPlaneCount(m->format);
    for (int32_t k = 0; k < planes; ++k) {
        if (m->plane[k] == nullptr) return false;
    }
    return planes > 0 && m->width > 0 && m->height > 0;
}

TLResult checkPair(const Image* dst, const Image* src) {
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (dst->width != src->width || dst->height != src->height || dst->format != src->format)
        return TL_ERROR_PARAM;
    return hasPixels(dst) && hasPixels(src) ? TL_OK : TL_ERROR_PARAM;
}

// An operation on one plane; scale is 0.5 for chroma planes narrower than
// the luma, else 1.
struct PlaneOp {
    TLResult (*run)(const Stripes& st, Image* dst, const Image* src, const void* ctx, double scale);
    bool (*has)(uint32_t format);
    const void* ctx;
};

// Splits both pictures into planes, checks every plane before writing, and
// runs op on the selected planes; the others are copied unless in place.
TLResult forEachPlane(const ImageStripeExec* exec, Image* dst, const Image* src, uint32_t planeMask,
                      const PlaneOp& op) {
    TLResult r = checkPair(dst, src);
    if (r != TL_OK) return r;
    PlaneViews sv, dv;
    r = PlaneViews_split(&sv, src);
    if (r == TL_OK) r = PlaneViews_split(&dv, dst);
    if (r != TL_OK) return r;
    for (int32_t k = 0; k < sv.count; ++k) {
        if (!op.has(sv.plane[k].format)) return TL_ERROR_UNSUPPORTED;
    }
    if (planeMask == 0) planeMask = ~0u;
    const Stripes st = stripesOf(exec);
    for (int32_t k = 0; k < sv.count && r == TL_OK; ++k) {
        if ((planeMask >> k & 1u) != 0) {
            const double scale = k > 0 && sv.plane[k].width < sv.plane[0].width ? 0.5 : 1.0;
            r = op.run(st, &dv.plane[k], &sv.plane[k], op.ctx, scale);
        } else {
            r = Image_copy(&dv.plane[k], &sv.plane[k]);
        }
    }
    return r;
}

TLResult runGauss(const Stripes& st, Image* dst, const Image* src, const void* ctx, double scale) {
    return gaussPlane(st, dst, src, *static_cast<const double*>(ctx) * scale);
}

TLResult runPgauss(const Stripes& st, Image* dst, const Image* src, const void* ctx, double scale) {
    return pgaussPlane(st, dst, src, *static_cast<const double*>(ctx) * scale);
}

TLResult runBoxMean(const Stripes& st, Image* dst, const Image* src, const void* ctx, double) {
    return boxPlane(st, dst, src, *static_cast<const int32_t*>(ctx),
                    boxKernelsFor(src->format, BLUR_BOX_MEAN));
}

}  // namespace

int32_t Blur_makeGaussTaps(int32_t taps[kBlurTapCount], double sigma, int32_t width, int32_t height,
                           int32_t maxRadius) {
    float t[kBlurTapCount];
    const double twoVar = 2.0 * sigma * sigma;
    for (int32_t i = 0; i <= kBlurTapCenter; ++i) {
        const float e = static_cast<float>(RawDouble_exp(-static_cast<double>(i * i) / twoVar));
        t[kBlurTapCenter + i] = e;
        t[kBlurTapCenter - i] = e;
    }
    auto normalise = [&t]() {
        float sum = 0.0f;
        for (float v : t) sum += v;
        const float inv = static_cast<float>(1.0 / (static_cast<double>(sum) + 1e-9));
        for (float& v : t) v *= inv;
    };
    normalise();
    int32_t limit = (width < height ? width : height) / 2;
    if (limit > kBlurTapCenter) limit = kBlurTapCenter;
    if (limit > maxRadius) limit = maxRadius;
    int32_t r = 0;
    for (int32_t i = 1; i <= limit; ++i) {
        if (t[kBlurTapCenter + i] > 1.0f / 4096.0f) r = i;
    }
    for (int32_t i = r + 1; i <= kBlurTapCenter; ++i) {
        t[kBlurTapCenter + i] = 0.0f;
        t[kBlurTapCenter - i] = 0.0f;
    }
    normalise();
    for (int32_t i = 0; i < kBlurTapCount; ++i)
        taps[i] = static_cast<int32_t>(static_cast<double>(t[i]) * 32768.0 + 0.5);
    return r;
}

TLResult Blur_gaussBlur(const ImageStripeExec* exec, Image* dst, const Image* src, uint32_t planeMask,
                        double sigma) {
    if (!(sigma >= kMinSigma)) return TL_ERROR_PARAM;
    return forEachPlane(exec, dst, src, planeMask, PlaneOp{runGauss, hasConvKernel, &sigma});
}

TLResult Blur_pgaussBlur(const ImageStripeExec* exec, Image* dst, const Image* src, uint32_t planeMask,
                         double sigma) {
    if (!(sigma >= kMinSigma)) return TL_ERROR_PARAM;
    return forEachPlane(exec, dst, src, planeMask, PlaneOp{runPgauss, hasConvKernel, &sigma});
}

TLResult Blur_boxFilter(const ImageStripeExec* exec, Image* dst, const Image* src, int32_t radius,
                        BlurBoxForm form) {
    if (dst == nullptr || src == nullptr || radius < 0 || radius > kBlurMaxBoxRadius) return TL_ERROR_PARAM;
    if (form == BLUR_BOX_MEAN)
        return forEachPlane(exec, dst, src, 0, PlaneOp{runBoxMean, hasBoxMeanKernel, &radius});
    const BoxKernels* k = boxKernelsFor(src->format, form);
    if (dst->width != src->width || dst->height != src->height) return TL_ERROR_PARAM;
    if (k == nullptr) return TL_ERROR_UNSUPPORTED;
    if (dst->format != k->dstFormat || !hasPixels(dst) || !hasPixels(src)) return TL_ERROR_PARAM;
    return boxPlane(stripesOf(exec), dst, src, radius, k);
}

TLResult Blur_separable(const ImageStripeExec* exec, Image* dst, const Image* src, const int32_t* taps,
                        int32_t size) {
    if (taps == nullptr || (size != 3 && size != 5 && size != 7)) return TL_ERROR_PARAM;
    const TLResult r = checkPair(dst, src);
    if (r != TL_OK) return r;
    if (convKernelsFor(src->format) == nullptr) return TL_ERROR_UNSUPPORTED;
    int64_t magnitude = 0;
    for (int32_t k = 0; k < size; ++k) magnitude += taps[k] < 0 ? -int64_t{taps[k]} : taps[k];
    if (magnitude > 65536) return TL_ERROR_PARAM;
    return convPlane(stripesOf(exec), dst, src, taps, size / 2, size / 2);
}

// ---- Kernel objects -------------------------------------------------------------

namespace {

template <typename Self>
ImageStripeExec execOf(const Self* self) {
    if constexpr (std::is_same_v<Self, ImageProc2>) {
        return ImageProc2_getStripeExec(self);
    } else {
        return ImageProc_getStripeExec(self);
    }
}

template <typename Self>
TLResult fixedKernel(Self* self, Image* dst, const Image* src, const int32_t* taps, int32_t size,
                     uint32_t format) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const TLResult r = checkPair(dst, src);
    if (r != TL_OK) return r;
    if (src->format != format) return TL_ERROR_UNSUPPORTED;
    const ImageStripeExec exec = execOf(self);
    return Blur_separable(&exec, dst, src, taps, size);
}

template <typename Self>
TLResult box(Self* self, Image* dst, const Image* src, int32_t radius, BlurBoxForm form) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const ImageStripeExec exec = execOf(self);
    return Blur_boxFilter(&exec, dst, src, radius, form);
}

template <typename Self>
TLResult gauss(Self* self, Image* dst, const Image* src, uint32_t option, double sigma, bool pyramid) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const ImageStripeExec exec = execOf(self);
    return pyramid ? Blur_pgaussBlur(&exec, dst, src, option, sigma)
                   : Blur_gaussBlur(&exec, dst, src, option, sigma);
}

// Work memory of the convolution of one plane: the intermediate and stripe
// rows of the general radius, or the rows of the sweep.
int64_t convBytes(int32_t width, int32_t height, const ConvKernels* k, int32_t radius) {
    if (radius <= kDirectRadius) {
        return static_cast<int64_t>(alignUp(k->sweepScratch[kDirectRadius - 1](width))) *
               kImageStripeDefaultCount;
    }
    const int64_t mid = static_cast<int64_t>(alignUp(static_cast<size_t>(width) * k->pixelBytes)) * height;
    return mid + static_cast<int64_t>(alignUp(k->scratch(width, radius))) * kImageStripeDefaultCount;
}

// Either path of the Gaussian, whichever takes more.
int64_t gaussBytes(int32_t width, int32_t height, const ConvKernels* k) {
    const int64_t general = convBytes(width, height, k, kMaxRadius);
    const int64_t direct = convBytes(width, height, k, kDirectRadius);
    return general > direct ? general : direct;
}

// The largest plane of a picture: the luma of a YUV picture, else itself.
const ConvKernels* widestPlane(uint32_t format) {
    if ((format >= 24 && format <= 29) || format == IMAGE_FORMAT_YUV444_PLANAR)
        return convKernelsFor(IMAGE_FORMAT_UINT8);
    if (format == 37 || format == 38) return convKernelsFor(IMAGE_FORMAT_UINT16);
    return convKernelsFor(format);
}

int32_t toSize(int64_t bytes) { return bytes > INT32_MAX ? -1 : static_cast<int32_t>(bytes); }

}  // namespace

TLResult ImageProc2_gaussBlur(ImageProc2* self, Image* dst, const Image* src, uint32_t option, double sigma) {
    return gauss(self, dst, src, option, sigma, false);
}
TLResult ImageProc_gaussBlur2(ImageProc* self, Image* dst, const Image* src, uint32_t option, double sigma) {
    return gauss(self, dst, src, option, sigma, false);
}
TLResult ImageProc2_pgaussBlur(ImageProc2* self, Image* dst, const Image* src, uint32_t option,
                               double sigma) {
    return gauss(self, dst, src, option, sigma, true);
}
TLResult ImageProc_pgaussBlur(ImageProc* self, Image* dst, const Image* src, uint32_t option, double sigma) {
    return gauss(self, dst, src, option, sigma, true);
}

TLResult ImageProc2_boxBlur(ImageProc2* self, Image* dst, const Image* src, int32_t radius) {
    return box(self, dst, src, radius, BLUR_BOX_MEAN);
}
TLResult ImageProc_boxBlur(ImageProc* self, Image* dst, const Image* src, int32_t radius) {
    return box(self, dst, src, radius, BLUR_BOX_MEAN);
}
TLResult ImageProc_boxSum(ImageProc* self, Image* dst, const Image* src, int32_t radius) {
    return box(self, dst, src, radius, BLUR_BOX_SUM);
}
TLResult ImageProc_boxBlur2(ImageProc* self, Image* dst, const Image* src, int32_t radius) {
    return box(self, dst, src, radius, BLUR_BOX_MEAN_SQUARES);
}
TLResult ImageProc_boxSum2(ImageProc* self, Image* dst, const Image* src, int32_t radius) {
    return box(self, dst, src, radius, BLUR_BOX_SUM_SQUARES);
}
TLResult ImageProc_filterAveraging3x3(ImageProc* self, Image* dst, const Image* src) {
    return box(self, dst, src, 1, BLUR_BOX_MEAN);
}

TLResult ImageProc2_filterGaussianBlur7x7_uint8(ImageProc2* self, Image* dst, const Image* src,
                                                const int32_t taps[7]) {
    return fixedKernel(self, dst, src, taps, 7, IMAGE_FORMAT_UINT8);
}
TLResult ImageProc2_filterGaussianBlur7x7_uint16(ImageProc2* self, Image* dst, const Image* src,
                                                 const int32_t taps[7]) {
    return fixedKernel(self, dst, src, taps, 7, IMAGE_FORMAT_UINT16);
}
TLResult ImageProc2_filterGaussianBlur7x7_uint88(ImageProc2* self, Image* dst, const Image* src,
                                                 const int32_t taps[7]) {
    return fixedKernel(self, dst, src, taps, 7, IMAGE_FORMAT_UINT88);
}
TLResult ImageProc2_filterGaussianBlur7x7_uint1616(ImageProc2* self, Image* dst, const Image* src,
                                                   const int32_t taps[7]) {
    return fixedKernel(self, dst, src, taps, 7, IMAGE_FORMAT_UINT1616);
}
TLResult ImageProc_filterGaussianBlur7x7_uint8(ImageProc* self, Image* dst, const Image* src,
                                               const int32_t taps[7]) {
    return fixedKernel(self, dst, src, taps, 7, IMAGE_FORMAT_UINT8);
}
TLResult ImageProc_filterGaussianBlur7x7_uint16(ImageProc* self, Image* dst, const Image* src,
                                                const int32_t taps[7]) {
    return fixedKernel(self, dst, src, taps, 7, IMAGE_FORMAT_UINT16);
}
TLResult ImageProc_filterGaussianBlur7x7_uint88(ImageProc* self, Image* dst, const Image* src,
                                                const int32_t taps[7]) {
    return fixedKernel(self, dst, src, taps, 7, IMAGE_FORMAT_UINT88);
}
TLResult ImageProc_filterGaussianBlur5x5_uint16(ImageProc* self, Image* dst, const Image* src,
                                                const int32_t taps[5]) {
    return fixedKernel(self, dst, src, taps, 5, IMAGE_FORMAT_UINT16);
}
TLResult ImageProc_filterGaussianBlur3x3_uint16(ImageProc* self, Image* dst, const Image* src,
                                                const int32_t taps[3]) {
    return fixedKernel(self, dst, src, taps, 3, IMAGE_FORMAT_UINT16);
}

int32_t ImageProc2_getBufferSizeForGaussBlur(int32_t width, int32_t height, uint32_t format) {
    const ConvKernels* k = widestPlane(format);
    if (width < 1 || height < 1 || k == nullptr) return -1;
    return toSize(gaussBytes(width, height, k));
}

int32_t ImageProc2_getBufferSizeForConvolution(int32_t width, int32_t height, uint32_t format) {
    const ConvKernels* k = widestPlane(format);
    if (width < 1 || height < 1 || k == nullptr) return -1;
    return toSize(convBytes(width, height, k, kDirectRadius));
}

int32_t ImageProc2_getBufferSizeForPgaussBlur(int32_t width, int32_t height, uint32_t format) {
    const ConvKernels* k = widestPlane(format);
    if (width < 1 || height < 1 || k == nullptr) return -1;
    // The half planes of every level are held at once; the deepest level
    // runs the general kernels.
    int64_t halves = 0;
    int32_t w = width, h = height;
    while (w >= kPyramidMinSide && h >= kPyramidMinSide) {
        w = static_cast<int32_t>(w * 0.5) & ~1;
        h = static_cast<int32_t>(h * 0.5) & ~1;
        halves += static_cast<int64_t>(w) * h * k->pixelBytes;
    }
    return toSize(halves + gaussBytes(width, height, k));
}

int32_t ImageProc2_getBufferSizeForBoxBlur(int32_t width, int32_t height, uint32_t format) {
    const ConvKernels* k = widestPlane(format);
    if (width < 1 || height < 1 || k == nullptr) return -1;
    // Row sums of 8 bytes per element at most, and one padded row per stripe.
    const int64_t elements = static_cast<int64_t>(width) * k->pixelBytes;
    const int64_t rowSums = elements * 8;
    const int64_t pad = (elements + 2 * kBlurMaxBoxRadius * 4) * 4;
    return toSize(rowSums * height + (rowSums > pad ? rowSums : pad) * kImageStripeDefaultCount);
}

}  // namespace vq_tl
