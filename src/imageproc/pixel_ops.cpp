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

template <typename T, Op O>
TLResult scalarStripe(void* arg, int32_t index, int32_t count) {
    const Job& job = *static_cast<const Job*>(arg);
    const Scalar n = job.n;
    forStripeRows(job, index, count, [&n](const PlaneRows& p, int32_t y) {
        T* d = rowOf<T>(p.d, p.dPitch, y);
        const T* a = rowOf<T>(p.a, p.aPitch, y);
        for (int32_t i = 0; i < p.elements; ++i) d[i] = scalarOp<T, O>(a[i], n);
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
    static constexpr ImageStripeFn fn = scalarStripe<T, O>;
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

TLResult run(ImageProc* self, Job* job, ImageStripeFn fn) {
    const ImageStripeExec exec = ImageProc_getStripeExec(self);
    int32_t rows = 0;
    for (int32_t k = 0; k < job->planes; ++k) rows = job->plane[k].rows > rows ? job->plane[k].rows : rows;
    int32_t count = ImageStripeExec_getWorkerCount(&exec);
    if (count > rows) count = rows;
    return ImageStripeExec_run(&exec, fn, job, count);
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
    job.n = Scalar{static_cast<int64_t>(std::round(limited)), n, static_cast<float>(n), shift};
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
    if (Image_getPlaneCount(image->format) == 1) return clearAll(image, value);
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

}  // namespace vq_tl
