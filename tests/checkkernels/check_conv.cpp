// The conversion family: YUV (chroma shared by column pairs) to RGB888 rows,
// semi-planar in both chroma orders and planar.
#include <cstdio>
#include <vector>

#include "check.h"
#include "image/image_conv_kernels.h"

namespace vq_tl_test {

namespace {

using vq_tl::ConvKernels;
using vq_tl::YuvToRgb888RowFn;

// Inputs of exact size on the heap, so that the sanitizer sees any read
// beyond the bytes the scalar form reads.
struct ConvCase {
    YuvToRgb888RowFn fn;
    uint8_t* out;
    std::vector<uint8_t> y, chroma;  // chroma: interleaved pairs, or the u plane then the v plane
    bool semiplanar, vFirst;
    int32_t pairs;
};

void chromaPointers(const ConvCase& c, const uint8_t** u, const uint8_t** v) {
    const uint8_t* p = c.chroma.data();
    if (c.semiplanar) {
        *u = p + (c.vFirst ? 1 : 0);
        *v = p + (c.vFirst ? 0 : 1);
    } else {
        *u = p;
        *v = p + c.pairs;
    }
}

void callConv(void* arg) {
    auto* c = static_cast<ConvCase*>(arg);
    const uint8_t *u, *v;
    chromaPointers(*c, &u, &v);
    c->fn(c->out, c->y.data(), u, v, c->pairs);
}

bool runBoth(CheckContext* ctx, const char* kernel, const Variant& v, YuvToRgb888RowFn ref,
             YuvToRgb888RowFn var, ConvCase* c, CheckRandom* r, const char* text) {
    GuardedPlane outRef, outVar;
    GuardedPlane_init(&outRef, 6 * c->pairs, 1, 1, r);
    GuardedPlane_init(&outVar, outRef.rowBytes, 1, 1, r);
    GuardedPlane_copyRows(&outVar, &outRef);
    c->fn = ref;
    c->out = outRef.data;
    callConv(c);
    c->fn = var;
    c->out = outVar.data;
    callConv(c);
    return Check_outputs(ctx, kernel, v, &outRef, &outVar, text);
}

void checkConv(CheckContext* ctx, const char* kernel, const Variant& v, YuvToRgb888RowFn ref,
               YuvToRgb888RowFn var, bool semiplanar) {
    ++ctx->kernelsChecked;
    ConvCase c{};
    c.semiplanar = semiplanar;
    char text[96];
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        c.pairs = CheckRandom_range(&ctx->random, 1, it % 4 == 0 ? 700 : 70);
        c.vFirst = semiplanar && (CheckRandom_next(&ctx->random) & 1) != 0;
        c.y.assign(static_cast<size_t>(2 * c.pairs), 0);
        c.chroma.assign(static_cast<size_t>(2 * c.pairs), 0);
        CheckRandom_fill(&ctx->random, c.y.data(), c.y.size());
        CheckRandom_fill(&ctx->random, c.chroma.data(), c.chroma.size());
        std::snprintf(text, sizeof(text), "%d pairs%s", c.pairs, c.vFirst ? ", v first" : "");
        if (!runBoth(ctx, kernel, v, ref, var, &c, &ctx->random, text)) return;
    }
    // Every chroma pair with every luma value: row k holds the 65536 (u, v)
    // pairs with luma k and 255 - k.
    c.pairs = 65536;
    c.vFirst = false;
    c.y.resize(2 * 65536);
    c.chroma.resize(2 * 65536);
    for (int32_t i = 0; i < 65536; ++i) {
        const auto cu = static_cast<uint8_t>(i & 255), cv = static_cast<uint8_t>(i >> 8);
        if (semiplanar) {
            c.chroma[2 * i] = cu;
            c.chroma[2 * i + 1] = cv;
        } else {
            c.chroma[i] = cu;
            c.chroma[65536 + i] = cv;
        }
    }
    for (int32_t k = 0; k < 256; ++k) {
        for (int32_t i = 0; i < 65536; ++i) {
            c.y[2 * i] = static_cast<uint8_t>(k);
            c.y[2 * i + 1] = static_cast<uint8_t>(255 - k);
        }
        std::snprintf(text, sizeof(text), "all chroma pairs, luma %d and %d", k, 255 - k);
        if (!runBoth(ctx, kernel, v, ref, var, &c, &ctx->random, text)) return;
    }
    if (!ctx->bench) return;
    // A row of the refiner's guide at full frame width.
    c.pairs = 2000;
    c.y.assign(4000, 0);
    c.chroma.assign(4000, 0);
    CheckRandom_fill(&ctx->random, c.y.data(), c.y.size());
    CheckRandom_fill(&ctx->random, c.chroma.data(), c.chroma.size());
    std::vector<uint8_t> out(6 * 2000);
    c.out = out.data();
    c.fn = ref;
    const double refNs = Check_timeNs(callConv, &c, 2000);
    c.fn = var;
    const double ns = Check_timeNs(callConv, &c, 2000);
    Check_reportBench(kernel, "scalar", refNs, refNs, 4000, "px");
    Check_reportBench(kernel, v.name, ns, refNs, 4000, "px");
}

void runConv(CheckContext* ctx) {
    ConvKernels ref;
    vq_tl::ConvKernels_fill(&ref, 0);
    for (const Variant& v : Check_variants()) {
        ConvKernels t;
        vq_tl::ConvKernels_fill(&t, v.features);
        if (t.semiplanarToRgb888 != ref.semiplanarToRgb888)
            checkConv(ctx, "semiplanarToRgb888", v, ref.semiplanarToRgb888, t.semiplanarToRgb888, true);
        if (t.planarToRgb888 != ref.planarToRgb888)
            checkConv(ctx, "planarToRgb888", v, ref.planarToRgb888, t.planarToRgb888, false);
    }
}

KernelFamily gConv{"conv", runConv, nullptr};
KernelFamilyRegistration gConvRegistration(&gConv);

}  // namespace

}  // namespace vq_tl_test
