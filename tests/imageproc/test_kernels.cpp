// Row stripes on every layer; against plain models, on the shared layers: rank filters (brute force over the
// window's part inside), resizes, the eight orientations, point operations on odd sizes, views and extreme
// values, blurs (Q15 convolution exactly, the true Gaussian within bounds, window sums). Refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "image/image_conv.h"
#include "imageproc/blur.h"
#include "imageproc/image_proc.h"
#include "imageproc/image_proc2.h"
#include "imageproc/image_stripes.h"
#include "imageproc/pixel_ops.h"
#include "imageproc/plane_views.h"
#include "imageproc/rank_filter.h"
#include "imageproc/resize.h"
#include "imageproc/rotate.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "support/layers.h"
#include "support/owned.h"
#include "support/picture.h"
#include "support/test_env.h"

using namespace vq_tl;
using vq_tl_test::elementOf;
using vq_tl_test::Layers;
using vq_tl_test::Owned;
using vq_tl_test::Picture;
using vq_tl_test::sharedLayers;

namespace {

// Where operation `op` takes pixel (x, y) of a w by h picture.
void where(int op, int32_t x, int32_t y, int32_t w, int32_t h, int32_t* ox, int32_t* oy) {
    const int32_t t[9][2] = {{h - 1 - y, x}, {x, y}, {w - 1 - x, y}, {w - 1 - x, h - 1 - y},
                             {x, h - 1 - y}, {y, x}, {y, w - 1 - x}, {h - 1 - y, w - 1 - x},
                             {h - 1 - y, x}};
    *ox = t[op][0], *oy = t[op][1];
}

// Element of a format's planes: bytes, and 'u' unsigned, 's' signed or 'f' float.
struct Kind {
    int size;
    char type;
};

Kind kindOf(uint32_t f) {
    return f == IMAGE_FORMAT_UINT16 || f == IMAGE_FORMAT_UINT1616 ? Kind{2, 'u'}
           : f == IMAGE_FORMAT_INT16                              ? Kind{2, 's'}
           : f == IMAGE_FORMAT_INT32                              ? Kind{4, 's'}
           : f == IMAGE_FORMAT_FLOAT                              ? Kind{4, 'f'}
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

using RowsRule = void (*)(int32_t rows, int32_t index, int32_t count, int32_t* first, int32_t* last);

// Each row of the rule's stripe counts its visits; stripe i returns bit i % 8.
struct Rows {
    RowsRule rule;
    std::vector<std::atomic<int32_t>> visits;
    Rows(int32_t h, RowsRule r) : rule(r), visits(static_cast<size_t>(h)) {}
    bool visitedOnce() const {
        return std::all_of(visits.begin(), visits.end(),
                           [](const std::atomic<int32_t>& v) { return v.load() == 1; });
    }
};

TLResult visitStripe(void* arg, int32_t index, int32_t count) {
    Rows* rows = static_cast<Rows*>(arg);
    int32_t first = 0, last = 0;
    rows->rule(static_cast<int32_t>(rows->visits.size()), index, count, &first, &last);
    for (int32_t r = first; r < last; ++r) rows->visits[static_cast<size_t>(r)].fetch_add(1);
    return 1u << (index % 8);
}

TLResult expectedResult(int32_t count) { return (1u << std::min(count, 8)) - 1; }

using Filter = TLResult (*)(ImageProc*, Image*, const Image*, uint32_t);
using Filter2 = TLResult (*)(ImageProc2*, Image*, const Image*, uint32_t);

struct Op {
    const char* name;
    Filter filter;
    Filter2 filter2;
    int radius;
    char pick;  // '+' largest, '-' smallest, 'm' median of the square, 'c' median of the cross
};
const Op kOps[] = {
    {"max3", ImageProc_filterMax3x3, ImageProc2_filterMax3x3, 1, '+'},
    {"min3", ImageProc_filterMin3x3, ImageProc2_filterMin3x3, 1, '-'},
    {"median3", ImageProc_filterMedian3x3, nullptr, 1, 'm'},
    {"cross", ImageProc_filterMedianCross, nullptr, 1, 'c'},
    {"rankMax3", ImageProc_filterRankMax3x3, nullptr, 1, '+'},
    {"rankMin3", ImageProc_filterRankMin3x3, nullptr, 1, '-'},
    {"rankMax5", ImageProc_filterRankMax5x5, nullptr, 2, '+'},
};

int channelsOf(uint32_t f) {
    return f == IMAGE_FORMAT_UINT88 || f == IMAGE_FORMAT_UINT1616 ? 2
           : f == IMAGE_FORMAT_RGB888                             ? 3
           : f == IMAGE_FORMAT_ARGB8888                           ? 4
                                                                  : 1;
}

double reference(const Image& v, int channels, const Op& op, int32_t x, int32_t y, int ch) {
    std::vector<double> s;
    for (int dy = -op.radius; dy <= op.radius; ++dy) {
        for (int dx = -op.radius; dx <= op.radius; ++dx) {
            const int32_t xx = x + dx, yy = y + dy;
            if ((op.pick != 'c' || dx == 0 || dy == 0) && xx >= 0 && yy >= 0 && xx < v.width && yy < v.height)
                s.push_back(elementOf(v, xx * channels + ch, yy));
        }
    }
    std::sort(s.begin(), s.end());
    return op.pick == '+' ? s.back() : op.pick == '-' ? s.front() : s[(s.size() - 1) / 2];
}

// Random; one picture in eight all 0, all 0xFF, or a checkerboard; floats finite, with repeats.
void fill(Picture& p, std::mt19937& rng) {
    const int kind = static_cast<int>(rng() % 8);
    for (int k = 0; k < 3; ++k)
        for (int32_t r = 0; r < p.rows[k]; ++r)
            for (int32_t i = 0; i < p.rowBytes[k]; ++i)
                p.row(k, r)[i] = kind == 2 ? ((i + r) & 1) * 0xFF : kind < 2 ? kind * 0xFF : rng();
    for (int32_t i = 0; p.image.format == IMAGE_FORMAT_FLOAT && i < p.rows[0] * p.image.width; ++i)
        p.at<float>(i % p.image.width, i / p.image.width) =
            static_cast<float>(static_cast<int>(rng() % 41) - 20) * 0.25f;
}

// Selected planes of out against the reference over src, the others against src.
void expectFiltered(const Picture& src, const Picture& out, const Op& op, uint32_t mask, const char* where) {
    PlaneViews sv, ov;
    ASSERT_TRUE(PlaneViews_split(&sv, &src.image) == TL_OK && PlaneViews_split(&ov, &out.image) == TL_OK);
    for (int k = 0; k < sv.count; ++k) {
        const int n = channelsOf(sv.plane[k].format);
        const bool selected = mask == 0 || ((mask >> k) & 1) != 0;
        for (int32_t i = 0; i < sv.plane[k].height * sv.plane[k].width * n; ++i) {
            const int32_t y = i / n / sv.plane[k].width, x = i / n % sv.plane[k].width, ch = i % n;
            ASSERT_EQ(elementOf(ov.plane[k], x * n + ch, y), selected
                                                                 ? reference(sv.plane[k], n, op, x, y, ch)
                                                                 : elementOf(sv.plane[k], x * n + ch, y))
                << where << " " << op.name << " " << src.image.format << " plane " << k << " at " << x << ","
                << y;
        }
    }
    EXPECT_TRUE(out.canariesIntact()) << where << " " << op.name << " format " << src.image.format;
}

// Row pass then column pass with taps k, the edge pixel repeated. With top > 0 each pass ends as the kernels
// do, (sum + 16384) >> 15 clamped to [0, top] (exact for integer taps); with top 0 the sums stay unrounded.
std::vector<double> convolve(std::vector<double> g, int32_t w, int32_t h, int32_t c,
                             const std::vector<double>& k, double top) {
    const int32_t r = static_cast<int32_t>(k.size() / 2);
    for (int pass = 0; pass < 2; ++pass) {
        std::vector<double> out(g.size());
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x)
                for (int32_t ch = 0; ch < c; ++ch) {
                    double a = 0;
                    for (int32_t i = -r; i <= r; ++i) {
                        const int32_t xx = pass == 0 ? std::clamp(x + i, 0, w - 1) : x;
                        const int32_t yy = pass == 1 ? std::clamp(y + i, 0, h - 1) : y;
                        a += k[i + r] * g[(static_cast<size_t>(yy) * w + xx) * c + ch];
                    }
                    out[(static_cast<size_t>(y) * w + x) * c + ch] =
                        top > 0 ? std::clamp(std::floor((a + 16384) / 32768), 0.0, top) : a;
                }
        g = std::move(out);
    }
    return g;
}

std::vector<double> gaussian(double sigma, int32_t r) {
    std::vector<double> k;
    double sum = 0;
    for (int32_t i = -r; i <= r; ++i) sum += k.emplace_back(std::exp(-i * i / (2 * sigma * sigma)));
    for (double& v : k) v /= sum;
    return k;
}

// Worst and mean absolute difference.
std::pair<double, double> differences(const std::vector<double>& a, const std::vector<double>& b) {
    double worst = 0, sum = 0;
    for (size_t i = 0; i < a.size(); ++i)
        worst = std::max(worst, std::fabs(a[i] - b[i])), sum += std::fabs(a[i] - b[i]);
    return {worst, sum / static_cast<double>(a.size())};
}

// An ImageProc over the shared two-thread pool and an ImageProc2 over the shared Pel, so that rows are
// striped. The kernels' tests use both, so the layers must not change their pixels.
struct Objects {
    Owned<ImageProc, construct_ImageProc, destruct_ImageProc> proc;
    Owned<ImageProc2, construct_ImageProc2, destruct_ImageProc2> proc2;
    Objects() {
        ImageProc_setParallelExecutor(&proc, &sharedLayers().pool),
            ImageProc2_setPel(&proc2, &sharedLayers().pel);
    }
};

using View = Owned<Image, construct_Image, destruct_Image>;

}  // namespace

