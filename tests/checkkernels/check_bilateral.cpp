// The bilateral family: the block kernels of the separable bilateral
// filter's blocked passes, for byte values and for float values, every
// guide channel count and fixed or free window half; and the passes'
// conversions of guide and values to float rows.
#include <cstdio>
#include <cstring>
#include <vector>

#include "check.h"
#include "depth/separable_bilateral_kernels.h"

namespace vq_tl_test {

namespace {

using vq_tl::BilateralBlockFn;
using vq_tl::BilateralBlockParams;
using vq_tl::BilateralKernels;
using vq_tl::kBilateralBlockLanes;
using vq_tl::kBilateralBlockMaxHalf;

constexpr int32_t kMaxTaps = 2 * kBilateralBlockMaxHalf + 1;

// Every tap's rows as heap arrays of exactly n floats, so that the sanitizer
// sees a read beyond them.
struct BlockCase {
    BilateralBlockFn fn;
    float* q;
    std::vector<std::vector<float>> guide, values;  // [t * C + c], [t]
    const float* g[kMaxTaps * 3];
    const float* s[kMaxTaps];
    uint8_t spatial[kMaxTaps];
    BilateralBlockParams params;
    int32_t n;
};

void callBlock(void* arg) {
    auto* c = static_cast<BlockCase*>(arg);
    c->fn(c->q, c->g, c->s, &c->params, c->n);
}

// Any finite float, subnormals included: random bits with the all-ones
// exponent cleared.
float anyFinite(CheckRandom* r) {
    uint32_t bits = CheckRandom_next(r);
    if ((bits & 0x7F800000u) == 0x7F800000u) bits &= ~0x40000000u;
    float f;
    std::memcpy(&f, &bits, 4);
    return f;
}

void makeCase(BlockCase* c, CheckRandom* r, int32_t channels, int32_t half, bool floats, int32_t n,
              int32_t it) {
    const int32_t taps = 2 * half + 1;
    c->n = n;
    // C up to the largest for which every sum stays below 2^24; now and then
    // 0, 1 or that largest.
    const int32_t cap = (1 << 24) / (128 * taps);
    int32_t range = CheckRandom_range(r, 1, cap);
    if (it % 8 == 1) range = 0;
    if (it % 8 == 2) range = 1;
    if (it % 8 == 3) range = cap;
    c->params = BilateralBlockParams{half, range, c->spatial};
    for (int32_t t = 0; t < taps; ++t) c->spatial[t] = static_cast<uint8_t>(CheckRandom_range(r, 0, 128));
    if (it % 8 == 4) std::memset(c->spatial, 128, sizeof(c->spatial));
    c->spatial[half] = 128;
    std::vector<uint8_t> bytes(static_cast<size_t>(n));
    c->guide.assign(static_cast<size_t>(taps * channels), std::vector<float>(static_cast<size_t>(n)));
    c->values.assign(static_cast<size_t>(taps), std::vector<float>(static_cast<size_t>(n)));
    for (int32_t t = 0; t < taps; ++t) {
        for (int32_t ch = 0; ch < channels; ++ch) {
            std::vector<float>& row = c->guide[static_cast<size_t>(t * channels + ch)];
            CheckRandom_fill(r, bytes.data(), bytes.size());
            for (int32_t i = 0; i < n; ++i) row[static_cast<size_t>(i)] = bytes[static_cast<size_t>(i)];
            c->g[t * channels + ch] = row.data();
        }
        std::vector<float>& row = c->values[static_cast<size_t>(t)];
        CheckRandom_fill(r, bytes.data(), bytes.size());
        for (int32_t i = 0; i < n; ++i) {
            row[static_cast<size_t>(i)] =
                floats && it % 2 == 0 ? anyFinite(r) : bytes[static_cast<size_t>(i)];
        }
        c->s[t] = row.data();
    }
}

void checkBlock(CheckContext* ctx, const char* kernel, const Variant& v, BilateralBlockFn ref,
                BilateralBlockFn var, int32_t channels, int32_t fixedHalf, bool floats) {
    ++ctx->kernelsChecked;
    BlockCase c{};
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        const int32_t half =
            fixedHalf > 0 ? fixedHalf : CheckRandom_range(&ctx->random, 0, kBilateralBlockMaxHalf);
        const int32_t n = kBilateralBlockLanes * CheckRandom_range(&ctx->random, 1, it % 4 == 0 ? 12 : 3);
        makeCase(&c, &ctx->random, channels, half, floats, n, it);
        GuardedPlane outRef, outVar;
        GuardedPlane_init(&outRef, 4 * n, 1, 4, &ctx->random);
        GuardedPlane_init(&outVar, outRef.rowBytes, 1, 4, &ctx->random);
        GuardedPlane_copyRows(&outVar, &outRef);
        c.fn = ref;
        c.q = reinterpret_cast<float*>(outRef.data);
        callBlock(&c);
        c.fn = var;
        c.q = reinterpret_cast<float*>(outVar.data);
        callBlock(&c);
        char text[96];
        std::snprintf(text, sizeof(text), "%d channels, half %d, C %d, %d outputs", channels, half,
                      c.params.range, n);
        if (!Check_outputs(ctx, kernel, v, &outRef, &outVar, text)) return;
    }
    if (!ctx->bench) return;
    // The refiner's shape: a chunk of 256 outputs, half 7 for a free half.
    makeCase(&c, &ctx->random, channels, fixedHalf > 0 ? fixedHalf : 7, floats, 256, 5);
    std::vector<float> out(256);
    c.q = out.data();
    c.fn = ref;
    const double refNs = Check_timeNs(callBlock, &c, 200);
    c.fn = var;
    const double ns = Check_timeNs(callBlock, &c, 200);
    Check_reportBench(kernel, "scalar", refNs, refNs, 256, "px");
    Check_reportBench(kernel, v.name, ns, refNs, 256, "px");
}

struct SplitCase {
    vq_tl::BilateralSplitFn fn;
    GuardedPlane* out;  // rows 0 to C - 1 the planes, row C the values
    std::vector<uint8_t> guide, src;
    int32_t channels, n;
};

void callSplit(void* arg) {
    auto* c = static_cast<SplitCase*>(arg);
    float* planes[3];
    for (int32_t ch = 0; ch < c->channels; ++ch)
        planes[ch] = reinterpret_cast<float*>(GuardedPlane_row(c->out, ch));
    c->fn(planes, reinterpret_cast<float*>(GuardedPlane_row(c->out, c->channels)), c->guide.data(),
          c->src.data(), c->n);
}

void checkSplit(CheckContext* ctx, const char* kernel, const Variant& v, vq_tl::BilateralSplitFn ref,
                vq_tl::BilateralSplitFn var, int32_t channels) {
    ++ctx->kernelsChecked;
    SplitCase c{};
    c.channels = channels;
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        c.n = CheckRandom_range(&ctx->random, 1, it % 4 == 0 ? 700 : 70);
        c.guide.assign(static_cast<size_t>(c.n * channels), 0);
        c.src.assign(static_cast<size_t>(c.n), 0);
        CheckRandom_fill(&ctx->random, c.guide.data(), c.guide.size());
        CheckRandom_fill(&ctx->random, c.src.data(), c.src.size());
        GuardedPlane outRef, outVar;
        GuardedPlane_init(&outRef, 4 * c.n, channels + 1, 4, &ctx->random);
        GuardedPlane_init(&outVar, outRef.rowBytes, channels + 1, 4, &ctx->random);
        GuardedPlane_copyRows(&outVar, &outRef);
        c.fn = ref;
        c.out = &outRef;
        callSplit(&c);
        c.fn = var;
        c.out = &outVar;
        callSplit(&c);
        char text[64];
        std::snprintf(text, sizeof(text), "%d pixels", c.n);
        if (!Check_outputs(ctx, kernel, v, &outRef, &outVar, text)) return;
    }
    if (!ctx->bench) return;
    // A row of the vertical pass's band: 128 columns.
    c.n = 128;
    c.guide.assign(static_cast<size_t>(c.n * channels), 7);
    c.src.assign(static_cast<size_t>(c.n), 9);
    GuardedPlane out;
    GuardedPlane_init(&out, 4 * c.n, channels + 1, 4, &ctx->random);
    c.out = &out;
    c.fn = ref;
    const double refNs = Check_timeNs(callSplit, &c, 2000);
    c.fn = var;
    const double ns = Check_timeNs(callSplit, &c, 2000);
    Check_reportBench(kernel, "scalar", refNs, refNs, c.n, "px");
    Check_reportBench(kernel, v.name, ns, refNs, c.n, "px");
}

