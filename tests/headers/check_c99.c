/* Each public header must compile alone in C99; this file is the proof. */
#include "velquin/rectify_data_converter.h"
#include "velquin/twin_lens.h"
#include "velquin/twin_lens_types.h"

int vq_tl_header_check_c99(void) {
    TwinLensParams params;
    TwinLensHandle handle;
    RectifyDataConverterParam factory;
    RectifyDataConverterHandle converter;
    handle.session = 0;
    converter.context = 0;
    params.format = "YUV420_SEMIPLANAR";
    factory.mainDistTable = 0;
    return (int)sizeof params + (handle.session == 0) + (int)TL_FAILED(TL_ERROR_PARAM) +
           (converter.context == 0) + (factory.mainDistTable == 0);
}