// Both rules cover every row once, contiguous, whatever the count of stripes; on every layer the runner or's
// their results. (How the rules share rows out beyond that decides only the balance: the benchmarks' matter.)
TEST(Stripes, RunnerVisitsEveryRowOnceOnEveryLayer) {
    Layers& layers = sharedLayers();
    Pel idle;  // constructed, never initialised: the calling thread runs the stripes
    construct_Pel(&idle, nullptr);
    // A pool whose queue holds fewer stripes than asked: refused forks run on the caller.
    ParallelExecutor small;
    construct_ParallelExecutor(&small, nullptr);
    small.numberOfThreads = 1;
    small.setAffinity = 0;
    ASSERT_EQ(ParallelExecutor_init(&small, 1, 4), TL_OK);
    std::vector<ImageStripeExec> execs = {
        {nullptr, nullptr}, {&idle, nullptr}, {&layers.balanced, &layers.pool}};
    for (int i = 0; i < Layers::kCount; ++i) execs.push_back(layers.exec(i));
    std::mt19937 random(3);
    for (int round = 0; round < vq_tl_test_scaled(30, 8); ++round) {
        const int32_t h = 1 + static_cast<int32_t>(random() % 5000),
                      count = 1 + static_cast<int32_t>(random() % 40);
        for (const ImageStripeExec& e : execs) {
            Rows rows(h, e.pel != nullptr ? ImageStripe_rows : ImageStripe_rowsEven);
            ASSERT_EQ(ImageStripeExec_run(&e, visitStripe, &rows, count), expectedResult(count))
                << &e - &execs[0];
            ASSERT_TRUE(rows.visitedOnce()) << &e - &execs[0];
        }
    }
    const ImageStripeExec pool{nullptr, &small};
    Rows many(500, ImageStripe_rowsEven), none(1, ImageStripe_rows);
    ASSERT_EQ(ImageStripeExec_run(&pool, visitStripe, &many, 200), expectedResult(200));
    EXPECT_TRUE(many.visitedOnce());
    EXPECT_EQ(ImageStripeExec_run(&execs[3], visitStripe, &none, 0), TL_OK);
    EXPECT_EQ(none.visits[0].load(), 0);
    EXPECT_EQ(destruct_ParallelExecutor(&small), TL_OK);
    EXPECT_EQ(destruct_Pel(&idle), TL_OK);
}

