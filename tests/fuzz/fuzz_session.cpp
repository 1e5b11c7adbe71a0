// Session parameters of any content through getBufferSize, initialize and
// finalize. Input: the ten integers that head TwinLensParams, Header,
// formatLength bytes of format name, then the calibration rows as they lie in
// memory (rows the input does not reach are zeros).
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "velquin/twin_lens.h"

namespace {

const char* const kFormats[3] = {"YUV420_PLANAR", "YUV420_SEMIPLANAR", "YVU420_SEMIPLANAR"};

struct Header {
    int32_t asyncMode, cameraParamCount, workerPriorityEnabled, workerPriority;
    int32_t bufferSize;  // taken when not above the queried size (or 65536), else that
    uint8_t formatLength;
    uint8_t formatChoice;  // modulo 5: the input's bytes, null, or one of kFormats
    uint8_t offset;        // misalignment of the buffer, modulo 16
    uint8_t flags;         // 1: callback; 2: null params; 4: null handle; 8: null buffer; 16: query
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vq_tl_test::FuzzInput in{data, size};
    auto params = std::make_unique<TwinLensParams>();
    std::memset(params.get(), 0, sizeof *params);
    in.fill(params.get(), offsetof(TwinLensParams, format));
    // A side the library would accept above 1024 comes down to 1024, so that an
    // accepted session stays within a few tens of MB; a side it must refuse
    // (odd, not positive, above 16384) goes through as it is.
    for (int32_t* side : {&params->mainWidth, &params->mainHeight, &params->subWidth, &params->subHeight,
                          &params->depthWidth, &params->depthHeight}) {
        if (*side > 1024 && *side <= 16384 && *side % 2 == 0) *side = 1024;
    }
    const auto h = in.take<Header>();
    std::string format(h.formatLength, '\0');  // the string adds the terminating NUL
    in.fill(format.data(), format.size());
    in.fill(params->cameraParams, sizeof params->cameraParams);
    const int choice = h.formatChoice % 5;
    params->format = choice == 0 ? format.c_str() : choice == 1 ? nullptr : kFormats[choice - 2];
    params->asyncMode = h.asyncMode;
    // No frame is offered, so the callback never runs.
    if ((h.flags & 1) != 0)
        params->completionCallback = [](void*, uint32_t, int32_t) -> int32_t { std::abort(); };
    params->cameraParamCount = h.cameraParamCount;
    params->workerPriorityEnabled = h.workerPriorityEnabled;
    params->workerPriority = h.workerPriority;
    const TwinLensParams* p = (h.flags & 2) != 0 ? nullptr : params.get();

    const int32_t query = velquin_TwinLens_getBufferSize(p);
    const int32_t limit = query > 0 ? query : 65536;
    const int32_t bufferSize = (h.flags & 16) != 0 || h.bufferSize > limit ? limit : h.bufferSize;
    std::vector<uint8_t> buffer(h.offset % 16 + (bufferSize > 0 ? bufferSize : 0));
    TwinLensHandle handle{nullptr};
    const TLResult r = velquin_TwinLens_initialize(
        (h.flags & 4) != 0 ? nullptr : &handle, (h.flags & 8) != 0 ? nullptr : buffer.data() + h.offset % 16,
        bufferSize, p);
    VQ_FUZZ_CHECK((r == TL_OK) == (handle.session != nullptr));
    // The query and initialize judge sizes alike; the size reported is enough at any alignment.
    // Calibration rows are judged by initialize alone, so only a session without rows must open.
    if (query > 0 && bufferSize == query && choice >= 2 && (h.flags & 12) == 0 && h.cameraParamCount <= 0)
        VQ_FUZZ_CHECK(r == TL_OK);
    if (r != TL_OK) return 0;
    VQ_FUZZ_CHECK(query > 0);
    TwinLensHandle copy = handle;
    VQ_FUZZ_CHECK(velquin_TwinLens_finalize(&copy) == TL_ERROR_STATE);
    VQ_FUZZ_CHECK(velquin_TwinLens_finalize(&handle) == TL_OK && handle.session == nullptr);
    VQ_FUZZ_CHECK(velquin_TwinLens_finalize(&handle) == TL_ERROR_PARAM);
    return 0;
}
