// The match view's fit inputs, shared by the winners' x86 instruction-set
// files only (never by portable code): everything here has internal linkage,
// so each file compiles its own copy with its own flags.
#pragma once

#include <cstdint>

namespace vq_tl {
namespace {

// Columns xa to xe - 1 from their winners (the output value in the low byte
// of keys[x - xa]), kN columns per call of store(out, v, a, b) (the file's
// vector fit of kN pixels; a short last group goes through a scratch row):
// neighbours along the diagonal, mirrored at the ends of the run of slots
// inside the row, as the scalar form takes them. c = xb0 - x.
template <int kN, typename TA, typename Store>
void SgmSelect_fitMatchColumns(uint8_t* out, const uint32_t* keys, const TA* row, int32_t W, int32_t D,
                               int32_t c, int32_t swapped, int32_t xa, int32_t xe, Store store) {
    const int32_t first = swapped != 0 ? D - 1 : 0, step = swapped != 0 ? -1 : 1;
    const intptr_t stride = D + 1;
    int32_t v[kN], a[kN], b[kN];
    for (int32_t x = xa; x < xe; x += kN) {
        const int32_t count = xe - x < kN ? xe - x : kN;
        for (int32_t i = 0; i < kN; ++i) {
            v[i] = a[i] = b[i] = 0;
            if (i >= count) continue;
            const int32_t xb0 = x + i + c;
            const int32_t kLo = xb0 - W + 1 > 0 ? xb0 - W + 1 : 0, kHi = D - 1 < xb0 ? D - 1 : xb0;
            if (kLo > kHi) continue;  // no base pixel: the value of a tie, 0
            const int32_t won = static_cast<int32_t>(keys[x + i - xa] & 0xFF);
            const int32_t kStar = first + step * won;
            const intptr_t origin = static_cast<intptr_t>(xb0) * (D + 2) + 1;
            const TA c0 = row[origin - kStar * stride];
            const TA below = kStar > kLo ? row[origin - (kStar - 1) * stride] : c0;
            const TA above = kStar < kHi ? row[origin - (kStar + 1) * stride] : c0;
            v[i] = won;
            a[i] = static_cast<TA>((kStar > kLo ? below : above) - c0);
            b[i] = static_cast<TA>((kStar < kHi ? above : below) - c0);
        }
        if (count == kN) {
            store(out + x, v, a, b);
        } else {
            uint8_t part[kN];
            store(part, v, a, b);
            for (int32_t i = 0; i < count; ++i) out[x + i] = part[i];
        }
    }
}

}  // namespace
}  // namespace vq_tl