TEST(RankFilter, MatchesBruteForceOnEveryLayout) {
    Objects o;
    // Single rows and columns, sizes below the window, stripes of one row.
    const int32_t sizes[][2] = {
        {1, 1}, {1, 6}, {7, 1}, {2, 2}, {3, 5}, {17, 13}, {vq_tl_test_scaled(41, 21), 9}};
    std::mt19937 rng(20261121);
    for (uint32_t f : {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT88, IMAGE_FORMAT_UINT16, IMAGE_FORMAT_UINT1616,
                       IMAGE_FORMAT_INT16, IMAGE_FORMAT_INT32, IMAGE_FORMAT_FLOAT, IMAGE_FORMAT_RGB888,
                       IMAGE_FORMAT_ARGB8888, IMAGE_FORMAT_YUV420_SEMIPLANAR, IMAGE_FORMAT_YUV420_PLANAR}) {
        const bool yuv = f == IMAGE_FORMAT_YUV420_SEMIPLANAR || f == IMAGE_FORMAT_YUV420_PLANAR;
        for (const auto& s : sizes) {
            const int32_t w = yuv ? (s[0] + 1) & ~1 : s[0], h = yuv ? (s[1] + 1) & ~1 : s[1];
            Picture src(w, h, f);
            fill(src, rng);
            for (const Op& op : kOps) {
                for (bool two : {false, true}) {
                    if (two && op.filter2 == nullptr) continue;
                    const char* who =
                        two ? "ImageProc2" : "ImageProc";  // 4:2:0 planes by a random mask (0: all)
                    auto apply = [&](Image* dst, const Image* in, uint32_t mask) {
                        return two ? op.filter2(&o.proc2, dst, in, mask) : op.filter(&o.proc, dst, in, mask);
                    };
                    const uint32_t mask = yuv ? rng() % 8 : 0, maskInPlace = yuv ? rng() % 8 : 0;
                    Picture out(w, h, f), inPlace(w, h, f);
                    inPlace.copyPixels(src);
                    ASSERT_TRUE(apply(&out.image, &src.image, mask) == TL_OK &&
                                apply(&inPlace.image, &inPlace.image, maskInPlace) == TL_OK)
                        << who;
                    expectFiltered(src, out, op, mask, who);
                    expectFiltered(src, inPlace, op, maskInPlace, who);
                }
            }
        }
    }
}

TEST(Resize, RampsWorkedByHand) {
    // 4 -> 8: samples at -0.25 (edge), 0.25, ..., 3.25 (edge). 10 -> 3: 1.17, 4.5 (tie, up), 7.83.
    const struct {
        int32_t sw, dw;
        std::vector<uint8_t> src, expected;
    } cases[] = {{4, 8, {0, 10, 20, 30}, {0, 3, 8, 13, 18, 23, 28, 30}},
                 {10, 3, {0, 25, 50, 75, 100, 125, 150, 175, 200, 225}, {29, 113, 196}}};
    for (const auto& c : cases) {
        for (int axis = 0; axis < 2; ++axis) {  // along a row, then down a column
            Picture src(axis ? 1 : c.sw, axis ? c.sw : 1, IMAGE_FORMAT_UINT8),
                dst(axis ? 1 : c.dw, axis ? c.dw : 1, IMAGE_FORMAT_UINT8);
            for (int32_t i = 0; i < c.sw; ++i) src.u8(axis ? 0 : i, axis ? i : 0) = c.src[i];
            ASSERT_EQ(Resize_resizeImage(nullptr, &dst.image, &src.image), TL_OK);
            for (int32_t i = 0; i < c.dw; ++i)
                EXPECT_EQ(dst.u8(axis ? 0 : i, axis ? i : 0), c.expected[i]) << c.sw << " " << i;
            EXPECT_TRUE(dst.canariesIntact());
        }
    }
    // Equal sizes copy.
    std::mt19937 rng(4);
    Picture a(10, 6, IMAGE_FORMAT_UINT8), b(10, 6, IMAGE_FORMAT_UINT8);
    a.fillRandom(rng);
    EXPECT_TRUE(Resize_resizeImage(nullptr, &b.image, &a.image) == TL_OK && b.samePixels(a));
}

TEST(Resize, MatchesADoubleModelWithinOneLevel) {
    // Samples at the resizer's Q15 positions on steep random data; INT32 holds values times 2^16.
    Objects o;
    const struct {
        uint32_t format;
        int32_t lo, hi, scale;
        double tolerance;
    } kinds[] = {{IMAGE_FORMAT_UINT8, 0, 255, 1, 1.0},
                 {IMAGE_FORMAT_UINT16, 0, 65535, 1, 1.0},
                 {IMAGE_FORMAT_INT16, -32768, 32767, 1, 1.0},
                 {IMAGE_FORMAT_INT32, -30000, 30000, 65536, 65536.0},
                 {IMAGE_FORMAT_FLOAT, -30000, 30000, 1, 0.02}};
    auto q15 = [](int32_t i, int32_t src, int32_t dst) {
        return static_cast<double>(((2 * int64_t{i} + 1) * src * 32768) / (2 * int64_t{dst}) - 16384) /
               32768.0;
    };
    std::mt19937 rng(2024);
    std::uniform_int_distribution<int32_t> side(1, 60);
    for (int round = 0; round < vq_tl_test_scaled(250, 50); ++round) {
        const auto& k = kinds[round % 5];
        const int32_t sw = side(rng), sh = side(rng), dw = side(rng), dh = side(rng);
        if (Resize_isAboutHalf(dw, dh, sw, sh)) continue;  // the 2 by 2 kernel has its own test
        Picture src(sw, sh, k.format), dst(dw, dh, k.format);
        std::vector<double> s(static_cast<size_t>(sw) * sh);
        auto at = [&](int32_t x, int32_t y) { return s[static_cast<size_t>(y) * sw + x]; };
        std::uniform_int_distribution<int32_t> value(k.lo, k.hi);
        for (int32_t i = 0; i < sw * sh; ++i)
            store(src.row(0, i / sw) + kindOf(k.format).size * (i % sw), kindOf(k.format),
                  (s[i] = value(rng)) * k.scale);
        ASSERT_EQ(round % 2 ? ImageProc_resizeImage(&o.proc, &dst.image, &src.image)
                            : ImageProc2_resizeImage(&o.proc2, &dst.image, &src.image),
                  TL_OK);
        for (int32_t y = 0; y < dh; ++y)
            for (int32_t x = 0; x < dw; ++x)
                ASSERT_NEAR(elementOf(dst.image, x, y),
                            vq_tl_test::bilinear(at, sw, sh, q15(x, sw, dw), q15(y, sh, dh)) * k.scale,
                            k.tolerance)
                    << k.format << " " << sw << "x" << sh << "->" << dw << "x" << dh << " at " << x << ","
                    << y;
        ASSERT_TRUE(dst.canariesIntact());
    }
}

