#include "imageproc/resize.h"

#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "imageproc/image_proc.h"
#include "imageproc/image_proc2.h"
#include "imageproc/kernel_clones.h"
#include "imageproc/plane_views.h"
#include "imageproc/resize_kernels.h"
#include "runtime/memory.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

// Horizontal results keep the full Q15 weight: an 8- or 16-bit value times
// 32768 fits 31 bits, a 32-bit one needs 64.
template <typename T>
struct ResizeAcc {
    using type = int32_t;
};
template <>
struct ResizeAcc<int32_t> {
    using type = int64_t;
};
template <>
struct ResizeAcc<float> {
    using type = float;
};

// Sums of four elements: 64 bits for 32-bit elements.
template <typename T>
using Wide = std::conditional_t<std::is_same_v<T, int32_t>, int64_t, int32_t>;

constexpr float kQ15Inv = 1.0f / 32768.0f;

int32_t minInt(int32_t a, int32_t b) { return a < b ? a : b; }

template <typename T>
T* rowAt(const Image* m, int32_t row) {
    return reinterpret_cast<T*>(m->plane[0] + static_cast<intptr_t>(m->pitch[0]) * row);
}

// ---- Bilinear row kernels -------------------------------------------------

// One source row interpolated at the destination's columns.
template <typename T, int C>
void resizeRowH(typename ResizeAcc<T>::type* out, const T* src, const ResizeTap* taps, int32_t width) {
    using H = typename ResizeAcc<T>::type;
    for (int32_t x = 0; x < width; ++x) {
        const T* a = src + taps[x].i0 * C;
        const T* b = src + taps[x].i1 * C;
        if constexpr (std::is_floating_point_v<T>) {
            const float w = static_cast<float>(taps[x].frac) * kQ15Inv;
            // a + (b - a) w keeps a constant exact.
            for (int c = 0; c < C; ++c) out[x * C + c] = a[c] + (b[c] - a[c]) * w;
        } else {
            const H f = taps[x].frac;
            for (int c = 0; c < C; ++c)
                out[x * C + c] = static_cast<H>(a[c]) * (32768 - f) + static_cast<H>(b[c]) * f;
        }
    }
}

// Two interpolated rows blended at weight fy (Q15) and rounded:
// (h0 (32768 - fy) + h1 fy + 2^29) >> 30, or (h0 + 2^14) >> 15 when fy is 0.
template <typename T>
void resizeRowV(T* dst, const typename ResizeAcc<T>::type* h0, const typename ResizeAcc<T>::type* h1,
                int32_t fy, int32_t count) {
    if constexpr (std::is_floating_point_v<T>) {
        const float w = static_cast<float>(fy) * kQ15Inv;
        for (int32_t i = 0; i < count; ++i) dst[i] = fy == 0 ? h0[i] : h0[i] + (h1[i] - h0[i]) * w;
    } else if (fy == 0) {
        for (int32_t i = 0; i < count; ++i)
            dst[i] = static_cast<T>((static_cast<int64_t>(h0[i]) + 16384) >> 15);
    } else {
        const int64_t w0 = 32768 - fy, w1 = fy;
        for (int32_t i = 0; i < count; ++i) {
            dst[i] = static_cast<T>(
                (static_cast<int64_t>(h0[i]) * w0 + static_cast<int64_t>(h1[i]) * w1 + (int64_t{1} << 29)) >>
                30);
        }
    }
}

// 2 by 2 mean of source rows r0, r1; columns beyond the source's last repeat it.
// The columns whose pair lies inside the row go first, without clamping, so
// that the compiler vectorises them.
template <typename T, int C>
VQ_TL_KERNEL_CLONES void halfRow(T* dst, const T* r0, const T* r1, int32_t dstWidth, int32_t srcWidth) {
    auto mean = [&](int32_t x, int32_t i0, int32_t i1) {
        for (int c = 0; c < C; ++c) {
            if constexpr (std::is_floating_point_v<T>) {
                dst[x * C + c] = (r0[i0 * C + c] + r0[i1 * C + c] + r1[i0 * C + c] + r1[i1 * C + c]) * 0.25f;
            } else {
                const Wide<T> sum = static_cast<Wide<T>>(r0[i0 * C + c]) + r0[i1 * C + c] + r1[i0 * C + c] +
                                    r1[i1 * C + c] + 2;
                dst[x * C + c] = static_cast<T>(sum >> 2);
            }
        }
    };
    const int32_t inside = minInt(dstWidth, srcWidth / 2);
    for (int32_t x = 0; x < inside; ++x) mean(x, 2 * x, 2 * x + 1);
    for (int32_t x = inside; x < dstWidth; ++x) {
        mean(x, 2 * x < srcWidth ? 2 * x : srcWidth - 1, 2 * x + 1 < srcWidth ? 2 * x + 1 : srcWidth - 1);
    }
}

