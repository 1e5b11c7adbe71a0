// Point operations against plain expressions written here, on random
// pictures with odd sizes, views into larger pictures and extreme values.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "imageproc/image_proc.h"
#include "imageproc/pixel_ops.h"
#include "support/layers.h"
#include "support/picture.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace vq_tl_test {

// An ImageProc over the shared two-thread pool, so that rows are striped.
struct Proc {
    ImageProc proc;
    Proc() {
        construct_ImageProc(&proc, nullptr);
        ImageProc_setParallelExecutor(&proc, &sharedLayers().pool);
    }
    ~Proc() { destruct_ImageProc(&proc); }
};

// Element type of a format's planes: bytes, signed, real.
struct ElemKind {
    int size;
    bool isSigned, real;
};

ElemKind elemKindOf(uint32_t f) {
    switch (f) {
        case IMAGE_FORMAT_UINT16: return {2, false, false};
        case IMAGE_FORMAT_INT16: return {2, true, false};
        case IMAGE_FORMAT_INT32: return {4, true, false};
        case IMAGE_FORMAT_FLOAT: return {4, true, true};
        default: return {1, false, false};
    }
}

double load(const uint8_t* p, ElemKind k) {
    if (k.real) return std::bit_cast<float>(*reinterpret_cast<const uint32_t*>(p));
    if (k.size == 4) return *reinterpret_cast<const int32_t*>(p);
    if (k.size == 2)
        return k.isSigned ? *reinterpret_cast<const int16_t*>(p) : *reinterpret_cast<const uint16_t*>(p);
    return *p;
}

void store(uint8_t* p, ElemKind k, double v) {
    if (k.real)
        *reinterpret_cast<float*>(p) = static_cast<float>(v);
    else if (k.size == 4)
        *reinterpret_cast<int32_t*>(p) = static_cast<int32_t>(v);
    else if (k.size == 2 && k.isSigned)
        *reinterpret_cast<int16_t*>(p) = static_cast<int16_t>(v);
    else if (k.size == 2)
        *reinterpret_cast<uint16_t*>(p) = static_cast<uint16_t>(v);
    else
        *p = static_cast<uint8_t>(v);
}

double lowest(ElemKind k) {
    if (k.real) return -std::numeric_limits<float>::max();
    return k.isSigned ? -std::ldexp(1.0, 8 * k.size - 1) : 0.0;
}
double highest(ElemKind k) {
    if (k.real) return std::numeric_limits<float>::max();
    return k.isSigned ? std::ldexp(1.0, 8 * k.size - 1) - 1 : std::ldexp(1.0, 8 * k.size) - 1;
}

// Rows and elements per row of plane k that the pixels occupy: whole units
// of the format's bytes per pixels, and rows by its subsampling.
void measured(const Image& m, int k, int32_t* rows, int32_t* elements) {
    const ImageFormatDesc* d = Image_getFormatDesc(m.format);
    const uint8_t* q = &d->p0Bytes + 4 * k;  // bytes, pixels, rows numerator, rows shift
    *elements = (m.width + q[1] - 1) / q[1] * q[0] / elemKindOf(m.format).size;
    *rows = ((m.height - 1 + (1 << q[3])) >> q[3]) * q[2];
}

uint8_t* elementAt(const Image& m, int k, int32_t i, int32_t y) {
    return m.plane[k] + static_cast<intptr_t>(m.pitch[k]) * y +
           static_cast<intptr_t>(i) * elemKindOf(m.format).size;
}

// Random elements, a quarter of them extremes: 0, the type's limits, and
// for floats NaN, infinities and -0.
void fillRandom(const Image& m, std::mt19937& rng) {
    const ElemKind k = elemKindOf(m.format);
    const double inf = std::numeric_limits<double>::infinity();
    const double extremes[] = {0.0,
                               lowest(k),
                               highest(k),
                               k.real ? NAN : 1.0,
                               k.real ? inf : 2.0,
                               k.real ? -inf : 3.0,
                               k.real ? -0.0 : 0.0};
    std::uniform_real_distribution<double> small(-300, 300), wide(lowest(k), highest(k));
    for (int p = 0; p < Image_getPlaneCount(m.format); ++p) {
        int32_t rows, elements;
        measured(m, p, &rows, &elements);
        for (int32_t y = 0; y < rows; ++y) {
            for (int32_t i = 0; i < elements; ++i) {
                const uint32_t pick = rng() % 8;
                double v = pick < 2 ? extremes[rng() % 7] : pick < 5 ? small(rng) : wide(rng);
                if (!k.real) v = std::floor(std::fmin(std::fmax(v, lowest(k)), highest(k)));
                store(elementAt(m, p, i, y), k, v);
            }
        }
    }
}