TEST(Resize, BytesMatchTheFixedPointDefinition) {
    // 8-bit planes, every byte against the Q15 definition written out: h = a (32768 - fx) + b fx along the
    // row, then (h0 (32768 - fy) + h1 fy + 2^29) >> 30, or (h0 + 2^14) >> 15 where fy is 0. One, two and
    // three channels; shrinking (the pipeline's 100 to 27 among them) and enlarging.
    Objects o;
    std::mt19937 rng(127);
    const uint32_t formats[3] = {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT88, IMAGE_FORMAT_HSV};
    for (int round = 0; round < vq_tl_test_scaled(60, 12); ++round) {
        const uint32_t f = formats[round % 3];
        const int32_t c = round % 3 + 1;
        int32_t sw = 1 + static_cast<int32_t>(rng() % 90), sh = 1 + static_cast<int32_t>(rng() % 30);
        int32_t dw = 1 + static_cast<int32_t>(rng() % 90), dh = 1 + static_cast<int32_t>(rng() % 30);
        if (round % 10 == 9) sw = 400, sh = 30, dw = 108, dh = 8;
        if (Resize_isAboutHalf(dw, dh, sw, sh) || (dw == sw && dh == sh) || dw == 2 * sw) continue;
        Picture src(sw, sh, f), dst(dw, dh, f);
        src.fillRandom(rng);
        ASSERT_EQ(ImageProc2_resizeImage(&o.proc2, &dst.image, &src.image), TL_OK);
        std::vector<ResizeTap> tx(dw), ty(dh);
        ResizeTap_fill(tx.data(), dw, sw);
        ResizeTap_fill(ty.data(), dh, sh);
        auto h = [&](int32_t row, int32_t x, int32_t k) {
            return int64_t{src.row(0, row)[tx[x].i0 * c + k]} * (32768 - tx[x].frac) +
                   int64_t{src.row(0, row)[tx[x].i1 * c + k]} * tx[x].frac;
        };
        for (int32_t y = 0; y < dh; ++y) {
            for (int32_t x = 0; x < dw; ++x) {
                for (int32_t k = 0; k < c; ++k) {
                    const int64_t h0 = h(ty[y].i0, x, k), h1 = h(ty[y].i1, x, k), fy = ty[y].frac;
                    const int64_t v =
                        fy == 0 ? (h0 + 16384) >> 15 : (h0 * (32768 - fy) + h1 * fy + (1 << 29)) >> 30;
                    ASSERT_EQ(dst.row(0, y)[x * c + k], v)
                        << f << " " << sw << "x" << sh << "->" << dw << "x" << dh << " at " << x << "," << y;
                }
            }
        }
        ASSERT_TRUE(dst.canariesIntact());
    }
}

TEST(Resize, HalvingIsTheRoundedMeanOfFour) {
    // (a + b + c + d + 2) >> 2, the last column and row repeated; resizing to about half is the same kernel.
    Objects o;
    std::mt19937 rng(31);
    for (uint32_t f : {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT88, IMAGE_FORMAT_INT16, IMAGE_FORMAT_INT32}) {
        for (int round = 0; round < 6; ++round) {
            const int32_t sw = 2 + static_cast<int32_t>(rng() % 40),
                          sh = 2 + static_cast<int32_t>(rng() % 30);
            const int32_t dw = (sw + static_cast<int32_t>(rng() % 5) - 1) / 2,
                          dh = (sh + 1) / 2;  // 2 dst - src in -2..2
            if (!Resize_isAboutHalf(dw, dh, sw, sh) || dw < 1) continue;
            Picture src(sw, sh, f), half(dw, dh, f), resized(dw, dh, f);
            src.fillRandom(rng);
            ASSERT_EQ(ImageProc_shrink2(&o.proc, &half.image, &src.image), TL_OK);
            ASSERT_EQ(ImageProc2_resizeImage(&o.proc2, &resized.image, &src.image), TL_OK);
            const int n = f == IMAGE_FORMAT_UINT88 ? 2 : 1;
            auto at = [&](Picture& p, int32_t x, int32_t y, int c) {
                return static_cast<int64_t>(elementOf(p.image, x * n + c, y));
            };
            for (int32_t i = 0; i < dw * dh * n; ++i) {
                const int32_t x = i / n % dw, y = i / n / dw, c = i % n, x0 = std::min(2 * x, sw - 1),
                              x1 = std::min(2 * x + 1, sw - 1), y0 = std::min(2 * y, sh - 1),
                              y1 = std::min(2 * y + 1, sh - 1);
                const int64_t want =
                    (at(src, x0, y0, c) + at(src, x1, y0, c) + at(src, x0, y1, c) + at(src, x1, y1, c) + 2) >>
                    2;
                ASSERT_TRUE(at(half, x, y, c) == want && at(resized, x, y, c) == want)
                    << f << " " << sw << "x" << sh << " at " << x << "," << y;
            }
            EXPECT_TRUE(half.canariesIntact() && resized.canariesIntact());
        }
    }
}

TEST(Resize, AverageShrinkIsTheMeanOfTheCoveredArea) {
    // Random sizes against the exact mean: overlap of [x sw / dw, (x + 1) sw / dw) with pixel i.
    Objects o;
    auto overlap = [](int32_t i, int32_t x, int32_t src, int32_t dst) {
        return std::fmax(0.0, std::fmin(i + 1.0, (x + 1.0) * src / dst) - std::fmax(i, 1.0 * x * src / dst));
    };
    std::mt19937 rng(11);
    std::uniform_int_distribution<int32_t> side(2, 50);
    for (int round = 0; round < vq_tl_test_scaled(100, 20); ++round) {
        const int32_t sw = side(rng), sh = side(rng), dw = 1 + static_cast<int32_t>(rng() % (sw - 1)),
                      dh = 1 + static_cast<int32_t>(rng() % (sh - 1));
        Picture s(sw, sh, IMAGE_FORMAT_UINT16), d(dw, dh, IMAGE_FORMAT_UINT16);
        s.fillRandom(rng);
        ASSERT_EQ(round % 2 ? ImageProc_shrinkImage(&o.proc, &d.image, &s.image)
                            : ImageProc2_averageShrink(&o.proc2, &d.image, &s.image),
                  TL_OK);
        for (int32_t y = 0; y < dh; ++y) {
            for (int32_t x = 0; x < dw; ++x) {
                double sum = 0.0;
                for (int32_t j = 0; j < sh; ++j)
                    for (int32_t i = 0; i < sw; ++i)
                        sum += overlap(i, x, sw, dw) * overlap(j, y, sh, dh) * s.at<uint16_t>(i, j);
                ASSERT_NEAR(d.at<uint16_t>(x, y), sum * dw * dh / (static_cast<double>(sw) * sh), 0.5 + 1e-6)
                    << sw << "x" << sh << "->" << dw << "x" << dh;
            }
        }
        ASSERT_TRUE(d.canariesIntact());
    }
}

