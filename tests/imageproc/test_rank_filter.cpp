// Rank filters against a brute-force reference written here: every pixel's
// window part inside the image, gathered and sorted. Odd sizes, every element
// layout, in place and not, on the calling thread, a Pel and an executor.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "imageproc/plane_views.h"
#include "imageproc/rank_filter.h"
#include "support/picture.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "support/test_env.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

enum Op { MAX3, MIN3, MEDIAN3, CROSS, RANK_MAX3, RANK_MIN3, RANK_MAX5 };

const char* opName(Op op) {
    static const char* kNames[] = {"max3", "min3", "median3", "cross", "rankMax3", "rankMin3", "rankMax5"};
    return kNames[op];
}

// Element type and channels of a single-plane view, as the test sees it.
struct ViewLayout {
    char type;  // 'b' u8, 'w' u16, 's' i16, 'i' i32, 'f' float
    int channels;
};

ViewLayout viewLayout(uint32_t f) {
    switch (f) {
        case IMAGE_FORMAT_UINT8: return {'b', 1};
        case IMAGE_FORMAT_UINT88: return {'b', 2};
        case IMAGE_FORMAT_UINT16: return {'w', 1};
        case IMAGE_FORMAT_UINT1616: return {'w', 2};
        case IMAGE_FORMAT_INT16: return {'s', 1};
        case IMAGE_FORMAT_INT32: return {'i', 1};
        case IMAGE_FORMAT_FLOAT: return {'f', 1};
        case IMAGE_FORMAT_RGB888:
        case IMAGE_FORMAT_HSV: return {'b', 3};
        default: return {'b', 4};  // 4 to 15
    }
}

int elementSize(char t) { return t == 'b' ? 1 : (t == 'w' || t == 's') ? 2 : 4; }

double readElement(const Image& v, ViewLayout l, int32_t x, int32_t y, int ch) {
    const uint8_t* p = v.plane[0] + static_cast<size_t>(v.pitch[0]) * y +
                       static_cast<size_t>(x * l.channels + ch) * elementSize(l.type);
    switch (l.type) {
        case 'b': return *p;
        case 'w': {
            uint16_t e;
            std::memcpy(&e, p, 2);
            return e;
        }
        case 's': {
            int16_t e;
            std::memcpy(&e, p, 2);
            return e;
        }
        case 'i': {
            int32_t e;
            std::memcpy(&e, p, 4);
            return e;
        }
        default: {
            float e;
            std::memcpy(&e, p, 4);
            return e;
        }
    }
}

double reference(const Image& v, ViewLayout l, Op op, int32_t x, int32_t y, int ch) {
    const int r = op == RANK_MAX5 ? 2 : 1;
    std::vector<double> s;
    for (int dy = -r; dy <= r; ++dy) {
        for (int dx = -r; dx <= r; ++dx) {
            if (op == CROSS && dx != 0 && dy != 0) continue;
            const int32_t xx = x + dx, yy = y + dy;
            if (xx < 0 || yy < 0 || xx >= v.width || yy >= v.height) continue;
            s.push_back(readElement(v, l, xx, yy, ch));
        }
    }
    std::sort(s.begin(), s.end());
    switch (op) {
        case MAX3:
        case RANK_MAX3:
        case RANK_MAX5: return s.back();
        case MIN3:
        case RANK_MIN3: return s.front();
        default: return s[(s.size() - 1) / 2];  // the lower middle of an even count
    }
}

// Random pixels; about one picture in eight sits at the extremes instead.
void fill(Picture& p, std::mt19937& rng, uint32_t format) {
    const int kind = static_cast<int>(rng() % 8);
    for (int k = 0; k < 3; ++k) {
        for (int32_t r = 0; r < p.rows[k]; ++r) {
            uint8_t* row = p.row(k, r);
            for (int32_t i = 0; i < p.rowBytes[k]; ++i) {
                row[i] = kind == 0 ? 0 : kind == 1 ? 0xFF : kind == 2 ? ((i + r) & 1 ? 0xFF : 0) : rng();
            }
        }
    }
    if (format == IMAGE_FORMAT_FLOAT) {
        // Finite values of both signs, with repeats.
        for (int32_t r = 0; r < p.rows[0]; ++r) {
            for (int32_t x = 0; x < p.image.width; ++x)
                p.at<float>(x, r) = static_cast<float>(static_cast<int>(rng() % 41) - 20) * 0.25f;
        }
    }
}