// Exact enlargement by two along rows, 8-bit elements: the taps are then
// (0, 0, 0), (i, i + 1, 8192), (i, i + 1, 24576), ..., (last, last, 0), so
// the interpolated row is 8192 times H, H = 4 s[0], 3 s[i] + s[i + 1],
// s[i] + 3 s[i + 1], ..., 4 s[last]: at most 1020.
template <int C>
void doubleRowH(int32_t* out, const uint8_t* src, int32_t srcWidth) {
    for (int c = 0; c < C; ++c) {
        out[c] = 4 * src[c];
        out[(2 * srcWidth - 1) * C + c] = 4 * src[(srcWidth - 1) * C + c];
    }
    for (int32_t i = 0; i + 1 < srcWidth; ++i) {
        for (int c = 0; c < C; ++c) {
            const int32_t a = src[i * C + c], b = src[(i + 1) * C + c];
            out[(2 * i + 1) * C + c] = 3 * a + b;
            out[(2 * i + 2) * C + c] = a + 3 * b;
        }
    }
}

// resizeRowV on rows of H = h / 8192: (8192 H0 + 2^14) >> 15 = (H0 + 2) >> 2
// when fy is 0, else (2^13 (H0 (32768 - fy) + H1 fy) + 2^29) >> 30 =
// (H0 (32768 - fy) + H1 fy + 2^16) >> 17, within 31 bits.
// Enlarged twice along columns as well, fy is 8192 or 24576: (3 H0 + H1 +
// 8) >> 4 or (H0 + 3 H1 + 8) >> 4.
inline void doubleRowV(uint8_t* dst, const int32_t* h0, const int32_t* h1, int32_t fy, int32_t count) {
    if (fy == 0) {
        for (int32_t i = 0; i < count; ++i) dst[i] = static_cast<uint8_t>((h0[i] + 2) >> 2);
    } else if (fy == 8192) {
        for (int32_t i = 0; i < count; ++i) dst[i] = static_cast<uint8_t>((3 * h0[i] + h1[i] + 8) >> 4);
    } else if (fy == 24576) {
        for (int32_t i = 0; i < count; ++i) dst[i] = static_cast<uint8_t>((h0[i] + 3 * h1[i] + 8) >> 4);
    } else {
        const int32_t w0 = 32768 - fy, w1 = fy;
        for (int32_t i = 0; i < count; ++i)
            dst[i] = static_cast<uint8_t>((h0[i] * w0 + h1[i] * w1 + 65536) >> 17);
    }
}

// ---- Plane operations -----------------------------------------------------

struct PlaneArgs {
    Image* dst;
    const Image* src;
    const ResizeTap* xTaps;
    const ResizeTap* yTaps;
    void* cache;  // per stripe: two rows of width * channels accumulators
    const ResizeKernels* kernels;
    const LinearWindow* windows;  // 8-bit planes: the plan of xTaps for kernels->linearRow
};