TEST(Resize, AverageShrinkOfBytesIsTheRoundedIntegerMean) {
    // 8-bit planes take the column-sum path: every byte against the integer definition, overlaps counted in
    // units of 1 / dw by 1 / dh: out = (sum p ox oy + total / 2) / total, total = sw sh. Layouts of one, two
    // and three channels and the two planes of 4:2:0; random bytes, all 255 (the largest sums) and
    // alternating 0 / 255; sizes from tiny to the pipeline's ratio of 100 to 27.
    Objects o;
    std::mt19937 rng(27);
    auto overlap = [](int64_t i, int64_t x, int64_t src, int64_t dst) {
        return std::max<int64_t>(0, std::min((i + 1) * dst, (x + 1) * src) - std::max(i * dst, x * src));
    };
    const uint32_t formats[4] = {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT88, IMAGE_FORMAT_HSV,
                                 IMAGE_FORMAT_YVU420_SEMIPLANAR};
    for (int round = 0; round < vq_tl_test_scaled(80, 16); ++round) {
        const uint32_t f = formats[round % 4];
        int32_t sw = 2 + static_cast<int32_t>(rng() % 70), sh = 2 + static_cast<int32_t>(rng() % 40);
        if (round % 9 == 8) sw = 400, sh = 300;
        int32_t dw = 1 + static_cast<int32_t>(rng() % (sw - 1)),
                dh = 1 + static_cast<int32_t>(rng() % (sh - 1));
        if (round % 9 == 8) dw = 108, dh = 81;
        if (f == IMAGE_FORMAT_YVU420_SEMIPLANAR) sw += sw & 1, sh += sh & 1, dw += dw & 1, dh += dh & 1;
        if (dw >= sw || dh >= sh) continue;
        Picture s(sw, sh, f), d(dw, dh, f);
        s.fillRandom(rng);
        if (round % 5 == 3) s.fillPlanes(255);
        if (round % 5 == 4) {
            for (int k = 0; k < 2; ++k)
                for (int32_t r = 0; r < s.rows[k]; ++r)
                    for (int32_t i = 0; i < s.rowBytes[k]; ++i) s.row(k, r)[i] = (i + r) % 2 ? 255 : 0;
        }
        ASSERT_EQ(ImageProc2_averageShrink(&o.proc2, &d.image, &s.image), TL_OK);
        const int32_t channels = f == IMAGE_FORMAT_UINT88 ? 2 : f == IMAGE_FORMAT_HSV ? 3 : 1;
        for (int k = 0; k < (f == IMAGE_FORMAT_YVU420_SEMIPLANAR ? 2 : 1); ++k) {
            const int32_t c = k == 1 ? 2 : channels;
            const int64_t pw = s.rowBytes[k] / c, ph = s.rows[k], qw = d.rowBytes[k] / c, qh = d.rows[k];
            const int64_t total = pw * ph;
            for (int64_t y = 0; y < qh; ++y) {
                for (int64_t x = 0; x < qw * c; ++x) {
                    int64_t sum = 0;
                    for (int64_t j = 0; j < ph; ++j) {
                        const int64_t oy = overlap(j, y, ph, qh);
                        for (int64_t i = 0; oy != 0 && i < pw; ++i)
                            sum += s.row(k, static_cast<int32_t>(j))[i * c + x % c] *
                                   overlap(i, x / c, pw, qw) * oy;
                    }
                    ASSERT_EQ(d.row(k, static_cast<int32_t>(y))[x], (sum + total / 2) / total)
                        << f << " plane " << k << " " << sw << "x" << sh << "->" << dw << "x" << dh << " at "
                        << x << "," << y;
                }
            }
        }
        ASSERT_TRUE(d.canariesIntact());
    }
}

TEST(Rotate, OperationTableIsAGroup) {
    // The operation of (a, c) is that of (b, c) followed by that of (a, b), for every b: a wrong entry breaks
    // this. The six pixels of a 3 by 2 picture tell all eight operations apart.
    for (int i = 0; i < 512; ++i) {
        const int a = 1 + i % 8, b = 1 + i / 8 % 8, c = 1 + i / 64;
        const int ab = Rotate_operation(a, b), bc = Rotate_operation(b, c), ac = Rotate_operation(a, c);
        for (int p = 0; p < 6; ++p) {
            int32_t x1, y1, x2, y2, x3, y3;
            where(bc, p % 3, p / 3, 3, 2, &x1, &y1);
            where(ab, x1, y1, bc >= 5 ? 2 : 3, bc >= 5 ? 3 : 2, &x2, &y2);
            where(ac, p % 3, p / 3, 3, 2, &x3, &y3);
            ASSERT_TRUE(x2 == x3 && y2 == y3) << a << b << c;
        }
    }
    EXPECT_EQ(Rotate_operation(0, 1), 0);
}

TEST(Rotate, EveryOperationMatchesItsFormulaOnEveryPlane) {
    // From orientation 1 to `to` is operation kFromOne[to] (6 the clockwise quarter turn). Every element of
    // every plane at its own size (1 to 4 bytes); odd sizes above one tile (4:2:0 even); rows padded by 7.
    // Odd orientations on the shared pool, even ones on the shared Pel.
    const int kFromOne[9] = {0, 1, 2, 3, 4, 5, 8, 7, 6};
    Objects o;
    const ImageStripeExec pool{nullptr, &sharedLayers().pool};
    std::mt19937 rng(1234);
    for (uint32_t f :
         {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT88, IMAGE_FORMAT_UINT16, IMAGE_FORMAT_INT16,
          IMAGE_FORMAT_RGB565, IMAGE_FORMAT_RGB888, IMAGE_FORMAT_HSV, IMAGE_FORMAT_ARGB8888,
          IMAGE_FORMAT_INT32, IMAGE_FORMAT_FLOAT, IMAGE_FORMAT_YUV420_PLANAR, IMAGE_FORMAT_YUV420_SEMIPLANAR,
          IMAGE_FORMAT_YVU420_SEMIPLANAR, IMAGE_FORMAT_YUV444_PLANAR}) {
        const bool yuv420 = f == IMAGE_FORMAT_YUV420_PLANAR || f == IMAGE_FORMAT_YUV420_SEMIPLANAR ||
                            f == IMAGE_FORMAT_YVU420_SEMIPLANAR;
        const int32_t w = yuv420 ? 134 : 131, h = yuv420 ? 78 : 77;
        Picture src(w, h, f, 7);
        src.fillRandom(rng);
        for (int to = 1; to <= 8; ++to) {
            const int op = kFromOne[to];
            ASSERT_EQ(Rotate_operation(1, to), op);
            Picture dst(op >= 5 ? h : w, op >= 5 ? w : h, f, 7);
            ASSERT_EQ(to % 2 ? Rotate_rotateImageEx(&pool, &dst.image, &src.image, 1, to)
                             : ImageProc2_rotateImageEx(&o.proc2, &dst.image, &src.image, 1, to),
                      TL_OK)
                << f << " to " << to;
            PlaneViews sv, dv;
            ASSERT_TRUE(PlaneViews_split(&sv, &src.image) == TL_OK &&
                        PlaneViews_split(&dv, &dst.image) == TL_OK);
            for (int k = 0; k < sv.count; ++k) {
                const Image &s = sv.plane[k], &d = dv.plane[k];
                const int32_t e = src.rowBytes[k] / s.width;
                for (int32_t y = 0; y < s.height; ++y) {
                    for (int32_t x = 0; x < s.width; ++x) {
                        int32_t dx, dy;
                        where(op, x, y, s.width, s.height, &dx, &dy);
                        ASSERT_EQ(std::memcmp(s.plane[0] + s.pitch[0] * y + e * x,
                                              d.plane[0] + d.pitch[0] * dy + e * dx, e),
                                  0)
                            << f << " to " << to << " plane " << k << " at " << x << "," << y;
                    }
                }
            }
            EXPECT_TRUE(dst.canariesIntact()) << f << " to " << to;
        }
    }
}

