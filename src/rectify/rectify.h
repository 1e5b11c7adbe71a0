// Rectify: the object that owns lens evaluation and grid mapping for the two
// cameras. This record holds only what the lens model's inverse fit needs,
// its Env and the parallel layer that the sample filling runs on; the
// rectification state joins it with the grid mapping.
#pragma once

#include "runtime/env.h"

namespace vq_tl {

struct Pel;

struct Rectify {
    Env* env;
    Pel* pel;  // not owned; null runs the parallel steps on the calling thread
};

TLResult construct_Rectify(Rectify* self, Env* env);
TLResult destruct_Rectify(Rectify* self);
TLResult Rectify_setPel(Rectify* self, Pel* pel);

}  // namespace vq_tl
