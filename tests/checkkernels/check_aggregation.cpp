#include <cstdio>
#include <cstring>

#include "check.h"
#include "stereo/sgm_aggregation.h"

namespace vq_tl_test {

namespace {

using vq_tl::AggregationKernels;
using vq_tl::AggregationRow;
using vq_tl::AggregationRowFn;

// One row of the path work image with its two border pixels, 255 in every
// (D + 1)-th byte from byte 0 and random path costs elsewhere.
void fillPathRow(CheckRandom* r, uint8_t* row, int32_t width, int32_t D) {
    const int32_t bytes = (width + 2) * (D + 1) + 1;
    CheckRandom_fill(r, row, static_cast<size_t>(bytes));
    for (int32_t b = 0; b < bytes; b += D + 1) row[b] = 255;
}

struct AggCase {
    AggregationRowFn fn;
    AggregationRow row;
};

void callRow(void* arg) {
    const AggCase* c = static_cast<const AggCase*>(arg);
    c->fn(&c->row);
}

// Disparity counts up to 64 are the vector forms' own; larger ones check
// that the forms hand over to the scalar kernels.
int32_t randomDisparities(CheckRandom* r) {
    return CheckRandom_range(r, 0, 15) == 0 ? 8 * CheckRandom_range(r, 9, 31)
                                            : 8 * CheckRandom_range(r, 1, 8);
}

uint8_t randomPenalty(CheckRandom* r) {
    switch (CheckRandom_range(r, 0, 5)) {
        case 0: return 0;
        case 1: return 255;
        case 2: return static_cast<uint8_t>(CheckRandom_range(r, 250, 254));
        default: return static_cast<uint8_t>(CheckRandom_range(r, 1, 60));
    }
}

void checkRows(CheckContext* ctx, const char* kernel, const Variant& v, AggregationRowFn ref,
               AggregationRowFn var, bool chain) {
    ++ctx->kernelsChecked;
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        CheckRandom* rnd = &ctx->random;
        const int32_t D = randomDisparities(rnd);
        const int32_t width = CheckRandom_range(rnd, 1, it % 4 == 0 ? 400 : 40);
        const int32_t pathBytes = (width + 2) * (D + 1) + 1;
        GuardedPlane prev, outRef, outVar, cost, p2, sumRef, sumVar;
        GuardedPlane_init(&prev, pathBytes, 1, 1, rnd);
        GuardedPlane_init(&outRef, pathBytes, 1, 1, rnd);
        GuardedPlane_init(&outVar, pathBytes, 1, 1, rnd);
        GuardedPlane_init(&cost, width * D, 1, 1, rnd);
        GuardedPlane_init(&p2, width, 1, 1, rnd);
        GuardedPlane_init(&sumRef, width * (D + 2) * 2, 1, 2, rnd);
        GuardedPlane_init(&sumVar, sumRef.rowBytes, 1, 2, rnd);
        fillPathRow(rnd, prev.data, width, D);
        fillPathRow(rnd, outRef.data, width, D);
        GuardedPlane_copyRows(&outVar, &outRef);
        CheckRandom_fill16(rnd, reinterpret_cast<uint16_t*>(sumRef.data),
                           static_cast<size_t>(width) * (D + 2));
        GuardedPlane_copyRows(&sumVar, &sumRef);
        const bool constantP2 = CheckRandom_range(rnd, 0, 3) == 0;
        if (constantP2) {
            p2.data[0] = randomPenalty(rnd);
        } else if (CheckRandom_range(rnd, 0, 1) == 0) {
            CheckRandom_fill(rnd, p2.data, static_cast<size_t>(width));
        } else {
            for (int32_t x = 0; x < width; ++x) p2.data[x] = randomPenalty(rnd);
        }

        AggCase c{};
        c.row.prev = prev.data + (D + 1) + 1;
        c.row.cost = cost.data;
        c.row.p2 = p2.data;
        c.row.p2Step = constantP2 ? 0 : 1;
        c.row.sumMode = CheckRandom_range(rnd, 0, 2);
        c.row.pads = CheckRandom_range(rnd, 0, 1);
        c.row.width = width;
        c.row.numDisparities = D;
        c.row.dx = CheckRandom_range(rnd, 0, 1) == 0 ? -1 : 1;
        c.row.smallPenalty = randomPenalty(rnd);
        c.fn = ref;
        c.row.out = outRef.data + (D + 1) + 1;
        c.row.sum = reinterpret_cast<uint16_t*>(sumRef.data) + 1;
        callRow(&c);
        c.fn = var;
        c.row.out = outVar.data + (D + 1) + 1;
        c.row.sum = reinterpret_cast<uint16_t*>(sumVar.data) + 1;
        callRow(&c);
        char text[128];
        std::snprintf(text, sizeof(text), "D %d, width %d, %s, P1 %d, sum mode %d, pads %d%s", D, width,
                      chain ? (c.row.dx < 0 ? "dx -1" : "dx +1") : "cross", c.row.smallPenalty, c.row.sumMode,
                      c.row.pads, constantP2 ? ", one P2" : "");
        if (!Check_outputs(ctx, kernel, v, &outRef, &outVar, text)) return;
        if (!Check_outputs(ctx, kernel, v, &sumRef, &sumVar, text)) return;
    }
    if (!ctx->bench) return;
    // The matcher's jobs: 1080 pixels with 24 candidates, 720 with 64.
    const int32_t jobs[2][2] = {{1080, 24}, {720, 64}};
    for (const auto& job : jobs) {
        const int32_t width = job[0], D = job[1];
        const int32_t pathBytes = (width + 2) * (D + 1) + 1;
        GuardedPlane prev, out, cost, p2, sum;
        GuardedPlane_init(&prev, pathBytes, 1, 1, &ctx->random);
        GuardedPlane_init(&out, pathBytes, 1, 1, &ctx->random);
        GuardedPlane_init(&cost, width * D, 1, 1, &ctx->random);
        GuardedPlane_init(&p2, width, 1, 1, &ctx->random);
        GuardedPlane_init(&sum, width * (D + 2) * 2, 1, 2, &ctx->random);
        fillPathRow(&ctx->random, prev.data, width, D);
        fillPathRow(&ctx->random, out.data, width, D);
        for (int32_t i = 0; i < width * D; ++i)
            cost.data[i] = static_cast<uint8_t>(CheckRandom_range(&ctx->random, 0, 48));
        std::memset(p2.data, 30, static_cast<size_t>(width));
        for (int32_t mode = vq_tl::AGG_SUM_NONE; mode <= vq_tl::AGG_SUM_ADD; mode += 2) {
            AggCase c{};
            c.row.out = out.data + (D + 1) + 1;
            c.row.prev = prev.data + (D + 1) + 1;
            c.row.cost = cost.data;
            c.row.p2 = p2.data;
            c.row.p2Step = 1;
            c.row.sum = reinterpret_cast<uint16_t*>(sum.data) + 1;
            c.row.sumMode = mode;
            c.row.pads = mode == vq_tl::AGG_SUM_ADD ? 1 : 0;
            c.row.width = width;
            c.row.numDisparities = D;
            c.row.dx = -1;
            c.row.smallPenalty = 3;
            c.fn = ref;
            const double refNs = Check_timeNs(callRow, &c, 50);
            c.fn = var;
            const double ns = Check_timeNs(callRow, &c, 50);
            char name[64];
            std::snprintf(name, sizeof(name), "%s D%d%s", kernel, D,
                          mode == vq_tl::AGG_SUM_ADD ? " +sum" : "");
            Check_reportBench(name, "scalar", refNs, refNs, static_cast<double>(width) * D, "update");
            Check_reportBench(name, v.name, ns, refNs, static_cast<double>(width) * D, "update");
        }
    }
}

void runAggregation(CheckContext* ctx) {
    AggregationKernels ref;
    vq_tl::AggregationKernels_fill(&ref, 0);
    for (const Variant& v : Check_variants()) {
        AggregationKernels t;
        vq_tl::AggregationKernels_fill(&t, v.features);
        if (t.crossRow != ref.crossRow)
            checkRows(ctx, "aggregation cross row", v, ref.crossRow, t.crossRow, false);
        if (t.chainRow != ref.chainRow)
            checkRows(ctx, "aggregation chain row", v, ref.chainRow, t.chainRow, true);
    }
}

KernelFamily gAggregation{"aggregation", runAggregation, nullptr};
KernelFamilyRegistration gAggregationRegistration(&gAggregation);

}  // namespace

}  // namespace vq_tl_test