template <typename T, int C>
VQ_TL_KERNEL_CLONES TLResult resizeStripe(void* arg, int32_t index, int32_t count) {
    using H = typename ResizeAcc<T>::type;
    const PlaneArgs& a = *static_cast<const PlaneArgs*>(arg);
    const int32_t width = a.dst->width;
    const int32_t n = width * C;
    int32_t first, last;
    ImageStripe_rows(a.dst->height, index, count, &first, &last);
    H* rows[2] = {static_cast<H*>(a.cache) + static_cast<size_t>(index) * 2 * n,
                  static_cast<H*>(a.cache) + static_cast<size_t>(index) * 2 * n + n};
    int32_t tags[2] = {-1, -1};  // source row held by each cache row
    // 8-bit rows enlarged exactly twice take the short sums.
    constexpr bool kByte = std::is_same_v<T, uint8_t>;
    const bool twice = kByte && a.dst->width == 2 * a.src->width && a.src->width >= 2;
    auto rowH = [&](H* out, int32_t row) {
        if constexpr (kByte) {
            if (twice) return doubleRowH<C>(out, rowAt<const uint8_t>(a.src, row), a.src->width);
        }
        if constexpr (kByte) {
            return a.kernels->linearRow(out, rowAt<const uint8_t>(a.src, row), a.xTaps, a.windows, width, C);
        }
        resizeRowH<T, C>(out, rowAt<const T>(a.src, row), a.xTaps, width);
    };
    for (int32_t y = first; y < last; ++y) {
        const ResizeTap& t = a.yTaps[y];
        // When enlarging, neighbouring destination rows share source rows:
        // the cache keeps the last two interpolated rows.
        if (tags[0] != t.i0) {
            if (tags[1] == t.i0) {
                H* r = rows[0];
                rows[0] = rows[1];
                rows[1] = r;
                tags[1] = tags[0];
            } else {
                rowH(rows[0], t.i0);
            }
            tags[0] = t.i0;
        }
        if (t.frac != 0 && tags[1] != t.i1) {
            rowH(rows[1], t.i1);
            tags[1] = t.i1;
        }
        if constexpr (kByte) {
            if (twice) {
                doubleRowV(rowAt<uint8_t>(a.dst, y), rows[0], rows[1], t.frac, n);
                continue;
            }
        }
        resizeRowV<T>(rowAt<T>(a.dst, y), rows[0], rows[1], t.frac, n);
    }
    return TL_OK;
}

template <typename T, int C>
VQ_TL_KERNEL_CLONES TLResult halfStripe(void* arg, int32_t index, int32_t count) {
    const PlaneArgs& a = *static_cast<const PlaneArgs*>(arg);
    int32_t first, last;
    ImageStripe_rows(a.dst->height, index, count, &first, &last);
    const int32_t srcRows = a.src->height;
    for (int32_t y = first; y < last; ++y) {
        const int32_t j0 = 2 * y < srcRows ? 2 * y : srcRows - 1;
        const int32_t j1 = 2 * y + 1 < srcRows ? 2 * y + 1 : srcRows - 1;
        halfRow<T, C>(rowAt<T>(a.dst, y), rowAt<const T>(a.src, j0), rowAt<const T>(a.src, j1), a.dst->width,
                      a.src->width);
    }
    return TL_OK;
}

// Work blocks put tables and accumulator rows one after another; each part
// starts on 16 bytes so that 64-bit accumulators are aligned.
size_t alignUp(size_t bytes) { return (bytes + 15) & ~size_t{15}; }

template <typename T, int C>
TLResult halfPlane(const ImageStripeExec* exec, Image* dst, const Image* src) {
    PlaneArgs args{dst, src, nullptr, nullptr, nullptr, nullptr, nullptr};
    const int32_t parts = minInt(5 * ImageStripeExec_getWorkerCount(exec), dst->height);
    return ImageStripeExec_run(exec, halfStripe<T, C>, &args, parts);
}

template <typename T, int C>
TLResult resizePlane(const ImageStripeExec* exec, Image* dst, const Image* src) {
    using H = typename ResizeAcc<T>::type;
    if (dst->width < 1 || dst->height < 1 || src->width < 1 || src->height < 1) return TL_ERROR_GENERAL;
    if (Resize_isAboutHalf(dst->width, dst->height, src->width, src->height))
        return halfPlane<T, C>(exec, dst, src);
    const int32_t parts = minInt(2 * ImageStripeExec_getWorkerCount(exec), dst->height);
    const size_t tapBytes = alignUp(sizeof(ResizeTap) * (static_cast<size_t>(dst->width) + dst->height));
    const size_t cacheBytes = alignUp(sizeof(H) * 2 * static_cast<size_t>(dst->width) * C * parts);
    constexpr bool kByte = std::is_same_v<T, uint8_t>;
    const size_t windowBytes = kByte ? sizeof(LinearWindow) * (static_cast<size_t>(dst->width) * C / 4) : 0;
    uint8_t* block = static_cast<uint8_t*>(Memory_alloc(tapBytes + cacheBytes + windowBytes));
    if (block == nullptr) return TL_ERROR_MEMORY;
    ResizeTap* xTaps = reinterpret_cast<ResizeTap*>(block);
    ResizeTap* yTaps = xTaps + dst->width;
    ResizeTap_fill(xTaps, dst->width, src->width);
    ResizeTap_fill(yTaps, dst->height, src->height);
    LinearWindow* windows = reinterpret_cast<LinearWindow*>(block + tapBytes + cacheBytes);
    if (kByte) LinearWindow_fill(windows, xTaps, dst->width, C, src->width);
    PlaneArgs args{dst, src, xTaps, yTaps, block + tapBytes, ResizeKernels_get(), windows};
    const TLResult r = ImageStripeExec_run(exec, resizeStripe<T, C>, &args, parts);
    Memory_free(block);
    return r;
}

