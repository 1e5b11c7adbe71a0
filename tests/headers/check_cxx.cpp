// Each public header must compile alone in C++; this file is the proof.
#include "velquin/twin_lens.h"
#include "velquin/twin_lens_types.h"

int vq_tl_header_check_cxx() {
    TwinLensHandle handle{nullptr};
    return static_cast<int>(sizeof(TwinLensParams)) + (handle.session == nullptr ? 1 : 0);
}
