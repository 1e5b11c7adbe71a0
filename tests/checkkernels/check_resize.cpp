#include <cstdio>
#include <cstring>
#include <vector>

#include "check.h"
#include "imageproc/resize.h"
#include "imageproc/resize_kernels.h"

namespace vq_tl_test {

namespace {

using vq_tl::AreaColumnsFn;
using vq_tl::AreaRowFn;
using vq_tl::AreaTaps;
using vq_tl::LinearRowFn;
using vq_tl::LinearWindow;
using vq_tl::ResizeKernels;
using vq_tl::ResizeTap;

struct RowCase {
    AreaRowFn fn;
    uint32_t* sums;
    const uint8_t* src;
    int32_t n;
    uint32_t weight;
    int32_t add;
};

void callRow(void* arg) {
    auto* c = static_cast<RowCase*>(arg);
    c->fn(c->sums, c->src, c->n, c->weight, c->add);
}

// Weights from 1 to 2^23 with the edges of 16-bit forms (65535, 65536);
// sums before adding below 2^31 so that the total stays below 2^32.
void checkAreaRow(CheckContext* ctx, const Variant& v, AreaRowFn ref, AreaRowFn var) {
    ++ctx->kernelsChecked;
    const uint32_t special[5] = {1, 255, 65535, 65536, 1u << 23};
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        const int32_t n = CheckRandom_range(&ctx->random, 1, it % 4 == 0 ? 5000 : 90);
        GuardedPlane src, outRef, outVar;
        GuardedPlane_init(&src, n, 1, 1, &ctx->random);
        GuardedPlane_init(&outRef, 4 * n, 1, 4, &ctx->random);
        uint32_t* sums = reinterpret_cast<uint32_t*>(outRef.data);
        for (int32_t i = 0; i < n; ++i) sums[i] = CheckRandom_next(&ctx->random) >> 1;
        GuardedPlane_init(&outVar, outRef.rowBytes, 1, 4, &ctx->random);
        GuardedPlane_copyRows(&outVar, &outRef);
        RowCase c{ref, sums, src.data, n, 0, it & 1};
        c.weight = it % 3 == 0 ? special[it / 3 % 5]
                               : static_cast<uint32_t>(CheckRandom_range(&ctx->random, 1, 1 << 23));
        callRow(&c);
        c.fn = var;
        c.sums = reinterpret_cast<uint32_t*>(outVar.data);
        callRow(&c);
        char text[80];
        std::snprintf(text, sizeof(text), "n %d, weight %u, add %d", n, c.weight, c.add);
        if (!Check_outputs(ctx, "areaRow", v, &outRef, &outVar, text)) return;
    }
    if (!ctx->bench) return;
    const int32_t n = 4000;
    GuardedPlane src, out;
    GuardedPlane_init(&src, n, 1, 1, &ctx->random);
    GuardedPlane_init(&out, 4 * n, 1, 4, &ctx->random);
    RowCase c{ref, reinterpret_cast<uint32_t*>(out.data), src.data, n, 27, 1};
    const double refNs = Check_timeNs(callRow, &c, 2000);
    c.fn = var;
    const double ns = Check_timeNs(callRow, &c, 2000);
    Check_reportBench("areaRow", "scalar", refNs, refNs, n, "px");
    Check_reportBench("areaRow", v.name, ns, refNs, n, "px");
}

// The taps of an area shrink from srcW to dstW pixels of `channels`
// elements, laid out as the library does: overlaps in units of 1 / dstW,
// padded to the widest span with weight 0.
struct ColumnsSetup {
    std::vector<int32_t> first;
    std::vector<uint32_t> weights;
    std::vector<uint32_t> sums;  // the row plus the padding read with weight 0
    AreaTaps taps;
};

void setUpColumns(ColumnsSetup* s, int32_t srcW, int32_t dstW, int32_t channels, int64_t srcH, bool maxed,
                  CheckRandom* r) {
    const int32_t count = (srcW + dstW - 1) / dstW + 1;
    s->first.assign(dstW, 0);
    s->weights.assign(static_cast<size_t>(dstW) * count, 0);
    for (int32_t x = 0; x < dstW; ++x) {
        const int64_t lo = int64_t{x} * srcW, hi = lo + srcW;
        s->first[x] = static_cast<int32_t>(lo / dstW);
        for (int32_t k = 0; k < count; ++k) {
            const int64_t a = int64_t{s->first[x] + k} * dstW, b = a + dstW;
            const int64_t w = (b < hi ? b : hi) - (a > lo ? a : lo);
            s->weights[static_cast<size_t>(x) * count + k] = w > 0 ? static_cast<uint32_t>(w) : 0u;
        }
    }
    // Column sums of up to 255 * srcH, all at the top for `maxed`.
    const int64_t top = 255 * srcH;
    const int32_t length = (srcW + count - 1) * channels;
    s->sums.assign(static_cast<size_t>(length), 0);
    for (int32_t i = 0; i < srcW * channels; ++i) {
        const uint64_t v = (uint64_t{CheckRandom_next(r)} << 32 | CheckRandom_next(r)) % (top + 1);
        s->sums[i] = static_cast<uint32_t>(maxed ? top : static_cast<int64_t>(v));
    }
    s->taps = AreaTaps{s->first.data(),
                       s->weights.data(),
                       count,
                       channels,
                       dstW,
                       length,
                       static_cast<uint64_t>(int64_t{srcW} * srcH)};
}

struct ColumnsCase {
    AreaColumnsFn fn;
    uint8_t* out;
    const uint32_t* sums;
    const AreaTaps* taps;
    int32_t x0, x1;
};

void callColumns(void* arg) {
    auto* c = static_cast<ColumnsCase*>(arg);
    c->fn(c->out, c->sums, c->taps, c->x0, c->x1);
}

void benchAreaColumns(CheckContext* ctx, const Variant& v, AreaColumnsFn ref, AreaColumnsFn var,
                      int32_t channels);

void checkAreaColumns(CheckContext* ctx, const Variant& v, AreaColumnsFn ref, AreaColumnsFn var) {
    ++ctx->kernelsChecked;
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        const int32_t srcW = CheckRandom_range(&ctx->random, 2, it % 4 == 0 ? 4000 : 200);
        const int32_t dstW = CheckRandom_range(&ctx->random, 1, srcW - 1);
        const int32_t channels = CheckRandom_range(&ctx->random, 1, 3);
        // Heights up to the largest the library takes this path for, and
        // totals at the edge of 32-bit element sums (255.5 * total < 2^32).
        int64_t srcH = it % 5 == 0 ? 16843009 : CheckRandom_range(&ctx->random, 2, 4000);
        if (it % 5 == 2) srcH = ((int64_t{1} << 33) / 511 + CheckRandom_range(&ctx->random, -1, 1)) / srcW;
        ColumnsSetup s;
        setUpColumns(&s, srcW, dstW, channels, srcH, it % 7 == 3, &ctx->random);
        GuardedPlane outRef, outVar;
        GuardedPlane_init(&outRef, dstW * channels, 1, 1, &ctx->random);
        GuardedPlane_init(&outVar, dstW * channels, 1, 1, &ctx->random);
        GuardedPlane_copyRows(&outVar, &outRef);
        ColumnsCase c{ref, outRef.data, s.sums.data(), &s.taps, 0, dstW};
        if (it % 3 == 1) {
            c.x0 = CheckRandom_range(&ctx->random, 0, dstW - 1);
            c.x1 = CheckRandom_range(&ctx->random, c.x0, dstW);
        }
        callColumns(&c);
        c.fn = var;
        c.out = outVar.data;
        callColumns(&c);
        char text[96];
        std::snprintf(text, sizeof(text), "%d to %d columns of %d, height %lld, pixels %d to %d", srcW, dstW,
                      channels, static_cast<long long>(srcH), c.x0, c.x1);
        if (!Check_outputs(ctx, "areaColumns", v, &outRef, &outVar, text)) return;
    }
    if (!ctx->bench) return;
    for (int32_t channels = 1; channels <= 2; ++channels) benchAreaColumns(ctx, v, ref, var, channels);
}