// ---- Area reduction -------------------------------------------------------

// Destination pixel x covers [x * src, (x + 1) * src) and source pixel i
// covers [i * dst, (i + 1) * dst), in units of 1 / dst source pixels; the
// overlaps are integers and add up to src for every destination pixel.
struct AreaSpan {
    int32_t first;   // first source index
    int32_t count;   // source pixels touched
    int32_t offset;  // into the weight list
};

// Returns the number of weights written (at most srcSize + dstSize).
int32_t fillAreaSpans(AreaSpan* spans, int32_t* weights, int32_t dstSize, int32_t srcSize) {
    int32_t used = 0;
    for (int32_t x = 0; x < dstSize; ++x) {
        const int64_t lo = int64_t{x} * srcSize, hi = lo + srcSize;
        const int32_t first = static_cast<int32_t>(lo / dstSize);
        const int32_t last = static_cast<int32_t>((hi - 1) / dstSize);
        spans[x] = AreaSpan{first, last - first + 1, used};
        for (int32_t i = first; i <= last; ++i) {
            const int64_t a = int64_t{i} * dstSize, b = a + dstSize;
            weights[used++] = static_cast<int32_t>((b < hi ? b : hi) - (a > lo ? a : lo));
        }
    }
    return used;
}

template <typename T>
using AreaAcc = std::conditional_t<std::is_floating_point_v<T>, double, int64_t>;

struct AreaArgs {
    Image* dst;
    const Image* src;
    const AreaSpan* xSpans;
    const AreaSpan* ySpans;
    const int32_t* xWeights;
    const int32_t* yWeights;
    void* work;  // per stripe: two rows of width * channels accumulators
};

