#include <cstdio>

#include "check.h"
#include "stereo/sgm_select.h"

namespace vq_tl_test {

namespace {

using vq_tl::SgmSelectKernels;
using vq_tl::WinnerU8RowFn;

struct WinnerCase {
    WinnerU8RowFn fn;
    uint8_t* out;
    const uint8_t* row;
    int32_t width, D, minDisparity, fractionBits, swapped, x0, x1;
};

void callWinner(void* arg) {
    auto* c = static_cast<WinnerCase*>(arg);
    c->fn(c->out, c->row, c->width, c->D, c->minDisparity, c->fractionBits, c->swapped, c->x0, c->x1);
}

// A row of the aggregated volume at random (pads included, since the fit
// reads them), about one case in eight at the extremes; element 1 or 2
// bytes. Small cost ranges make ties, which the value in the key breaks;
// bytes from the ends of the range only (0, 1, 254, 255) make ties at the
// extremes and neighbour differences that wrap.
void fillVolume(CheckContext* ctx, GuardedPlane* row, int32_t element) {
    if (element == 1) {
        const int32_t kind = CheckRandom_range(&ctx->random, 0, 4);
        if (kind == 0) {
            for (int32_t i = 0; i < row->rowBytes; ++i)
                row->data[i] = static_cast<uint8_t>(CheckRandom_range(&ctx->random, 0, 3));
        } else if (kind == 1) {
            for (int32_t i = 0; i < row->rowBytes; ++i) {
                const int32_t r = CheckRandom_range(&ctx->random, 0, 3);
                row->data[i] = static_cast<uint8_t>(r < 2 ? r : 252 + r);
            }
        }
        return;
    }
    uint16_t* words = reinterpret_cast<uint16_t*>(row->data);
    const int32_t n = row->rowBytes / 2;
    const int32_t kind = CheckRandom_range(&ctx->random, 0, 3);
    if (kind == 0) {
        for (int32_t i = 0; i < n; ++i)
            words[i] = static_cast<uint16_t>(CheckRandom_range(&ctx->random, 0, 3));
    } else if (kind == 1) {
        CheckRandom_fill16(&ctx->random, words, static_cast<size_t>(n));
    }
}

void checkWinner(CheckContext* ctx, const char* kernel, const Variant& v, WinnerU8RowFn ref,
                 WinnerU8RowFn var, int32_t element) {
    ++ctx->kernelsChecked;
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        const int32_t D = 8 * CheckRandom_range(&ctx->random, 1, it % 5 == 0 ? 16 : 8);
        // Wide rows reach the block forms' interiors (32 or 64 columns and
        // more with every slot inside the row), the widest several blocks
        // of the match view's buffer (384 to 512 columns).
        const int32_t width =
            CheckRandom_range(&ctx->random, 1, it % 4 == 0 ? 1200 : (it % 2 == 0 ? 300 : 40));
        GuardedPlane row, outRef, outVar;
        GuardedPlane_init(&row, width * (D + 2) * element, 1, element, &ctx->random);
        fillVolume(ctx, &row, element);
        GuardedPlane_init(&outRef, width, 1, 1, &ctx->random);
        GuardedPlane_init(&outVar, width, 1, 1, &ctx->random);
        GuardedPlane_copyRows(&outVar, &outRef);
        WinnerCase c{};
        c.row = row.data;
        c.width = width;
        c.D = D;
        c.minDisparity = CheckRandom_range(&ctx->random, -D, D);
        c.fractionBits = CheckRandom_range(&ctx->random, 0, 7);
        c.swapped = CheckRandom_range(&ctx->random, 0, 1);
        if (it % 3 == 0) {
            // Any run of a row.
            c.x0 = CheckRandom_range(&ctx->random, 0, width);
            c.x1 = CheckRandom_range(&ctx->random, c.x0, width);
        } else {
            c.x0 = CheckRandom_range(&ctx->random, 0, width < 3 ? width : 3);
            c.x1 = width - CheckRandom_range(&ctx->random, 0, width - c.x0 < 3 ? width - c.x0 : 3);
        }
        c.fn = ref;
        c.out = outRef.data;
        callWinner(&c);
        c.fn = var;
        c.out = outVar.data;
        callWinner(&c);
        char text[112];
        std::snprintf(text, sizeof(text), "width %d, D %d, min %d, fraction %d, swapped %d, columns %d to %d",
                      width, D, c.minDisparity, c.fractionBits, c.swapped, c.x0, c.x1);
        if (!Check_outputs(ctx, kernel, v, &outRef, &outVar, text)) return;
    }
    if (!ctx->bench) return;
    // The modes' shapes: 1080 columns and 24 candidates (UINT8 volume), 720
    // and 64 (UINT16 volume).
    const bool bytes = element == 1;
    const int32_t width = bytes ? 1080 : 720, D = bytes ? 24 : 64;
    GuardedPlane row, out;
    GuardedPlane_init(&row, width * (D + 2) * element, 1, element, &ctx->random);
    GuardedPlane_init(&out, width, 1, 1, &ctx->random);
    const WinnerCase c0{ref, out.data, row.data, width, D, -4, bytes ? 3 : 2, 1, 0, width};
    WinnerCase c = c0;
    const double refNs = Check_timeNs(callWinner, &c, 200);
    c.fn = var;
    const double ns = Check_timeNs(callWinner, &c, 200);
    Check_reportBench(kernel, "scalar", refNs, refNs, width, "px");
    Check_reportBench(kernel, v.name, ns, refNs, width, "px");
}

struct LeftRightCase {
    vq_tl::LeftRightU8RowFn fn;
    uint8_t* out;
    const uint8_t* base;
    const uint8_t* match;
    vq_tl::LeftRightParams params;
    int32_t x0, x1;
};

void callLeftRight(void* arg) {
    auto* c = static_cast<LeftRightCase*>(arg);
    c->fn(c->out, c->base, c->match, &c->params, c->x0, c->x1);
}

// Maps at random (extremes included), shifts of either sign, every
// fraction width, thresholds from 0 to beyond any error.
void checkLeftRight(CheckContext* ctx, const Variant& v, vq_tl::LeftRightU8RowFn ref,
                    vq_tl::LeftRightU8RowFn var) {
    ++ctx->kernelsChecked;
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        const int32_t width = CheckRandom_range(&ctx->random, 1, it % 4 == 0 ? 700 : 60);
        GuardedPlane base, match, outRef, outVar;
        GuardedPlane_init(&base, width, 1, 1, &ctx->random);
        GuardedPlane_init(&match, width, 1, 1, &ctx->random);
        GuardedPlane_init(&outRef, width, 1, 1, &ctx->random);
        GuardedPlane_init(&outVar, width, 1, 1, &ctx->random);
        GuardedPlane_copyRows(&outVar, &outRef);
        LeftRightCase c{};
        c.base = base.data;
        c.match = match.data;
        c.params.width = width;
        c.params.minDisparity = CheckRandom_range(&ctx->random, -128, 127);
        c.params.fractionBits = CheckRandom_range(&ctx->random, 0, 7);
        c.params.threshold = static_cast<uint32_t>(CheckRandom_range(&ctx->random, 0, it % 3 == 0 ? 300 : 4));
        c.params.failValue = static_cast<uint8_t>(CheckRandom_next(&ctx->random));
        c.params.passValue = static_cast<uint8_t>(CheckRandom_next(&ctx->random));
        c.params.swapped = CheckRandom_range(&ctx->random, 0, 1);
        c.x0 = CheckRandom_range(&ctx->random, 0, width < 3 ? width : 3);
        c.x1 = width - CheckRandom_range(&ctx->random, 0, width - c.x0 < 3 ? width - c.x0 : 3);
        c.fn = ref;
        c.out = outRef.data;
        callLeftRight(&c);
        c.fn = var;
        c.out = outVar.data;
        callLeftRight(&c);
        char text[112];
        std::snprintf(text, sizeof(text),
                      "width %d, min %d, fraction %d, threshold %u, swapped %d, columns %d to %d", width,
                      c.params.minDisparity, c.params.fractionBits, c.params.threshold, c.params.swapped,
                      c.x0, c.x1);
        if (!Check_outputs(ctx, "left-right", v, &outRef, &outVar, text)) return;
    }
    if (!ctx->bench) return;
    const int32_t width = 1080;
    GuardedPlane base, match, out;
    GuardedPlane_init(&base, width, 1, 1, &ctx->random);
    GuardedPlane_init(&match, width, 1, 1, &ctx->random);
    GuardedPlane_init(&out, width, 1, 1, &ctx->random);
    LeftRightCase c{};
    c.fn = ref;
    c.out = out.data;
    c.base = base.data;
    c.match = match.data;
    c.params = vq_tl::LeftRightParams{width, -4, 3, 1, 0.0f, 0, 255, 1};
    c.x0 = 0;
    c.x1 = width;
    const double refNs = Check_timeNs(callLeftRight, &c, 2000);
    c.fn = var;
    const double ns = Check_timeNs(callLeftRight, &c, 2000);
    Check_reportBench("left-right", "scalar", refNs, refNs, width, "px");
    Check_reportBench("left-right", v.name, ns, refNs, width, "px");
}

