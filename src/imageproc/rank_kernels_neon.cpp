// 3 by 3 median rows with NEON: 16 elements per step (the kernel itself is
// RankKernels_median3x3Row of the family's header).
#include <arm_neon.h>

#include "imageproc/rank_kernels.h"

namespace vq_tl {

namespace {

struct V {
    using Reg = uint8x16_t;
    static constexpr int32_t kLanes = 16;
    static Reg load(const uint8_t* p) { return vld1q_u8(p); }
    static void store(uint8_t* p, Reg v) { vst1q_u8(p, v); }
    static Reg min(Reg a, Reg b) { return vminq_u8(a, b); }
    static Reg max(Reg a, Reg b) { return vmaxq_u8(a, b); }
};

}  // namespace

void RankKernels_addNeon(RankKernels* table) { table->median3x3U8 = RankKernels_median3x3Row<V>; }

}  // namespace vq_tl