int64_t floorDiv(int64_t a, int64_t b) {
    const int64_t q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

template <typename T, int C>
TLResult areaStripe(void* arg, int32_t index, int32_t count) {
    using A = AreaAcc<T>;
    const AreaArgs& a = *static_cast<const AreaArgs*>(arg);
    const int32_t width = a.dst->width;
    const int32_t n = width * C;
    A* row = static_cast<A*>(a.work) + static_cast<size_t>(index) * 2 * n;
    A* acc = row + n;
    const int64_t total = int64_t{a.src->width} * a.src->height;
    int32_t first, last;
    ImageStripe_rows(a.dst->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        for (int32_t i = 0; i < n; ++i) acc[i] = 0;
        const AreaSpan& ys = a.ySpans[y];
        for (int32_t j = 0; j < ys.count; ++j) {
            const T* s = rowAt<const T>(a.src, ys.first + j);
            for (int32_t x = 0; x < width; ++x) {
                const AreaSpan& xs = a.xSpans[x];
                const T* p = s + xs.first * C;
                const int32_t* w = a.xWeights + xs.offset;
                for (int c = 0; c < C; ++c) {
                    A sum = 0;
                    for (int32_t k = 0; k < xs.count; ++k) sum += static_cast<A>(p[k * C + c]) * w[k];
                    row[x * C + c] = sum;
                }
            }
            const A wy = a.yWeights[ys.offset + j];
            for (int32_t i = 0; i < n; ++i) acc[i] += row[i] * wy;
        }
        T* d = rowAt<T>(a.dst, y);
        for (int32_t i = 0; i < n; ++i) {
            if constexpr (std::is_floating_point_v<T>) {
                d[i] = static_cast<T>(acc[i] / static_cast<double>(total));
            } else {
                d[i] = static_cast<T>(floorDiv(acc[i] + total / 2, total));
            }
        }
    }
    return TL_OK;
}

// 8-bit planes: the source rows of a span summed column by column, then
// the columns of each destination element (see resize_kernels.h).
struct AreaBytesArgs {
    Image* dst;
    const Image* src;
    const AreaSpan* ySpans;
    const int32_t* yWeights;
    AreaTaps taps;
    uint32_t* sums;  // per stripe: taps.sumsLength column sums
    int32_t channels;
};

TLResult areaBytesStripe(void* arg, int32_t index, int32_t count) {
    const AreaBytesArgs& a = *static_cast<const AreaBytesArgs*>(arg);
    const ResizeKernels* kernels = ResizeKernels_get();
    uint32_t* sums = a.sums + static_cast<size_t>(index) * a.taps.sumsLength;
    const int32_t srcN = a.src->width * a.channels;
    int32_t first, last;
    ImageStripe_rows(a.dst->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const AreaSpan& ys = a.ySpans[y];
        for (int32_t j = 0; j < ys.count; ++j) {
            kernels->areaRow(sums, rowAt<const uint8_t>(a.src, ys.first + j), srcN,
                             static_cast<uint32_t>(a.yWeights[ys.offset + j]), j > 0 ? 1 : 0);
        }
        kernels->areaColumns(rowAt<uint8_t>(a.dst, y), sums, &a.taps, 0, a.taps.width);
    }
    return TL_OK;
}

// Column sums stay below 2^32 up to 16843009 rows (255 times that is
// 2^32 - 1); the 64-bit element sums, at most 255 * total, need total below
// 2^44 for the vector forms' exact conversion to double; a row of sums with
// its padding (at most twice the row) is counted in 32 bits.
bool areaBytesFits(const Image* src, int32_t channels) {
    return src->height <= 16843009 && int64_t{src->width} * src->height < (int64_t{1} << 44) &&
           (2 * int64_t{src->width} + 2) * channels < INT32_MAX;
}

TLResult areaBytesPlane(const ImageStripeExec* exec, Image* dst, const Image* src, int32_t channels) {
    const int32_t parts = minInt(4, dst->height);
    const size_t spanBytes = alignUp(sizeof(AreaSpan) * (static_cast<size_t>(dst->width) + dst->height));
    const size_t weightBytes =
        alignUp(sizeof(int32_t) * (static_cast<size_t>(dst->width) + src->width + dst->height + src->height));
    // The widest span decides the padded tap count.
    const int32_t count = static_cast<int32_t>((int64_t{src->width} + dst->width - 1) / dst->width) + 1;
    const size_t tapBytes = alignUp(sizeof(int32_t) * static_cast<size_t>(dst->width) * (1 + count));
    const int32_t sumsLength = src->width * channels + (count - 1) * channels;
    const size_t sumBytes = sizeof(uint32_t) * static_cast<size_t>(sumsLength) * parts;
    uint8_t* block = static_cast<uint8_t*>(Memory_alloc(spanBytes + weightBytes + tapBytes + sumBytes));
    if (block == nullptr) return TL_ERROR_MEMORY;
    AreaSpan* xSpans = reinterpret_cast<AreaSpan*>(block);
    AreaSpan* ySpans = xSpans + dst->width;
    int32_t* xWeights = reinterpret_cast<int32_t*>(block + spanBytes);
    const int32_t used = fillAreaSpans(xSpans, xWeights, dst->width, src->width);
    int32_t* yWeights = xWeights + used;
    fillAreaSpans(ySpans, yWeights, dst->height, src->height);
    int32_t* tapFirst = reinterpret_cast<int32_t*>(block + spanBytes + weightBytes);
    uint32_t* tapWeights = reinterpret_cast<uint32_t*>(tapFirst + dst->width);
    for (int32_t x = 0; x < dst->width; ++x) {
        const AreaSpan& xs = xSpans[x];
        tapFirst[x] = xs.first;
        for (int32_t k = 0; k < count; ++k) {
            tapWeights[static_cast<size_t>(x) * count + k] =
                k < xs.count ? static_cast<uint32_t>(xWeights[xs.offset + k]) : 0u;
        }
    }
    uint32_t* sums = reinterpret_cast<uint32_t*>(block + spanBytes + weightBytes + tapBytes);
    // The padding past the last column is read with weight 0; it is never written.
    std::memset(sums, 0, sumBytes);
    AreaBytesArgs args{dst,
                       src,
                       ySpans,
                       yWeights,
                       AreaTaps{tapFirst, tapWeights, count, channels, dst->width, sumsLength,
                                static_cast<uint64_t>(int64_t{src->width} * src->height)},
                       sums,
                       channels};
    const TLResult r = ImageStripeExec_run(exec, areaBytesStripe, &args, parts);
    Memory_free(block);
    return r;
}

template <typename T, int C>
TLResult areaPlane(const ImageStripeExec* exec, Image* dst, const Image* src) {
    using A = AreaAcc<T>;
    if (dst->width < 1 || dst->height < 1) return TL_ERROR_GENERAL;
    if constexpr (std::is_same_v<T, uint8_t>) {
        if (areaBytesFits(src, C)) return areaBytesPlane(exec, dst, src, C);
    }
    const int32_t parts = minInt(4, dst->height);
    const size_t spanBytes = alignUp(sizeof(AreaSpan) * (static_cast<size_t>(dst->width) + dst->height));
    const size_t weightBytes =
        alignUp(sizeof(int32_t) * (static_cast<size_t>(dst->width) + src->width + dst->height + src->height));
    const size_t workBytes = sizeof(A) * 2 * static_cast<size_t>(dst->width) * C * parts;
    uint8_t* block = static_cast<uint8_t*>(Memory_alloc(spanBytes + weightBytes + workBytes));
    if (block == nullptr) return TL_ERROR_MEMORY;
    AreaSpan* xSpans = reinterpret_cast<AreaSpan*>(block);
    AreaSpan* ySpans = xSpans + dst->width;
    int32_t* xWeights = reinterpret_cast<int32_t*>(block + spanBytes);
    const int32_t used = fillAreaSpans(xSpans, xWeights, dst->width, src->width);
    int32_t* yWeights = xWeights + used;
    fillAreaSpans(ySpans, yWeights, dst->height, src->height);
    AreaArgs args{dst, src, xSpans, ySpans, xWeights, yWeights, block + spanBytes + weightBytes};
    const TLResult r = ImageStripeExec_run(exec, areaStripe<T, C>, &args, parts);
    Memory_free(block);
    return r;
}

// ---- Format dispatch ------------------------------------------------------

using PlaneFn = TLResult (*)(const ImageStripeExec*, Image*, const Image*);

struct PlaneKernels {
    PlaneFn resize;
    PlaneFn half;
    PlaneFn area;
};

template <typename T, int C>
constexpr PlaneKernels kernelsOf() {
    return PlaneKernels{resizePlane<T, C>, halfPlane<T, C>, areaPlane<T, C>};
}

// Kernels by the format of a single-plane view; null for formats without one.
const PlaneKernels* kernelsFor(uint32_t format) {
    static constexpr PlaneKernels u8x1 = kernelsOf<uint8_t, 1>();
    static constexpr PlaneKernels u8x2 = kernelsOf<uint8_t, 2>();
    static constexpr PlaneKernels u8x3 = kernelsOf<uint8_t, 3>();
    static constexpr PlaneKernels u16x1 = kernelsOf<uint16_t, 1>();
    static constexpr PlaneKernels u16x2 = kernelsOf<uint16_t, 2>();
    static constexpr PlaneKernels u16x3 = kernelsOf<uint16_t, 3>();
    static constexpr PlaneKernels i16x1 = kernelsOf<int16_t, 1>();
    static constexpr PlaneKernels i32x1 = kernelsOf<int32_t, 1>();
    static constexpr PlaneKernels f32x1 = kernelsOf<float, 1>();
    switch (format) {
        case IMAGE_FORMAT_UINT8: return &u8x1;
        case IMAGE_FORMAT_UINT88: return &u8x2;
        case IMAGE_FORMAT_HSV:
        case 30:
        case 31:
        case 32:
        case 33:
        case 34:
        case 35: return &u8x3;
        case IMAGE_FORMAT_UINT16: return &u16x1;
        case IMAGE_FORMAT_UINT1616: return &u16x2;
        case IMAGE_FORMAT_RGB161616: return &u16x3;
        case IMAGE_FORMAT_INT16: return &i16x1;
        case IMAGE_FORMAT_INT32: return &i32x1;
        case IMAGE_FORMAT_FLOAT: return &f32x1;
        default: return nullptr;
    }
}

enum class PlaneOp { kResize, kHalf, kArea };

bool hasPixels(const Image* m) {
    const int32_t planes = Image_getPlaneCount(m->format);
    for (int32_t k = 0; k < planes; ++k) {
        if (m->plane[k] == nullptr) return false;
    }
    return planes > 0;
}

// Splits both pictures into planes and runs one plane operation on each pair.
TLResult runPerPlane(const ImageStripeExec* exec, Image* dst, const Image* src, PlaneOp op) {
    PlaneViews d, s;
    TLResult r = PlaneViews_split(&s, src);
    if (r == TL_OK) r = PlaneViews_split(&d, dst);
    if (r != TL_OK) return r;
    for (int32_t k = 0; k < s.count && r == TL_OK; ++k) {
        const PlaneKernels* kernels = kernelsFor(s.plane[k].format);
        if (kernels == nullptr) return TL_ERROR_UNSUPPORTED;
        const PlaneFn fn = op == PlaneOp::kResize ? kernels->resize
                           : op == PlaneOp::kHalf ? kernels->half
                                                  : kernels->area;
        if (d.plane[k].width < 1 || d.plane[k].height < 1 || s.plane[k].width < 1 || s.plane[k].height < 1) {
            return TL_ERROR_GENERAL;
        }
        r = fn(exec, &d.plane[k], &s.plane[k]);
    }
    return r;
}

bool formatInResizeRange(uint32_t f) { return f >= 26 && f <= 69; }

}  // namespace

