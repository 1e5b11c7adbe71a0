#include <cstdio>

#include "bokeh/bokeh_kernels.h"
#include "check.h"

namespace vq_tl_test {

namespace {

using vq_tl::BokehKernels;

// The inputs of one call of any of the family's kernels; each kernel reads
// the planes it needs.
struct BokehCase {
    const BokehKernels* table;
    int kernel;  // index into kKernels
    uint8_t* out;
    uint8_t* outWeight;
    const uint8_t* in[4];
    const uint16_t* v;
    int32_t wa, threshold, shift, n;
};

enum : int { kShrink, kShrink2, kColumnSum, kDouble, kMix, kMix2, kWeightedShrink };

struct KernelInfo {
    const char* name;
    int32_t outBytes;  // per unit of n
    int32_t inBytes;   // per unit of n for the byte inputs
    int32_t inputs;    // byte inputs
};
// Shrinks read 2 (or 4) bytes a row per output; the doubling reads n + 2
// column sums; the mixes read the coc row and 1 or 2 bytes of f a pixel; the
// weighted shrink writes values in the output's row 0 and weights in row 1.
constexpr KernelInfo kKernels[] = {
    {"shrink", 1, 2, 2}, {"shrink2", 1, 4, 2}, {"columnSum", 2, 1, 2},      {"double", 2, 0, 0},
    {"mix", 1, 1, 3},    {"mix2", 2, 1, 4},    {"weightedShrink", 1, 2, 4},
};

void callBokeh(void* arg) {
    const BokehCase* c = static_cast<const BokehCase*>(arg);
    const BokehKernels* t = c->table;
    switch (c->kernel) {
        case kShrink: t->shrink(c->out, c->in[0], c->in[1], c->n); break;
        case kShrink2: t->shrink2(c->out, c->in[0], c->in[1], c->n); break;
        case kColumnSum:
            t->columnSum(reinterpret_cast<uint16_t*>(c->out), c->in[0], c->in[1], c->wa, c->n);
            break;
        case kDouble: t->doubleRow(c->out, c->v, c->n); break;
        case kMix: t->mix(c->out, c->in[0], c->in[1], c->in[2], c->threshold, c->shift, c->n); break;
        case kMix2:
            t->mix2(c->out, c->in[0], c->in[1], c->in[2], c->in[3], c->threshold, c->shift, c->n);
            break;
        case kWeightedShrink:
            t->weightedShrink(c->out, c->outWeight, c->in[0], c->in[1], c->in[2], c->in[3], c->n);
            break;
        default: break;
    }
}

// Inputs of n units for one kernel, each byte row exactly as long as the
// scalar form reads: the interleaved shrink reads elements 0 and 2 of every
// 4 bytes, up to byte 4n - 2. Column sums are within 0 to 1020 as the
// doubling's callers give them, about one row in eight at either end.
struct BokehInputs {
    GuardedPlane rows[4];
    std::vector<uint16_t> v;
    void init(CheckContext* ctx, int kernel, int32_t n) {
        const KernelInfo& k = kKernels[kernel];
        for (int32_t i = 0; i < k.inputs; ++i) {
            // mix2: f holds the pairs, the rest one byte a pixel.
            const int32_t bytes =
                kernel == kMix2 && i == 0 ? 2 * n : (kernel == kShrink2 ? 4 * n - 1 : n * k.inBytes);
            GuardedPlane_init(&rows[i], bytes, 1, 1, &ctx->random);
        }
        if (kernel == kDouble) {
            v.assign(static_cast<size_t>(n) + 2, 0);
            const int32_t mode = CheckRandom_range(&ctx->random, 0, 7);
            for (uint16_t& x : v) {
                x = static_cast<uint16_t>(mode == 0   ? 0
                                          : mode == 1 ? 1020
                                                      : CheckRandom_range(&ctx->random, 0, 1020));
            }
        }
    }
    // The kernels read copies in blocks of exactly the rows' size, so that
    // AddressSanitizer sees any read past what the scalar form reads.
    std::vector<uint8_t> exact[4];
    void point(BokehCase* c) {
        for (int32_t i = 0; i < 4; ++i) {
            exact[i].assign(rows[i].data, rows[i].data + (rows[i].data != nullptr ? rows[i].rowBytes : 0));
            c->in[i] = exact[i].data();
        }
        c->v = v.data();
    }
};

void checkKernel(CheckContext* ctx, int kernel, const Variant& var, const BokehKernels* ref,
                 const BokehKernels* table) {
    ++ctx->kernelsChecked;
    const KernelInfo& k = kKernels[kernel];
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        const int32_t n = CheckRandom_range(&ctx->random, 1, it % 4 == 0 ? 700 : 90);
        BokehInputs in{};
        in.init(ctx, kernel, n);
        GuardedPlane outRef, outVar;
        const int32_t outRows = kernel == kWeightedShrink ? 2 : 1;
        GuardedPlane_init(&outRef, n * k.outBytes, outRows, kernel == kColumnSum ? 2 : 1, &ctx->random);
        GuardedPlane_init(&outVar, outRef.rowBytes, outRows, kernel == kColumnSum ? 2 : 1, &ctx->random);
        GuardedPlane_copyRows(&outVar, &outRef);
        BokehCase c{};
        c.kernel = kernel;
        c.n = n;
        c.wa = CheckRandom_range(&ctx->random, 0, 1) != 0 ? 3 : 1;
        // Thresholds and shifts at their ends as often as in between.
        const int32_t pick = CheckRandom_range(&ctx->random, 0, 3);
        c.threshold = pick == 0 ? 0 : (pick == 1 ? 255 : CheckRandom_range(&ctx->random, 0, 255));
        c.shift = pick == 2 ? 8 : CheckRandom_range(&ctx->random, 0, 8);
        in.point(&c);
        // The mixes may write over f: a quarter of their cases do.
        const bool inPlace =
            (kernel == kMix || kernel == kMix2) && CheckRandom_range(&ctx->random, 0, 3) == 0;
        if (inPlace) {
            GuardedPlane_copyRows(&outRef, &in.rows[0]);
            GuardedPlane_copyRows(&outVar, &in.rows[0]);
        }
        // Half the weighted shrinks keep no weights.
        const bool weights = kernel == kWeightedShrink && CheckRandom_range(&ctx->random, 0, 1) != 0;
        c.table = ref;
        c.out = outRef.data;
        c.outWeight = weights ? GuardedPlane_row(&outRef, 1) : nullptr;
        if (inPlace) c.in[0] = outRef.data;
        callBokeh(&c);
        c.table = table;
        c.out = outVar.data;
        c.outWeight = weights ? GuardedPlane_row(&outVar, 1) : nullptr;
        if (inPlace) c.in[0] = outVar.data;
        callBokeh(&c);
        char text[96];
        std::snprintf(text, sizeof(text), "n %d, wa %d, threshold %d, shift %d%s", n, c.wa, c.threshold,
                      c.shift, inPlace ? ", in place" : "");
        if (!Check_outputs(ctx, k.name, var, &outRef, &outVar, text)) return;
    }
    if (!ctx->bench) return;
    // A row of the 12 MP frame: 4000 pixels, or 2000 outputs of a halving.
    const int32_t n =
        kernel == kShrink || kernel == kShrink2 || kernel == kMix2 || kernel == kWeightedShrink ? 2000 : 4000;
    BokehInputs in{};
    in.init(ctx, kernel, n);
    GuardedPlane out;
    GuardedPlane_init(&out, n * k.outBytes, 2, 2, &ctx->random);
    BokehCase c{};
    c.kernel = kernel;
    c.n = kernel == kDouble ? n / 2 : n;
    c.wa = 3;
    c.threshold = 10;
    c.shift = 2;
    in.point(&c);
    c.out = out.data;
    c.outWeight = GuardedPlane_row(&out, 1);
    c.table = ref;
    const double refNs = Check_timeNs(callBokeh, &c, 2000);
    c.table = table;
    const double ns = Check_timeNs(callBokeh, &c, 2000);
    Check_reportBench(k.name, "scalar", refNs, refNs, c.n, kernel == kDouble ? "pair" : "px");
    Check_reportBench(k.name, var.name, ns, refNs, c.n, kernel == kDouble ? "pair" : "px");
}

void runBokeh(CheckContext* ctx) {
    BokehKernels ref;
    vq_tl::BokehKernels_fill(&ref, 0);
    for (const Variant& v : Check_variants()) {
        BokehKernels t;
        vq_tl::BokehKernels_fill(&t, v.features);
        if (t.shrink != ref.shrink) checkKernel(ctx, kShrink, v, &ref, &t);
        if (t.shrink2 != ref.shrink2) checkKernel(ctx, kShrink2, v, &ref, &t);
        if (t.columnSum != ref.columnSum) checkKernel(ctx, kColumnSum, v, &ref, &t);
        if (t.doubleRow != ref.doubleRow) checkKernel(ctx, kDouble, v, &ref, &t);
        if (t.mix != ref.mix) checkKernel(ctx, kMix, v, &ref, &t);
        if (t.mix2 != ref.mix2) checkKernel(ctx, kMix2, v, &ref, &t);
        if (t.weightedShrink != ref.weightedShrink) checkKernel(ctx, kWeightedShrink, v, &ref, &t);
    }
}

KernelFamily gBokeh{"bokeh", runBokeh, nullptr};
KernelFamilyRegistration gBokehRegistration(&gBokeh);

}  // namespace

}  // namespace vq_tl_test
