// Block kernels of the separable bilateral filter's blocked passes (windows
// up to 31, weights carried in floats): one run of outputs of a horizontal
// or a vertical pass, over taps that the pass has converted to floats.
//
// For output i, with t the taps 0 to 2 half and half the centre:
//   wSum = 128 C, vSum = s[half][i] * 128 C,
//   then for every t but the centre, in order:
//     e = sum over the channels c of (g[t C + c][i] - g[half C + c][i])^2,
//         accumulated channel 0 first, as d * d with d = centre - tap,
//     r = C - e clamped to 0 below, w = r * spatial[t],
//     wSum += w, vSum += w * s[t][i];
//   q[i] = vSum / wSum,
// all in floats; C is the range constant. Every sum but vSum is an integer
// below 2^24 (the pass takes this kernel only then), so only vSum's order
// matters, and it is the same in every form. C = 0 copies s[half].
//
// The scalar kernels are the definition of the result; the table's other
// forms give the same bytes (checked by the kernel harness).
//
// Forms by measurement: the block kernel has no SSE4.1 form, since the
// scalar form's vector types already compile to the same SSE2 float
// operations; its AVX2 form gives builds without the compiler's AVX2 clones
// (other compilers and systems) what the clones give x86-64 Linux. The
// compiler vectorises the one- and two-channel conversions itself, so x86
// has a form of the three-channel one only. NEON has every form, the block
// kernel for byte values only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vq_tl {

constexpr int32_t kBilateralBlockMaxHalf = 15;
// n of a call is a multiple of this; g and s are readable that far.
constexpr int32_t kBilateralBlockLanes = 32;

struct BilateralBlockParams {
    int32_t half;            // 0 to kBilateralBlockMaxHalf
    int32_t range;           // C, 0 or more
    const uint8_t* spatial;  // 2 half + 1 weights, 0 to 128
};

// q[0 .. n - 1]; g[t * channels + c] is channel c of tap t's guide, s[t] tap
// t's values, both at the first output.
using BilateralBlockFn = void (*)(float* q, const float* const* g, const float* const* s,
                                  const BilateralBlockParams* p, int32_t n);

// The conversion of one run of n pixels for the blocked passes, byte values
// only: channel c of the guide (channels interleaved) to planes[c][0 .. n -
// 1] and src to values[0 .. n - 1], all as floats (exact).
using BilateralSplitFn = void (*)(float* const* planes, float* values, const uint8_t* guide,
                                  const uint8_t* src, int32_t n);

// By the pass's values: bytes (UINT8 maps: every s is an integer 0 to 255)
// or floats (FLOAT maps: any value). Each [guide channels - 1][0: any half,
// 1 to 3: that half alone].
struct BilateralKernels {
    BilateralBlockFn bytes[3][4];
    BilateralBlockFn floats[3][4];
    BilateralSplitFn split[3];  // [guide channels - 1]
};

void bilateralSplit1_c(float* const* planes, float* values, const uint8_t* guide, const uint8_t* src,
                       int32_t n);
void bilateralSplit2_c(float* const* planes, float* values, const uint8_t* guide, const uint8_t* src,
                       int32_t n);
void bilateralSplit3_c(float* const* planes, float* values, const uint8_t* guide, const uint8_t* src,
                       int32_t n);

// The table for the instruction sets of `features` (kCpu* bits) that this
// build holds; 0 gives the scalar table.
void BilateralKernels_fill(BilateralKernels* table, uint32_t features);
// The process's table, for Cpu_getFeatures().
const BilateralKernels* BilateralKernels_get();