void ResizeTap_fill(ResizeTap* taps, int32_t dstSize, int32_t srcSize) {
    const int64_t last = srcSize - 1;
    for (int32_t x = 0; x < dstSize; ++x) {
        // (x + 0.5) * src / dst - 0.5 in Q15, truncated toward minus infinity.
        const int64_t pos = ((2 * int64_t{x} + 1) * srcSize * 32768) / (2 * int64_t{dstSize}) - 16384;
        ResizeTap t{0, 0, 0};
        if (pos > 0) {
            const int64_t i = pos >> 15;
            if (i >= last) {
                t = ResizeTap{static_cast<int32_t>(last), static_cast<int32_t>(last), 0};
            } else {
                t = ResizeTap{static_cast<int32_t>(i), static_cast<int32_t>(i + 1),
                              static_cast<int32_t>(pos & 32767)};
            }
        }
        taps[x] = t;
    }
}

bool Resize_isAboutHalf(int32_t dstWidth, int32_t dstHeight, int32_t srcWidth, int32_t srcHeight) {
    const int64_t dx = 2 * int64_t{dstWidth} - srcWidth;
    const int64_t dy = 2 * int64_t{dstHeight} - srcHeight;
    return dx >= -2 && dx <= 2 && dy >= -2 && dy <= 2;
}