bool sameValue(double x, double y) { return x == y || (std::isnan(x) && std::isnan(y)); }

}  // namespace vq_tl_test

using namespace vq_tl_test;

namespace {

enum class K {
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
    kNShift
};

TLResult call(K k, ImageProc* p, Image* d, const Image* a, const Image* b, double n) {
    switch (k) {
        case K::kAdd: return ImageProc_add(p, d, a, b);
        case K::kSub: return ImageProc_sub(p, d, a, b);
        case K::kMul: return ImageProc_mul(p, d, a, b);
        case K::kDiv: return ImageProc_div(p, d, a, b);
        case K::kAbsSub: return ImageProc_abssub(p, d, a, b);
        case K::kMax: return ImageProc_max(p, d, a, b);
        case K::kMin: return ImageProc_min(p, d, a, b);
        case K::kMla: return ImageProc_mla(p, d, a, b);
        case K::kAbs: return ImageProc_abs(p, d, a);
        case K::kNAdd: return ImageProc_n_add(p, d, a, n);
        case K::kNSub: return ImageProc_n_sub(p, d, a, n);
        case K::kNSubr: return ImageProc_n_subr(p, d, a, n);
        case K::kNMul: return ImageProc_n_mul(p, d, a, n);
        case K::kNMax: return ImageProc_n_max(p, d, a, n);
        case K::kNMin: return ImageProc_n_min(p, d, a, n);
        default: return ImageProc_n_shift(p, d, a, static_cast<int32_t>(n));
    }
}

// The operation on one element, in single precision for floats; integers in
// double, where every operand is exact, then saturated.
double expected(K op, ElemKind k, double d, double a, double b, double n) {
    if (k.real) {
        const float x = static_cast<float>(a), y = static_cast<float>(b), m = static_cast<float>(n);
        switch (op) {
            case K::kAdd: return x + y;
            case K::kSub: return x - y;
            case K::kMul: return x * y;
            case K::kDiv: return x / y;
            case K::kAbsSub: return std::fabs(x - y);
            case K::kMax: return std::fmax(x, y);
            case K::kMin: return std::fmin(x, y);
            case K::kMla: {
                const float product = x * y;
                return static_cast<float>(d) + product;
            }
            case K::kAbs: return std::fabs(x);
            case K::kNAdd: return x + m;
            case K::kNSub: return x - m;
            case K::kNSubr: return m - x;
            case K::kNMul: return x * m;
            case K::kNMax: return std::fmax(x, m);
            case K::kNMin: return std::fmin(x, m);
            default: return static_cast<float>(a * std::ldexp(1.0, static_cast<int>(n)));
        }
    }
    const double r = std::round(n);
    double v;
    switch (op) {
        case K::kAdd: v = a + b; break;
        case K::kSub: v = a - b; break;
        case K::kMul: v = a * b; break;
        case K::kDiv: v = b == 0 ? 0 : std::trunc(a / b); break;
        case K::kAbsSub: v = std::fabs(a - b); break;
        case K::kMax: v = std::fmax(a, b); break;
        case K::kMin: v = std::fmin(a, b); break;
        case K::kMla: v = d + a * b; break;
        case K::kAbs: v = std::fabs(a); break;
        case K::kNAdd: v = a + r; break;
        case K::kNSub: v = a - r; break;
        case K::kNSubr: v = r - a; break;
        case K::kNMul: v = std::round(a * n); break;
        case K::kNMax: v = std::fmax(a, r); break;
        case K::kNMin: v = std::fmin(a, r); break;
        default:
            v = n >= 0 ? a * std::ldexp(1.0, static_cast<int>(n))
                       : std::floor(a / std::ldexp(1.0, static_cast<int>(-n)));
    }
    return std::fmin(std::fmax(v, lowest(k)), highest(k));
}

}  // namespace

