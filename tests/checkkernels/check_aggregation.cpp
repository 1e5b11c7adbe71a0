#include <cstdio>
#include <cstring>

#include "check.h"
#include "stereo/sgm_aggregation.h"

namespace vq_tl_test {

namespace {

using vq_tl::AggregationKernels;
using vq_tl::AggregationRow;
using vq_tl::AggregationRowFn;
using vq_tl::AggregationRows2Fn;

// One row of the path work image with its two border pixels, 255 in every
// (D + 1)-th byte from byte 0 and random path costs elsewhere.
void fillPathRow(CheckRandom* r, uint8_t* row, int32_t width, int32_t D) {
    const int32_t bytes = (width + 2) * (D + 1) + 1;
    CheckRandom_fill(r, row, static_cast<size_t>(bytes));
    for (int32_t b = 0; b < bytes; b += D + 1) row[b] = 255;
}

// Disparity counts up to 64 are the vector forms' own; larger ones check
// that the forms hand over to the scalar kernels.
int32_t randomDisparities(CheckRandom* r) {
    return CheckRandom_range(r, 0, 15) == 0 ? 8 * CheckRandom_range(r, 9, 31)
                                            : 8 * CheckRandom_range(r, 1, 8);
}

// Penalties with their extremes: 0, 255 and just below, where a + P1 wraps.
uint8_t randomPenalty(CheckRandom* r) {
    switch (CheckRandom_range(r, 0, 5)) {
        case 0: return 0;
        case 1: return 255;
        case 2: return static_cast<uint8_t>(CheckRandom_range(r, 250, 254));
        default: return static_cast<uint8_t>(CheckRandom_range(r, 1, 60));
    }
}

// The buffers of one row, path row and sums twice (reference and variant):
// the previous pixels of a cross row in a row of their own, costs, P2 per
// pixel or one for the row, and the 16-bit sums.
struct RowBuffers {
    GuardedPlane prev, outRef, outVar, cost, p2, sumRef, sumVar;
    bool constantP2;
};

void RowBuffers_init(RowBuffers* b, CheckRandom* rnd, int32_t width, int32_t D) {
    const int32_t pathBytes = (width + 2) * (D + 1) + 1;
    GuardedPlane_init(&b->prev, pathBytes, 1, 1, rnd);
    GuardedPlane_init(&b->outRef, pathBytes, 1, 1, rnd);
    GuardedPlane_init(&b->outVar, pathBytes, 1, 1, rnd);
    GuardedPlane_init(&b->cost, width * D, 1, 1, rnd);
    GuardedPlane_init(&b->p2, width, 1, 1, rnd);
    GuardedPlane_init(&b->sumRef, width * (D + 2) * 2, 1, 2, rnd);
    GuardedPlane_init(&b->sumVar, b->sumRef.rowBytes, 1, 2, rnd);
    fillPathRow(rnd, b->prev.data, width, D);
    fillPathRow(rnd, b->outRef.data, width, D);
    GuardedPlane_copyRows(&b->outVar, &b->outRef);
    CheckRandom_fill(rnd, b->cost.data, static_cast<size_t>(width) * D);
    CheckRandom_fill16(rnd, reinterpret_cast<uint16_t*>(b->sumRef.data),
                       static_cast<size_t>(width) * (D + 2));
    GuardedPlane_copyRows(&b->sumVar, &b->sumRef);
    b->constantP2 = CheckRandom_range(rnd, 0, 3) == 0;
    if (b->constantP2) {
        b->p2.data[0] = randomPenalty(rnd);
    } else if (CheckRandom_range(rnd, 0, 1) == 0) {
        CheckRandom_fill(rnd, b->p2.data, static_cast<size_t>(width));
    } else {
        for (int32_t x = 0; x < width; ++x) b->p2.data[x] = randomPenalty(rnd);
    }
}

AggregationRow RowBuffers_row(RowBuffers* b, CheckRandom* rnd, int32_t width, int32_t D, int32_t dx,
                              uint8_t p1) {
    AggregationRow row{};
    row.prev = b->prev.data + (D + 1) + 1;
    row.cost = b->cost.data;
    row.p2 = b->p2.data;
    row.p2Step = b->constantP2 ? 0 : 1;
    row.sumMode = CheckRandom_range(rnd, 0, 2);
    row.pads = CheckRandom_range(rnd, 0, 1);
    row.width = width;
    row.numDisparities = D;
    row.dx = dx;
    row.smallPenalty = p1;
    return row;
}

// Points the row at the reference's or the variant's path row and sums.
void RowBuffers_point(RowBuffers* b, AggregationRow* row, bool variant) {
    const int32_t D = row->numDisparities;
    row->out = (variant ? b->outVar.data : b->outRef.data) + (D + 1) + 1;
    row->sum = reinterpret_cast<uint16_t*>(variant ? b->sumVar.data : b->sumRef.data) + 1;
}

bool RowBuffers_check(CheckContext* ctx, const char* kernel, const Variant& v, const RowBuffers* b,
                      const char* text) {
    return Check_outputs(ctx, kernel, v, &b->outRef, &b->outVar, text) &&
           Check_outputs(ctx, kernel, v, &b->sumRef, &b->sumVar, text);
}

// One kernel call on one, two, four or eight rows: the form under test
// takes `rows`.
struct AggCase {
    AggregationRowFn one;
    AggregationRows2Fn two;
    vq_tl::AggregationRows4Fn four;
    vq_tl::AggregationRows8Fn eight;
    AggregationRow rows[8];
};

void callCase(void* arg) {
    const AggCase* c = static_cast<const AggCase*>(arg);
    if (c->one != nullptr) {
        c->one(&c->rows[0]);
    } else if (c->two != nullptr) {
        c->two(&c->rows[0], &c->rows[1]);
    } else if (c->four != nullptr) {
        c->four(c->rows);
    } else {
        c->eight(c->rows);
    }
}

// The forms of one entry: a single-row pair, a two-row, four-row or
// eight-row pair (the others null).
struct RowForms {
    AggregationRowFn ref, var;
    AggregationRows2Fn ref2, var2;
    vq_tl::AggregationRows4Fn ref4, var4;
    vq_tl::AggregationRows8Fn ref8, var8;
};

void checkRows(CheckContext* ctx, const char* kernel, const Variant& v, const RowForms& f) {
    ++ctx->kernelsChecked;
    const int32_t count = f.ref != nullptr ? 1 : (f.ref2 != nullptr ? 2 : (f.ref4 != nullptr ? 4 : 8));
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        CheckRandom* rnd = &ctx->random;
        const int32_t D = randomDisparities(rnd);
        const int32_t width = CheckRandom_range(rnd, 1, it % 4 == 0 ? 400 : 40);
        const int32_t dx = CheckRandom_range(rnd, 0, 1) == 0 ? -1 : 1;
        const uint8_t p1 = randomPenalty(rnd);
        RowBuffers b[8];
        AggCase c{};
        for (int32_t i = 0; i < count; ++i) {
            RowBuffers_init(&b[i], rnd, width, D);
            c.rows[i] = RowBuffers_row(&b[i], rnd, width, D, dx, p1);
            RowBuffers_point(&b[i], &c.rows[i], false);
        }
        c.one = f.ref;
        c.two = f.ref2;
        c.four = f.ref4;
        c.eight = f.ref8;
        callCase(&c);
        for (int32_t i = 0; i < count; ++i) RowBuffers_point(&b[i], &c.rows[i], true);
        c.one = f.var;
        c.two = f.var2;
        c.four = f.var4;
        c.eight = f.var8;
        callCase(&c);
        char text[128];
        std::snprintf(text, sizeof(text), "D %d, width %d, dx %d, P1 %d, sum mode %d, pads %d%s", D, width,
                      dx, p1, c.rows[0].sumMode, c.rows[0].pads, b[0].constantP2 ? ", one P2" : "");
        for (int32_t i = 0; i < count; ++i)
            if (!RowBuffers_check(ctx, kernel, v, &b[i], text)) return;
    }
    if (!ctx->bench) return;
    // The matcher's jobs: 1080 pixels with 24 candidates, 720 with 64; costs
    // as small as census distances give them.
    const int32_t jobs[2][2] = {{1080, 24}, {720, 64}};
    for (const auto& job : jobs) {
        const int32_t width = job[0], D = job[1];
        RowBuffers b[8];
        AggCase c{};
        for (int32_t i = 0; i < count; ++i) {
            RowBuffers_init(&b[i], &ctx->random, width, D);
            for (int32_t k = 0; k < width * D; ++k)
                b[i].cost.data[k] = static_cast<uint8_t>(CheckRandom_range(&ctx->random, 0, 48));
            std::memset(b[i].p2.data, 30, static_cast<size_t>(width));
            c.rows[i] = RowBuffers_row(&b[i], &ctx->random, width, D, -1, 3);
            c.rows[i].p2Step = 1;
            RowBuffers_point(&b[i], &c.rows[i], false);
        }
        for (int32_t mode = vq_tl::AGG_SUM_NONE; mode <= vq_tl::AGG_SUM_ADD; mode += 2) {
            for (int32_t i = 0; i < count; ++i) {
                c.rows[i].sumMode = mode;
                c.rows[i].pads = mode == vq_tl::AGG_SUM_ADD ? 1 : 0;
            }
            c.one = f.ref;
            c.two = f.ref2;
            c.four = f.ref4;
            c.eight = f.ref8;
            const double refNs = Check_timeNs(callCase, &c, 50);
            c.one = f.var;
            c.two = f.var2;
            c.four = f.var4;
            c.eight = f.var8;
            const double ns = Check_timeNs(callCase, &c, 50);
            char name[64];
            std::snprintf(name, sizeof(name), "%s D%d%s", kernel, D,
                          mode == vq_tl::AGG_SUM_ADD ? " +sum" : "");
            const double updates = static_cast<double>(width) * D * count;
            Check_reportBench(name, "scalar", refNs, refNs, updates, "update");
            Check_reportBench(name, v.name, ns, refNs, updates, "update");
        }
    }
}

struct PenaltyCase {
    vq_tl::AggregationPenaltyFn fn;
    vq_tl::AggregationPenalty row;
};

void callPenalty(void* arg) {
    const PenaltyCase* c = static_cast<const PenaltyCase*>(arg);
    c->fn(&c->row);
}

// Guide rows of one or two channels with their extremes (equal rows, steps
// of 255), P2 per pixel or one, and lower bounds from 1 to 256.
void checkPenalty(CheckContext* ctx, const char* kernel, const Variant& v, vq_tl::AggregationPenaltyFn ref,
                  vq_tl::AggregationPenaltyFn var, int32_t channels) {
    ++ctx->kernelsChecked;
    for (int32_t it = 0; it < ctx->iterations; ++it) {
        CheckRandom* rnd = &ctx->random;
        // The first case has every guide step with every P2: pixel x has
        // step x & 255 and P2 x >> 8.
        const bool all = it == 0;
        const int32_t width = all ? 65536 : CheckRandom_range(rnd, 1, it % 4 == 0 ? 700 : 60);
        GuardedPlane guide, prev, p2, outRef, outVar;
        GuardedPlane_init(&guide, width * channels, 1, 1, rnd);
        GuardedPlane_init(&prev, width * channels, 1, 1, rnd);
        GuardedPlane_init(&p2, width, 1, 1, rnd);
        GuardedPlane_init(&outRef, width, 1, 1, rnd);
        GuardedPlane_init(&outVar, width, 1, 1, rnd);
        GuardedPlane_copyRows(&outVar, &outRef);
        CheckRandom_fill(rnd, guide.data, static_cast<size_t>(width) * channels);
        if (CheckRandom_range(rnd, 0, 7) == 0) {
            std::memcpy(prev.data, guide.data, static_cast<size_t>(width) * channels);
        } else {
            CheckRandom_fill(rnd, prev.data, static_cast<size_t>(width) * channels);
        }
        PenaltyCase c{};
        c.row.p2Step = CheckRandom_range(rnd, 0, 3) == 0 ? 0 : 1;
        if (c.row.p2Step == 0) {
            p2.data[0] = randomPenalty(rnd);
        } else {
            CheckRandom_fill(rnd, p2.data, static_cast<size_t>(width));
        }
        c.row.guide = guide.data;
        c.row.guidePrev = prev.data;
        c.row.p2 = p2.data;
        c.row.lower = randomPenalty(rnd) + 1;
        c.row.width = width;
        if (all) {
            c.row.p2Step = 1;
            for (int32_t x = 0; x < width; ++x) {
                for (int32_t i = 0; i < channels; ++i) {
                    guide.data[x * channels + i] = static_cast<uint8_t>(x & 255);
                    prev.data[x * channels + i] = 0;
                }
                p2.data[x] = static_cast<uint8_t>(x >> 8);
            }
        }
        c.fn = ref;
        c.row.out = outRef.data;
        callPenalty(&c);
        c.fn = var;
        c.row.out = outVar.data;
        callPenalty(&c);
        char text[96];
        std::snprintf(text, sizeof(text), "width %d, lower %d%s", width, c.row.lower,
                      c.row.p2Step == 0 ? ", one P2" : "");
        if (!Check_outputs(ctx, kernel, v, &outRef, &outVar, text)) return;
    }
    if (!ctx->bench) return;
    const int32_t width = 1080;
    GuardedPlane guide, prev, p2, out;
    GuardedPlane_init(&guide, width * channels, 1, 1, &ctx->random);
    GuardedPlane_init(&prev, width * channels, 1, 1, &ctx->random);
    GuardedPlane_init(&p2, width, 1, 1, &ctx->random);
    GuardedPlane_init(&out, width, 1, 1, &ctx->random);
    PenaltyCase c{};
    c.row = vq_tl::AggregationPenalty{out.data, guide.data, prev.data, p2.data, 1, 9, width};
    c.fn = ref;
    const double refNs = Check_timeNs(callPenalty, &c, 2000);
    c.fn = var;
    const double ns = Check_timeNs(callPenalty, &c, 2000);
    Check_reportBench(kernel, "scalar", refNs, refNs, width, "px");
    Check_reportBench(kernel, v.name, ns, refNs, width, "px");
}

struct SumCase {
    vq_tl::AggregationSumFn fn;
    vq_tl::AggregationPlaneSum row;
};

void callSum(void* arg) {
    const SumCase* c = static_cast<const SumCase*>(arg);
    c->fn(&c->row);
}

// 4 or 8 path rows (extremes included: 8 x 255 wraps the 8-bit entries)
// into a row of 8- or 16-bit entries with its pads.
void checkSum(CheckContext* ctx, const char* kernel, const Variant& v, vq_tl::AggregationSumFn ref,
              vq_tl::AggregationSumFn var, int32_t entryBytes) {
    ++ctx->kernelsChecked;
    for (int32_t it = 0; it <= ctx->iterations; ++it) {
        CheckRandom* rnd = &ctx->random;
        const bool bench = it == ctx->iterations;
        if (bench && !ctx->bench) break;
        const int32_t D = bench ? 24 : randomDisparities(rnd);
        const int32_t width = bench ? 1080 : CheckRandom_range(rnd, 1, it % 4 == 0 ? 300 : 40);
        const int32_t n = bench || CheckRandom_range(rnd, 0, 1) == 0 ? 4 : 8;
        GuardedPlane planes[8], outRef, outVar;
        SumCase c{};
        for (int32_t i = 0; i < n; ++i) {
            GuardedPlane_init(&planes[i], (width + 2) * (D + 1) + 1, 1, 1, rnd);
            fillPathRow(rnd, planes[i].data, width, D);
            c.row.planes[i] = planes[i].data + (D + 1) + 1;
        }
        GuardedPlane_init(&outRef, width * (D + 2) * entryBytes, 1, entryBytes, rnd);
        GuardedPlane_init(&outVar, outRef.rowBytes, 1, entryBytes, rnd);
        GuardedPlane_copyRows(&outVar, &outRef);
        c.row.numPlanes = n;
        c.row.width = width;
        c.row.numDisparities = D;
        if (bench) {
            c.row.out = outRef.data;
            c.fn = ref;
            const double refNs = Check_timeNs(callSum, &c, 200);
            c.fn = var;
            const double ns = Check_timeNs(callSum, &c, 200);
            Check_reportBench(kernel, "scalar", refNs, refNs, static_cast<double>(width) * D, "entry");
            Check_reportBench(kernel, v.name, ns, refNs, static_cast<double>(width) * D, "entry");
            break;
        }
        c.fn = ref;
        c.row.out = outRef.data;
        callSum(&c);
        c.fn = var;
        c.row.out = outVar.data;
        callSum(&c);
        char text[96];
        std::snprintf(text, sizeof(text), "D %d, width %d, %d planes", D, width, n);
        if (!Check_outputs(ctx, kernel, v, &outRef, &outVar, text)) return;
    }
}

void runAggregation(CheckContext* ctx) {
    AggregationKernels ref;
    vq_tl::AggregationKernels_fill(&ref, 0);
    for (const Variant& v : Check_variants()) {
        AggregationKernels t;
        vq_tl::AggregationKernels_fill(&t, v.features);
        if (t.crossRow != ref.crossRow)
            checkRows(ctx, "aggregation cross row", v,
                      RowForms{ref.crossRow, t.crossRow, {}, {}, {}, {}, {}, {}});
        if (t.chainRow != ref.chainRow)
            checkRows(ctx, "aggregation chain row", v,
                      RowForms{ref.chainRow, t.chainRow, {}, {}, {}, {}, {}, {}});
        if (t.chainRows2 != ref.chainRows2)
            checkRows(ctx, "aggregation chain rows x2", v,
                      RowForms{{}, {}, ref.chainRows2, t.chainRows2, {}, {}, {}, {}});
        if (t.chainRows4 != ref.chainRows4)
            checkRows(ctx, "aggregation chain rows x4", v,
                      RowForms{{}, {}, {}, {}, ref.chainRows4, t.chainRows4, {}, {}});
        // The scalar table has no eight-row form: its reference is eight
        // scalar rows.
        if (t.chainRows8 != nullptr)
            checkRows(ctx, "aggregation chain rows x8", v,
                      RowForms{{}, {}, {}, {}, {}, {}, vq_tl::aggregationChainRows8_c, t.chainRows8});
        if (t.sumU8 != ref.sumU8) checkSum(ctx, "aggregation sum u8", v, ref.sumU8, t.sumU8, 1);
        if (t.sumU16 != ref.sumU16) checkSum(ctx, "aggregation sum u16", v, ref.sumU16, t.sumU16, 2);
        if (t.penaltyU8 != ref.penaltyU8)
            checkPenalty(ctx, "aggregation penalty u8", v, ref.penaltyU8, t.penaltyU8, 1);
        if (t.penaltyU88 != ref.penaltyU88)
            checkPenalty(ctx, "aggregation penalty u88", v, ref.penaltyU88, t.penaltyU88, 2);
    }
}

KernelFamily gAggregation{"aggregation", runAggregation, nullptr};
KernelFamilyRegistration gAggregationRegistration(&gAggregation);

}  // namespace

}  // namespace vq_tl_test