TEST(PixelOps, EveryOperationAndElementTypeMatchesThePlainExpression) {
    const struct {
        K op;
        double n;
    } ops[] = {{K::kAdd, 0},    {K::kSub, 0},      {K::kMul, 0},        {K::kDiv, 0},
               {K::kAbsSub, 0}, {K::kMax, 0},      {K::kMin, 0},        {K::kMla, 0},
               {K::kAbs, 0},    {K::kNAdd, 37.5},  {K::kNSub, -1000.5}, {K::kNSubr, 99.4},
               {K::kNMul, 0.5}, {K::kNMul, -2.75}, {K::kNMax, 100.4},   {K::kNMin, -7.6},
               {K::kNShift, 3}, {K::kNShift, -2},  {K::kNShift, 40},    {K::kNShift, -70}};
    Objects proc;
    std::mt19937 rng(20240611);
    for (const auto& o : ops) {
        for (uint32_t f : {IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT16, IMAGE_FORMAT_INT16, IMAGE_FORMAT_INT32,
                           IMAGE_FORMAT_FLOAT, IMAGE_FORMAT_YUV420_SEMIPLANAR}) {
            for (bool inPlace : {false, true}) {
                const int32_t w = 2 * static_cast<int32_t>(rng() % 20) + 1,
                              h = static_cast<int32_t>(rng() % 9) + 3;
                // a is a view into a larger picture; b and dst have other pitches.
                Picture parent(w + 5, h + 4, f), b(w, h, f, 12), d(w, h, f, 4);
                View a;
                ASSERT_EQ(Image_initSubImage(&a, &parent.image, 2, 2, w, h), TL_OK);
                Image* dst = inPlace ? &a : &d.image;
                for (const Image* m : {static_cast<Image*>(&a), &b.image, &d.image}) fillRandom(*m, rng);
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
            }
        }
    }
}

TEST(PixelOps, ClearFillsEveryPlaneOrOnlyLuma) {
    // 300 saturates to 255 in bytes; the 4:2:0 picture keeps its chroma under clearY.
    Objects proc;
    Picture yuv(7, 5, IMAGE_FORMAT_YUV420_PLANAR), gray(9, 3, IMAGE_FORMAT_UINT8),
        real(3, 3, IMAGE_FORMAT_FLOAT);
    yuv.fillPlanes(10);
    EXPECT_TRUE(ImageProc_clearY(&proc.proc, &yuv.image, 300) == TL_OK && yuv.at<uint8_t>(6, 4, 0) == 255 &&
                yuv.at<uint8_t>(3, 2, 1) == 11 && yuv.at<uint8_t>(3, 2, 2) == 12);
    EXPECT_TRUE(ImageProc_clear(&proc.proc, &yuv.image, -4) == TL_OK &&
                yuv.at<uint8_t>(0, 0, 0) + yuv.at<uint8_t>(3, 2, 1) + yuv.at<uint8_t>(3, 2, 2) == 0);
    EXPECT_TRUE(ImageProc_clearY(&proc.proc, &gray.image, 77) == TL_OK && gray.u8(8, 2) == 77);
    EXPECT_TRUE(ImageProc_ImageFloat_clearY(&proc.proc, &real.image, -2.5f) == TL_OK &&
                real.at<float>(2, 2) == -2.5f);
    EXPECT_TRUE(yuv.canariesIntact() && gray.canariesIntact() && real.canariesIntact());
}

