// Frames of any shape offered to live sessions, one per pixel format,
// synchronous and asynchronous, opened on first use and kept for the process.
// Input: per call (at most kCalls) an op byte and two FrameHeaders, main then sub.
#include <sanitizer/asan_interface.h>

#include <atomic>

#include "fuzz/fuzz_input.h"
#include "support/session_params.h"
#include "velquin/twin_lens.h"

namespace {

constexpr int32_t kWidth = 320, kHeight = 240;  // the smallest frames a session takes: fast inputs
constexpr int64_t kArena = int64_t{1} << 20;    // bytes one plane may span
constexpr int kCalls = 4;
const char* const kFormats[3] = {"YUV420_PLANAR", "YUV420_SEMIPLANAR", "YVU420_SEMIPLANAR"};

struct Live {
    TwinLensHandle handle{nullptr};
    std::atomic<int32_t> done{-1};  // the last sequence reported complete
};

// Sessions 0-2 synchronous, 3-5 asynchronous, in the order of kFormats; never
// destroyed, as the workers run until the process ends.
Live& session(int index) {
    static Live* const live = new Live[6];
    Live& l = live[index];
    if (l.handle.session != nullptr) return l;
    auto p = vq_tl_test::makeParams(kWidth, kHeight, kWidth / 2, kHeight / 2);
    p->format = kFormats[index % 3];
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vq_tl_test::FuzzInput in{data, size};
    for (int call = 0; call < kCalls && in.size > 0; ++call) {
        // op modulo 16, then 6: the session; 0x10: null sequenceOut (synchronous only);
        // 0x20, 0x40: null main, sub record; 0x80: processEx.
        const auto op = in.take<uint8_t>();
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