// 4000 to 1080 pixels: the luma and the chroma pairs of the pipeline's shrink.
void benchAreaColumns(CheckContext* ctx, const Variant& v, AreaColumnsFn ref, AreaColumnsFn var,
                      int32_t channels) {
    ColumnsSetup s;
    setUpColumns(&s, 4000, 1080, channels, 3000, false, &ctx->random);
    GuardedPlane out;
    GuardedPlane_init(&out, 1080 * channels, 1, 1, &ctx->random);
    ColumnsCase c{ref, out.data, s.sums.data(), &s.taps, 0, 1080};
    const double refNs = Check_timeNs(callColumns, &c, 500);
    c.fn = var;
    const double ns = Check_timeNs(callColumns, &c, 500);
    const char* name = channels == 1 ? "areaColumns 1ch" : "areaColumns 2ch";
    Check_reportBench(name, "scalar", refNs, refNs, 1080 * channels, "el");
    Check_reportBench(name, v.name, ns, refNs, 1080 * channels, "el");
}

struct LinearCase {
    LinearRowFn fn;
    int32_t* out;
    const uint8_t* src;
    const ResizeTap* taps;
    const LinearWindow* windows;
    int32_t width, channels;
};

void callLinear(void* arg) {
    auto* c = static_cast<LinearCase*>(arg);
    c->fn(c->out, c->src, c->taps, c->windows, c->width, c->channels);
}