TLResult apply(Op op, ImageProc* proc, ImageProc2* proc2, Image* dst, const Image* src, uint32_t mask) {
    if (proc2 != nullptr) {
        return op == MAX3 ? ImageProc2_filterMax3x3(proc2, dst, src, mask)
                          : ImageProc2_filterMin3x3(proc2, dst, src, mask);
    }
    switch (op) {
        case MAX3: return ImageProc_filterMax3x3(proc, dst, src, mask);
        case MIN3: return ImageProc_filterMin3x3(proc, dst, src, mask);
        case MEDIAN3: return ImageProc_filterMedian3x3(proc, dst, src, mask);
        case CROSS: return ImageProc_filterMedianCross(proc, dst, src, mask);
        case RANK_MAX3: return ImageProc_filterRankMax3x3(proc, dst, src, mask);
        case RANK_MIN3: return ImageProc_filterRankMin3x3(proc, dst, src, mask);
        default: return ImageProc_filterRankMax5x5(proc, dst, src, mask);
    }
}

// Compares every selected plane of out with the reference over src, and
// every other plane with src itself.
void expectFiltered(const Picture& src, const Picture& out, Op op, uint32_t mask, const char* where) {
    PlaneViews sv, ov;
    ASSERT_EQ(PlaneViews_split(&sv, &src.image), TL_OK);
    ASSERT_EQ(PlaneViews_split(&ov, &out.image), TL_OK);
    for (int k = 0; k < sv.count; ++k) {
        const ViewLayout l = viewLayout(sv.plane[k].format);
        const bool selected = mask == 0 || ((mask >> k) & 1) != 0;
        int errors = 0;
        for (int32_t y = 0; y < sv.plane[k].height; ++y) {
            for (int32_t x = 0; x < sv.plane[k].width; ++x) {
                for (int ch = 0; ch < l.channels; ++ch) {
                    const double want = selected ? reference(sv.plane[k], l, op, x, y, ch)
                                                 : readElement(sv.plane[k], l, x, y, ch);
                    const double got = readElement(ov.plane[k], l, x, y, ch);
                    if (got != want && errors++ < 3) {
                        ADD_FAILURE()
                            << where << " " << opName(op) << " format " << src.image.format << " "
                            << src.image.width << "x" << src.image.height << " plane " << k << " at (" << x
                            << ", " << y << ") channel " << ch << ": " << got << " want " << want;
                    }
                }
            }
        }
    }
    EXPECT_TRUE(out.canariesIntact()) << where << " " << opName(op) << " format " << src.image.format;
}

struct Sizes {
    int32_t w, h;
};

}  // namespace

