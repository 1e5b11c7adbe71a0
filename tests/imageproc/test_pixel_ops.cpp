// Point operations against plain expressions, on random pictures of odd sizes, views and extreme values.
#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "image/image_conv.h"
#include "imageproc/image_proc.h"
#include "imageproc/pixel_ops.h"
#include "support/layers.h"
#include "support/picture.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

// An ImageProc over the shared two-thread pool, so that rows are striped.
struct Proc {
    ImageProc proc;
    Proc() {
        construct_ImageProc(&proc, nullptr),
            ImageProc_setParallelExecutor(&proc, &vq_tl_test::sharedLayers().pool);
    }
    ~Proc() { destruct_ImageProc(&proc); }
};

// Element of a format's planes: bytes, and 'u' unsigned, 's' signed or 'f' float.
struct Kind {
    int size;
    char type;
};

Kind kindOf(uint32_t f) {
    return f == IMAGE_FORMAT_UINT16  ? Kind{2, 'u'}
           : f == IMAGE_FORMAT_INT16 ? Kind{2, 's'}
           : f == IMAGE_FORMAT_INT32 ? Kind{4, 's'}
           : f == IMAGE_FORMAT_FLOAT ? Kind{4, 'f'}
                                     : Kind{1, 'u'};
}
double lowest(Kind k) {
    return k.type == 'f' ? -FLT_MAX : k.type == 's' ? -std::ldexp(1, 8 * k.size - 1) : 0;
}
double highest(Kind k) { return k.type == 'f' ? FLT_MAX : std::ldexp(1, 8 * k.size - (k.type == 's')) - 1; }

// Elements are little-endian, as on every target of the library.
double load(const uint8_t* p, Kind k) {
    if (k.type == 'f') return std::bit_cast<float>(*reinterpret_cast<const uint32_t*>(p));
    int64_t v = 0;
    std::memcpy(&v, p, k.size);
    return static_cast<double>(k.type == 's' && (v >> (8 * k.size - 1)) ? v - (int64_t{1} << 8 * k.size) : v);
}
void store(uint8_t* p, Kind k, double v) {
    const float f = static_cast<float>(v);
    const int64_t i = k.type == 'f' ? 0 : static_cast<int64_t>(v);
    std::memcpy(p, k.type == 'f' ? static_cast<const void*>(&f) : &i, k.size);
}

// Calls f on every element the pixels occupy, plane by plane, rows by the format's subsampling.
template <typename F>
void forEachElement(const Image& m, F f) {
    const Kind k = kindOf(m.format);
    for (int p = 0; p < Image_getPlaneCount(m.format); ++p) {
        const uint8_t* q = &Image_getFormatDesc(m.format)->p0Bytes + 4 * p;  // bytes, pixels, rows num, shift
        const int32_t rows = ((m.height - 1 + (1 << q[3])) >> q[3]) * q[2];
        const int32_t n = (m.width + q[1] - 1) / q[1] * q[0] / k.size;
        for (int32_t y = 0; y < rows; ++y)
            for (int32_t i = 0; i < n; ++i)
                f(m.plane[p] + static_cast<intptr_t>(m.pitch[p]) * y + i * k.size);
    }
}

std::vector<double> elementsOf(const Image& m) {
    std::vector<double> v;
    forEachElement(m, [&](uint8_t* p) { v.push_back(load(p, kindOf(m.format))); });
    return v;
}

// Random elements, a quarter of them extremes: 0, the type's limits, and for floats NaN, infinities and -0.
void fillRandom(const Image& m, std::mt19937& rng) {
    const Kind k = kindOf(m.format);
    const bool f = k.type == 'f';
    const double extremes[] = {
        0, lowest(k), highest(k), f ? NAN : 1, f ? INFINITY : 2, f ? -INFINITY : 3, f ? -0.0 : 0};
    std::uniform_real_distribution<double> small(-300, 300), wide(lowest(k), highest(k));
    forEachElement(m, [&](uint8_t* p) {
        const uint32_t pick = rng() % 8;
        const double v = pick < 2 ? extremes[rng() % 7] : pick < 5 ? small(rng) : wide(rng);
        store(p, k, f ? v : std::floor(std::fmin(std::fmax(v, lowest(k)), highest(k))));
    });
}

