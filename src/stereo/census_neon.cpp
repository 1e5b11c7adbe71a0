// Census rows with NEON: 16 pixels per step (the kernels themselves are
// Census_3x3Row and Census_5x5Row of the family's header).
#include <arm_neon.h>

#include "stereo/census.h"

namespace vq_tl {

namespace {

struct V {
    using Reg = uint8x16_t;
    static constexpr int32_t kLanes = 16;
    static Reg load(const uint8_t* p) { return vld1q_u8(p); }
    static void store(uint8_t* p, Reg v) { vst1q_u8(p, v); }
    static Reg zero() { return vdupq_n_u8(0); }
    static Reg greater(Reg a, Reg c) { return vcgtq_u8(a, c); }
    // A set mask byte is 255: subtracting it adds one.
    static Reg push(Reg acc, Reg g) { return vsubq_u8(vaddq_u8(acc, acc), g); }
    // Interleaved store: bytes low, mid, high, 0 of each little-endian word.
    static void storeWords(uint32_t* out, Reg hi, Reg mid, Reg low) {
        uint8x16x4_t words;
        words.val[0] = low;
        words.val[1] = mid;
        words.val[2] = hi;
        words.val[3] = vdupq_n_u8(0);
        vst4q_u8(reinterpret_cast<uint8_t*>(out), words);
    }
};

}  // namespace

void CensusKernels_addNeon(CensusKernels* table) { Census_setRows<V>(table); }

}  // namespace vq_tl
