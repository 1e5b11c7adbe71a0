#include "rectify/rectify.h"

#include <cstring>

namespace vq_tl {

TLResult construct_Rectify(Rectify* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    std::memset(self, 0, sizeof *self);
    self->env = env;
    return TL_OK;
}

TLResult destruct_Rectify(Rectify* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    std::memset(self, 0, sizeof *self);
    return TL_OK;
}

TLResult Rectify_setPel(Rectify* self, Pel* pel) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->pel = pel;
    return TL_OK;
}

}  // namespace vq_tl
