#include <cstdio>

#include "check.h"
#include "rectify/warp_kernels.h"

namespace vq_tl_test {

namespace {

using vq_tl::WarpChromaFn;
using vq_tl::WarpChromaRow;
using vq_tl::WarpGroupsFn;
using vq_tl::WarpKernels;
using vq_tl::WarpLumaRow;

struct GroupsCase {
    WarpGroupsFn fn;
    WarpLumaRow row;
    int32_t x, groupEnd;
    int32_t result;
};

void callGroups(void* arg) {
    auto* c = static_cast<GroupsCase*>(arg);
    c->result = c->fn(&c->row, c->x, c->groupEnd);
}

// A pair of destination rows drawn from a random source: sizes from below
// one load (every group near an edge) to wide, steps over the whole range
// the caller allows (dx 0 to 61439, |dy| to 8191, the extremes often),
// start positions from left of and above the source to past its ends, one
// or two rows, luma strides of 1 and 2.
void checkGroups(CheckContext* ctx, const Variant& v, WarpGroupsFn ref, WarpGroupsFn var) {
    ++ctx->kernelsChecked;
    CheckRandom* r = &ctx->random;
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        const int32_t srcW = CheckRandom_range(r, 2, it % 4 == 0 ? 600 : 40);
        const int32_t srcH = CheckRandom_range(r, 2, 12);
        const int32_t stride = it % 8 == 7 ? 2 : 1;
        GuardedPlane src;
        GuardedPlane_init(&src, srcW * stride, srcH, 1, r);
        const int32_t dstW = CheckRandom_range(r, 8, 300);
        GuardedPlane outRef, outVar;
        GuardedPlane_init(&outRef, dstW * stride, 2, 1, r);
        GuardedPlane_init(&outVar, outRef.rowBytes, 2, 1, r);
        GuardedPlane_copyRows(&outVar, &outRef);
        GroupsCase c{};
        WarpLumaRow& w = c.row;
        w.src = src.data;
        w.srcPitch = src.pitch;
        w.srcW = srcW;
        w.srcH = srcH;
        w.stride = stride;
        w.L = CheckRandom_range(r, 0, dstW - 8);
        c.x = CheckRandom_range(r, w.L, dstW - 8);
        c.groupEnd = CheckRandom_range(r, c.x, dstW - 8);
        const int32_t dxEdges[4] = {0, 61439, 32768, 4096};
        const int32_t dyEdges[5] = {0, 8191, -8191, 1, -1};
        w.dx = it % 3 == 0 ? dxEdges[it / 3 % 4] : CheckRandom_range(r, 0, 61439);
        w.dy = it % 5 == 0
                   ? dyEdges[it / 5 % 5]
                   : (it % 2 == 0 ? CheckRandom_range(r, -8191, 8191) : CheckRandom_range(r, -400, 400));
        w.xq = CheckRandom_range(r, -20 * 32768, (srcW + 4) * 32768);
        w.yq = CheckRandom_range(r, -4 * 32768, (srcH + 2) * 32768);
        w.d1 = outRef.data;
        w.d2 = it % 6 == 5 ? nullptr : GuardedPlane_row(&outRef, 1);
        c.fn = ref;
        callGroups(&c);
        const int32_t refResult = c.result;
        w.d1 = outVar.data;
        if (w.d2 != nullptr) w.d2 = GuardedPlane_row(&outVar, 1);
        c.fn = var;
        callGroups(&c);
        char text[160];
        std::snprintf(text, sizeof(text),
                      "source %dx%d stride %d, x %d to %d, L %d, xq %d yq %d dx %d dy %d, %s row(s)", srcW,
                      srcH, stride, c.x, c.groupEnd, w.L, w.xq, w.yq, w.dx, w.dy,
                      w.d2 != nullptr ? "two" : "one");
        if (!Check_outputs(ctx, "warpGroups", v, &outRef, &outVar, text)) return;
        if (c.result != refResult) {
            std::printf("FAIL warpGroups %s: stopped at %d, scalar at %d (%s)\n", v.name, c.result, refResult,
                        text);
            ++ctx->failures;
            return;
        }
    }
    if (!ctx->bench) return;
    // A 1080-pixel pair of rows at a mild slope, as in a rectification: a
    // third of a degree, two rows over the width.
    GuardedPlane src, out;
    GuardedPlane_init(&src, 1200, 8, 1, r);
    GuardedPlane_init(&out, 1080, 2, 1, r);
    GroupsCase c{};
    c.row = WarpLumaRow{src.data,   src.pitch,        1200,        8,  1, out.data, GuardedPlane_row(&out, 1),
                        20 * 32768, 2 * 32768 + 5000, 32768 + 300, 60, 0};
    c.x = 0;
    c.groupEnd = 1080 - 8;
    c.fn = ref;
    const double refNs = Check_timeNs(callGroups, &c, 2000);
    c.fn = var;
    const double ns = Check_timeNs(callGroups, &c, 2000);
    Check_reportBench("warpGroups", "scalar", refNs, refNs, 2 * 1080, "px");
    Check_reportBench("warpGroups", v.name, ns, refNs, 2 * 1080, "px");
}

struct ChromaCase {
    WarpChromaFn fn;
    WarpChromaRow row;
    int32_t x0, x1;
};

void callChroma(void* arg) {
    auto* c = static_cast<ChromaCase*>(arg);
    c->fn(&c->row, c->x0, c->x1);
}

// One chroma row from a random semi-planar chroma plane: planes from below
// one load to wide, steps from backwards to three samples per pixel (half
// a sample and one sample often), rows that change along the run or stay,
// positions outside the plane on every side, both sampling offsets.
void checkChroma(CheckContext* ctx, const Variant& v, WarpChromaFn ref, WarpChromaFn var) {
    ++ctx->kernelsChecked;
    CheckRandom* r = &ctx->random;
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        const int32_t srcCw = CheckRandom_range(r, 1, it % 4 == 0 ? 400 : 30);
        const int32_t srcCh = CheckRandom_range(r, 1, 8);
        GuardedPlane src;
        GuardedPlane_init(&src, 2 * srcCw, srcCh, 2, r);
        const int32_t dstW = CheckRandom_range(r, 2, 300);
        GuardedPlane outRef, outVar;
        GuardedPlane_init(&outRef, dstW + 1, 1, 1, r);
        GuardedPlane_init(&outVar, outRef.rowBytes, 1, 1, r);
        GuardedPlane_copyRows(&outVar, &outRef);
        ChromaCase c{};
        WarpChromaRow& w = c.row;
        w.src = src.data;
        w.srcPitch = src.pitch;
        w.srcCw = srcCw;
        w.srcCh = srcCh;
        w.L = CheckRandom_range(r, 0, dstW - 1);
        c.x0 = CheckRandom_range(r, w.L, dstW - 1) & ~1;
        c.x1 = CheckRandom_range(r, c.x0, dstW);
        const int32_t dxEdges[4] = {32768, 32768 + 700, 65536, -32768};
        w.dx = it % 3 == 0 ? dxEdges[it / 3 % 4] : CheckRandom_range(r, -3 * 32768, 3 * 32768);
        w.dy = it % 2 == 0 ? CheckRandom_range(r, -300, 300) : CheckRandom_range(r, -40000, 40000);
        w.xq = CheckRandom_range(r, -40 * 32768, (2 * srcCw + 8) * 32768);
        w.yq = CheckRandom_range(r, -3 * 65536, (srcCh + 2) * 65536);
        const bool hq = it % 2 == 1;
        w.cxOffset = hq ? w.dx / 2 + 16384 : 0;
        w.cyOffset = hq ? CheckRandom_range(r, -16384, 16384) / 4 + 16384 : 0;
        w.dst = outRef.data;
        c.fn = ref;
        callChroma(&c);
        w.dst = outVar.data;
        c.fn = var;
        callChroma(&c);
        char text[160];
        std::snprintf(text, sizeof(text),
                      "plane %dx%d, x %d to %d, L %d, xq %d yq %d dx %d dy %d, offsets %d %d", srcCw, srcCh,
                      c.x0, c.x1, w.L, w.xq, w.yq, w.dx, w.dy, w.cxOffset, w.cyOffset);
        if (!Check_outputs(ctx, "warpChroma", v, &outRef, &outVar, text)) return;
    }
    if (!ctx->bench) return;
    // The chroma of a 1080-pixel row at a mild slope.
    GuardedPlane src, out;
    GuardedPlane_init(&src, 1200, 4, 2, r);
    GuardedPlane_init(&out, 1081, 1, 1, r);
    ChromaCase c{};
    c.row = WarpChromaRow{src.data,
                          src.pitch,
                          600,
                          4,
                          out.data,
                          20 * 32768,
                          65536 + 5000,
                          32768 + 300,
                          60,
                          0,
                          (32768 + 300) / 2 + 16384,
                          16384};
    c.x0 = 0;
    c.x1 = 1080;
    c.fn = ref;
    const double refNs = Check_timeNs(callChroma, &c, 2000);
    c.fn = var;
    const double ns = Check_timeNs(callChroma, &c, 2000);
    Check_reportBench("warpChroma", "scalar", refNs, refNs, 1080, "px");
    Check_reportBench("warpChroma", v.name, ns, refNs, 1080, "px");
}

void runWarp(CheckContext* ctx) {
    WarpKernels ref;
    vq_tl::WarpKernels_fill(&ref, 0);
    for (const Variant& v : Check_variants()) {
        WarpKernels t;
        vq_tl::WarpKernels_fill(&t, v.features);
        if (t.groups != ref.groups) checkGroups(ctx, v, ref.groups, t.groups);
        if (t.chroma != ref.chroma) checkChroma(ctx, v, ref.chroma, t.chroma);
    }
}

KernelFamily gWarp{"warp", runWarp, nullptr};
KernelFamilyRegistration gWarpRegistration(&gWarp);

}  // namespace

}  // namespace vq_tl_test