void runSgmSelect(CheckContext* ctx) {
    SgmSelectKernels ref;
    vq_tl::SgmSelectKernels_fill(&ref, 0);
    const char* base[2] = {"winner base, UINT8 volume", "winner base, UINT16 volume"};
    const char* match[2] = {"winner match, UINT8 volume", "winner match, UINT16 volume"};
    for (const Variant& v : Check_variants()) {
        SgmSelectKernels t;
        vq_tl::SgmSelectKernels_fill(&t, v.features);
        for (int32_t wide = 0; wide < 2; ++wide) {
            if (t.baseU8[wide] != ref.baseU8[wide])
                checkWinner(ctx, base[wide], v, ref.baseU8[wide], t.baseU8[wide], 1 + wide);
            if (t.matchU8[wide] != ref.matchU8[wide])
                checkWinner(ctx, match[wide], v, ref.matchU8[wide], t.matchU8[wide], 1 + wide);
        }
        if (t.leftRightU8 != ref.leftRightU8) checkLeftRight(ctx, v, ref.leftRightU8, t.leftRightU8);
    }
}

KernelFamily gSgmSelect{"sgm_select", runSgmSelect, nullptr};
KernelFamilyRegistration gSgmSelectRegistration(&gSgmSelect);

}  // namespace

}  // namespace vq_tl_test
