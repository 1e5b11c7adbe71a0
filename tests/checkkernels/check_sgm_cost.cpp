#include <cstdio>

#include "check.h"
#include "stereo/sgm_cost.h"

namespace vq_tl_test {

namespace {

using vq_tl::HammingRowFn;
using vq_tl::SgmCostKernels;

constexpr int32_t kMaxRows = 31;

struct HammingCase {
    HammingRowFn fn;
    uint8_t* out;
    const uint8_t* base;
    const uint8_t* match[kMaxRows];
    int32_t rows;
    const uint8_t* mask;
    int32_t D, dLow, x0, x1;
};

void callHamming(void* arg) {
    auto* c = static_cast<HammingCase*>(arg);
    c->fn(c->out, c->base, c->match, c->rows, c->mask, c->D, c->dLow, c->x0, c->x1);
}

// Row windows: the unrolled ones and a few of the loop form (21 is the
// fine mode's).
constexpr int32_t kWindows[] = {1, 3, 5, 7, 9, 11, 21, 31};

// wordBytes 1 or 4. Widths, candidate counts, shifts, windows and column
// ranges at random; about one case in eight has extreme words (all bits
// clear, all set, alternating), and half have no mask.
void checkHamming(CheckContext* ctx, const char* kernel, const Variant& v, HammingRowFn ref, HammingRowFn var,
                  int32_t wordBytes) {
    ++ctx->kernelsChecked;
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        const int32_t D = 8 * (it % 5 == 0 ? CheckRandom_range(&ctx->random, 1, 31)
                                           : CheckRandom_range(&ctx->random, 1, 8));
        const int32_t width = D + CheckRandom_range(&ctx->random, 0, it % 4 == 0 ? 400 : 60);
        const int32_t rows = kWindows[CheckRandom_range(&ctx->random, 0, 7)];
        const int32_t dLow = CheckRandom_range(&ctx->random, -D - 4, 6);
        const int32_t dHigh = dLow + D - 1;
        // Columns whose candidates stay in the row, trimmed at random.
        int32_t x0 = (dLow < 0 ? -dLow : 0) + CheckRandom_range(&ctx->random, 0, 3);
        int32_t x1 = (dHigh > 0 ? width - dHigh : width) - CheckRandom_range(&ctx->random, 0, 3);
        if (x1 < x0) x1 = x0;
        GuardedPlane base, match, mask;
        GuardedPlane_init(&base, width * wordBytes, 1, wordBytes, &ctx->random);
        GuardedPlane_init(&match, width * wordBytes, rows, wordBytes, &ctx->random);
        GuardedPlane_init(&mask, width, 1, 1, &ctx->random);
        GuardedPlane outRef, outVar;
        GuardedPlane_init(&outRef, width * D, 1, 1, &ctx->random);
        GuardedPlane_init(&outVar, outRef.rowBytes, 1, 1, &ctx->random);
        GuardedPlane_copyRows(&outVar, &outRef);
        HammingCase c{};
        c.base = base.data;
        for (int32_t i = 0; i < rows; ++i) c.match[i] = GuardedPlane_row(&match, i);
        c.rows = rows;
        c.mask = CheckRandom_range(&ctx->random, 0, 1) != 0 ? mask.data : nullptr;
        c.D = D;
        c.dLow = dLow;
        c.x0 = x0;
        c.x1 = x1;
        c.fn = ref;
        c.out = outRef.data;
        callHamming(&c);
        c.fn = var;
        c.out = outVar.data;
        callHamming(&c);
        char text[96];
        std::snprintf(text, sizeof(text), "width %d, D %d, dLow %d, rows %d, columns %d to %d, %s", width, D,
                      dLow, rows, x0, x1, c.mask != nullptr ? "mask" : "no mask");
        if (!Check_outputs(ctx, kernel, v, &outRef, &outVar, text)) return;
    }
    if (!ctx->bench) return;
    // The modes' shapes: 1080 columns, 24 candidates, 9 rows (3x3 census);
    // 720 columns, 64 candidates, 21 rows (5x5 census).
    const bool bytes = wordBytes == 1;
    const int32_t width = bytes ? 1080 : 720, D = bytes ? 24 : 64, rows = bytes ? 9 : 21;
    GuardedPlane base, match, mask, out;
    GuardedPlane_init(&base, width * wordBytes, 1, wordBytes, &ctx->random);
    GuardedPlane_init(&match, width * wordBytes, rows, wordBytes, &ctx->random);
    GuardedPlane_init(&mask, width, 1, 1, &ctx->random);
    GuardedPlane_init(&out, width * D, 1, 1, &ctx->random);
    HammingCase c{};
    c.base = base.data;
    for (int32_t i = 0; i < rows; ++i) c.match[i] = GuardedPlane_row(&match, i);
    c.rows = rows;
    c.mask = mask.data;
    c.D = D;
    c.dLow = -4;
    c.x0 = 4;
    c.x1 = width - (D - 5);
    c.out = out.data;
    c.fn = ref;
    const double refNs = Check_timeNs(callHamming, &c, bytes ? 200 : 20);
    c.fn = var;
    const double ns = Check_timeNs(callHamming, &c, bytes ? 200 : 20);
    const double units = static_cast<double>(c.x1 - c.x0) * D;
    Check_reportBench(kernel, "scalar", refNs, refNs, units, "cost");
    Check_reportBench(kernel, v.name, ns, refNs, units, "cost");
}

void runSgmCost(CheckContext* ctx) {
    SgmCostKernels ref;
    vq_tl::SgmCostKernels_fill(&ref, 0);
    for (const Variant& v : Check_variants()) {
        SgmCostKernels t;
        vq_tl::SgmCostKernels_fill(&t, v.features);
        if (t.hamming8 != ref.hamming8) checkHamming(ctx, "hamming8", v, ref.hamming8, t.hamming8, 1);
        if (t.hamming32 != ref.hamming32) checkHamming(ctx, "hamming32", v, ref.hamming32, t.hamming32, 4);
    }
}

KernelFamily gSgmCost{"sgm_cost", runSgmCost, nullptr};
KernelFamilyRegistration gSgmCostRegistration(&gSgmCost);

}  // namespace

}  // namespace vq_tl_test