// One source row resized along: widths from 1 to wide, shrinking and
// enlarging, 1 to 3 channels, taps and plan as the library makes them.
void checkLinearRow(CheckContext* ctx, const Variant& v, LinearRowFn ref, LinearRowFn var) {
    ++ctx->kernelsChecked;
    CheckRandom* r = &ctx->random;
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        const int32_t srcW = CheckRandom_range(r, 1, it % 4 == 0 ? 4000 : 100);
        const int32_t dstW = it % 3 == 0 ? CheckRandom_range(r, 1, 3 * srcW) : CheckRandom_range(r, 1, srcW);
        const int32_t channels = CheckRandom_range(r, 1, 3);
        GuardedPlane src;
        GuardedPlane_init(&src, srcW * channels, 1, 1, r);
        std::vector<ResizeTap> taps(dstW);
        vq_tl::ResizeTap_fill(taps.data(), dstW, srcW);
        std::vector<LinearWindow> windows(dstW * channels / 4 + 1);
        vq_tl::LinearWindow_fill(windows.data(), taps.data(), dstW, channels, srcW);
        GuardedPlane outRef, outVar;
        GuardedPlane_init(&outRef, 4 * dstW * channels, 1, 4, r);
        GuardedPlane_init(&outVar, outRef.rowBytes, 1, 4, r);
        GuardedPlane_copyRows(&outVar, &outRef);
        LinearCase c{
            ref,     reinterpret_cast<int32_t*>(outRef.data), src.data, taps.data(), windows.data(), dstW,
            channels};
        callLinear(&c);
        c.fn = var;
        c.out = reinterpret_cast<int32_t*>(outVar.data);
        callLinear(&c);
        char text[80];
        std::snprintf(text, sizeof(text), "%d to %d pixels of %d", srcW, dstW, channels);
        if (!Check_outputs(ctx, "linearRow", v, &outRef, &outVar, text)) return;
    }
    if (!ctx->bench) return;
    for (int32_t channels = 1; channels <= 2; ++channels) {
        // The 27 percent of the pipeline: luma, then the chroma pairs.
        const int32_t srcW = 4000 / channels, dstW = 1080 / channels;
        GuardedPlane src, out;
        GuardedPlane_init(&src, srcW * channels, 1, 1, r);
        GuardedPlane_init(&out, 4 * dstW * channels, 1, 4, r);
        std::vector<ResizeTap> taps(dstW);
        vq_tl::ResizeTap_fill(taps.data(), dstW, srcW);
        std::vector<LinearWindow> windows(dstW * channels / 4 + 1);
        vq_tl::LinearWindow_fill(windows.data(), taps.data(), dstW, channels, srcW);
        LinearCase c{
            ref, reinterpret_cast<int32_t*>(out.data), src.data, taps.data(), windows.data(), dstW, channels};
        const double refNs = Check_timeNs(callLinear, &c, 2000);
        c.fn = var;
        const double ns = Check_timeNs(callLinear, &c, 2000);
        const char* name = channels == 1 ? "linearRow 1ch" : "linearRow 2ch";
        Check_reportBench(name, "scalar", refNs, refNs, 1080, "el");
        Check_reportBench(name, v.name, ns, refNs, 1080, "el");
    }
}

void runResize(CheckContext* ctx) {
    ResizeKernels ref;
    vq_tl::ResizeKernels_fill(&ref, 0);
    for (const Variant& v : Check_variants()) {
        ResizeKernels t;
        vq_tl::ResizeKernels_fill(&t, v.features);
        if (t.areaRow != ref.areaRow) checkAreaRow(ctx, v, ref.areaRow, t.areaRow);
        if (t.areaColumns != ref.areaColumns) checkAreaColumns(ctx, v, ref.areaColumns, t.areaColumns);
        if (t.linearRow != ref.linearRow) checkLinearRow(ctx, v, ref.linearRow, t.linearRow);
    }
}

KernelFamily gResize{"resize", runResize, nullptr};
KernelFamilyRegistration gResizeRegistration(&gResize);

}  // namespace

}  // namespace vq_tl_test