TLResult Resize_resizeImage(const ImageStripeExec* exec, Image* dst, const Image* src) {
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (dst->format != src->format || !formatInResizeRange(src->format)) return TL_ERROR_UNSUPPORTED;
    if (!hasPixels(dst) || !hasPixels(src)) return TL_ERROR_PARAM;
    if (dst->width < 1 || dst->height < 1 || src->width < 1 || src->height < 1) return TL_ERROR_GENERAL;
    if (dst->width == src->width && dst->height == src->height) return Image_copy(dst, src);
    // Rows of dst would overwrite the rows still to be read.
    if (dst->plane[0] == src->plane[0]) return TL_ERROR_PARAM;
    return runPerPlane(exec, dst, src, PlaneOp::kResize);
}

TLResult Resize_averageShrink(const ImageStripeExec* exec, Image* dst, const Image* src) {
    if (dst == nullptr || src == nullptr || dst->format != src->format) return TL_ERROR_PARAM;
    if (dst->width >= src->width || dst->height >= src->height || dst->width < 1 || dst->height < 1) {
        return TL_ERROR_PARAM;
    }
    if (!hasPixels(dst) || !hasPixels(src) || dst->plane[0] == src->plane[0]) return TL_ERROR_PARAM;
    return runPerPlane(exec, dst, src, PlaneOp::kArea);
}

