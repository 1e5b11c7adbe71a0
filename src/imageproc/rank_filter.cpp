#include "imageproc/rank_filter.h"

#include <array>
#include <cstring>
#include <type_traits>

#include "imageproc/plane_views.h"
#include "imageproc/rank_kernels.h"

namespace vq_tl {

namespace {

enum RankOp : int32_t {
    RANK_MAX3 = 0,
    RANK_MIN3,
    RANK_MEDIAN3,
    RANK_MEDIAN_CROSS,
    RANK_SEP_MAX3,
    RANK_SEP_MIN3,
    RANK_SEP_MAX5,
};

enum ElementType : uint8_t { ELEM_NONE = 0, ELEM_U8, ELEM_U16, ELEM_I16, ELEM_I32, ELEM_F32 };

struct Layout {
    uint8_t type;
    uint8_t channels;
};

// The element layout of a single-plane format, by format code.
constexpr std::array<Layout, kImageFormatCount> makeLayouts() {
    std::array<Layout, kImageFormatCount> t{};
    for (uint32_t f = 2; f <= 3; ++f) t[f] = Layout{ELEM_U8, 3};
    for (uint32_t f = 4; f <= 15; ++f) t[f] = Layout{ELEM_U8, 4};
    for (uint32_t f = 30; f <= 35; ++f) t[f] = Layout{ELEM_U8, 3};
    t[IMAGE_FORMAT_UINT8] = Layout{ELEM_U8, 1};
    t[IMAGE_FORMAT_INT32] = Layout{ELEM_I32, 1};
    t[IMAGE_FORMAT_HSV] = Layout{ELEM_U8, 3};
    t[IMAGE_FORMAT_UINT16] = Layout{ELEM_U16, 1};
    t[IMAGE_FORMAT_FLOAT] = Layout{ELEM_F32, 1};
    t[IMAGE_FORMAT_UINT88] = Layout{ELEM_U8, 2};
    t[IMAGE_FORMAT_INT16] = Layout{ELEM_I16, 1};
    t[IMAGE_FORMAT_UINT1616] = Layout{ELEM_U16, 2};
    return t;
}
constexpr std::array<Layout, kImageFormatCount> kLayouts = makeLayouts();

Layout layoutOf(uint32_t format) { return format < kImageFormatCount ? kLayouts[format] : Layout{}; }

int32_t elementBytes(uint8_t type) {
    switch (type) {
        case ELEM_U8: return 1;
        case ELEM_U16:
        case ELEM_I16: return 2;
        case ELEM_I32:
        case ELEM_F32: return 4;
        default: return 0;
    }
}

bool isMultiPlane(uint32_t f) { return (f >= 26 && f <= 29) || (f >= 36 && f <= 38); }

// Rows of a plane kept per stripe by the direct kernels: two copies of source
// rows for in-place work, then three rows of column results.
constexpr int32_t kRingRows = 2;
constexpr int32_t kColumnRows = 3;
constexpr int32_t kWorkRows = kRingRows + kColumnRows;
// In place, the row above and the row below each stripe are saved first,
// since a neighbouring stripe may overwrite them.
constexpr int32_t kHaloRows = 2;

using RowsFn = void (*)(int32_t rows, int32_t index, int32_t count, int32_t* first, int32_t* last);

// Where the stripes of one call run and how rows are shared out.
struct RankExec {
    ImageStripeExec exec;
    RowsFn rows;
    int32_t count;
    Env* env;
};

template <typename T>
inline T maxOf(T a, T b) {
    return a < b ? b : a;
}
template <typename T>
inline T minOf(T a, T b) {
    return b < a ? b : a;
}
template <typename T>
inline T median3(T a, T b, T c) {
    return maxOf(minOf(a, b), minOf(maxOf(a, b), c));
}

struct MaxOp {
    template <typename T>
    static T apply(T a, T b) {
        return maxOf(a, b);
    }
};
struct MinOp {
    template <typename T>
    static T apply(T a, T b) {
        return minOf(a, b);
    }
};

// Median of the n (1 to 9) samples, the lower middle one for an even n.
template <typename T>
T medianOfFew(T* v, int32_t n) {
    for (int32_t i = 1; i < n; ++i) {
        const T x = v[i];
        int32_t j = i;
        for (; j > 0 && x < v[j - 1]; --j) v[j] = v[j - 1];
        v[j] = x;
    }
    return v[(n - 1) / 2];
}

// The median of the part of a window inside the image, for border pixels.
// rows[0..2] are the rows above, at and below (null outside the image);
// cross: only the centre column of the outer rows and the centre row.
template <typename T, int C>
T borderMedian(const T* const rows[3], int32_t x, int32_t width, int32_t ch, bool cross) {
    T v[9];
    int32_t n = 0;
    for (int32_t r = 0; r < 3; ++r) {
        if (rows[r] == nullptr) continue;
        for (int32_t dx = -1; dx <= 1; ++dx) {
            if (cross && r != 1 && dx != 0) continue;
            const int32_t xx = x + dx;
            if (xx < 0 || xx >= width) continue;
            v[n++] = rows[r][xx * C + ch];
        }
    }
    return medianOfFew(v, n);
}

// Max or min over 3 by 3: fold the three rows per column into `col`, then
// three neighbouring columns; a column result serves three outputs.
template <typename T, int C, typename Op>
void foldRow3x3(T* d, const T* above, const T* at, const T* below, int32_t width, T* col) {
    const T* a = above != nullptr ? above : at;
    const T* b = below != nullptr ? below : at;
    const int32_t n = width * C;
    for (int32_t i = 0; i < n; ++i) col[i] = Op::apply(Op::apply(a[i], at[i]), b[i]);
    if (width == 1) {
        for (int32_t i = 0; i < n; ++i) d[i] = col[i];
        return;
    }
    for (int32_t ch = 0; ch < C; ++ch) {
        d[ch] = Op::apply(col[ch], col[C + ch]);
        d[n - C + ch] = Op::apply(col[n - C + ch], col[n - 2 * C + ch]);
    }
    for (int32_t i = C; i < n - C; ++i) d[i] = Op::apply(Op::apply(col[i - C], col[i]), col[i + C]);
}

// Median of nine by the exchange network on sorted columns: with every column
// sorted into low, middle and high, the median is the median of the largest
// low, the median middle and the smallest high.
template <typename T, int C>
void medianRow3x3(T* d, const T* above, const T* at, const T* below, int32_t width, T* lo, T* mid, T* hi) {
    const T* const rows[3] = {above, at, below};
    const int32_t n = width * C;
    if (above == nullptr || below == nullptr || width < 3) {
        for (int32_t x = 0; x < width; ++x) {
            for (int32_t ch = 0; ch < C; ++ch) d[x * C + ch] = borderMedian<T, C>(rows, x, width, ch, false);
        }
        return;
    }
    if constexpr (std::is_same_v<T, uint8_t>) {
        // Byte planes (the matcher's maps among them) through the row kernel.
        RankKernels_get()->median3x3U8(d, above, at, below, C, C, n - C);
        for (int32_t ch = 0; ch < C; ++ch) {
            d[ch] = borderMedian<T, C>(rows, 0, width, ch, false);
            d[n - C + ch] = borderMedian<T, C>(rows, width - 1, width, ch, false);
        }
        return;
    }
    for (int32_t i = 0; i < n; ++i) {
        const T a = above[i], b = at[i], c = below[i];
        const T l = minOf(a, b), h = maxOf(a, b);
        lo[i] = minOf(l, c);
        hi[i] = maxOf(h, c);
        mid[i] = maxOf(l, minOf(h, c));
    }
    for (int32_t i = C; i < n - C; ++i) {
        const T l = maxOf(maxOf(lo[i - C], lo[i]), lo[i + C]);
        const T m = median3(mid[i - C], mid[i], mid[i + C]);
        const T h = minOf(minOf(hi[i - C], hi[i]), hi[i + C]);
        d[i] = median3(l, m, h);
    }
    for (int32_t ch = 0; ch < C; ++ch) {
        d[ch] = borderMedian<T, C>(rows, 0, width, ch, false);
        d[n - C + ch] = borderMedian<T, C>(rows, width - 1, width, ch, false);
    }
}

// Sorting network of five: nine exchanges, the median ends in the middle.
template <typename T>
inline void exchange(T& a, T& b) {
    const T l = minOf(a, b);
    b = maxOf(a, b);
    a = l;
}
template <typename T>
inline T median5(T v0, T v1, T v2, T v3, T v4) {
    exchange(v0, v1);
    exchange(v3, v4);
    exchange(v2, v4);
    exchange(v2, v3);
    exchange(v0, v3);
    exchange(v0, v2);
    exchange(v1, v4);
    exchange(v1, v3);
    exchange(v1, v2);
    return v2;
}

template <typename T, int C>
void medianRowCross(T* d, const T* above, const T* at, const T* below, int32_t width) {
    const T* const rows[3] = {above, at, below};
    const int32_t n = width * C;
    if (above == nullptr || below == nullptr || width < 3) {
        for (int32_t x = 0; x < width; ++x) {
            for (int32_t ch = 0; ch < C; ++ch) d[x * C + ch] = borderMedian<T, C>(rows, x, width, ch, true);
        }
        return;
    }
    for (int32_t i = C; i < n - C; ++i) d[i] = median5(above[i], at[i - C], at[i], at[i + C], below[i]);
    for (int32_t ch = 0; ch < C; ++ch) {
        d[ch] = borderMedian<T, C>(rows, 0, width, ch, true);
        d[n - C + ch] = borderMedian<T, C>(rows, width - 1, width, ch, true);
    }
}

struct PlaneJob {
    uint8_t* dst;
    const uint8_t* src;
    int32_t dstPitch, srcPitch;
    int32_t width, height;
    int32_t rowBytes;
    int32_t op;
    int32_t radius;     // separable passes
    bool inPlace;       // direct kernels: dst is src
    uint8_t* work;      // direct: kWorkRows rows per stripe; separable: the intermediate picture
    int32_t workPitch;  // separable intermediate
    uint8_t* halo;      // in place: kHaloRows rows per stripe
    RowsFn rows;
};

template <typename T, int C>
TLResult directStripe(void* arg, int32_t index, int32_t count) {
    const PlaneJob& j = *static_cast<const PlaneJob*>(arg);
    int32_t first, last;
    j.rows(j.height, index, count, &first, &last);
    if (first >= last) return TL_OK;
    const size_t rb = static_cast<size_t>(j.rowBytes);
    uint8_t* work = j.work + static_cast<size_t>(index) * kWorkRows * rb;
    const uint8_t* haloTop = j.inPlace ? j.halo + static_cast<size_t>(index) * kHaloRows * rb : nullptr;
    const uint8_t* haloBottom = haloTop != nullptr ? haloTop + rb : nullptr;
    T* col0 = reinterpret_cast<T*>(work + kRingRows * rb);
    T* col1 = reinterpret_cast<T*>(work + (kRingRows + 1) * rb);
    T* col2 = reinterpret_cast<T*>(work + (kRingRows + 2) * rb);
    auto srcRow = [&](int32_t y) { return j.src + static_cast<intptr_t>(j.srcPitch) * y; };
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* above = y > 0 ? srcRow(y - 1) : nullptr;
        const uint8_t* at = srcRow(y);
        const uint8_t* below = y + 1 < j.height ? srcRow(y + 1) : nullptr;
        if (j.inPlace) {
            // Row y is about to be overwritten: work from a copy of it. The
            // row above is the copy made one step earlier, or the saved halo;
            // the row below is still untouched unless it is the next stripe's.
            uint8_t* copy = work + static_cast<size_t>(y & 1) * rb;
            std::memcpy(copy, at, rb);
            at = copy;
            if (above != nullptr) above = y == first ? haloTop : work + static_cast<size_t>((y - 1) & 1) * rb;
            if (below != nullptr && y + 1 == last) below = haloBottom;
        }
        T* d = reinterpret_cast<T*>(j.dst + static_cast<intptr_t>(j.dstPitch) * y);
        const T* a = reinterpret_cast<const T*>(above);
        const T* m = reinterpret_cast<const T*>(at);
        const T* b = reinterpret_cast<const T*>(below);
        switch (j.op) {
            case RANK_MAX3: foldRow3x3<T, C, MaxOp>(d, a, m, b, j.width, col0); break;
            case RANK_MIN3: foldRow3x3<T, C, MinOp>(d, a, m, b, j.width, col0); break;
            case RANK_MEDIAN3: medianRow3x3<T, C>(d, a, m, b, j.width, col0, col1, col2); break;
            default: medianRowCross<T, C>(d, a, m, b, j.width); break;
        }
    }
    return TL_OK;
}

// Row pass of the separable kernels: source row into the intermediate.
template <typename T, int C, typename Op>
void rowPass(T* d, const T* s, int32_t width, int32_t radius) {
    for (int32_t x = 0; x < width; ++x) {
        const int32_t x0 = x - radius < 0 ? 0 : x - radius;
        const int32_t x1 = x + radius >= width ? width - 1 : x + radius;
        for (int32_t ch = 0; ch < C; ++ch) {
            T acc = s[x0 * C + ch];
            for (int32_t xx = x0 + 1; xx <= x1; ++xx) acc = Op::apply(acc, s[xx * C + ch]);
            d[x * C + ch] = acc;
        }
    }
}

template <typename T, int C>
TLResult rowPassStripe(void* arg, int32_t index, int32_t count) {
    const PlaneJob& j = *static_cast<const PlaneJob*>(arg);
    int32_t first, last;
    j.rows(j.height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const T* s = reinterpret_cast<const T*>(j.src + static_cast<intptr_t>(j.srcPitch) * y);
        T* d = reinterpret_cast<T*>(j.work + static_cast<intptr_t>(j.workPitch) * y);
        if (j.op == RANK_SEP_MIN3) {
            rowPass<T, C, MinOp>(d, s, j.width, j.radius);
        } else {
            rowPass<T, C, MaxOp>(d, s, j.width, j.radius);
        }
    }
    return TL_OK;
}

template <typename T, typename Op>
void columnPass(T* d, const uint8_t* work, int32_t workPitch, int32_t y0, int32_t y1, int32_t n) {
    const T* s = reinterpret_cast<const T*>(work + static_cast<intptr_t>(workPitch) * y0);
    for (int32_t i = 0; i < n; ++i) d[i] = s[i];
    for (int32_t y = y0 + 1; y <= y1; ++y) {
        s = reinterpret_cast<const T*>(work + static_cast<intptr_t>(workPitch) * y);
        for (int32_t i = 0; i < n; ++i) d[i] = Op::apply(d[i], s[i]);
    }
}

template <typename T, int C>
TLResult columnPassStripe(void* arg, int32_t index, int32_t count) {
    const PlaneJob& j = *static_cast<const PlaneJob*>(arg);
    int32_t first, last;
    j.rows(j.height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const int32_t y0 = y - j.radius < 0 ? 0 : y - j.radius;
        const int32_t y1 = y + j.radius >= j.height ? j.height - 1 : y + j.radius;
        T* d = reinterpret_cast<T*>(j.dst + static_cast<intptr_t>(j.dstPitch) * y);
        if (j.op == RANK_SEP_MIN3) {
            columnPass<T, MinOp>(d, j.work, j.workPitch, y0, y1, j.width * C);
        } else {
            columnPass<T, MaxOp>(d, j.work, j.workPitch, y0, y1, j.width * C);
        }
    }
    return TL_OK;
}

struct KernelSet {
    ImageStripeFn direct;
    ImageStripeFn rowPass;
    ImageStripeFn columnPass;
};

template <typename T, int C>
constexpr KernelSet kernelsFor() {
    return KernelSet{directStripe<T, C>, rowPassStripe<T, C>, columnPassStripe<T, C>};
}

const KernelSet* kernelSet(Layout l) {
    static constexpr KernelSet kU8[4] = {kernelsFor<uint8_t, 1>(), kernelsFor<uint8_t, 2>(),
                                         kernelsFor<uint8_t, 3>(), kernelsFor<uint8_t, 4>()};
    static constexpr KernelSet kU16[2] = {kernelsFor<uint16_t, 1>(), kernelsFor<uint16_t, 2>()};
    static constexpr KernelSet kI16 = kernelsFor<int16_t, 1>();
    static constexpr KernelSet kI32 = kernelsFor<int32_t, 1>();
    static constexpr KernelSet kF32 = kernelsFor<float, 1>();
    switch (l.type) {
        case ELEM_U8: return l.channels >= 1 && l.channels <= 4 ? &kU8[l.channels - 1] : nullptr;
        case ELEM_U16: return l.channels >= 1 && l.channels <= 2 ? &kU16[l.channels - 1] : nullptr;
        case ELEM_I16: return &kI16;
        case ELEM_I32: return &kI32;
        case ELEM_F32: return &kF32;
        default: return nullptr;
    }
}

// Byte range of a plane view.
struct Span {
    const uint8_t* begin;
    const uint8_t* end;
};
Span spanOf(const Image& v, int32_t rowBytes) {
    const uint8_t* b = v.plane[0];
    return Span{b, b + static_cast<intptr_t>(v.pitch[0]) * (v.height - 1) + rowBytes};
}

// A work block of `bytes` from the environment's allocator, as an image so
// that it is released like every other work image.
TLResult makeWork(Image* work, Env* env, int64_t rowBytes, int64_t rows) {
    construct_Image(work, env);
    if (rowBytes * rows > INT32_MAX) return TL_ERROR_MEMORY;
    return Image_init(work, static_cast<int32_t>(rowBytes), static_cast<int32_t>(rows), nullptr,
                      IMAGE_FORMAT_UINT8);
}

TLResult filterPlane(const RankExec& ex, int32_t op, Image* dst, const Image* src, const KernelSet* k,
                     int32_t rowBytes, bool inPlace) {
    PlaneJob j;
    std::memset(&j, 0, sizeof j);
    j.dst = dst->plane[0];
    j.src = src->plane[0];
    j.dstPitch = dst->pitch[0];
    j.srcPitch = src->pitch[0];
    j.width = src->width;
    j.height = src->height;
    j.rowBytes = rowBytes;
    j.op = op;
    j.rows = ex.rows;
    Image work;
    TLResult r;
    if (op >= RANK_SEP_MAX3) {
        // The intermediate holds whole rows, so the column pass may write
        // over the source: in place needs nothing more.
        j.radius = op == RANK_SEP_MAX5 ? 2 : 1;
        r = makeWork(&work, ex.env, rowBytes, src->height);
        if (r == TL_OK) {
            j.work = work.plane[0];
            j.workPitch = work.pitch[0];
            r = ImageStripeExec_run(&ex.exec, k->rowPass, &j, ex.count);
            if (r == TL_OK) r = ImageStripeExec_run(&ex.exec, k->columnPass, &j, ex.count);
        }
    } else {
        const int64_t perStripe = kWorkRows + (inPlace ? kHaloRows : 0);
        r = makeWork(&work, ex.env, rowBytes, perStripe * ex.count);
        if (r == TL_OK) {
            j.work = work.plane[0];
            j.inPlace = inPlace;
            if (inPlace) {
                j.halo = j.work + static_cast<size_t>(kWorkRows) * ex.count * rowBytes;
                for (int32_t i = 0; i < ex.count; ++i) {
                    int32_t first, last;
                    ex.rows(j.height, i, ex.count, &first, &last);
                    if (first >= last) continue;
                    uint8_t* h = j.halo + static_cast<size_t>(i) * kHaloRows * rowBytes;
                    if (first > 0)
                        std::memcpy(h, j.src + static_cast<intptr_t>(j.srcPitch) * (first - 1), rowBytes);
                    if (last < j.height)
                        std::memcpy(h + rowBytes, j.src + static_cast<intptr_t>(j.srcPitch) * last, rowBytes);
                }
            }
            r = ImageStripeExec_run(&ex.exec, k->direct, &j, ex.count);
        }
    }
    destruct_Image(&work);
    return r;
}

TLResult runRank(const RankExec& ex, int32_t op, Image* dst, const Image* src, uint32_t planeMask) {
    if (dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (dst->width != src->width || dst->height != src->height || dst->format != src->format)
        return TL_ERROR_PARAM;
    if (src->plane[0] == nullptr || dst->plane[0] == nullptr || src->width < 1 || src->height < 1)
        return TL_ERROR_PARAM;
    const uint32_t f = src->format;
    if (!isMultiPlane(f) && kernelSet(layoutOf(f)) == nullptr) return TL_ERROR_UNSUPPORTED;
    PlaneViews sv, dv;
    TLResult r = PlaneViews_split(&sv, src);
    if (r == TL_OK) r = PlaneViews_split(&dv, dst);
    if (r != TL_OK) return r;
    if (planeMask == 0) planeMask = ~0u;

    // Everything is checked before the first row is written.
    const KernelSet* sets[3] = {nullptr, nullptr, nullptr};
    int32_t rowBytes[3] = {0, 0, 0};
    bool inPlace[3] = {false, false, false};
    for (int32_t k = 0; k < sv.count; ++k) {
        const Image& s = sv.plane[k];
        const Image& d = dv.plane[k];
        const Layout l = layoutOf(s.format);
        sets[k] = kernelSet(l);
        if (sets[k] == nullptr) return TL_ERROR_UNSUPPORTED;
        rowBytes[k] = s.width * l.channels * elementBytes(l.type);
        const Span a = spanOf(s, rowBytes[k]), b = spanOf(d, rowBytes[k]);
        if (a.begin < b.end && b.begin < a.end) {
            if (s.plane[0] != d.plane[0] || s.pitch[0] != d.pitch[0]) return TL_ERROR_PARAM;
            inPlace[k] = true;
        }
    }
    for (int32_t k = 0; k < sv.count && r == TL_OK; ++k) {
        if ((planeMask >> k & 1u) != 0) {
            r = filterPlane(ex, op, &dv.plane[k], &sv.plane[k], sets[k], rowBytes[k], inPlace[k]);
        } else if (!inPlace[k]) {
            for (int32_t y = 0; y < sv.plane[k].height; ++y) {
                std::memcpy(dv.plane[k].plane[0] + static_cast<intptr_t>(dv.plane[k].pitch[0]) * y,
                            sv.plane[k].plane[0] + static_cast<intptr_t>(sv.plane[k].pitch[0]) * y,
                            rowBytes[k]);
            }
        }
    }
    return r;
}

RankExec execOf(const ImageProc* self) {
    RankExec ex;
    ex.exec = ImageProc_getStripeExec(self);
    ex.rows = ImageStripe_rowsEven;
    ex.count = ImageStripe_getExecutorCount(self->parallelExecutor);
    ex.env = self->env;
    return ex;
}

RankExec execOf(const ImageProc2* self) {
    RankExec ex;
    ex.exec = ImageProc2_getStripeExec(self);
    ex.rows = ImageStripe_rows;
    ex.count = kImageStripeDefaultCount;
    ex.env = self->env;
    return ex;
}

template <typename Self>
TLResult run(Self* self, int32_t op, Image* dst, const Image* src, uint32_t planeMask) {
    if (self == nullptr) return TL_ERROR_PARAM;
    return runRank(execOf(self), op, dst, src, planeMask);
}

// The bytes of the widest plane row of a picture; false without a kernel.
bool planeGeometry(int32_t width, uint32_t format, int64_t* rowBytes) {
    if (isMultiPlane(format)) {
        // The luma row is as wide as any chroma row: 1 byte per pixel, 2 in
        // the 10-bit forms.
        *rowBytes = int64_t{width} * (format == 37 || format == 38 ? 2 : 1);
        return true;
    }
    const Layout l = layoutOf(format);
    if (kernelSet(l) == nullptr) return false;
    *rowBytes = int64_t{width} * l.channels * elementBytes(l.type);
    return true;
}

}  // namespace

void RankFilter_median3x3RowU8(uint8_t* d, const uint8_t* above, const uint8_t* at, const uint8_t* below,
                               int32_t width) {
    // The byte rows take the row kernel, which needs no column scratch.
    medianRow3x3<uint8_t, 1>(d, above, at, below, width, nullptr, nullptr, nullptr);
}

int32_t ImageProc_filterRank_getBufferSize(int32_t width, int32_t height, uint32_t format) {
    if (width < 1 || height < 1) return -1;
    int64_t rowBytes;
    if (!planeGeometry(width, format, &rowBytes)) return 0;
    const int32_t size = Image_getSize(width, height, format, IMAGE_SIZE_TOTAL);
    return size > 0 ? size : -1;
}

int32_t ImageProc2_getBufferSizeForFilter3x3(int32_t width, int32_t height, uint32_t format) {
    if (width < 1 || height < 1) return -1;
    int64_t rowBytes;
    if (!planeGeometry(width, format, &rowBytes)) return -1;
    const int64_t total = rowBytes * (kWorkRows + kHaloRows) * kImageStripeDefaultCount;
    return total > INT32_MAX ? -1 : static_cast<int32_t>(total);
}

TLResult ImageProc_filterMax3x3(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask) {
    return run(self, RANK_MAX3, dst, src, planeMask);
}
TLResult ImageProc_filterMin3x3(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask) {
    return run(self, RANK_MIN3, dst, src, planeMask);
}
TLResult ImageProc2_filterMax3x3(ImageProc2* self, Image* dst, const Image* src, uint32_t planeMask) {
    return run(self, RANK_MAX3, dst, src, planeMask);
}
TLResult ImageProc2_filterMin3x3(ImageProc2* self, Image* dst, const Image* src, uint32_t planeMask) {
    return run(self, RANK_MIN3, dst, src, planeMask);
}
TLResult ImageProc_filterMedian3x3(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask) {
    return run(self, RANK_MEDIAN3, dst, src, planeMask);
}
TLResult ImageProc_filterMedianCross(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask) {
    return run(self, RANK_MEDIAN_CROSS, dst, src, planeMask);
}
TLResult ImageProc_filterRankMax3x3(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask) {
    return run(self, RANK_SEP_MAX3, dst, src, planeMask);
}
TLResult ImageProc_filterRankMin3x3(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask) {
    return run(self, RANK_SEP_MIN3, dst, src, planeMask);
}
TLResult ImageProc_filterRankMax5x5(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask) {
    return run(self, RANK_SEP_MAX5, dst, src, planeMask);
}

}  // namespace vq_tl
