// Each public header must compile alone in C++; this file is the proof.
#include "velquin/rectify_data_converter.h"
#include "velquin/twin_lens.h"
#include "velquin/twin_lens_types.h"

int vq_tl_header_check_cxx() {
    TwinLensHandle handle{nullptr};
    RectifyDataConverterHandle converter{nullptr};
    return static_cast<int>(sizeof(TwinLensParams) + sizeof(RectifyDataConverterParam)) +
           (handle.session == nullptr ? 1 : 0) + (converter.context == nullptr ? 1 : 0);
}