// Operations in the order of the library's families: two operands, abs, with a scalar, the shift.
// clang-format off
enum class K { kAdd, kSub, kMul, kDiv, kAbsSub, kMax, kMin, kMla, kAbs, kNAdd, kNSub, kNSubr, kNMul, kNMax, kNMin, kNShift };
// clang-format on
using Two = TLResult (*)(ImageProc*, Image*, const Image*, const Image*);
using WithN = TLResult (*)(ImageProc*, Image*, const Image*, double);
constexpr Two kTwo[] = {ImageProc_add,    ImageProc_sub, ImageProc_mul, ImageProc_div,
                        ImageProc_abssub, ImageProc_max, ImageProc_min, ImageProc_mla};
constexpr WithN kWithN[] = {ImageProc_n_add, ImageProc_n_sub, ImageProc_n_subr,
                            ImageProc_n_mul, ImageProc_n_max, ImageProc_n_min};

TLResult call(K k, ImageProc* p, Image* d, const Image* a, const Image* b, double n) {
    const int i = static_cast<int>(k);
    if (k < K::kAbs) return kTwo[i](p, d, a, b);
    if (k == K::kAbs) return ImageProc_abs(p, d, a);
    return k == K::kNShift ? ImageProc_n_shift(p, d, a, static_cast<int32_t>(n)) : kWithN[i - 9](p, d, a, n);
}