TLResult Resize_shrink2(const ImageStripeExec* exec, Image* dst, const Image* src) {
    if (dst == nullptr || src == nullptr || dst->format != src->format) return TL_ERROR_PARAM;
    if (!Resize_isAboutHalf(dst->width, dst->height, src->width, src->height) || dst->width < 1 ||
        dst->height < 1) {
        return TL_ERROR_PARAM;
    }
    if (!hasPixels(dst) || !hasPixels(src) || dst->plane[0] == src->plane[0]) return TL_ERROR_PARAM;
    return runPerPlane(exec, dst, src, PlaneOp::kHalf);
}

namespace {

// Clamped to 1..INT32_MAX and truncated.
int32_t scaledSide(int32_t side, double scale) {
    const double v = static_cast<double>(side) * scale;
    if (!(v >= 1.0)) return 1;
    if (v >= 2147483647.0) return INT32_MAX;
    return static_cast<int32_t>(v);
}

}  // namespace

TLResult ImageProc_getSizeFit(int32_t* outWidth, int32_t* outHeight, int32_t width, int32_t height,
                              int32_t maxWidth, int32_t maxHeight) {
    if (outWidth == nullptr || outHeight == nullptr || width < 1 || height < 1 || maxWidth < 1 ||
        maxHeight < 1) {
        return TL_ERROR_PARAM;
    }
    // Compare the aspects in integers: the width binds when
    // maxWidth / width <= maxHeight / height.
    if (int64_t{maxWidth} * height <= int64_t{maxHeight} * width) {
        *outWidth = maxWidth;
        *outHeight = static_cast<int32_t>(int64_t{height} * maxWidth / width);
    } else {
        *outHeight = maxHeight;
        *outWidth = static_cast<int32_t>(int64_t{width} * maxHeight / height);
    }
    if (*outWidth < 1) *outWidth = 1;
    if (*outHeight < 1) *outHeight = 1;
    return TL_OK;
}

TLResult ImageProc_getSizeMax(int32_t* outWidth, int32_t* outHeight, int32_t width, int32_t height,
                              int32_t maxSide) {
    return ImageProc_getSizeFit(outWidth, outHeight, width, height, maxSide, maxSide);
}

TLResult ImageProc_getSizeArea(int32_t* outWidth, int32_t* outHeight, int32_t width, int32_t height,
                               int32_t area) {
    if (outWidth == nullptr || outHeight == nullptr || width < 1 || height < 1 || area < 1)
        return TL_ERROR_PARAM;
    const double scale = RawDouble_sqrt(static_cast<double>(area) / (static_cast<double>(width) * height));
    int32_t w = scaledSide(width, scale);
    int32_t h = scaledSide(height, scale);
    // The root is not correctly rounded; step down until the area holds.
    while (int64_t{w} * h > area && (w > 1 || h > 1)) {
        if (int64_t{w} * height >= int64_t{h} * width && w > 1) {
            --w;
        } else {
            --h;
        }
    }
    *outWidth = w;
    *outHeight = h;
    return TL_OK;
}

}  // namespace vq_tl

namespace vq_tl {

TLResult ImageProc2_resizeImage(ImageProc2* self, Image* dst, const Image* src) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const ImageStripeExec exec = ImageProc2_getStripeExec(self);
    return Resize_resizeImage(&exec, dst, src);
}

TLResult ImageProc2_averageShrink(ImageProc2* self, Image* dst, const Image* src) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const ImageStripeExec exec = ImageProc2_getStripeExec(self);
    return Resize_averageShrink(&exec, dst, src);
}

TLResult ImageProc_resizeImage(ImageProc* self, Image* dst, const Image* src) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const ImageStripeExec exec = ImageProc_getStripeExec(self);
    return Resize_resizeImage(&exec, dst, src);
}

TLResult ImageProc_shrinkImage(ImageProc* self, Image* dst, const Image* src) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const ImageStripeExec exec = ImageProc_getStripeExec(self);
    return Resize_averageShrink(&exec, dst, src);
}

TLResult ImageProc_shrink2(ImageProc* self, Image* dst, const Image* src) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const ImageStripeExec exec = ImageProc_getStripeExec(self);
    return Resize_shrink2(&exec, dst, src);
}

}  // namespace vq_tl
