#include "imageproc/pixel_ops.h"

#include <cmath>
#include <limits>
#include <type_traits>

#include "image/image_conv.h"

namespace vq_tl {

namespace {

// ---- Element types and their arithmetic ---------------------------------------

enum class Elem { kNone, kU8, kU16, kI16, kI32, kF32 };

Elem elemOf(uint32_t f) {
    if ((f >= IMAGE_FORMAT_RGB888 && f <= IMAGE_FORMAT_YUV444_PLANAR) || Image_isBayer8(f) ||
        f == IMAGE_FORMAT_UINT8 || f == IMAGE_FORMAT_HSV || f == IMAGE_FORMAT_UINT88 ||
        f == IMAGE_FORMAT_YUV9_44_UV || f == IMAGE_FORMAT_YUV9_44_VU) {
        return Elem::kU8;
    }
    if (Image_isYuv10b420Semiplanar(f) || Image_isBayer10Unpacked(f) || Image_isBayer12Unpacked(f) ||
        Image_isBayer16(f) || f == IMAGE_FORMAT_UINT16 || f == IMAGE_FORMAT_RGB161616 ||
        f == IMAGE_FORMAT_UINT1616) {
        return Elem::kU16;
    }
    switch (f) {
        case IMAGE_FORMAT_INT16: return Elem::kI16;
        case IMAGE_FORMAT_INT32: return Elem::kI32;
        case IMAGE_FORMAT_FLOAT: return Elem::kF32;
        default: return Elem::kNone;
    }
}

template <typename T>
constexpr bool kIsFloat = std::is_floating_point_v<T>;

// Integer elements compute in 64 bits, where every result of two 32-bit
// operands (a product, or dst + a * b) is exact before it saturates.
template <typename T>
using Wide = std::conditional_t<kIsFloat<T>, float, int64_t>;

template <typename T>
T saturate(int64_t v) {
    constexpr int64_t lo = std::numeric_limits<T>::min(), hi = std::numeric_limits<T>::max();
    return static_cast<T>(v < lo ? lo : (v > hi ? hi : v));
}

// Nearest integer, halves away from zero, saturated; v is not NaN.
template <typename T>
T saturateReal(double v) {
    constexpr double lo = std::numeric_limits<T>::min(), hi = std::numeric_limits<T>::max();
    if (v <= lo) return std::numeric_limits<T>::min();
    if (v >= hi) return std::numeric_limits<T>::max();
    return static_cast<T>(std::round(v));
}

// The operations of every shape; the stripe kernels are instantiated per
// element type and operation.
enum class Op {
    kAdd,
    kSub,
    kMul,
    kDiv,
    kAbsSub,
    kMax,
    kMin,
    kMla,
    kAbs,
    kNAdd,
    kNSub,
    kNSubr,
    kNMul,
    kNMax,
    kNMin,
    kNShift,
    kNarrow,
    kTable
};

template <typename T>
T maxOf(T a, T b) {
    if constexpr (kIsFloat<T>) {
        return a > b || b != b ? a : b;
    } else {
        return a > b ? a : b;
    }
}

template <typename T>
T minOf(T a, T b) {
    if constexpr (kIsFloat<T>) {
        return a < b || b != b ? a : b;
    } else {
        return a < b ? a : b;
    }
}

// The result of a two-operand operation; mla also reads d.
template <typename T, Op O>
T binaryOp(T d, T a, T b) {
    using W = Wide<T>;
    const W x = a, y = b;
    if constexpr (O == Op::kMax) return maxOf(a, b);
    if constexpr (O == Op::kMin) return minOf(a, b);
    if constexpr (kIsFloat<T>) {
        if constexpr (O == Op::kAdd) return x + y;
        if constexpr (O == Op::kSub) return x - y;
        if constexpr (O == Op::kMul) return x * y;
        if constexpr (O == Op::kDiv) return x / y;
        if constexpr (O == Op::kAbsSub) return std::fabs(x - y);
        if constexpr (O == Op::kMla) return d + x * y;
    } else {
        if constexpr (O == Op::kAdd) return saturate<T>(x + y);
        if constexpr (O == Op::kSub) return saturate<T>(x - y);
        if constexpr (O == Op::kMul) return saturate<T>(x * y);
        if constexpr (O == Op::kDiv) return y == 0 ? T{0} : saturate<T>(x / y);
        if constexpr (O == Op::kAbsSub) return saturate<T>(x > y ? x - y : y - x);
        if constexpr (O == Op::kMla) return saturate<T>(W{d} + x * y);
    }
    return T{};
}

// The scalar of the one-operand shape, in every form its operations take.
struct Scalar {
    int64_t i;      // rounded, limited to +-2^40: beyond that every result saturates alike
    double d;       // as given, for integer products
    float f;        // for float images
    int32_t shift;  // bits, left when positive
    const uint8_t* table;
    int32_t tableLast;  // index of the table's last entry
};

template <typename T, Op O>
T scalarOp(T a, const Scalar& n) {
    using W = Wide<T>;
    const W x = a;
    if constexpr (O == Op::kAbs) {
        if constexpr (kIsFloat<T>) {
            return std::fabs(a);
        } else {
            return saturate<T>(x < 0 ? -x : x);
        }
    }
    if constexpr (kIsFloat<T>) {
        if constexpr (O == Op::kNAdd) return x + n.f;
        if constexpr (O == Op::kNSub) return x - n.f;
        if constexpr (O == Op::kNSubr) return n.f - x;
        if constexpr (O == Op::kNMul) return x * n.f;
        if constexpr (O == Op::kNMax) return maxOf(a, n.f);
        if constexpr (O == Op::kNMin) return minOf(a, n.f);
        if constexpr (O == Op::kNShift) return std::ldexp(a, n.shift);
    } else {
        if constexpr (O == Op::kNAdd) return saturate<T>(x + n.i);
        if constexpr (O == Op::kNSub) return saturate<T>(x - n.i);
        if constexpr (O == Op::kNSubr) return saturate<T>(n.i - x);
        if constexpr (O == Op::kNMul) return saturateReal<T>(static_cast<double>(a) * n.d);
        if constexpr (O == Op::kNMax) return saturate<T>(x > n.i ? x : n.i);
        if constexpr (O == Op::kNMin) return saturate<T>(x < n.i ? x : n.i);
        if constexpr (O == Op::kNShift) {
            // A 32-bit value shifted by 32 already saturates; by 63 it is 0 or -1.
            if (n.shift >= 0) return saturate<T>(x * (int64_t{1} << (n.shift < 32 ? n.shift : 32)));
            return saturate<T>(x >> (-n.shift < 63 ? -n.shift : 63));
        }
    }
    return T{};
}

// The one-operand shape, whose source and destination types may differ.
template <typename S, typename D, Op O>
D unaryOp(S a, const Scalar& n) {
    if constexpr (O == Op::kTable) {
        return n.table[a < n.tableLast ? a : n.tableLast];
    } else if constexpr (O == Op::kNarrow && kIsFloat<S>) {
        // NaN and everything at or below 0 give 0; halves round away from zero.
        if (!(a > 0)) return 0;
        return a >= 255 ? D{255} : static_cast<D>(std::round(a));
    } else if constexpr (O == Op::kNarrow) {
        return saturate<D>(a);
    } else {
        return scalarOp<S, O>(a, n);
    }
}

// ---- Rows and stripes -----------------------------------------------------

// One plane of each image: the first byte, the pitch, and the rows and
// elements per row that the pixels occupy (as Image_copy measures them).
struct PlaneRows {
    uint8_t* d;
    const uint8_t* a;
    const uint8_t* b;
    intptr_t dPitch, aPitch, bPitch;
    int32_t rows;
    int32_t elements;
};

struct Job {
    PlaneRows plane[3];
    int32_t planes;
    Scalar n;
};

template <typename T>
T* rowOf(uint8_t* base, intptr_t pitch, int32_t y) {
    return reinterpret_cast<T*>(base + pitch * y);
}
template <typename T>
const T* rowOf(const uint8_t* base, intptr_t pitch, int32_t y) {
    return reinterpret_cast<const T*>(base + pitch * y);
}

// Runs body(plane, row) over this stripe's share of the rows of every plane.
template <typename Body>
void forStripeRows(const Job& job, int32_t index, int32_t count, Body body) {
    for (int32_t k = 0; k < job.planes; ++k) {
        int32_t first, last;
        ImageStripe_rowsEven(job.plane[k].rows, index, count, &first, &last);
        for (int32_t y = first; y < last; ++y) body(job.plane[k], y);
    }
}

template <typename T, Op O>
TLResult binaryStripe(void* arg, int32_t index, int32_t count) {
    forStripeRows(*static_cast<const Job*>(arg), index, count, [](const PlaneRows& p, int32_t y) {
        T* d = rowOf<T>(p.d, p.dPitch, y);
        const T* a = rowOf<T>(p.a, p.aPitch, y);
        const T* b = rowOf<T>(p.b, p.bPitch, y);
        for (int32_t i = 0; i < p.elements; ++i) d[i] = binaryOp<T, O>(T{}, a[i], b[i]);
    });
    return TL_OK;
}

template <typename T, Op O>
TLResult ternaryStripe(void* arg, int32_t index, int32_t count) {
    forStripeRows(*static_cast<const Job*>(arg), index, count, [](const PlaneRows& p, int32_t y) {
        T* d = rowOf<T>(p.d, p.dPitch, y);
        const T* a = rowOf<T>(p.a, p.aPitch, y);
        const T* b = rowOf<T>(p.b, p.bPitch, y);
        for (int32_t i = 0; i < p.elements; ++i) d[i] = binaryOp<T, O>(d[i], a[i], b[i]);
    });
    return TL_OK;
}

template <typename S, typename D, Op O>
TLResult unaryStripe(void* arg, int32_t index, int32_t count) {
    const Job& job = *static_cast<const Job*>(arg);
    const Scalar n = job.n;
    forStripeRows(job, index, count, [&n](const PlaneRows& p, int32_t y) {
        D* d = rowOf<D>(p.d, p.dPitch, y);
        const S* a = rowOf<S>(p.a, p.aPitch, y);
        for (int32_t i = 0; i < p.elements; ++i) d[i] = unaryOp<S, D, O>(a[i], n);
    });
    return TL_OK;
}

// Stripe functions by element type, in the order of Elem from kU8.
template <template <typename, Op> class K, Op O>
constexpr ImageStripeFn kByElem[5] = {K<uint8_t, O>::fn, K<uint16_t, O>::fn, K<int16_t, O>::fn,
                                      K<int32_t, O>::fn, K<float, O>::fn};

template <typename T, Op O>
struct Binary {
    static constexpr ImageStripeFn fn = binaryStripe<T, O>;
};
template <typename T, Op O>
struct Ternary {
    static constexpr ImageStripeFn fn = ternaryStripe<T, O>;
};
template <typename T, Op O>
struct Unary {
    static constexpr ImageStripeFn fn = unaryStripe<T, T, O>;
};

size_t elemSize(Elem e) {
    switch (e) {
        case Elem::kU8: return 1;
        case Elem::kU16:
        case Elem::kI16: return 2;
        default: return 4;
    }
}

// ---- Arguments ----------------------------------------------------------------

bool hasPixels(const Image* m) {
    if (m == nullptr || m->width < 1 || m->height < 1) return false;
    const int32_t planes = Image_getPlaneCount(m->format);
    for (int32_t k = 0; k < planes; ++k) {
        if (m->plane[k] == nullptr) return false;
    }
    return planes > 0;
}

bool sameShape(const Image* x, const Image* y) {
    return x->format == y->format && x->width == y->width && x->height == y->height;
}

// Geometry of dst's planes in elements of `size` bytes, with the sources'
// plane addresses and pitches; b may be null.
void describe(Job* job, Image* dst, const Image* a, const Image* b, size_t size) {
    const ImageFormatDesc* fd = Image_getFormatDesc(dst->format);
    const uint8_t bytes[3] = {fd->p0Bytes, fd->p1Bytes, fd->p2Bytes};
    const uint8_t pixels[3] = {fd->p0Pixels, fd->p1Pixels, fd->p2Pixels};
    const uint8_t rowsNum[3] = {fd->p0RowsNum, fd->p1RowsNum, fd->p2RowsNum};
    const uint8_t rowsShift[3] = {fd->p0RowsShift, fd->p1RowsShift, fd->p2RowsShift};
    job->planes = Image_getPlaneCount(dst->format);
    for (int32_t k = 0; k < job->planes; ++k) {
        PlaneRows& p = job->plane[k];
        p.d = dst->plane[k];
        p.dPitch = dst->pitch[k];
        p.a = a->plane[k];
        p.aPitch = a->pitch[k];
        p.b = b != nullptr ? b->plane[k] : nullptr;
        p.bPitch = b != nullptr ? b->pitch[k] : 0;
        const int32_t rowBytes = (dst->width + pixels[k] - 1) / pixels[k] * bytes[k];
        p.elements = static_cast<int32_t>(static_cast<size_t>(rowBytes) / size);
        p.rows = ((dst->height - 1 + (1 << rowsShift[k])) >> rowsShift[k]) * rowsNum[k];
    }
}

// One stripe per worker of the layer, no more stripes than rows.
TLResult runRows(const ImageStripeExec* exec, ImageStripeFn fn, void* job, int32_t rows) {
    int32_t count = ImageStripeExec_getWorkerCount(exec);
    if (count > rows) count = rows;
    return ImageStripeExec_run(exec, fn, job, count);
}

TLResult run(ImageProc* self, Job* job, ImageStripeFn fn) {
    const ImageStripeExec exec = ImageProc_getStripeExec(self);
    int32_t rows = 0;
    for (int32_t k = 0; k < job->planes; ++k) rows = job->plane[k].rows > rows ? job->plane[k].rows : rows;
    return runRows(&exec, fn, job, rows);
}

// Checks shared by the image operations, before any write: b may be null for
// one-operand operations.
TLResult check(const ImageProc* self, const Image* dst, const Image* a, const Image* b, bool needB) {
    if (self == nullptr || dst == nullptr || a == nullptr || (needB && b == nullptr)) return TL_ERROR_PARAM;
    if (!sameShape(dst, a) || (needB && !sameShape(dst, b))) return TL_ERROR_PARAM;
    if (elemOf(dst->format) == Elem::kNone) return TL_ERROR_UNSUPPORTED;
    if (!hasPixels(dst) || !hasPixels(a) || (needB && !hasPixels(b))) return TL_ERROR_PARAM;
    return TL_OK;
}

template <template <typename, Op> class K, Op O>
TLResult twoOperands(ImageProc* self, Image* dst, const Image* a, const Image* b) {
    const TLResult r = check(self, dst, a, b, true);
    if (r != TL_OK) return r;
    const Elem e = elemOf(dst->format);
    Job job{};
    describe(&job, dst, a, b, elemSize(e));
    return run(self, &job, kByElem<K, O>[static_cast<int>(e) - 1]);
}

template <Op O>
TLResult withScalar(ImageProc* self, Image* dst, const Image* src, double n, int32_t shift) {
    const TLResult r = check(self, dst, src, nullptr, false);
    if (r != TL_OK) return r;
    const Elem e = elemOf(dst->format);
    if (e != Elem::kF32 && !std::isfinite(n)) return TL_ERROR_PARAM;
    Job job{};
    describe(&job, dst, src, nullptr, elemSize(e));
    constexpr double kLimit = 1099511627776.0;  // 2^40
    const double limited = n < -kLimit ? -kLimit : (n > kLimit ? kLimit : n);
    job.n = Scalar{static_cast<int64_t>(std::round(limited)), n, static_cast<float>(n), shift, nullptr, 0};
    return run(self, &job, kByElem<Unary, O>[static_cast<int>(e) - 1]);
}

}  // namespace

TLResult ImageProc_add(ImageProc* self, Image* dst, const Image* a, const Image* b) {
    return twoOperands<Binary, Op::kAdd>(self, dst, a, b);
}
TLResult ImageProc_sub(ImageProc* self, Image* dst, const Image* a, const Image* b) {
    return twoOperands<Binary, Op::kSub>(self, dst, a, b);
}
TLResult ImageProc_mul(ImageProc* self, Image* dst, const Image* a, const Image* b) {
    return twoOperands<Binary, Op::kMul>(self, dst, a, b);
}
TLResult ImageProc_div(ImageProc* self, Image* dst, const Image* a, const Image* b) {
    return twoOperands<Binary, Op::kDiv>(self, dst, a, b);
}
TLResult ImageProc_abssub(ImageProc* self, Image* dst, const Image* a, const Image* b) {
    return twoOperands<Binary, Op::kAbsSub>(self, dst, a, b);
}
TLResult ImageProc_max(ImageProc* self, Image* dst, const Image* a, const Image* b) {
    return twoOperands<Binary, Op::kMax>(self, dst, a, b);
}
TLResult ImageProc_min(ImageProc* self, Image* dst, const Image* a, const Image* b) {
    return twoOperands<Binary, Op::kMin>(self, dst, a, b);
}
TLResult ImageProc_mla(ImageProc* self, Image* dst, const Image* a, const Image* b) {
    return twoOperands<Ternary, Op::kMla>(self, dst, a, b);
}
TLResult ImageProc_abs(ImageProc* self, Image* dst, const Image* src) {
    return withScalar<Op::kAbs>(self, dst, src, 0.0, 0);
}

TLResult ImageProc_n_add(ImageProc* self, Image* dst, const Image* src, double n) {
    return withScalar<Op::kNAdd>(self, dst, src, n, 0);
}
TLResult ImageProc_n_sub(ImageProc* self, Image* dst, const Image* src, double n) {
    return withScalar<Op::kNSub>(self, dst, src, n, 0);
}
TLResult ImageProc_n_subr(ImageProc* self, Image* dst, const Image* src, double n) {
    return withScalar<Op::kNSubr>(self, dst, src, n, 0);
}
TLResult ImageProc_n_mul(ImageProc* self, Image* dst, const Image* src, double n) {
    return withScalar<Op::kNMul>(self, dst, src, n, 0);
}
TLResult ImageProc_n_max(ImageProc* self, Image* dst, const Image* src, double n) {
    return withScalar<Op::kNMax>(self, dst, src, n, 0);
}
TLResult ImageProc_n_min(ImageProc* self, Image* dst, const Image* src, double n) {
    return withScalar<Op::kNMin>(self, dst, src, n, 0);
}
TLResult ImageProc_n_shift(ImageProc* self, Image* dst, const Image* src, int32_t n) {
    return withScalar<Op::kNShift>(self, dst, src, 0.0, n);
}

// ---- Fills ----------------------------------------------------------------------

namespace {

TLResult clearAll(Image* m, int32_t value) {
    const uint8_t v8 = saturate<uint8_t>(value);
    const uint16_t v16 = saturate<uint16_t>(value);
    const uint32_t f = m->format;
    if (Image_isUint8888(f)) return ImageUint8888_clear(m, v8, v8, v8, v8);
    if (Image_isYuv422Interleaved(f)) return ImageYuv422Interleaved_clear_sub(m, v8, v8, v8);
    if (Image_isYuv444Interleaved(f)) return ImageYuv444Interleaved_clear_sub(m, v8, v8, v8);
    if (Image_isYuv10b420Semiplanar(f)) return ImageYuv10b420Semiplanar_clear(m, v16, v16, v16);
    if (Image_isBayerUnpacked(f)) return ImageBayerUnpacked_clear(m, v16);
    switch (f) {
        case IMAGE_FORMAT_RGB565: return ImageRgb565_clear(m, v16);
        case IMAGE_FORMAT_RGB888:
        case IMAGE_FORMAT_BGR888: return ImageRgb888_clear(m, v8, v8, v8);
        case IMAGE_FORMAT_YUV422_PLANAR: return ImageYuv422Planar_clear(m, v8, v8, v8);
        case IMAGE_FORMAT_YUV422_SEMIPLANAR:
        case IMAGE_FORMAT_YVU422_SEMIPLANAR: return ImageYuv422Semiplanar_clear(m, v8, v8, v8);
        case IMAGE_FORMAT_YUV420_PLANAR: return ImageYuv420Planar_clear(m, v8, v8, v8);
        case IMAGE_FORMAT_YUV420_SEMIPLANAR:
        case IMAGE_FORMAT_YVU420_SEMIPLANAR: return ImageYuv420Semiplanar_clear(m, v8, v8, v8);
        case IMAGE_FORMAT_YUV444_PLANAR: return ImageYuv444Planar_clear(m, v8, v8, v8);
        case IMAGE_FORMAT_UINT8: return ImageUint8_clear(m, v8);
        case IMAGE_FORMAT_INT32: return ImageInt32_clear(m, value);
        case IMAGE_FORMAT_UINT16: return ImageUint16_clear(m, v16);
        case IMAGE_FORMAT_RGB161616: return ImageRgb161616_clear(m, v16, v16, v16);
        case IMAGE_FORMAT_FLOAT: return ImageFloat_clear(m, static_cast<float>(value));
        case IMAGE_FORMAT_UINT88: return ImageUint88_clear(m, v8, v8);
        case IMAGE_FORMAT_INT16: return ImageInt16_clear(m, saturate<int16_t>(value));
        case IMAGE_FORMAT_UINT1616: return ImageUint1616_clear(m, v16, v16);
        default: return TL_ERROR_UNSUPPORTED;
    }
}

}  // namespace

TLResult ImageProc_clear(ImageProc* self, Image* image, int32_t value) {
    if (self == nullptr || !hasPixels(image)) return TL_ERROR_PARAM;
    return clearAll(image, value);
}

TLResult ImageProc_clearY(ImageProc* self, Image* image, int32_t value) {
    if (self == nullptr || !hasPixels(image)) return TL_ERROR_PARAM;
    if (Image_getPlaneCount(image->format) == 1) {
        const uint32_t f = image->format;
        const bool oneValue = f == IMAGE_FORMAT_UINT8 || f == IMAGE_FORMAT_INT32 ||
                              f == IMAGE_FORMAT_UINT16 || f == IMAGE_FORMAT_FLOAT || f == IMAGE_FORMAT_INT16;
        return oneValue ? clearAll(image, value) : TL_ERROR_UNSUPPORTED;
    }
    Image luma;
    construct_Image(&luma, image->env);
    TLResult r = Image_initSubImageY(&luma, image, 0, 0, image->width, image->height);
    if (r == TL_OK) r = clearAll(&luma, value);
    destruct_Image(&luma);
    return r;
}

TLResult ImageProc_ImageFloat_clearY(ImageProc* self, Image* image, float value) {
    if (self == nullptr || !hasPixels(image)) return TL_ERROR_PARAM;
    if (image->format != IMAGE_FORMAT_FLOAT) return TL_ERROR_UNSUPPORTED;
    return ImageFloat_clear(image, value);
}

// ---- Narrowing and look-up ----------------------------------------------------------

namespace {

// dst UINT8 from src of `from`, element by element through op O.
template <typename S, Op O>
TLResult toBytes(ImageProc* self, Image* dst, const Image* src, uint32_t from, const Scalar& n) {
    if (self == nullptr || dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (src->format != from) return TL_ERROR_UNSUPPORTED;
    if (dst->format != IMAGE_FORMAT_UINT8 || dst->width != src->width || dst->height != src->height ||
        !hasPixels(dst) || !hasPixels(src)) {
        return TL_ERROR_PARAM;
    }
    Job job{};
    describe(&job, dst, src, nullptr, 1);
    job.n = n;
    return run(self, &job, unaryStripe<S, uint8_t, O>);
}

}  // namespace

TLResult ImageProc_ImageInt32_toUint8(ImageProc* self, Image* dst, const Image* src) {
    return toBytes<int32_t, Op::kNarrow>(self, dst, src, IMAGE_FORMAT_INT32, Scalar{});
}

TLResult ImageProc_ImageFloat_toUint8(ImageProc* self, Image* dst, const Image* src) {
    return toBytes<float, Op::kNarrow>(self, dst, src, IMAGE_FORMAT_FLOAT, Scalar{});
}

TLResult ImageProc_table(ImageProc* self, Image* dst, const Image* src, const uint8_t* table,
                         int32_t tableLength) {
    if (self == nullptr || dst == nullptr || src == nullptr || table == nullptr) return TL_ERROR_PARAM;
    if (dst->format != IMAGE_FORMAT_UINT8 || src->format != IMAGE_FORMAT_UINT8) return TL_ERROR_UNSUPPORTED;
    if (tableLength < kTableMinLength) return TL_OK;
    if (tableLength > 256) return TL_ERROR_PARAM;
    Scalar n{};
    n.table = table;
    n.tableLast = tableLength - 1;
    return toBytes<uint8_t, Op::kTable>(self, dst, src, IMAGE_FORMAT_UINT8, n);
}

// ---- Conversion ----------------------------------------------------------------------

namespace {

using WholeConv = TLResult (*)(Image* dst, const Image* src);
using RectConv = TLResult (*)(Image* dst, const Image* src, const ImageRect* rect);

// A destination family of the Image_conv dispatchers; rect null: whole
// pictures only.
struct CvtRoute {
    bool (*family)(uint32_t format);
    WholeConv whole;
    RectConv rect;
};

template <uint32_t Code>
bool isCode(uint32_t f) {
    return f == Code;
}

constexpr CvtRoute kRgb888Route{isCode<IMAGE_FORMAT_RGB888>, Image_conv_toRgb888,
                                Image_conv_toRgb888_withRect};
constexpr CvtRoute kYvu420Route{isCode<IMAGE_FORMAT_YVU420_SEMIPLANAR>, Image_conv_toYvu420Semiplanar,
                                Image_conv_toYvu420Semiplanar_withRect};
constexpr CvtRoute kYuv420PlanarRoute{isCode<IMAGE_FORMAT_YUV420_PLANAR>, Image_conv_toYuv420Planar,
                                      Image_conv_toYuv420Planar_withRect};
constexpr CvtRoute kYuv420SemiplanarRoute{isCode<IMAGE_FORMAT_YUV420_SEMIPLANAR>,
                                          Image_conv_toYuv420Semiplanar,
                                          Image_conv_toYuv420Semiplanar_withRect};

constexpr CvtRoute kRoutes[] = {
    kRgb888Route,
    kYvu420Route,
    kYuv420PlanarRoute,
    kYuv420SemiplanarRoute,
    {Image_isUint8888, Image_conv_toUint8888, Image_conv_toUint8888_withRect},
    {isCode<IMAGE_FORMAT_RGB565>, Image_conv_toRgb565, Image_conv_toRgb565_withRect},
    {Image_isYuv422Interleaved, Image_conv_toYuv422Interleaved, Image_conv_toYuv422Interleaved_withRect},
    {isCode<IMAGE_FORMAT_YUV422_PLANAR>, Image_conv_toYuv422Planar, Image_conv_toYuv422Planar_withRect},
    {isCode<IMAGE_FORMAT_YUV422_SEMIPLANAR>, Image_conv_toYuv422Semiplanar,
     Image_conv_toYuv422Semiplanar_withRect},
    {isCode<IMAGE_FORMAT_YVU422_SEMIPLANAR>, Image_conv_toYvu422Semiplanar,
     Image_conv_toYvu422Semiplanar_withRect},
    {Image_isBayer8, Image_conv_toBayer8, nullptr},
    {Image_isBayerUnpacked, Image_conv_toBayer16, nullptr},
    {Image_isYuv10bPacked420Semiplanar, Image_conv_toYuv10bPacked420Semiplanar, nullptr},
    {isCode<IMAGE_FORMAT_YUV10B420_SEMIPLANAR>, Image_conv_toYuv10b420Semiplanar, nullptr},
    {isCode<IMAGE_FORMAT_YVU10B420_SEMIPLANAR>, Image_conv_toYvu10b420Semiplanar, nullptr},
    {isCode<IMAGE_FORMAT_UINT8>, Image_conv_toUint8, nullptr},
    {isCode<IMAGE_FORMAT_UINT16>, Image_conv_toUint16, nullptr},
    {isCode<IMAGE_FORMAT_RGB161616>, Image_conv_toRgb161616, nullptr},
};

struct CvtJob {
    Image* dst;
    const Image* src;
    RectConv rect;
};

// Stripes of whole row pairs, so that no 4:2:0 chroma row is shared by two.
TLResult cvtStripe(void* arg, int32_t index, int32_t count) {
    const CvtJob& job = *static_cast<const CvtJob*>(arg);
    int32_t first, last;
    ImageStripe_rowsEven((job.src->height + 1) / 2, index, count, &first, &last);
    const int32_t bottom = 2 * last < job.src->height ? 2 * last : job.src->height;
    if (2 * first >= bottom) return TL_OK;
    const ImageRect rect{0, 2 * first, job.src->width, bottom};
    return job.rect(job.dst, job.src, &rect);
}

// Pictures of one size: the same format is a copy; otherwise the route's
// dispatcher, whose checks all precede its first write, striped where it has
// a rectangle form. A null route: no conversion into dst's format.
TLResult convert(ImageProc* self, Image* dst, const Image* src, const CvtRoute* route) {
    if (self == nullptr || dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (dst->width != src->width || dst->height != src->height || !hasPixels(dst) || !hasPixels(src))
        return TL_ERROR_PARAM;
    if (dst->format == src->format) return Image_copy(dst, src);
    if (route == nullptr) return TL_ERROR_UNSUPPORTED;
    // The 10-bit sources convert whole pictures only.
    if (route->rect == nullptr || Image_isYuv10b420Semiplanar(src->format) ||
        Image_isYuv10bPacked420Semiplanar(src->format)) {
        return route->whole(dst, src);
    }
    CvtJob job{dst, src, route->rect};
    const ImageStripeExec exec = ImageProc_getStripeExec(self);
    return runRows(&exec, cvtStripe, &job, (src->height + 1) / 2);
}

}  // namespace

TLResult ImageProc_cvt(ImageProc* self, Image* dst, const Image* src) {
    const CvtRoute* route = nullptr;
    for (const CvtRoute& r : kRoutes) {
        if (dst != nullptr && r.family(dst->format)) {
            route = &r;
            break;
        }
    }
    return convert(self, dst, src, route);
}

TLResult ImageProc_cvtImageYuv420(ImageProc* self, Image* dst, const Image* src) {
    if (dst == nullptr || !Image_isYuv420(dst->format)) return TL_ERROR_PARAM;
    return convert(self, dst, src,
                   dst->format == IMAGE_FORMAT_YUV420_PLANAR ? &kYuv420PlanarRoute : &kYuv420SemiplanarRoute);
}

TLResult ImageProc_cvtImageYvu420(ImageProc* self, Image* dst, const Image* src) {
    if (dst == nullptr || !kYvu420Route.family(dst->format)) return TL_ERROR_PARAM;
    return convert(self, dst, src, &kYvu420Route);
}

TLResult ImageProc_cvtImageRgb888(ImageProc* self, Image* dst, const Image* src) {
    if (dst == nullptr || !kRgb888Route.family(dst->format)) return TL_ERROR_PARAM;
    return convert(self, dst, src, &kRgb888Route);
}

// ---- Splitting into planes ----------------------------------------------------------

namespace {

struct SplitJob {
    Image* out[3];  // R, G, B
    const Image* src;
    int32_t index[3];  // byte of R, G and B in an RGB888 pixel of src
};

void splitRow(const SplitJob& job, const uint8_t* rgb, const int32_t index[3], int32_t y) {
    for (int c = 0; c < 3; ++c) {
        uint8_t* d = job.out[c]->plane[0] + static_cast<intptr_t>(job.out[c]->pitch[0]) * y;
        const uint8_t* s = rgb + index[c];
        for (int32_t x = 0; x < job.src->width; ++x) d[x] = s[3 * x];
    }
}

TLResult splitStripe(void* arg, int32_t index, int32_t count) {
    const SplitJob& job = *static_cast<const SplitJob*>(arg);
    int32_t first, last;
    ImageStripe_rowsEven(job.src->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y)
        splitRow(job, job.src->plane[0] + static_cast<intptr_t>(job.src->pitch[0]) * y, job.index, y);
    return TL_OK;
}

// Rows converted to RGB at a time by each stripe of the 4:2:0 split; even.
constexpr int32_t kSplitChunkRows = 16;

// Each stripe converts chunks of its rows into a work picture of its own
// and splits them from there.
TLResult splitYuvStripe(void* arg, int32_t index, int32_t count) {
    const SplitJob& job = *static_cast<const SplitJob*>(arg);
    const Image* src = job.src;
    int32_t first, last;
    ImageStripe_rowsEven((src->height + 1) / 2, index, count, &first, &last);
    first *= 2;
    last = 2 * last < src->height ? 2 * last : src->height;
    if (first >= last) return TL_OK;
    Image work, rgb, slice;
    construct_Image(&work, src->env);
    construct_Image(&rgb, src->env);
    construct_Image(&slice, src->env);
    TLResult r = Image_init(&work, src->width, kSplitChunkRows, nullptr, IMAGE_FORMAT_RGB888);
    const int32_t rgbIndex[3] = {0, 1, 2};
    for (int32_t y = first; y < last && r == TL_OK; y += kSplitChunkRows) {
        const int32_t rows = last - y < kSplitChunkRows ? last - y : kSplitChunkRows;
        r = Image_initSubImage(&slice, src, 0, y, src->width, rows);
        if (r == TL_OK) r = Image_initSubImage(&rgb, &work, 0, 0, src->width, rows);
        if (r == TL_OK) r = Image_conv_toRgb888(&rgb, &slice);
        for (int32_t i = 0; i < rows && r == TL_OK; ++i)
            splitRow(job, rgb.plane[0] + static_cast<intptr_t>(rgb.pitch[0]) * i, rgbIndex, y + i);
    }
    destruct_Image(&slice);
    destruct_Image(&rgb);
    destruct_Image(&work);
    return r;
}

// byPairs: fn cuts its stripes from row pairs.
TLResult split(ImageProc* self, Image* r, Image* g, Image* b, const Image* src, bool (*accepts)(uint32_t),
               ImageStripeFn fn, bool byPairs) {
    if (self == nullptr || r == nullptr || g == nullptr || b == nullptr || src == nullptr)
        return TL_ERROR_PARAM;
    if (!accepts(src->format)) return TL_ERROR_UNSUPPORTED;
    if (!hasPixels(src)) return TL_ERROR_PARAM;
    SplitJob job{{r, g, b}, src, {0, 1, 2}};
    for (Image* out : job.out) {
        if (out->format != IMAGE_FORMAT_UINT8 || out->width != src->width || out->height != src->height ||
            !hasPixels(out)) {
            return TL_ERROR_PARAM;
        }
    }
    if (src->format == IMAGE_FORMAT_RGB888 || src->format == IMAGE_FORMAT_BGR888)
        ImageRgb888_getRgbIndex(src->format, job.index);
    const ImageStripeExec exec = ImageProc_getStripeExec(self);
    return runRows(&exec, fn, &job, byPairs ? (src->height + 1) / 2 : src->height);
}

bool isRgb888(uint32_t f) { return f == IMAGE_FORMAT_RGB888 || f == IMAGE_FORMAT_BGR888; }
bool isSemiplanar420(uint32_t f) {
    return f == IMAGE_FORMAT_YUV420_SEMIPLANAR || f == IMAGE_FORMAT_YVU420_SEMIPLANAR;
}

}  // namespace

TLResult ImageProc_split2rgb888(ImageProc* self, Image* r, Image* g, Image* b, const Image* src) {
    return split(self, r, g, b, src, isRgb888, splitStripe, false);
}

TLResult ImageProc_split2rgb888_yuv420semiplanar(ImageProc* self, Image* r, Image* g, Image* b,
                                                 const Image* src) {
    return split(self, r, g, b, src, isSemiplanar420, splitYuvStripe, true);
}

// ---- Blend ------------------------------------------------------------------------------

namespace {

struct BlendPlane {
    uint8_t* d;
    const uint8_t* a;
    const uint8_t* b;
    intptr_t dPitch, aPitch, bPitch;
    int32_t rows;
    int32_t units;  // samples of `bytes` bytes that share one alpha
    int32_t bytes;
    void (*row)(const BlendPlane& p, const struct BlendJob& job, int32_t y);
};

struct BlendJob {
    BlendPlane plane[3];
    int32_t planes;
    const uint8_t* alpha;
    intptr_t alphaPitch;
    int32_t width, height;
};

// Alpha above 128 counts as 128, so that a mask on the 0..255 scale
// saturates rather than wrapping.
inline uint32_t cap(uint8_t alpha) { return alpha < 128 ? alpha : 128; }

// A sample covering PX by SY pixels takes the rounded mean of their alpha,
// the edge repeated: for colours constant over the block that is what
// mixing each pixel and then averaging would give.
template <int PX, int SY>
void blendRow(const BlendPlane& p, const BlendJob& job, int32_t y) {
    const int32_t y0 = y * SY < job.height ? y * SY : job.height - 1;
    const int32_t y1 = y0 + SY - 1 < job.height ? y0 + SY - 1 : job.height - 1;
    const uint8_t* a0 = job.alpha + job.alphaPitch * y0;
    const uint8_t* a1 = job.alpha + job.alphaPitch * y1;
    uint8_t* d = p.d + p.dPitch * y;
    const uint8_t* s = p.a + p.aPitch * y;
    const uint8_t* t = p.b + p.bPitch * y;
    for (int32_t u = 0; u < p.units; ++u) {
        const int32_t x0 = u * PX, x1 = x0 + PX - 1 < job.width ? x0 + PX - 1 : job.width - 1;
        uint32_t w;
        if constexpr (PX == 1 && SY == 1) {
            w = cap(a0[x0]);
        } else if constexpr (SY == 1) {
            w = (cap(a0[x0]) + cap(a0[x1]) + 1) >> 1;
        } else {
            w = (cap(a0[x0]) + cap(a0[x1]) + cap(a1[x0]) + cap(a1[x1]) + 2) >> 2;
        }
        for (int32_t c = u * p.bytes; c < (u + 1) * p.bytes; ++c)
            d[c] = static_cast<uint8_t>((w * s[c] + (128 - w) * t[c]) >> 7);
    }
}

TLResult blendStripe(void* arg, int32_t index, int32_t count) {
    const BlendJob& job = *static_cast<const BlendJob*>(arg);
    for (int32_t k = 0; k < job.planes; ++k) {
        int32_t first, last;
        ImageStripe_rowsEven(job.plane[k].rows, index, count, &first, &last);
        for (int32_t y = first; y < last; ++y) job.plane[k].row(job.plane[k], job, y);
    }
    return TL_OK;
}

// Formats with a blend kernel: 8-bit samples each shared by a block of
// pixels (chroma of 4:2:2 and 4:2:0) or by one pixel.
bool blendable(uint32_t f) {
    return isRgb888(f) || (f >= IMAGE_FORMAT_YUV422_PLANAR && f <= IMAGE_FORMAT_YUV444_PLANAR) ||
           f == IMAGE_FORMAT_UINT8 || f == IMAGE_FORMAT_UINT88;
}

}  // namespace

TLResult ImageProc_blendImageWrapper(const ImageStripeExec* exec, Image* dst, const Image* a, const Image* b,
                                     const Image* alpha) {
    if (dst == nullptr || a == nullptr || b == nullptr || alpha == nullptr) return TL_ERROR_PARAM;
    const uint32_t key = (dst->format << 8) | a->format;
    if (!blendable(a->format) || key != ((a->format << 8) | a->format)) return TL_ERROR_PARAM;
    if (!sameShape(dst, a) || !sameShape(dst, b) || alpha->format != IMAGE_FORMAT_UINT8 ||
        alpha->width != dst->width || alpha->height != dst->height) {
        return TL_ERROR_PARAM;
    }
    if (!hasPixels(dst) || !hasPixels(a) || !hasPixels(b) || !hasPixels(alpha)) return TL_ERROR_PARAM;
    Job geometry{};
    describe(&geometry, dst, a, b, 1);
    const ImageFormatDesc* fd = Image_getFormatDesc(dst->format);
    BlendJob job{};
    job.planes = geometry.planes;
    job.alpha = alpha->plane[0];
    job.alphaPitch = alpha->pitch[0];
    job.width = dst->width;
    job.height = dst->height;
    int32_t rows = 0;
    for (int32_t k = 0; k < job.planes; ++k) {
        const PlaneRows& g = geometry.plane[k];
        const uint8_t* q = &fd->p0Bytes + 4 * k;  // bytes, pixels, rows numerator, rows shift
        BlendPlane& p = job.plane[k];
        p = BlendPlane{g.d, g.a, g.b, g.dPitch, g.aPitch, g.bPitch, g.rows, g.elements / q[0], q[0], nullptr};
        p.row = q[1] == 1 ? blendRow<1, 1> : (q[3] == 0 ? blendRow<2, 1> : blendRow<2, 2>);
        rows = g.rows > rows ? g.rows : rows;
    }
    return runRows(exec, blendStripe, &job, rows);
}

TLResult ImageProc_blend(ImageProc* self, Image* dst, const Image* a, const Image* b, const Image* alpha) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const ImageStripeExec exec = ImageProc_getStripeExec(self);
    return ImageProc_blendImageWrapper(&exec, dst, a, b, alpha);
}

}  // namespace vq_tl
