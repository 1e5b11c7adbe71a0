// Frames of any shape offered to live sessions, one per pixel format,
// synchronous and asynchronous, opened on first use and kept for the process,
// and run-time settings with any arguments between the frames.
// Input: per call (at most kCalls) an op byte and two FrameHeaders, main then
// sub; or, for an op of 12 to 15 modulo 16, an op byte and a SettingCall.
#include <sanitizer/asan_interface.h>

#include <atomic>
#include <cmath>

#include "fuzz/fuzz_input.h"
#include "support/session_params.h"
#include "velquin/twin_lens.h"

namespace {

constexpr int32_t kWidth = 320, kHeight = 240;  // the smallest frames a session takes: fast inputs
constexpr int64_t kArena = int64_t{1} << 20;    // bytes one plane may span
constexpr int kCalls = 4;
constexpr int kRows = 3;  // calibration rows at lens positions 0, 1, 2; the middle one in force at first
const char* const kFormats[3] = {"YUV420_PLANAR", "YUV420_SEMIPLANAR", "YVU420_SEMIPLANAR"};

struct Live {
    TwinLensHandle handle{nullptr};
    std::atomic<int32_t> done{-1};  // the last sequence reported complete
    bool changed = false;           // a setting was accepted since the last restore
};

// Sessions 0-2 synchronous, 3-5 asynchronous, in the order of kFormats; never
// destroyed, as the workers run until the process ends.
Live* const gLive = new Live[6];

Live& session(int index) {
    Live& l = gLive[index];
    if (l.handle.session != nullptr) return l;
    auto p = vq_tl_test::makeParams(kWidth, kHeight, kWidth / 2, kHeight / 2);
    p->format = kFormats[index % 3];
    p->cameraParamCount = kRows;
    p->asyncMode = index / 3;
    p->callbackUserData = &l;
    p->completionCallback = [](void* user, uint32_t sequence, int32_t) -> int32_t {
        static_cast<Live*>(user)->done.store(int32_t(sequence));
        static_cast<Live*>(user)->done.notify_all();
        return 0;
    };
    const int32_t size = velquin_TwinLens_getBufferSize(p.get());
    VQ_FUZZ_CHECK(velquin_TwinLens_initialize(&l.handle, new uint8_t[size], size, p.get()) == TL_OK);
    return l;
}

// The planes of the main and the sub frame, reused by every call. A plane's
// span ends where its arena does, so that ASan's redzone follows it; the bytes
// before it are poisoned, and so is all of it once the call is over.
uint8_t* const gArenas[6] = {new uint8_t[kArena], new uint8_t[kArena], new uint8_t[kArena],
                             new uint8_t[kArena], new uint8_t[kArena], new uint8_t[kArena]};

struct FrameHeader {
    int32_t width, height;  // the session's with flag 1
    int32_t pitch[3];       // tight with flag 2
    uint8_t flags;          // 4, 8, 16: plane 0, 1, 2 null
    uint8_t fill;           // every byte of every plane
    uint8_t unused[2];
};

// A frame whose planes span what its record claims; a pitch that would span
// more than kArena comes down to it. False for a frame larger than that.
// refused: the asynchronous hand-off refuses a null plane in use or a pitch below 1.
bool makeFrame(const FrameHeader& h, int frame, bool planar, bool tight, TwinLensImageEx& ex, bool& refused) {
    ex.width = (h.flags & 1) != 0 ? kWidth : h.width;
    ex.height = (h.flags & 1) != 0 ? kHeight : h.height;
    void** planes[3] = {&ex.plane0, &ex.plane1, &ex.plane2};
    int32_t* pitches[3] = {&ex.pitch0, &ex.pitch1, &ex.pitch2};
    for (int k = 0; k < 3; ++k) {
        // 4:2:0: a chroma row covers two luma rows; a semi-planar one holds both chroma samples.
        const int64_t half = (int64_t{ex.width} + 1) / 2;
        const int64_t rows = k == 0 ? ex.height : (int64_t{ex.height} + 1) / 2;
        const int64_t rowBytes = k == 0 ? ex.width : planar ? half : 2 * half;
        if (rows > 0 && rowBytes > 0 && rows * rowBytes > kArena) return false;
        int64_t pitch = (h.flags & 2) != 0 || tight ? rowBytes : h.pitch[k];
        if (rows > 0 && (pitch < 0 ? -pitch : pitch) * rows > kArena)
            pitch = (pitch < 0 ? -kArena : kArena) / rows;
        const int64_t back = rows > 0 ? (rows - 1) * (pitch < 0 ? -pitch : pitch) : 0;  // first to last row
        const int64_t span = rows > 0 && rowBytes > 0 ? back + rowBytes : 1;
        uint8_t* start = gArenas[3 * frame + k] + kArena - span;
        ASAN_POISON_MEMORY_REGION(gArenas[3 * frame + k], kArena - span);
        ASAN_UNPOISON_MEMORY_REGION(start, span);
        std::memset(start, h.fill, span);
        // A negative pitch walks up from the last row.
        *planes[k] = (h.flags & (4 << k)) != 0 ? nullptr : start + (pitch < 0 ? back : 0);
        *pitches[k] = int32_t(pitch);
        refused |= k < (planar ? 3 : 2) && (*planes[k] == nullptr || pitch < 1);
    }
    return true;
}

// One setting, in place of the two frame headers.
struct SettingCall {
    uint8_t session;     // modulo 6
    uint8_t setter;      // modulo 13: the settings in the order of the header, then blurEx
    uint8_t flags;       // 1: null handle; 2: null pointer argument
    uint8_t element[2];  // camera matrix element set to a (main) and b (sub), modulo 9
    uint8_t unused[3];
    double a,
        b;  // focus point, lens position, matrix elements, slope bounds, strength; as float the radii, sigma
    int32_t sizes[4];  // calibration sizes; sizes[0] the refine-only rate and the coarse level
    float rate;        // of the radial lowering
    uint8_t tail[4];
};
static_assert(sizeof(SettingCall) == 2 * sizeof(FrameHeader));

bool unit(double v) { return v >= 0.0 && v <= 1.0; }

// The call, its result against the header's promises, and the row in force
// afterwards: the request where a matrix or size change was taken, the
// nearest row after a lens position, else the row as it was.
void applySetting(const SettingCall& c) {
    Live& l = session(c.session % 6);
    TwinLensHandle* h = (c.flags & 1) != 0 ? nullptr : &l.handle;
    const bool nullArg = (c.flags & 2) != 0;
    TwinLensCameraParam before, request, after;
    VQ_FUZZ_CHECK(velquin_TwinLens_getCurrentCameraParam(&l.handle, &before) == TL_OK);
    request = before;
    const int setter = c.setter % 13;
    TLResult r, want = TL_OK;
    float nearest = -1, farthest = -1;
    switch (setter) {
        case 0:
            r = velquin_TwinLens_setFocusCoord(h, c.a, c.b);
            want = unit(c.a) && unit(c.b) ? TL_OK : TL_ERROR_PARAM;
            break;
        case 1:
            r = velquin_TwinLens_setFocusPos(h, c.a);
            want = std::isfinite(c.a) ? TL_OK : TL_ERROR_PARAM;
            break;
        case 2:
            r = velquin_TwinLens_getValidDepthRange(h, &nearest, nullArg ? nullptr : &farthest);
            want = nullArg ? TL_ERROR_PARAM : TL_OK;
            VQ_FUZZ_CHECK(r != TL_OK || (nearest >= 0 && nearest <= farthest));
            break;
        case 3:
            // Accepted or not by the rules of initialize, which this harness does not repeat.
            request.mainCameraMatrix[c.element[0] % 9] = c.a;
            request.subCameraMatrix[c.element[1] % 9] = c.b;
            r = velquin_TwinLens_setCameraMatrix(h, nullArg ? nullptr : &request);
            want = nullArg ? TL_ERROR_PARAM : r == TL_OK ? TL_OK : TL_ERROR_PARAM;
            break;
        case 4:
            request.mainCalibWidth = c.sizes[0], request.mainCalibHeight = c.sizes[1];
            request.subCalibWidth = c.sizes[2], request.subCalibHeight = c.sizes[3];
            r = velquin_TwinLens_setCalibSize(h, nullArg ? nullptr : &request);
            want = nullArg || c.sizes[0] < 1 || c.sizes[1] < 1 || c.sizes[2] < 1 || c.sizes[3] < 1
                       ? TL_ERROR_PARAM
                       : TL_OK;
            break;
        case 5: {
            const float low = float(c.a), high = float(c.b);
            r = velquin_TwinLens_setLowerDispByMulParams(h, low, high, c.rate);
            const bool valid = low >= 0 && low <= high && high <= 1 && c.rate >= 0 && c.rate <= 1;
            want = valid ? TL_OK : TL_ERROR_PARAM;
            break;
        }
        case 6:
            r = velquin_TwinLens_getCurrentCameraParam(h, nullArg ? nullptr : &after);
            want = nullArg ? TL_ERROR_PARAM : TL_OK;
            break;
        case 7:
            r = velquin_TwinLens_setRefineOnlyRate(h, c.sizes[0]);
            want = c.sizes[0] >= 1 ? TL_OK : TL_ERROR_PARAM;
            break;
        case 8:
            r = velquin_TwinLens_setCorrectDispParams(h, c.a, c.b);
            want = c.a >= c.b ? TL_OK : TL_ERROR_PARAM;
            break;
        case 9:
            r = velquin_TwinLens_setMaxSigma(h, float(c.a));
            want = float(c.a) >= 0 ? TL_OK : TL_ERROR_PARAM;
            break;
        case 10:
            r = velquin_TwinLens_setCoarseBokehLevel(h, uint32_t(c.sizes[0]));
            want = uint32_t(c.sizes[0]) <= 40 ? TL_OK : TL_ERROR_PARAM;
            break;
        case 11: {
            // The pitched blur takes any strength; the picture is the arena's
            // bytes, whatever they hold, in the session's layout.
            const bool planar = c.session % 3 == 0;
            uint8_t* in = gArenas[0];
            uint8_t* out = gArenas[1];
            const int32_t luma = kWidth * kHeight;
            const TwinLensImageEx src = {kWidth,
                                         kHeight,
                                         in,
                                         in + luma,
                                         planar ? in + luma * 5 / 4 : nullptr,
                                         kWidth,
                                         planar ? kWidth / 2 : kWidth,
                                         kWidth / 2};
            const TwinLensImageEx dst = {kWidth,
                                         kHeight,
                                         out,
                                         out + luma,
                                         planar ? out + luma * 5 / 4 : nullptr,
                                         kWidth,
                                         planar ? kWidth / 2 : kWidth,
                                         kWidth / 2};
            ASAN_UNPOISON_MEMORY_REGION(in, luma * 3 / 2);
            ASAN_UNPOISON_MEMORY_REGION(out, luma * 3 / 2);
            r = velquin_TwinLens_blurEx(h, nullArg ? nullptr : &dst, &src, c.a);
            ASAN_POISON_MEMORY_REGION(in, luma * 3 / 2);
            ASAN_POISON_MEMORY_REGION(out, luma * 3 / 2);
            want = nullArg ? TL_ERROR_PARAM : TL_OK;
            break;
        }
        default: VQ_FUZZ_CHECK(velquin_TwinLens_setIONInfo(h, &c) == TL_ERROR_UNSUPPORTED); return;
    }
    VQ_FUZZ_CHECK(r == (h == nullptr ? TL_ERROR_PARAM : want));
    l.changed |= r == TL_OK;
    VQ_FUZZ_CHECK(velquin_TwinLens_getCurrentCameraParam(&l.handle, &after) == TL_OK);
    if (r == TL_OK && (setter == 3 || setter == 4)) {
        VQ_FUZZ_CHECK(std::memcmp(&after, &request, sizeof after) == 0);
    } else if (r == TL_OK && setter == 1) {
        const double d = std::fabs(c.a - after.focusPosition);
        for (int k = 0; k < kRows; ++k)
            VQ_FUZZ_CHECK(d < std::fabs(c.a - k) || (d == std::fabs(c.a - k) && after.focusPosition <= k));
    } else {
        VQ_FUZZ_CHECK(std::memcmp(&after, &before, sizeof after) == 0);
    }
}

// The settings of a new session again, so that an input does not depend on
// the inputs before it; the next frame rebuilds from the first rows.
void restoreSettings(Live& l) {
    const auto p = vq_tl_test::makeParams();
    TwinLensHandle* h = &l.handle;
    for (int row = 0; row < kRows; ++row) {
        VQ_FUZZ_CHECK(velquin_TwinLens_setFocusPos(h, row) == TL_OK);
        VQ_FUZZ_CHECK(velquin_TwinLens_setCalibSize(h, &p->cameraParams[row]) == TL_OK);
        VQ_FUZZ_CHECK(velquin_TwinLens_setCameraMatrix(h, &p->cameraParams[row]) == TL_OK);
    }
    VQ_FUZZ_CHECK(velquin_TwinLens_setFocusPos(h, (kRows - 1) / 2) == TL_OK);
    VQ_FUZZ_CHECK(velquin_TwinLens_setFocusCoord(h, 0.5, 0.5) == TL_OK);
    VQ_FUZZ_CHECK(velquin_TwinLens_setLowerDispByMulParams(h, 0, 0, 0) == TL_OK);
    VQ_FUZZ_CHECK(velquin_TwinLens_setRefineOnlyRate(h, 2) == TL_OK);
    VQ_FUZZ_CHECK(velquin_TwinLens_setCorrectDispParams(h, 0, 0) == TL_OK);
    VQ_FUZZ_CHECK(velquin_TwinLens_setMaxSigma(h, 15.0f) == TL_OK);
    VQ_FUZZ_CHECK(velquin_TwinLens_setCoarseBokehLevel(h, 40) == TL_OK);
    l.changed = false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vq_tl_test::FuzzInput in{data, size};
    for (int i = 0; i < 6; ++i) {
        if (gLive[i].changed) restoreSettings(gLive[i]);
    }
    for (int call = 0; call < kCalls && in.size > 0; ++call) {
        // op modulo 16: 12 to 15 a setting; else, modulo 6, the session; 0x10: null
        // sequenceOut (synchronous only); 0x20, 0x40: null main, sub record; 0x80: processEx.
        const auto op = in.take<uint8_t>();
        if ((op & 15) >= 12) {
            applySetting(in.take<SettingCall>());
            continue;
        }
        const auto mainHeader = in.take<FrameHeader>(), subHeader = in.take<FrameHeader>();
        const int index = (op & 15) % 6;
        const bool async = index >= 3, planar = index % 3 == 0, ex = (op & 0x80) != 0;
        TwinLensImageEx m{}, s{};
        bool refused = false;
        // A pair the asynchronous hand-off refuses leaves its session refusing
        // every later one (documented); such pairs go to the synchronous sessions only.
        if (!makeFrame(mainHeader, 0, planar, !ex, m, refused) ||
            !makeFrame(subHeader, 1, planar, !ex, s, refused) || (async && refused)) {
            continue;
        }
        Live& l = session(index);
        const TwinLensImage mp = {m.width, m.height, m.plane0, m.plane1, m.plane2};
        const TwinLensImage sp = {s.width, s.height, s.plane0, s.plane1, s.plane2};
        int32_t sequence = -2;
        int32_t* sequenceOut = (op & 0x10) != 0 && !async ? nullptr : &sequence;
        const bool nullMain = (op & 0x20) != 0, nullSub = (op & 0x40) != 0;
        const TLResult r = ex ? velquin_TwinLens_processEx(&l.handle, nullMain ? nullptr : &m,
                                                           nullSub ? nullptr : &s, sequenceOut)
                              : velquin_TwinLens_process(&l.handle, nullMain ? nullptr : &mp,
                                                         nullSub ? nullptr : &sp, sequenceOut);
        if (r == TL_OK && sequenceOut != nullptr) {
            // Every earlier frame has completed, so this one is taken, not skipped.
            VQ_FUZZ_CHECK(async ? sequence >= 0 : sequence == 0);
            // The frames stay untouched until the worker reports them done.
            for (int32_t done; async && (done = l.done.load()) < sequence;) l.done.wait(done);
        }
        for (uint8_t* arena : gArenas) ASAN_POISON_MEMORY_REGION(arena, kArena);
    }
    return 0;
}
