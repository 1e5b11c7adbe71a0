// The context every object is constructed with, and the library's one clock.
#pragma once

#include <cstdint>

#include "velquin/twin_lens_types.h"

namespace vq_tl {

// Deliberately almost empty: modules take their large memory from malloc in
// their X_init, and the Env reference only keeps every construct_X uniform.
struct Env {
    uint32_t word;
};

TLResult construct_Env(Env* env, void* buffer, int32_t size);
TLResult destruct_Env(Env* env);
void swap_Env(Env* a, Env* b);

// CLOCK_MONOTONIC_RAW in nanoseconds; 0 if the clock fails.
uint64_t Env_getTick(Env* env);

}  // namespace vq_tl
