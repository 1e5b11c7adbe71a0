// Factory records of any content through the converter's life cycle: size
// query, initialize, any number of the three conversions, finalize.
// Input: Header, then per call an op byte, a RectifyDataConverterParam as it
// lies in memory (table pointers replaced) and the entries of present tables.
#include <vector>

#include "fuzz/fuzz_input.h"
#include "velquin/rectify_data_converter.h"

namespace {

constexpr int32_t kMaxTable = 64;  // above the 41 entries a kept table may have

struct Header {
    int32_t tableCapacity, coefficientCount;
    int32_t bufferSize;  // taken when at most 256 and flag 0x80 is clear, else the queried size
    uint8_t flags;       // 0-7: buffer misalignment; 0x20: null buffer; 0x40: null handle
    uint8_t unused[3];
};

// A table the caller owns: a null one goes with any count, a real one never
// claims more entries than it has.
const float* table(vq_tl_test::FuzzInput& in, bool present, int32_t& count, std::vector<float>& store) {
    if (!present) return nullptr;
    if (count > kMaxTable) count = kMaxTable;
    store.resize(count > 0 ? count : 1);
    in.fill(store.data(), store.size() * sizeof(float));
    return store.data();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vq_tl_test::FuzzInput in{data, size};
    const auto h = in.take<Header>();
    VQ_FUZZ_CHECK(velquin_RectifyDataConverter_getVersion() != nullptr);
    const uint32_t query = velquin_RectifyDataConverter_getBufferSize(h.tableCapacity, h.coefficientCount);
    int32_t bufferSize = h.bufferSize;
    if (bufferSize > 256 || (h.flags & 0x80) != 0) bufferSize = TL_FAILED(query) ? 256 : int32_t(query);
    std::vector<uint8_t> buffer((h.flags & 7) + (bufferSize > 0 ? bufferSize : 0));
    RectifyDataConverterHandle handle{nullptr};
    TLResult r = velquin_RectifyDataConverter_initialize(
        (h.flags & 0x40) != 0 ? nullptr : &handle,
        (h.flags & 0x20) != 0 ? nullptr : buffer.data() + (h.flags & 7), bufferSize, h.tableCapacity,
        h.coefficientCount);
    VQ_FUZZ_CHECK((r == TL_OK) == (handle.context != nullptr));
    if (r != TL_OK) return 0;
    VQ_FUZZ_CHECK(!TL_FAILED(query) && uint32_t(bufferSize) >= query);

    RectifyDataConverterParam param{};
    TwinLensCameraParam row{};
    std::vector<float> mainStore, subStore;
    while (in.size > 0) {
        // op 0-3: which conversion; 4, 8: main, sub table present; 16: null record; 32: null row.
        const auto op = in.take<uint8_t>();
        in.fill(&param, sizeof param);
        param.mainDistTable = table(in, (op & 4) != 0, param.mainDistCount, mainStore);
        param.subDistTable = table(in, (op & 8) != 0, param.subDistCount, subStore);
        const RectifyDataConverterParam* p = (op & 16) != 0 ? nullptr : &param;
        TwinLensCameraParam* out = (op & 32) != 0 ? nullptr : &row;
        switch (op & 3) {
            case 1: r = velquin_RectifyDataConverter_convertCameraMatrix(&handle, out, p); break;
            case 2: r = velquin_RectifyDataConverter_convertCalibSize(&handle, out, p); break;
            default: r = velquin_RectifyDataConverter_convert(&handle, out, p); break;
        }
        VQ_FUZZ_CHECK(p != nullptr && out != nullptr ? r != TL_ERROR_STATE : r == TL_ERROR_PARAM);
    }
    // Finalize clears the handle; a copy left behind finds no live context.
    RectifyDataConverterHandle copy = handle;
    VQ_FUZZ_CHECK(velquin_RectifyDataConverter_finalize(&handle) == TL_OK && handle.context == nullptr);
    VQ_FUZZ_CHECK(velquin_RectifyDataConverter_finalize(&handle) == TL_ERROR_PARAM);
    VQ_FUZZ_CHECK(velquin_RectifyDataConverter_convert(&copy, &row, &param) == TL_ERROR_STATE);
    return 0;
}
