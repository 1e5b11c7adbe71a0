#include <cstdio>

#include "check.h"
#include "stereo/census.h"

namespace vq_tl_test {

namespace {

using vq_tl::CensusKernels;

template <int R, typename Word, typename Fn>
struct CensusCase {
    Fn fn;
    Word* out;
    const uint8_t* rows[2 * R + 1];
    int32_t x0, x1;
};

template <int R, typename Word, typename Fn>
void callCensus(void* arg) {
    auto* c = static_cast<CensusCase<R, Word, Fn>*>(arg);
    c->fn(c->out, c->rows, c->x0, c->x1);
}

template <int R, typename Word, typename Fn>
void checkCensus(CheckContext* ctx, const char* kernel, const Variant& v, Fn ref, Fn var) {
    ++ctx->kernelsChecked;
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        const int32_t width = CheckRandom_range(&ctx->random, 2 * R + 1, it % 4 == 0 ? 700 : 90);
        GuardedPlane view;
        GuardedPlane_init(&view, width, 2 * R + 1, 1, &ctx->random);
        GuardedPlane outRef, outVar;
        GuardedPlane_init(&outRef, width * static_cast<int32_t>(sizeof(Word)), 1, sizeof(Word), &ctx->random);
        GuardedPlane_init(&outVar, outRef.rowBytes, 1, sizeof(Word), &ctx->random);
        GuardedPlane_copyRows(&outVar, &outRef);
        CensusCase<R, Word, Fn> c{};
        for (int32_t i = 0; i <= 2 * R; ++i) c.rows[i] = GuardedPlane_row(&view, i);
        c.x0 = R + CheckRandom_range(&ctx->random, 0, 2);
        c.x1 = width - R - CheckRandom_range(&ctx->random, 0, 2);
        if (c.x1 < c.x0) c.x1 = c.x0;
        c.fn = ref;
        c.out = reinterpret_cast<Word*>(outRef.data);
        callCensus<R, Word, Fn>(&c);
        c.fn = var;
        c.out = reinterpret_cast<Word*>(outVar.data);
        callCensus<R, Word, Fn>(&c);
        char text[64];
        std::snprintf(text, sizeof(text), "width %d, columns %d to %d", width, c.x0, c.x1);
        if (!Check_outputs(ctx, kernel, v, &outRef, &outVar, text)) return;
    }
    if (!ctx->bench) return;
    const int32_t width = 1080;
    GuardedPlane view, out;
    GuardedPlane_init(&view, width, 2 * R + 1, 1, &ctx->random);
    GuardedPlane_init(&out, width * static_cast<int32_t>(sizeof(Word)), 1, sizeof(Word), &ctx->random);
    CensusCase<R, Word, Fn> c{};
    for (int32_t i = 0; i <= 2 * R; ++i) c.rows[i] = GuardedPlane_row(&view, i);
    c.out = reinterpret_cast<Word*>(out.data);
    c.x0 = R;
    c.x1 = width - R;
    c.fn = ref;
    const double refNs = Check_timeNs(callCensus<R, Word, Fn>, &c, 2000);
    c.fn = var;
    const double ns = Check_timeNs(callCensus<R, Word, Fn>, &c, 2000);
    Check_reportBench(kernel, "scalar", refNs, refNs, width, "px");
    Check_reportBench(kernel, v.name, ns, refNs, width, "px");
}

void runCensus(CheckContext* ctx) {
    CensusKernels ref;
    vq_tl::CensusKernels_fill(&ref, 0);
    for (const Variant& v : Check_variants()) {
        CensusKernels t;
        vq_tl::CensusKernels_fill(&t, v.features);
        if (t.census3x3 != ref.census3x3)
            checkCensus<1, uint8_t>(ctx, "census3x3", v, ref.census3x3, t.census3x3);
        if (t.census5x5 != ref.census5x5)
            checkCensus<2, uint32_t>(ctx, "census5x5", v, ref.census5x5, t.census5x5);
    }
}

KernelFamily gCensus{"census", runCensus, nullptr};
KernelFamilyRegistration gCensusRegistration(&gCensus);

}  // namespace

}  // namespace vq_tl_test
