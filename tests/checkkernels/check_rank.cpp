#include <cstdio>

#include "check.h"
#include "imageproc/rank_kernels.h"

namespace vq_tl_test {

namespace {

using vq_tl::Median3x3U8RowFn;
using vq_tl::RankKernels;

struct MedianCase {
    Median3x3U8RowFn fn;
    uint8_t* out;
    const uint8_t* rows[3];
    int32_t step, x0, x1;
};

void callMedian(void* arg) {
    auto* c = static_cast<MedianCase*>(arg);
    c->fn(c->out, c->rows[0], c->rows[1], c->rows[2], c->step, c->x0, c->x1);
}

void checkMedian(CheckContext* ctx, const Variant& v, Median3x3U8RowFn ref, Median3x3U8RowFn var) {
    ++ctx->kernelsChecked;
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        // 1 to 4 interleaved channels; rows from a single pixel's channels to
        // several vector steps with a ragged end.
        const int32_t step = CheckRandom_range(&ctx->random, 1, 4);
        const int32_t pixels = CheckRandom_range(&ctx->random, 1, it % 4 == 0 ? 700 : 90);
        const int32_t n = pixels * step;
        GuardedPlane view;
        GuardedPlane_init(&view, n, 3, 1, &ctx->random);
        // Few distinct values now and then, so that ties are common.
        if (it % 5 == 0) {
            for (int32_t y = 0; y < 3; ++y) {
                uint8_t* r = GuardedPlane_row(&view, y);
                for (int32_t i = 0; i < n; ++i) r[i] = static_cast<uint8_t>(r[i] & 0x81);
            }
        }
        GuardedPlane outRef, outVar;
        GuardedPlane_init(&outRef, n, 1, 1, &ctx->random);
        GuardedPlane_init(&outVar, n, 1, 1, &ctx->random);
        GuardedPlane_copyRows(&outVar, &outRef);
        MedianCase c{};
        for (int32_t i = 0; i < 3; ++i) c.rows[i] = GuardedPlane_row(&view, i);
        c.step = step;
        c.x0 = step + CheckRandom_range(&ctx->random, 0, 2);
        c.x1 = n - step - CheckRandom_range(&ctx->random, 0, 2);
        if (c.x1 < c.x0) c.x1 = c.x0;
        c.fn = ref;
        c.out = GuardedPlane_row(&outRef, 0);
        callMedian(&c);
        c.fn = var;
        c.out = GuardedPlane_row(&outVar, 0);
        callMedian(&c);
        char text[80];
        std::snprintf(text, sizeof(text), "step %d, %d elements, %d to %d", step, n, c.x0, c.x1);
        if (!Check_outputs(ctx, "median3x3U8", v, &outRef, &outVar, text)) return;
    }
    if (!ctx->bench) return;
    const int32_t width = 1080;
    GuardedPlane view, out;
    GuardedPlane_init(&view, width, 3, 1, &ctx->random);
    GuardedPlane_init(&out, width, 1, 1, &ctx->random);
    MedianCase c{};
    for (int32_t i = 0; i < 3; ++i) c.rows[i] = GuardedPlane_row(&view, i);
    c.out = GuardedPlane_row(&out, 0);
    c.step = 1;
    c.x0 = 1;
    c.x1 = width - 1;
    c.fn = ref;
    const double refNs = Check_timeNs(callMedian, &c, 2000);
    c.fn = var;
    const double ns = Check_timeNs(callMedian, &c, 2000);
    Check_reportBench("median3x3U8", "scalar", refNs, refNs, width, "px");
    Check_reportBench("median3x3U8", v.name, ns, refNs, width, "px");
}

void runRank(CheckContext* ctx) {
    RankKernels ref;
    vq_tl::RankKernels_fill(&ref, 0);
    for (const Variant& v : Check_variants()) {
        RankKernels t;
        vq_tl::RankKernels_fill(&t, v.features);
        if (t.median3x3U8 != ref.median3x3U8) checkMedian(ctx, v, ref.median3x3U8, t.median3x3U8);
    }
}

KernelFamily gRank{"rank", runRank, nullptr};
KernelFamilyRegistration gRankRegistration(&gRank);

}  // namespace

}  // namespace vq_tl_test
