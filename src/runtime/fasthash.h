// MurmurHash3, the 32-bit and the 128-bit form for 32-bit processors, with the
// running state kept by the caller: the state goes in as the seed and the
// finished hash comes back into it, so a state seeded with s gives the
// published hash for seed s (all four words set to s for the 128-bit form).
#pragma once

#include <cstdint>

#include "velquin/twin_lens_types.h"

namespace vq_tl {

// state: one word. TL_ERROR_PARAM for a null state, a negative length, or null
// data with a positive length.
TLResult fasthash32(uint32_t* state, const void* data, int32_t length);
// state: four words, h1..h4 of the algorithm.
TLResult fasthash128(uint32_t* state, const void* data, int32_t length);

}  // namespace vq_tl