TEST(RankFilter, MatchesBruteForceOnEveryLayoutAndLayer) {
    auto pel = std::make_unique<Pel>();
    construct_Pel(pel.get(), nullptr);
    pel->params.numberOfWorkers = 3;
    ASSERT_EQ(Pel_init(pel.get()), TL_OK);
    ParallelExecutor pool;
    construct_ParallelExecutor(&pool, nullptr);
    pool.numberOfThreads = 2;
    pool.setAffinity = 0;
    ASSERT_EQ(ParallelExecutor_init(&pool, 4, 16), TL_OK);

    Env env{};
    ImageProc serial, threaded;
    construct_ImageProc(&serial, &env);
    construct_ImageProc(&threaded, &env);
    ImageProc_setParallelExecutor(&threaded, &pool);
    ImageProc2 serial2, threaded2;
    construct_ImageProc2(&serial2, &env);
    construct_ImageProc2(&threaded2, &env);
    ImageProc2_setPel(&threaded2, pel.get());

    const uint32_t formats[] = {IMAGE_FORMAT_UINT8,        IMAGE_FORMAT_UINT88,
                                IMAGE_FORMAT_UINT16,       IMAGE_FORMAT_UINT1616,
                                IMAGE_FORMAT_INT16,        IMAGE_FORMAT_INT32,
                                IMAGE_FORMAT_FLOAT,        IMAGE_FORMAT_RGB888,
                                IMAGE_FORMAT_ARGB8888,     IMAGE_FORMAT_YUV420_SEMIPLANAR,
                                IMAGE_FORMAT_YUV420_PLANAR};
    // Single rows and columns, sizes below the window, and stripes of one row.
    const Sizes sizes[] = {{1, 1}, {1, 6}, {7, 1}, {2, 2}, {3, 5}, {17, 13}, {vq_tl_test_scaled(41, 21), 9}};
    const Op ops[] = {MAX3, MIN3, MEDIAN3, CROSS, RANK_MAX3, RANK_MIN3, RANK_MAX5};
    std::mt19937 rng(20261121);
    for (uint32_t f : formats) {
        const bool yuv = f == IMAGE_FORMAT_YUV420_SEMIPLANAR || f == IMAGE_FORMAT_YUV420_PLANAR;
        for (const Sizes& s : sizes) {
            // YUV 4:2:0 has even sizes.
            const int32_t w = yuv ? (s.w + 1) & ~1 : s.w, h = yuv ? (s.h + 1) & ~1 : s.h;
            Picture src(w, h, f);
            fill(src, rng, f);
            for (Op op : ops) {
                struct Caller {
                    const char* name;
                    ImageProc* proc;
                    ImageProc2* proc2;
                };
                const Caller callers[] = {{"calling thread", &serial, nullptr},
                                          {"executor", &threaded, nullptr},
                                          {"ImageProc2 calling thread", nullptr, &serial2},
                                          {"ImageProc2 on pel", nullptr, &threaded2}};
                for (const Caller& c : callers) {
                    if (c.proc2 != nullptr && op != MAX3 && op != MIN3) continue;
                    Picture out(w, h, f);
                    ASSERT_EQ(apply(op, c.proc, c.proc2, &out.image, &src.image, 0), TL_OK) << c.name;
                    expectFiltered(src, out, op, 0, c.name);
                    // In place: the same picture as both.
                    Picture inPlace(w, h, f);
                    for (int k = 0; k < 3; ++k) {
                        for (int32_t r = 0; r < src.rows[k]; ++r)
                            std::memcpy(inPlace.row(k, r), src.row(k, r), src.rowBytes[k]);
                    }
                    ASSERT_EQ(apply(op, c.proc, c.proc2, &inPlace.image, &inPlace.image, 0), TL_OK) << c.name;
                    expectFiltered(src, inPlace, op, 0, c.name);
                }
            }
        }
    }
    destruct_ImageProc2(&threaded2);
    destruct_ImageProc2(&serial2);
    EXPECT_EQ(destruct_ParallelExecutor(&pool), TL_OK);
    EXPECT_EQ(destruct_Pel(pel.get()), TL_OK);
}

TEST(RankFilter, PlaneMaskSelectsPlanesAndCopiesTheRest) {
    Env env{};
    ImageProc proc;
    construct_ImageProc(&proc, &env);
    std::mt19937 rng(7);
    const struct {
        uint32_t format;
        uint32_t mask;
    } cases[] = {
        {IMAGE_FORMAT_YUV420_PLANAR, 1},  // luma only
        {IMAGE_FORMAT_YUV420_PLANAR, 6},  // chroma only
        {IMAGE_FORMAT_YUV420_SEMIPLANAR, 2},
        {IMAGE_FORMAT_UINT8, 1},
    };
    for (const auto& c : cases) {
        Picture src(22, 14, c.format);
        fill(src, rng, c.format);
        Picture out(22, 14, c.format);
        ASSERT_EQ(ImageProc_filterMedian3x3(&proc, &out.image, &src.image, c.mask), TL_OK);
        expectFiltered(src, out, MEDIAN3, c.mask, "mask");
    }
}