TEST(PixelOps, BlendWorkedByHandOnEachLayout) {
    // a 200, b 100: alpha 0 gives 100, 32 gives 125, 64 gives 150, 96 gives 175, 128 (or more) 200. A 4:2:0
    // chroma sample takes the rounded mean of its 2 by 2 pixels' alpha, edges repeated at odd sizes.
    const uint8_t alpha[3][3] = {{0, 255, 128}, {128, 128, 0}, {0, 64, 128}};
    const uint8_t luma[3][3] = {{100, 200, 200}, {200, 200, 100}, {100, 150, 200}};
    const uint8_t chroma[2][2] = {{175, 150}, {125, 200}};  // from 96, 64, 32 and 128
    Objects proc;
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
    Objects proc;
    const int32_t ints[] = {-5, 0, 17, 255, 256, INT32_MIN, INT32_MAX, 128, 1};
    const float reals[] = {-0.4f, 0.4999f, 0.5f, 254.5f, 254.49f, 1e30f, -INFINITY, NAN, INFINITY};
    const uint8_t fromInts[] = {0, 0, 17, 255, 255, 0, 255, 128, 1},
                  fromReals[] = {0, 0, 1, 255, 254, 255, 0, 0, 255};
    Picture i32(9, 1, IMAGE_FORMAT_INT32), f32(9, 1, IMAGE_FORMAT_FLOAT), d(9, 1, IMAGE_FORMAT_UINT8);
    std::memcpy(i32.row(0, 0), ints, sizeof ints), std::memcpy(f32.row(0, 0), reals, sizeof reals);
    EXPECT_TRUE(ImageProc_ImageInt32_toUint8(&proc.proc, &d.image, &i32.image) == TL_OK &&
                std::memcmp(d.row(0, 0), fromInts, 9) == 0);
    EXPECT_TRUE(ImageProc_ImageFloat_toUint8(&proc.proc, &d.image, &f32.image) == TL_OK &&
                std::memcmp(d.row(0, 0), fromReals, 9) == 0);
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
    Objects proc;
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

TEST(Blur, GaussIsExactQ15ConvolutionOfANearGaussian) {
    // Integer pixels: exactly the Q15 convolution with the library's taps. To the true Gaussian (cut at 3 on
    // the 7-tap path) the worst differences are 0.94 of 255 (8 bits), 16.4 of 65535 (16 bits), 0.065
    // (floats).
    const struct {
        uint32_t format;
        int32_t channels, refRadius;
        double sigma, top, bound;
    } cases[] = {
        {IMAGE_FORMAT_UINT8, 1, 3, 0.6, 255, 1.0},       {IMAGE_FORMAT_UINT8, 1, 3, 1.8, 255, 1.0},
        {IMAGE_FORMAT_UINT88, 2, 16, 3.2, 255, 1.0},     {IMAGE_FORMAT_UINT8, 1, 35, 7.0, 255, 1.0},
        {IMAGE_FORMAT_RGB888, 3, 12, 2.5, 255, 1.0},     {IMAGE_FORMAT_UINT16, 1, 20, 4.0, 65535, 20.0},
        {IMAGE_FORMAT_UINT1616, 2, 3, 1.2, 65535, 20.0}, {IMAGE_FORMAT_FLOAT, 1, 25, 5.0, 0, 0.08},
    };
    std::mt19937 rng(11);
    const int32_t w = 83, h = 57;
    int32_t i = 0;
    for (const auto& c : cases) {
        const ImageStripeExec exec = sharedLayers().exec(i++ % Layers::kCount);
        Picture src(w, h, c.format), dst(w, h, c.format);
        src.fillRandom(rng);
        for (int32_t k = 0; c.format == IMAGE_FORMAT_FLOAT && k < w * h; ++k)
            src.at<float>(k % w, k / w) = static_cast<float>(rng() % 1000) * 0.25f;
        ASSERT_EQ(Blur_gaussBlur(&exec, &dst.image, &src.image, 0, c.sigma), TL_OK) << c.sigma;
        EXPECT_TRUE(dst.canariesIntact());
        const std::vector<double> in = elementsOf(src.image), got = elementsOf(dst.image);
        const std::vector<double> want = convolve(in, w, h, c.channels, gaussian(c.sigma, c.refRadius), 0);
        EXPECT_LE(differences(got, want).first, c.bound) << "format " << c.format << " sigma " << c.sigma;
        if (c.top == 0) continue;
        int32_t taps[kBlurTapCount];
        const int32_t r = Blur_makeGaussTaps(taps, c.sigma, w, h, c.sigma <= kBlurDirectSigma ? 3 : 100);
        const std::vector<double> q15(taps + kBlurTapCenter - r, taps + kBlurTapCenter + r + 1);
        EXPECT_EQ(got, convolve(in, w, h, c.channels, q15, c.top)) << "format " << c.format;
        if (c.sigma > kBlurDirectSigma) continue;
        Picture pyramid(w, h, c.format);  // up to 1.8 the pyramid is the direct Gaussian
        ASSERT_EQ(Blur_pgaussBlur(nullptr, &pyramid.image, &src.image, 0, c.sigma), TL_OK);
        EXPECT_TRUE(pyramid.samePixels(dst)) << c.format;
    }
    // Negative taps overshoot both ends; as many rows as taps: thin stripes.
    const std::vector<int32_t> sharpen[] = {
        {-8192, 49152, -8192}, {-4096, 0, 40960, 0, -4096}, {-2048, 1024, 8192, 18432, 8192, 1024, -2048}};
    for (const auto& taps : sharpen) {
        const int32_t size = static_cast<int32_t>(taps.size());
        Picture src(w, size, IMAGE_FORMAT_UINT8), dst(w, size, IMAGE_FORMAT_UINT8);
        src.fillRandom(rng);
        const ImageStripeExec exec = sharedLayers().exec(i++ % Layers::kCount);
        ASSERT_EQ(Blur_separable(&exec, &dst.image, &src.image, taps.data(), size), TL_OK);
        EXPECT_EQ(elementsOf(dst.image),
                  convolve(elementsOf(src.image), w, size, 1, {taps.begin(), taps.end()}, 255))
            << size;
    }
}

TEST(Blur, PyramidNearTheTrueGaussian) {
    // Halvings, bilinear enlargements and the final 1.8 pass, on a ramp with steps of 100 and 35 levels and
    // noise of 16: worst differences measured 2.7 levels at sigma 6, 2.8 at 12, 3.1 at 24, means 0.45, 0.70,
    // 0.69.
    std::mt19937 rng(3);
    const int32_t w = 320, h = 240;
    for (double sigma : {6.0, 12.0, 24.0}) {
        Picture src(w, h, IMAGE_FORMAT_UINT8), dst(w, h, IMAGE_FORMAT_UINT8);
        for (int32_t i = 0, x = 0, y = 0; i < w * h; ++i, x = i % w, y = i / w)
            src.u8(x, y) = static_cast<uint8_t>(40 + x * 100 / w + rng() % 16 +
                                                (x > w / 4 && x < w / 2 && y > h / 5) * 100 -
                                                (y > h * 2 / 3 && x > w * 3 / 5) * 35);
        const ImageStripeExec exec = sharedLayers().exec(static_cast<int32_t>(sigma) / 6);
        ASSERT_EQ(Blur_pgaussBlur(&exec, &dst.image, &src.image, 0, sigma), TL_OK);
        const std::vector<double> got = elementsOf(dst.image),
                                  want = convolve(elementsOf(src.image), w, h, 1,
                                                  gaussian(sigma, static_cast<int32_t>(4 * sigma)), 0);
        const auto [worst, mean] = differences(got, want);
        EXPECT_LE(worst, 3.5) << sigma;
        EXPECT_LE(mean, 0.8) << sigma;
    }
}

TEST(Blur, BoxFormsEqualWindowSums) {
    const struct {
        BlurBoxForm form;
        uint32_t srcFormat, dstFormat;
        int32_t channels, radius;
    } cases[] = {
        {BLUR_BOX_MEAN, IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT8, 1, 1},
        {BLUR_BOX_MEAN, IMAGE_FORMAT_UINT88, IMAGE_FORMAT_UINT88, 2, 4},
        {BLUR_BOX_MEAN, IMAGE_FORMAT_UINT16, IMAGE_FORMAT_UINT16, 1, 7},
        {BLUR_BOX_SUM, IMAGE_FORMAT_UINT8, IMAGE_FORMAT_INT32, 1, 30},
        {BLUR_BOX_MEAN_SQUARES, IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT16, 1, 2},
        {BLUR_BOX_SUM_SQUARES, IMAGE_FORMAT_UINT8, IMAGE_FORMAT_INT32, 1, 90},
        {BLUR_BOX_MEAN, IMAGE_FORMAT_UINT8, IMAGE_FORMAT_UINT8, 1, 0},
    };
    std::mt19937 rng(8);
    const int32_t w = 41, h = 29;
    int32_t i = 0;
    for (const auto& c : cases) {
        Picture src(w, h, c.srcFormat), dst(w, h, c.dstFormat);
        src.fillRandom(rng);
        const ImageStripeExec exec = sharedLayers().exec(i++ % Layers::kCount);
        ASSERT_EQ(Blur_boxFilter(&exec, &dst.image, &src.image, c.radius, c.form), TL_OK) << c.form;
        EXPECT_TRUE(dst.canariesIntact());
        const bool squares = c.form == BLUR_BOX_MEAN_SQUARES || c.form == BLUR_BOX_SUM_SQUARES;
        const bool mean = c.form == BLUR_BOX_MEAN || c.form == BLUR_BOX_MEAN_SQUARES;
        const double area = (2 * c.radius + 1) * (2 * c.radius + 1);
        std::vector<double> in = elementsOf(src.image);
        for (double& v : in) v = squares ? v * v : v;
        std::vector<double> want =
            convolve(in, w, h, c.channels, std::vector<double>(2 * c.radius + 1, 1.0), 0);
        for (double& v : want) v = mean ? std::floor((v + std::floor(area / 2)) / area) : v;
        EXPECT_EQ(elementsOf(dst.image), want) << "form " << c.form << " radius " << c.radius;
    }
}

// Wrong sizes or formats, no kernel, overlapping views, bad numbers: refused, and no picture changes.
TEST(Kernels, RefusalsWriteNothing) {
    Objects o;
    ImageProc* p = &o.proc;
    Picture u8(5, 4, IMAGE_FORMAT_UINT8), same(5, 4, IMAGE_FORMAT_UINT8), narrow(4, 4, IMAGE_FORMAT_UINT8),
        tall(4, 5, IMAGE_FORMAT_UINT8), wider(6, 2, IMAGE_FORMAT_UINT8), tiny(1, 1, IMAGE_FORMAT_UINT8),
        u16(5, 4, IMAGE_FORMAT_UINT16), tall16(4, 5, IMAGE_FORMAT_UINT16), i32(5, 4, IMAGE_FORMAT_INT32),
        yuv(6, 4, IMAGE_FORMAT_YUV420_SEMIPLANAR), planar(6, 4, IMAGE_FORMAT_YUV420_PLANAR),
        yuyv(6, 4, IMAGE_FORMAT_YUV422_YUYV), rgb(5, 4, IMAGE_FORMAT_RGB888),
        rgbSmall(2, 2, IMAGE_FORMAT_RGB888), packed(5, 4, IMAGE_FORMAT_RGB565),
        packed2(5, 4, IMAGE_FORMAT_RGB565), alpha(6, 4, IMAGE_FORMAT_UINT8), lab(5, 4, IMAGE_FORMAT_LAB),
        labTall(4, 5, IMAGE_FORMAT_LAB), labSmall(2, 2, IMAGE_FORMAT_LAB);
    Picture* all[] = {&u8,     &same,    &narrow, &tall,   &wider,   &tiny,    &u16,
                      &tall16, &i32,     &yuv,    &planar, &yuyv,    &rgb,     &rgbSmall,
                      &packed, &packed2, &alpha,  &lab,    &labTall, &labSmall};
    std::mt19937 rng(3);
    std::vector<std::vector<uint8_t>> before;
    for (Picture* q : all) q->fillRandom(rng), before.push_back(q->storage);
    // Views one row apart overlap without being one picture; the empty picture has no planes.
    View shifted, top, empty;
    ASSERT_TRUE(Image_initSubImage(&shifted, &u8.image, 0, 1, 5, 3) == TL_OK &&
                Image_initSubImage(&top, &u8.image, 0, 0, 5, 3) == TL_OK &&
                Image_init(&empty, 0, 0, nullptr, IMAGE_FORMAT_UINT8) == TL_OK);
    // The three families of rank filters give one answer, or ~0.
    auto rank = [&](Image* d, const Image* s) {
        const TLResult r = ImageProc_filterMax3x3(p, d, s, 0);
        return ImageProc2_filterMin3x3(&o.proc2, d, s, 0) == r && ImageProc_filterRankMax5x5(p, d, s, 0) == r
                   ? r
                   : ~0u;
    };
    auto rotate = [](Picture& d, Picture& s, int32_t from, int32_t to) {
        return Rotate_rotateImageEx(nullptr, &d.image, &s.image, from, to);
    };
    uint8_t table[256] = {};
    const int32_t taps[7] = {0, 0, 8192, 16384, 8192, 0, 0};
    ImageProc2* p2 = &o.proc2;
    Image *d = &same.image, *s = &u8.image;
    const TLResult P = TL_ERROR_PARAM, U = TL_ERROR_UNSUPPORTED;
    const TLResult cases[][2] = {
        {rank(&narrow.image, &u8.image), P},
        {rank(&u16.image, &u8.image), P},
        {rank(&yuyv.image, &yuyv.image), U},
        {rank(&packed.image, &packed.image), U},
        {rank(&shifted, &top), P},
        {Resize_resizeImage(nullptr, &u16.image, &u8.image), U},  // formats differ
        {Resize_resizeImage(nullptr, &rgbSmall.image, &rgb.image), U},
        {Resize_resizeImage(nullptr, &labSmall.image, &lab.image), U},
        {Resize_averageShrink(nullptr, &same.image, &u8.image), P},  // not smaller
        {Resize_averageShrink(nullptr, &wider.image, &u8.image), P},
        {Resize_averageShrink(nullptr, &u16.image, &u8.image), P},
        {Resize_shrink2(nullptr, &tiny.image, &u8.image), P},  // not about half
        {ImageProc2_gaussBlur(p2, d, s, 0, 0.0), P},           // sigma 0, negative, below 1e-16
        {ImageProc2_pgaussBlur(p2, d, s, 0, -2.0), P},
        {ImageProc_pgaussBlur(p, d, s, 0, 5e-17), P},
        {ImageProc_gaussBlur2(p, &tall.image, s, 0, 2.0), P},
        {ImageProc2_pgaussBlur(p2, &u16.image, s, 0, 5.0), P},
        {ImageProc2_gaussBlur(p2, &packed2.image, &packed.image, 0, 1.0), U},
        {ImageProc2_boxBlur(p2, d, s, 91), P},
        {ImageProc_boxSum(p, d, s, 2), P},  // sums need 32 bits
        {ImageProc2_filterGaussianBlur7x7_uint16(p2, d, s, taps), U},
        {rotate(tall, u8, 0, 6), P},
        {rotate(tall, u8, 1, 9), P},
        {rotate(tall16, u8, 1, 6), U},
        {rotate(labTall, lab, 1, 6), U},
        {rotate(same, u8, 1, 6), U},  // sizes not swapped
        {rotate(tall, u8, 1, 2), U},
        {rotate(u8, u8, 1, 1), U},  // onto itself
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
}
