// Winner rows with AVX2: none yet beyond the SSE4.1 forms, which the table
// keeps.
#include <immintrin.h>

#include "stereo/sgm_select.h"

namespace vq_tl {

void SgmSelectKernels_addAvx2(SgmSelectKernels* table) { (void)table; }

}  // namespace vq_tl