TEST(RankFilter, HandWorkedMedianAndBorders) {
    // 3 by 3 picture: the centre takes the fifth of nine; a corner the lower
    // middle of its four; an edge pixel the lower middle of six.
    Env env{};
    ImageProc proc;
    construct_ImageProc(&proc, &env);
    Picture src(3, 3, IMAGE_FORMAT_UINT8);
    const uint8_t v[9] = {9, 1, 8, 2, 7, 3, 6, 4, 5};
    for (int i = 0; i < 9; ++i) src.u8(i % 3, i / 3) = v[i];
    Picture out(3, 3, IMAGE_FORMAT_UINT8);
    ASSERT_EQ(ImageProc_filterMedian3x3(&proc, &out.image, &src.image, 0), TL_OK);
    EXPECT_EQ(out.u8(1, 1), 5);  // sorted 1..9
    EXPECT_EQ(out.u8(0, 0), 2);  // {9, 1, 2, 7}: 1 2 7 9
    EXPECT_EQ(out.u8(1, 0), 3);  // {9, 1, 8, 2, 7, 3}: 1 2 3 7 8 9
    ASSERT_EQ(ImageProc_filterMedianCross(&proc, &out.image, &src.image, 0), TL_OK);
    EXPECT_EQ(out.u8(1, 1), 3);  // {1, 2, 7, 3, 4}
    EXPECT_EQ(out.u8(0, 0), 2);  // {9, 1, 2}
}

TEST(RankFilter, BadArguments) {
    Env env{};
    ImageProc proc;
    construct_ImageProc(&proc, &env);
    ImageProc2 proc2;
    construct_ImageProc2(&proc2, &env);
    Picture a(8, 6, IMAGE_FORMAT_UINT8), b(8, 6, IMAGE_FORMAT_UINT8), small(7, 6, IMAGE_FORMAT_UINT8);
    Picture wide(8, 6, IMAGE_FORMAT_UINT16), yuyv(8, 6, IMAGE_FORMAT_YUV422_YUYV),
        yuyv2(8, 6, IMAGE_FORMAT_YUV422_YUYV);
    Picture rgb565(8, 6, IMAGE_FORMAT_RGB565), rgb565b(8, 6, IMAGE_FORMAT_RGB565);
    EXPECT_EQ(ImageProc_filterMax3x3(nullptr, &a.image, &b.image, 0), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc2_filterMin3x3(nullptr, &a.image, &b.image, 0), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc_filterMedian3x3(&proc, nullptr, &b.image, 0), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc_filterMedian3x3(&proc, &a.image, nullptr, 0), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc_filterMedianCross(&proc, &small.image, &b.image, 0), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc2_filterMax3x3(&proc2, &wide.image, &b.image, 0), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc_filterRankMax5x5(&proc, &yuyv.image, &yuyv2.image, 0), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(ImageProc_filterRankMin3x3(&proc, &rgb565.image, &rgb565b.image, 0), TL_ERROR_UNSUPPORTED);
    // A view one row down overlaps its source without being it.
    Image shifted;
    construct_Image(&shifted, &env);
    ASSERT_EQ(Image_initSubImage(&shifted, &a.image, 0, 1, 8, 5), TL_OK);
    Image top;
    construct_Image(&top, &env);
    ASSERT_EQ(Image_initSubImage(&top, &a.image, 0, 0, 8, 5), TL_OK);
    EXPECT_EQ(ImageProc_filterMax3x3(&proc, &shifted, &top, 0), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc_filterRankMax3x3(&proc, &shifted, &top, 0), TL_ERROR_PARAM);
    destruct_ImageProc2(&proc2);
}

TEST(RankFilter, BufferSizes) {
    EXPECT_EQ(ImageProc_filterRank_getBufferSize(10, 4, IMAGE_FORMAT_UINT8), 40);
    EXPECT_EQ(ImageProc_filterRank_getBufferSize(10, 4, IMAGE_FORMAT_FLOAT), 160);
    EXPECT_EQ(ImageProc_filterRank_getBufferSize(10, 4, IMAGE_FORMAT_YUV420_SEMIPLANAR), 60);
    EXPECT_EQ(ImageProc_filterRank_getBufferSize(10, 4, IMAGE_FORMAT_RGB565), 0);
    EXPECT_EQ(ImageProc_filterRank_getBufferSize(0, 4, IMAGE_FORMAT_UINT8), -1);
    // Seven rows per stripe (two copies, three column rows, two halo rows), 4 stripes.
    EXPECT_EQ(ImageProc2_getBufferSizeForFilter3x3(10, 4, IMAGE_FORMAT_UINT88), 20 * 7 * 4);
    EXPECT_EQ(ImageProc2_getBufferSizeForFilter3x3(10, 4, IMAGE_FORMAT_YUV422_YUYV), -1);
    // The family's planning size covers the rank work image.
    EXPECT_GE(ImageProc_getBufferSize(3000, 3000, IMAGE_FORMAT_FLOAT), 3000 * 3000 * 4);
}