TEST(PixelOps, EveryOperationAndElementTypeMatchesThePlainExpression) {
    const struct {
        K op;
        double n;
    } ops[] = {{K::kAdd, 0},    {K::kSub, 0},      {K::kMul, 0},        {K::kDiv, 0},
               {K::kAbsSub, 0}, {K::kMax, 0},      {K::kMin, 0},        {K::kMla, 0},
               {K::kAbs, 0},    {K::kNAdd, 37.5},  {K::kNSub, -1000.5}, {K::kNSubr, 99.4},
               {K::kNMul, 0.5}, {K::kNMul, -2.75}, {K::kNMax, 100.4},   {K::kNMin, -7.6},
               {K::kNShift, 3}, {K::kNShift, -2},  {K::kNShift, 40},    {K::kNShift, -70}};
    const uint32_t formats[] = {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT16, IMAGE_FORMAT_INT16,
                                IMAGE_FORMAT_INT32, IMAGE_FORMAT_FLOAT,  IMAGE_FORMAT_YUV420_SEMIPLANAR};
    Proc proc;
    std::mt19937 rng(20240611);
    for (const auto& o : ops) {
        for (uint32_t f : formats) {
            for (bool inPlace : {false, true}) {
                const int32_t w = 2 * static_cast<int32_t>(rng() % 20) + 1,
                              h = static_cast<int32_t>(rng() % 9) + 3;
                // a is a view into a larger picture; dst and b have other pitches.
                Picture parent(w + 5, h + 4, f), b(w, h, f, 12), dst(w, h, f, 4);
                Image a;
                construct_Image(&a, nullptr);
                ASSERT_EQ(Image_initSubImage(&a, &parent.image, 2, 2, w, h), TL_OK);
                for (const Image* m : {&a, &b.image, &dst.image}) fillRandom(*m, rng);
                Picture before(w, h, f, 4);
                before.copyPixels(dst);
                Image* source = &a;
                if (inPlace) {  // dst takes a's pixels and stands in for it
                    for (int k = 0; k < Image_getPlaneCount(f); ++k) {
                        int32_t rows, elements;
                        measured(a, k, &rows, &elements);
                        for (int32_t y = 0; y < rows; ++y)
                            std::memcpy(elementAt(dst.image, k, 0, y), elementAt(a, k, 0, y),
                                        elements * elemKindOf(f).size);
                    }
                    before.copyPixels(dst);
                    source = &dst.image;
                }
                ASSERT_EQ(call(o.op, &proc.proc, &dst.image, source, &b.image, o.n), TL_OK);
                const ElemKind k = elemKindOf(f);
                for (int p = 0; p < Image_getPlaneCount(f); ++p) {
                    int32_t rows, elements;
                    measured(dst.image, p, &rows, &elements);
                    for (int32_t y = 0; y < rows; ++y) {
                        for (int32_t i = 0; i < elements; ++i) {
                            const double want =
                                expected(o.op, k, load(elementAt(before.image, p, i, y), k),
                                         load(elementAt(inPlace ? before.image : a, p, i, y), k),
                                         load(elementAt(b.image, p, i, y), k), o.n);
                            const double got = load(elementAt(dst.image, p, i, y), k);
                            ASSERT_TRUE(sameValue(got, want))
                                << "op " << static_cast<int>(o.op) << " n " << o.n << " format " << f
                                << " plane " << p << " at " << i << "," << y << ": " << got << " want "
                                << want << (inPlace ? " in place" : "");
                        }
                    }
                }
                EXPECT_TRUE(dst.canariesIntact());
                destruct_Image(&a);
            }
        }
    }
}

TEST(PixelOps, ClearFillsEveryPlaneOrOnlyLuma) {
    // 300 saturates to 255 in bytes; the 4:2:0 picture keeps its chroma under clearY.
    Proc proc;
    Picture yuv(7, 5, IMAGE_FORMAT_YUV420_PLANAR), gray(9, 3, IMAGE_FORMAT_UINT8),
        real(3, 3, IMAGE_FORMAT_FLOAT);
    yuv.fillPlanes(10);
    ASSERT_EQ(ImageProc_clearY(&proc.proc, &yuv.image, 300), TL_OK);
    EXPECT_EQ(yuv.at<uint8_t>(6, 4, 0), 255);
    EXPECT_EQ(yuv.at<uint8_t>(3, 2, 1), 11);
    EXPECT_EQ(yuv.at<uint8_t>(3, 2, 2), 12);
    ASSERT_EQ(ImageProc_clear(&proc.proc, &yuv.image, -4), TL_OK);
    EXPECT_EQ(yuv.at<uint8_t>(0, 0, 0) + yuv.at<uint8_t>(3, 2, 1) + yuv.at<uint8_t>(3, 2, 2), 0);
    ASSERT_EQ(ImageProc_clearY(&proc.proc, &gray.image, 77), TL_OK);
    EXPECT_EQ(gray.u8(8, 2), 77);
    ASSERT_EQ(ImageProc_ImageFloat_clearY(&proc.proc, &real.image, -2.5f), TL_OK);
    EXPECT_EQ(real.at<float>(2, 2), -2.5f);
    EXPECT_TRUE(yuv.canariesIntact() && gray.canariesIntact() && real.canariesIntact());
}