// The operation on one element in double, integers exact; a float result is the double one rounded once (for
// +, -, *, / the float result; mla rounds its product first). Integers truncate quotients, saturate.
double expected(K op, Kind k, double d, double a, double b, double n) {
    const bool f = k.type == 'f';
    const double m = f ? static_cast<float>(n) : std::round(n);
    double v;
    switch (op) {
        case K::kAdd: v = a + b; break;
        case K::kSub: v = a - b; break;
        case K::kMul: v = a * b; break;
        case K::kDiv: v = f ? a / b : b == 0 ? 0 : std::trunc(a / b); break;
        case K::kAbsSub: v = std::fabs(a - b); break;
        case K::kMax: v = std::fmax(a, b); break;
        case K::kMin: v = std::fmin(a, b); break;
        case K::kMla: v = d + (f ? static_cast<float>(a * b) : a * b); break;
        case K::kAbs: v = std::fabs(a); break;
        case K::kNAdd: v = a + m; break;
        case K::kNSub: v = a - m; break;
        case K::kNSubr: v = m - a; break;
        case K::kNMul: v = f ? a * m : std::round(a * n); break;
        case K::kNMax: v = std::fmax(a, m); break;
        case K::kNMin: v = std::fmin(a, m); break;
        default:
            v = n >= 0 || f ? std::ldexp(a, static_cast<int>(n))
                            : std::floor(std::ldexp(a, static_cast<int>(n)));
    }
    return f ? static_cast<float>(v) : std::fmin(std::fmax(v, lowest(k)), highest(k));
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
    Proc proc;
    std::mt19937 rng(20240611);
    for (const auto& o : ops) {
        for (uint32_t f : {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT16, IMAGE_FORMAT_INT16, IMAGE_FORMAT_INT32,
                           IMAGE_FORMAT_FLOAT, IMAGE_FORMAT_YUV420_SEMIPLANAR}) {
            for (bool inPlace : {false, true}) {
                const int32_t w = 2 * static_cast<int32_t>(rng() % 20) + 1,
                              h = static_cast<int32_t>(rng() % 9) + 3;
                // a is a view into a larger picture; b and dst have other pitches.
                Picture parent(w + 5, h + 4, f), b(w, h, f, 12), d(w, h, f, 4);
                Image a;
                construct_Image(&a, nullptr);
                ASSERT_EQ(Image_initSubImage(&a, &parent.image, 2, 2, w, h), TL_OK);
                Image* dst = inPlace ? &a : &d.image;
                for (const Image* m : {&a, &b.image, &d.image}) fillRandom(*m, rng);
                const std::vector<double> va = elementsOf(a), vb = elementsOf(b.image), vd = elementsOf(*dst);
                ASSERT_EQ(call(o.op, &proc.proc, dst, &a, &b.image, o.n), TL_OK);
                const std::vector<double> got = elementsOf(*dst);
                for (size_t i = 0; i < got.size(); ++i) {
                    const double want = expected(o.op, kindOf(f), vd[i], va[i], vb[i], o.n);
                    ASSERT_TRUE(got[i] == want || (std::isnan(got[i]) && std::isnan(want)))
                        << "op " << static_cast<int>(o.op) << " n " << o.n << " format " << f << " element "
                        << i << ": " << got[i] << " for " << va[i] << ", " << vb[i] << ", want " << want
                        << (inPlace ? " in place" : "");
                }
                EXPECT_TRUE(d.canariesIntact() && parent.canariesIntact());
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

TEST(PixelOps, BlendWorkedByHandOnEachLayout) {
    // a 200, b 100: alpha 0 gives 100, 32 gives 125, 64 gives 150, 96 gives 175, 128 (or more) 200. A 4:2:0
    // chroma sample takes the rounded mean of its 2 by 2 pixels' alpha, edges repeated at odd sizes.
    const uint8_t alpha[3][3] = {{0, 255, 128}, {128, 128, 0}, {0, 64, 128}};
    const uint8_t luma[3][3] = {{100, 200, 200}, {200, 200, 100}, {100, 150, 200}};
    const uint8_t chroma[2][2] = {{175, 150}, {125, 200}};  // from 96, 64, 32 and 128
    Proc proc;
    for (uint32_t f :
         {IMAGE_FORMAT_YUV420_PLANAR, IMAGE_FORMAT_YUV420_SEMIPLANAR, IMAGE_FORMAT_YVU420_SEMIPLANAR}) {
        for (bool inPlace : {false, true}) {
            Picture a(3, 3, f), b(3, 3, f), d(3, 3, f), m(3, 3, IMAGE_FORMAT_UINT8);
            for (auto [q, v] : {std::pair{&a, 200}, {&b, 100}, {&d, 7}})
                for (int k = 0; k < 3; ++k)
                    for (int32_t y = 0; y < q->rows[k]; ++y) std::memset(q->row(k, y), v, q->rowBytes[k]);
            for (int y = 0; y < 3; ++y) std::memcpy(m.row(0, y), alpha[y], 3);
            Picture& out = inPlace ? a : d;
            ASSERT_EQ(ImageProc_blend(&proc.proc, &out.image, &a.image, &b.image, &m.image), TL_OK);
            const int n = f == IMAGE_FORMAT_YUV420_PLANAR ? 1 : 2;  // bytes per chroma sample
            for (int y = 0; y < 3; ++y)
                for (int x = 0; x < 3; ++x)
                    EXPECT_EQ(out.at<uint8_t>(x, y), luma[y][x]) << f << " " << x << "," << y;
            for (int k = 1; k < Image_getPlaneCount(f); ++k)
                for (int y = 0; y < 2; ++y)
                    for (int x = 0; x < 2 * n; ++x)
                        EXPECT_EQ(out.at<uint8_t>(x, y, k), chroma[y][x / n]) << f << " plane " << k;
            EXPECT_TRUE(out.canariesIntact());
        }
    }
    // Interleaved: one alpha for the three bytes of a pixel; 127.5 truncates.
    for (uint32_t f : {IMAGE_FORMAT_RGB888, IMAGE_FORMAT_BGR888}) {
        Picture a(2, 1, f), b(2, 1, f), m(2, 1, IMAGE_FORMAT_UINT8);
        const uint8_t pa[6] = {200, 100, 0, 9, 9, 9}, pb[6] = {0, 50, 255, 1, 2, 3},
                      want[6] = {100, 75, 127, 1, 2, 3};
        std::memcpy(a.row(0, 0), pa, 6), std::memcpy(b.row(0, 0), pb, 6);
        m.u8(0, 0) = 64, m.u8(1, 0) = 0;
        ASSERT_EQ(ImageProc_blend(&proc.proc, &a.image, &a.image, &b.image, &m.image), TL_OK);
        EXPECT_EQ(std::memcmp(a.row(0, 0), want, 6), 0) << f;
    }
}

TEST(PixelOps, NarrowingAndTableEdges) {
    Proc proc;
    const int32_t ints[] = {-5, 0, 17, 255, 256, INT32_MIN, INT32_MAX, 128, 1};
    const float reals[] = {-0.4f, 0.4999f, 0.5f, 254.5f, 254.49f, 1e30f, -INFINITY, NAN, INFINITY};
    const uint8_t fromInts[] = {0, 0, 17, 255, 255, 0, 255, 128, 1},
                  fromReals[] = {0, 0, 1, 255, 254, 255, 0, 0, 255};
    Picture i32(9, 1, IMAGE_FORMAT_INT32), f32(9, 1, IMAGE_FORMAT_FLOAT), d(9, 1, IMAGE_FORMAT_UINT8);
    std::memcpy(i32.row(0, 0), ints, sizeof ints), std::memcpy(f32.row(0, 0), reals, sizeof reals);
    ASSERT_EQ(ImageProc_ImageInt32_toUint8(&proc.proc, &d.image, &i32.image), TL_OK);
    EXPECT_EQ(std::memcmp(d.row(0, 0), fromInts, 9), 0);
    ASSERT_EQ(ImageProc_ImageFloat_toUint8(&proc.proc, &d.image, &f32.image), TL_OK);
    EXPECT_EQ(std::memcmp(d.row(0, 0), fromReals, 9), 0);
    // Table 255 - i: values at or past the end take the last entry; fewer than 33 entries change nothing.
    uint8_t table[256];
    for (int i = 0; i < 256; ++i) table[i] = static_cast<uint8_t>(255 - i);
    const uint8_t src[] = {0, 31, 32, 33, 100, 255};
    const struct {
        int32_t length;
        uint8_t want[6];
    } cases[] = {
        {32, {9, 9, 9, 9, 9, 9}}, {33, {255, 224, 223, 223, 223, 223}}, {256, {255, 224, 223, 222, 155, 0}}};
    for (const auto& c : cases) {
        Picture s(6, 1, IMAGE_FORMAT_UINT8), t(6, 1, IMAGE_FORMAT_UINT8);
        std::memcpy(s.row(0, 0), src, 6), t.fillPlanes(9);
        ASSERT_EQ(ImageProc_table(&proc.proc, &t.image, &s.image, table, c.length), TL_OK);
        EXPECT_EQ(std::memcmp(t.row(0, 0), c.want, 6), 0) << c.length;
    }
}

TEST(PixelOps, ConversionsAgreeWithTheWholePictureDispatchers) {
    // Striped conversions give the bytes of one whole call; the splits give the planes of the RGB picture.
    const struct {
        uint32_t from, to;
        TLResult (*cvt)(ImageProc*, Image*, const Image*);
        TLResult (*whole)(Image*, const Image*);
    } cases[] = {
        {IMAGE_FORMAT_BGRA8888, IMAGE_FORMAT_YUV420_SEMIPLANAR, ImageProc_cvtImageYuv420,
         Image_conv_toYuv420Semiplanar},
        {IMAGE_FORMAT_RGB888, IMAGE_FORMAT_YUV420_PLANAR, ImageProc_cvtImageYuv420,
         Image_conv_toYuv420Planar},
        {IMAGE_FORMAT_BGRA8888, IMAGE_FORMAT_YVU420_SEMIPLANAR, ImageProc_cvtImageYvu420,
         Image_conv_toYvu420Semiplanar},
        {IMAGE_FORMAT_YVU420_SEMIPLANAR, IMAGE_FORMAT_RGB888, ImageProc_cvtImageRgb888, Image_conv_toRgb888},
        {IMAGE_FORMAT_YUV420_PLANAR, IMAGE_FORMAT_ARGB8888, ImageProc_cvt, Image_conv_toUint8888},
        {IMAGE_FORMAT_UINT16, IMAGE_FORMAT_UINT8, ImageProc_cvt, Image_conv_toUint8},
        {IMAGE_FORMAT_YUV420_SEMIPLANAR, IMAGE_FORMAT_YUV420_SEMIPLANAR, ImageProc_cvt, Image_copy}};
    Proc proc;
    std::mt19937 rng(5);
    for (const auto& c : cases) {
        Picture src(11, 37, c.from), striped(11, 37, c.to), whole(11, 37, c.to);
        src.fillRandom(rng), striped.fillPlanes(1), whole.fillPlanes(1);
        ASSERT_EQ(c.cvt(&proc.proc, &striped.image, &src.image), TL_OK) << c.from << " to " << c.to;
        ASSERT_EQ(c.whole(&whole.image, &src.image), TL_OK);
        EXPECT_TRUE(striped.samePixels(whole) && striped.canariesIntact()) << c.from << " to " << c.to;
    }
    for (uint32_t f : {IMAGE_FORMAT_BGR888, IMAGE_FORMAT_YVU420_SEMIPLANAR}) {
        Picture src(11, 37, f), rgb(11, 37, IMAGE_FORMAT_RGB888), r(11, 37, IMAGE_FORMAT_UINT8),
            g(11, 37, IMAGE_FORMAT_UINT8), b(11, 37, IMAGE_FORMAT_UINT8);
        src.fillRandom(rng);
        const bool packed = f == IMAGE_FORMAT_BGR888;
        ASSERT_EQ((packed ? ImageProc_split2rgb888 : ImageProc_split2rgb888_yuv420semiplanar)(
                      &proc.proc, &r.image, &g.image, &b.image, &src.image),
                  TL_OK);
        if (!packed) {
            ASSERT_EQ(Image_conv_toRgb888(&rgb.image, &src.image), TL_OK);
        }
        for (int32_t y = 0; y < 37; ++y)
            for (int32_t x = 0; x < 11; ++x) {
                const uint8_t* p = (packed ? src : rgb).row(0, y) + 3 * x;
                ASSERT_TRUE(r.u8(x, y) == p[packed ? 2 : 0] && g.u8(x, y) == p[1] &&
                            b.u8(x, y) == p[packed ? 0 : 2])
                    << f << " at " << x << "," << y;
            }
    }
}

TEST(PixelOps, BadArgumentsLeaveTheDestinationUntouched) {
    Proc proc;
    ImageProc* p = &proc.proc;
    Picture u8(5, 4, IMAGE_FORMAT_UINT8), narrow(4, 4, IMAGE_FORMAT_UINT8), u16(5, 4, IMAGE_FORMAT_UINT16),
        i32(5, 4, IMAGE_FORMAT_INT32), yuv(6, 4, IMAGE_FORMAT_YUV420_SEMIPLANAR),
        planar(6, 4, IMAGE_FORMAT_YUV420_PLANAR), yuyv(6, 4, IMAGE_FORMAT_YUV422_YUYV),
        rgb(5, 4, IMAGE_FORMAT_RGB888), packed(5, 4, IMAGE_FORMAT_RGB565), alpha(6, 4, IMAGE_FORMAT_UINT8);
    Picture* all[] = {&u8, &narrow, &u16, &i32, &yuv, &planar, &yuyv, &rgb, &packed, &alpha};
    std::mt19937 rng(3);
    for (Picture* q : all) q->fillRandom(rng);
    std::vector<std::vector<uint8_t>> before;
    for (Picture* q : all) before.push_back(q->storage);
    Image empty;
    construct_Image(&empty, nullptr);
    Image_init(&empty, 0, 0, nullptr, IMAGE_FORMAT_UINT8);
    uint8_t table[256] = {};
    const TLResult P = TL_ERROR_PARAM, U = TL_ERROR_UNSUPPORTED;
    const TLResult cases[][2] = {
        {ImageProc_min(p, &u8.image, nullptr, &u8.image), P},
        {ImageProc_min(p, &u8.image, &u8.image, &narrow.image), P},
        {ImageProc_add(p, &u8.image, &u8.image, &u16.image), P},
        {ImageProc_mla(p, &empty, &empty, &empty), P},
        {ImageProc_sub(p, &packed.image, &packed.image, &packed.image), U},
        {ImageProc_n_add(p, &u8.image, &u8.image, NAN), P},
        {ImageProc_clearY(p, &yuyv.image, 1), U},
        {ImageProc_ImageFloat_clearY(p, &i32.image, 1.0f), U},
        {ImageProc_ImageInt32_toUint8(p, &u8.image, &u16.image), U},
        {ImageProc_ImageInt32_toUint8(p, &u16.image, &i32.image), P},
        {ImageProc_table(p, &u8.image, &u16.image, table, 256), U},
        {ImageProc_table(p, &u8.image, &u8.image, table, 257), P},
        {ImageProc_table(p, &u8.image, &u8.image, nullptr, 256), P},
        {ImageProc_blend(p, &yuv.image, &planar.image, &planar.image, &alpha.image), P},
        {ImageProc_blend(p, &yuyv.image, &yuyv.image, &yuyv.image, &alpha.image), P},
        {ImageProc_blend(p, &yuv.image, &yuv.image, &yuv.image, &u8.image), P},
        {ImageProc_blend(p, &rgb.image, &rgb.image, &rgb.image, &u16.image), P},
        {ImageProc_cvt(p, &yuv.image, &planar.image), U},
        {ImageProc_cvt(p, &u8.image, &narrow.image), P},
        {ImageProc_cvt(p, &u8.image, &rgb.image), U},
        {ImageProc_cvtImageRgb888(p, &yuv.image, &rgb.image), P},
        {ImageProc_split2rgb888(p, &u8.image, &narrow.image, &u8.image, &rgb.image), P},
        {ImageProc_split2rgb888_yuv420semiplanar(p, &alpha.image, &alpha.image, &u8.image, &yuv.image), P},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i][0], cases[i][1]) << "case " << i;
    for (size_t i = 0; i < std::size(all); ++i) EXPECT_EQ(all[i]->storage, before[i]) << "picture " << i;
    destruct_Image(&empty);
}