void runBilateral(CheckContext* ctx) {
    BilateralKernels ref;
    vq_tl::BilateralKernels_fill(&ref, 0);
    for (const Variant& v : Check_variants()) {
        BilateralKernels t;
        vq_tl::BilateralKernels_fill(&t, v.features);
        for (int32_t ch = 1; ch <= 3; ++ch) {
            if (t.split[ch - 1] != ref.split[ch - 1]) {
                char name[32];
                std::snprintf(name, sizeof(name), "split%dch", ch);
                checkSplit(ctx, name, v, ref.split[ch - 1], t.split[ch - 1], ch);
            }
            for (int32_t h = 0; h < 4; ++h) {
                char name[48];
                if (t.bytes[ch - 1][h] != ref.bytes[ch - 1][h]) {
                    std::snprintf(name, sizeof(name), "block%dch_half%d_bytes", ch, h);
                    checkBlock(ctx, name, v, ref.bytes[ch - 1][h], t.bytes[ch - 1][h], ch, h, false);
                }
                if (t.floats[ch - 1][h] != ref.floats[ch - 1][h]) {
                    std::snprintf(name, sizeof(name), "block%dch_half%d_floats", ch, h);
                    checkBlock(ctx, name, v, ref.floats[ch - 1][h], t.floats[ch - 1][h], ch, h, true);
                }
            }
        }
    }
}

KernelFamily gBilateral{"bilateral", runBilateral, nullptr};
KernelFamilyRegistration gBilateralRegistration(&gBilateral);

}  // namespace

}  // namespace vq_tl_test