// The vector forms, written once over V, the float-vector operations of one
// instruction-set file: type Reg of kLanes floats, kVecs registers per step
// (independent chains of additions), load, set1, zero, add, sub, mul,
// positive(r) (r's bits cleared where its sign bit is set: max(r, 0) for
// the integers here), and storeQuotient(q, v, w) (q[0 .. kLanes - 1] = v / w,
// a true division lane by lane). Each operation is the scalar form's, in its
// order (multiplies and additions apart, never fused). Instantiated only with
// those files' own V, so no copy compiled with one set's instructions is
// shared with another.
template <class V, int C, int H>
void Bilateral_blockRun(float* q, const float* const* g, const float* const* s, const BilateralBlockParams* p,
                        int32_t n) {
    using Reg = typename V::Reg;
    constexpr int kVecs = V::kVecs;
    constexpr int32_t kLanes = V::kLanes;
    static_assert(kBilateralBlockLanes % (kLanes * kVecs) == 0);
    const int32_t half = H > 0 ? H : p->half;
    if (p->range == 0) {
        std::memcpy(q, s[half], sizeof(float) * static_cast<size_t>(n));
        return;
    }
    const Reg start = V::set1(static_cast<float>(p->range * 128));
    const Reg range = V::set1(static_cast<float>(p->range));
    float sp[2 * kBilateralBlockMaxHalf + 1];
    for (int32_t t = 0; t <= 2 * half; ++t) sp[t] = static_cast<float>(p->spatial[t]);
    for (int32_t i = 0; i < n; i += kLanes * kVecs) {
        Reg gc[kVecs][C], ws[kVecs], vs[kVecs];
        for (int b = 0; b < kVecs; ++b) {
            const int32_t o = i + kLanes * b;
            for (int c = 0; c < C; ++c) gc[b][c] = V::load(g[half * C + c] + o);
            vs[b] = V::mul(V::load(s[half] + o), start);
            ws[b] = start;
        }
        for (int32_t t = 0; t <= 2 * half; ++t) {
            if (t == half) continue;
            const Reg spt = V::set1(sp[t]);
            for (int b = 0; b < kVecs; ++b) {
                const int32_t o = i + kLanes * b;
                Reg e = V::zero();
                for (int c = 0; c < C; ++c) {
                    const Reg d = V::sub(gc[b][c], V::load(g[t * C + c] + o));
                    e = c == 0 ? V::mul(d, d) : V::add(e, V::mul(d, d));
                }
                const Reg w = V::mul(V::positive(V::sub(range, e)), spt);
                ws[b] = V::add(ws[b], w);
                vs[b] = V::add(vs[b], V::mul(w, V::load(s[t] + o)));
            }
        }
        for (int b = 0; b < kVecs; ++b) V::storeQuotient(q + i + kLanes * b, vs[b], ws[b]);
    }
}

// forms[c - 1][h]: Bilateral_blockRun for c guide channels, h as in
// BilateralKernels.
template <class V>
void Bilateral_blockForms(BilateralBlockFn forms[3][4]) {
    static constexpr BilateralBlockFn kForms[3][4] = {
        {Bilateral_blockRun<V, 1, 0>, Bilateral_blockRun<V, 1, 1>, Bilateral_blockRun<V, 1, 2>,
         Bilateral_blockRun<V, 1, 3>},
        {Bilateral_blockRun<V, 2, 0>, Bilateral_blockRun<V, 2, 1>, Bilateral_blockRun<V, 2, 2>,
         Bilateral_blockRun<V, 2, 3>},
        {Bilateral_blockRun<V, 3, 0>, Bilateral_blockRun<V, 3, 1>, Bilateral_blockRun<V, 3, 2>,
         Bilateral_blockRun<V, 3, 3>},
    };
    std::memcpy(forms, kForms, sizeof(kForms));
}

// The conversion over S, one instruction-set file's steps of 16 pixels:
// S::guide16<C>(planes, j, g) converts the C interleaved channels of pixels
// j .. j + 15 from g, S::values16(d, p) 16 value bytes; the scalar form does
// the rest of the run.
template <class S, int C>
void Bilateral_splitRun(float* const* planes, float* values, const uint8_t* guide, const uint8_t* src,
                        int32_t n) {
    const int32_t done = n & ~15;
    for (int32_t j = 0; j < done; j += 16) {
        S::template guide16<C>(planes, j, guide + j * C);
        S::values16(values + j, src + j);
    }
    if (done < n) {
        float* rest[C];
        for (int c = 0; c < C; ++c) rest[c] = planes[c] + done;
        const BilateralSplitFn tail =
            C == 1 ? bilateralSplit1_c : (C == 2 ? bilateralSplit2_c : bilateralSplit3_c);
        tail(rest, values + done, guide + done * C, src + done, n - done);
    }
}

void BilateralKernels_addSse41(BilateralKernels* table);  // the conversions only
void BilateralKernels_addAvx2(BilateralKernels* table);
void BilateralKernels_addNeon(BilateralKernels* table);

}  // namespace vq_tl
