#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <vector>

#include "interface/twin_lens_session.h"
#include "support/session_params.h"

using vq_tl_test::makeParams;

namespace {

// A caller's buffer inside a larger block whose margins must stay untouched.
struct GuardedBuffer {
    static constexpr size_t kMargin = 64;
    static constexpr uint8_t kCanary = 0xC5;
    std::vector<uint8_t> block;
    int32_t size;
    explicit GuardedBuffer(int32_t bytes, size_t misalign = 0)
        : block(bytes + 2 * kMargin + misalign, kCanary), size(bytes), offset(kMargin + misalign) {}
    void* data() { return block.data() + offset; }
    bool marginsIntact() const {
        for (size_t i = 0; i < offset; ++i) {
            if (block[i] != kCanary) return false;
        }
        for (size_t i = offset + size; i < block.size(); ++i) {
            if (block[i] != kCanary) return false;
        }
        return true;
    }
    bool allZero() const {
        for (size_t i = offset; i < offset + size; ++i) {
            if (block[i] != 0 && block[i] != kCanary) return false;
        }
        return true;
    }
    size_t offset;
};

int32_t bufferSize(const TwinLensParams* p) { return velquin_TwinLens_getBufferSize(p); }

}  // namespace

TEST(Session, VersionString) {
    EXPECT_STREQ(velquin_TwinLens_getVersion(), "Velquin Twin Lens Suite Ver.1.0.0 2019/03/26");
}

TEST(Session, OpensAndClosesWithinTheCallersBuffer) {
    auto p = makeParams();
    const int32_t size = bufferSize(p.get());
    ASSERT_GT(size, 0);
    for (size_t misalign : {0, 1, 3}) {
        GuardedBuffer buffer(size, misalign);
        TwinLensHandle handle{nullptr};
        ASSERT_EQ(velquin_TwinLens_initialize(&handle, buffer.data(), size, p.get()), TL_OK);
        ASSERT_NE(handle.session, nullptr);
        EXPECT_EQ(handle.session->magic, 0xDEADBEEFu);
        EXPECT_EQ(handle.session->state & 1u, 1u);
        EXPECT_EQ(handle.session->formatCode, 27u);
        EXPECT_EQ(velquin_TwinLens_finalize(&handle), TL_OK);
        EXPECT_EQ(handle.session, nullptr);
        EXPECT_TRUE(buffer.marginsIntact());
        EXPECT_TRUE(buffer.allZero());
    }
}

TEST(Session, BufferSizeDoesNotDependOnTheSizes) {
    auto a = makeParams(640, 480, 320, 240);
    auto b = makeParams(4000, 3000, 1000, 750);
    auto c = makeParams(320, 240, 160, 120);
    EXPECT_EQ(bufferSize(a.get()), bufferSize(b.get()));
    EXPECT_EQ(bufferSize(a.get()), bufferSize(c.get()));
    EXPECT_GE(bufferSize(a.get()), static_cast<int32_t>(sizeof(TwinLensSession)));
    EXPECT_EQ(bufferSize(nullptr), static_cast<int32_t>(TL_ERROR_PARAM));
}

// The size rules, checked through getBufferSize (no allocation) and, for
// sizes small enough, through initialize as well.
TEST(Session, SizeRules) {
    struct Case {
        int32_t mw, mh, sw, sh, dw, dh;
        bool valid;
        const char* what;
    };
    const Case cases[] = {
        {320, 240, 320, 240, 160, 120, true, "smallest frame and depth"},
        {318, 240, 320, 240, 160, 120, false, "main below 76800 pixels"},
        {320, 240, 318, 240, 160, 120, false, "sub below 76800 pixels"},
        {320, 240, 320, 240, 158, 120, false, "depth below 19200 pixels"},
        {16384, 12288, 16384, 12288, 1024, 768, true, "16384 wide"},
        {16386, 12288, 16384, 12288, 1024, 768, false, "16386 wide"},
        {16384, 16386, 16384, 12288, 1024, 768, false, "16386 high"},
        {321, 240, 320, 240, 160, 120, false, "odd main width"},
        {320, 241, 320, 240, 160, 120, false, "odd main height"},
        {320, 240, 320, 240, 160, 121, false, "odd depth height"},
        {400, 400, 436, 400, 200, 200, true, "sub aspect 0.09 off"},
        {400, 400, 444, 400, 200, 200, false, "sub aspect 0.11 off"},
        {400, 400, 400, 400, 218, 200, true, "depth aspect 0.09 off"},
        {400, 400, 400, 400, 222, 200, false, "depth aspect 0.11 off"},
        {-400, -300, 400, 300, 200, 150, false, "negative sides"},
        {0, 240, 320, 240, 160, 120, false, "zero width"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto p = makeParams();
        p->mainWidth = c.mw;
        p->mainHeight = c.mh;
        p->subWidth = c.sw;
        p->subHeight = c.sh;
        p->depthWidth = c.dw;
        p->depthHeight = c.dh;
        const int32_t size = bufferSize(p.get());
        EXPECT_EQ(size > 0, c.valid);
        if (!c.valid) {
            EXPECT_EQ(size, static_cast<int32_t>(TL_ERROR_PARAM));
        }
        if (c.valid && c.mw > 4000) continue;  // the check above suffices; no giant images here
        auto ok = makeParams();
        std::vector<uint8_t> buffer(bufferSize(ok.get()));
        TwinLensHandle handle{nullptr};
        const TLResult r =
            velquin_TwinLens_initialize(&handle, buffer.data(), static_cast<int32_t>(buffer.size()), p.get());
        EXPECT_EQ(r, c.valid ? TL_OK : TL_ERROR_PARAM);
        if (r == TL_OK) {
            EXPECT_EQ(velquin_TwinLens_finalize(&handle), TL_OK);
        }
    }
}

TEST(Session, RefusalsComeInTheirOrder) {
    auto p = makeParams();
    const int32_t size = bufferSize(p.get());
    std::vector<uint8_t> buffer(size);
    TwinLensHandle handle{nullptr};

    EXPECT_EQ(velquin_TwinLens_initialize(&handle, buffer.data(), size, nullptr), TL_ERROR_PARAM);
    // A bad format wins over a null handle and over bad sizes.
    for (const char* name : {"RGB888", "NV21", "", "YUV422_SEMIPLANAR", "YVU422_SEMIPLANAR"}) {
        p->format = name;
        p->mainWidth = 3;
        EXPECT_EQ(velquin_TwinLens_initialize(nullptr, nullptr, 0, p.get()), TL_ERROR_UNSUPPORTED) << name;
    }
    p->format = nullptr;
    EXPECT_EQ(velquin_TwinLens_initialize(&handle, buffer.data(), size, p.get()), TL_ERROR_UNSUPPORTED);
    for (const char* name : {"YUV420_PLANAR", "YUV420_SEMIPLANAR", "YVU420_SEMIPLANAR"}) {
        p->format = name;
        EXPECT_EQ(velquin_TwinLens_initialize(nullptr, buffer.data(), size, p.get()), TL_ERROR_PARAM);
        EXPECT_EQ(velquin_TwinLens_initialize(&handle, nullptr, size, p.get()), TL_ERROR_PARAM);
        EXPECT_EQ(velquin_TwinLens_initialize(&handle, buffer.data(), 0, p.get()), TL_ERROR_PARAM);
        EXPECT_EQ(velquin_TwinLens_initialize(&handle, buffer.data(), size, p.get()),
                  TL_ERROR_PARAM);  // width 3
    }
    p->mainWidth = 640;
    // Too small a buffer clears the handle and reports the system code.
    TwinLensHandle stale{reinterpret_cast<TwinLensSession*>(buffer.data())};
    EXPECT_EQ(velquin_TwinLens_initialize(&stale, buffer.data(), 100, p.get()), TL_ERROR_SYSTEM);
    EXPECT_EQ(stale.session, nullptr);
    EXPECT_EQ(velquin_TwinLens_initialize(&handle, buffer.data(),
                                          static_cast<int32_t>(sizeof(TwinLensSession)) - 1, p.get()),
              TL_ERROR_SYSTEM);
}

TEST(Session, RowInForceIsTheLowerMiddleRow) {
    struct Case {
        int32_t count, index;
    };
    const Case cases[] = {{1, 0}, {2, 0}, {4, 1}, {5, 2}, {20, 9}, {0, 0}, {INT32_MIN, 0}};
    for (const Case& c : cases) {
        auto p = makeParams();
        p->cameraParamCount = c.count;
        std::vector<uint8_t> buffer(bufferSize(p.get()));
        TwinLensHandle handle{nullptr};
        ASSERT_EQ(
            velquin_TwinLens_initialize(&handle, buffer.data(), static_cast<int32_t>(buffer.size()), p.get()),
            TL_OK);
        const TwinLensSession* s = handle.session;
        EXPECT_EQ(s->cameraParamIndex, c.index) << c.count;
        EXPECT_EQ(s->cameraParamCount, c.count);
        EXPECT_EQ(s->calibWidth, c.count > 0 ? 4000 + c.index : 0);
        EXPECT_EQ(s->calibHeight, c.count > 0 ? 3000 + c.index : 0);
        EXPECT_EQ(s->cameraDirty, 1);
        EXPECT_EQ(s->frameCounter, -1);
        EXPECT_EQ(s->refineOnlyRate, 2);
        EXPECT_EQ(s->coarseBokehLevel, 40);
        EXPECT_DOUBLE_EQ(s->focusX, 0.5);
        EXPECT_DOUBLE_EQ(s->focusY, 0.5);
        EXPECT_EQ(s->writeSlot, 0);
        EXPECT_EQ(s->background, nullptr);
        if (c.count > 0) {
            EXPECT_EQ(std::memcmp(&s->cameraParams[c.count - 1], &p->cameraParams[c.count - 1],
                                  sizeof(TwinLensCameraParam)),
                      0);
        }
        EXPECT_EQ(velquin_TwinLens_finalize(&handle), TL_OK);
    }
}

TEST(Session, ResultImagesExistAtDepthSize) {
    auto p = makeParams(640, 480, 330, 248);
    std::vector<uint8_t> buffer(bufferSize(p.get()));
    TwinLensHandle handle{nullptr};
    ASSERT_EQ(
        velquin_TwinLens_initialize(&handle, buffer.data(), static_cast<int32_t>(buffer.size()), p.get()),
        TL_OK);
    const TwinLensSession* s = handle.session;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(s->depthImage[i].format, 60u);
        EXPECT_EQ(s->depthImage[i].width, 330);
        EXPECT_EQ(s->depthImage[i].height, 248);
        EXPECT_NE(s->depthImage[i].plane[0], nullptr);
        EXPECT_EQ(s->foregroundMask[i].format, 66u);
        EXPECT_EQ(s->cocImage[i].format, 60u);
        // Synchronous sessions have no frame pool images.
        EXPECT_EQ(s->mainFrames[i].plane[0], nullptr);
    }
    EXPECT_EQ(s->backgroundStore.format, 27u);
    EXPECT_EQ(s->backgroundStore.width, 330);
    EXPECT_EQ(velquin_TwinLens_finalize(&handle), TL_OK);
}

TEST(Session, FinalizeGuards) {
    auto p = makeParams();
    std::vector<uint8_t> buffer(bufferSize(p.get()));
    TwinLensHandle handle{nullptr};
    ASSERT_EQ(
        velquin_TwinLens_initialize(&handle, buffer.data(), static_cast<int32_t>(buffer.size()), p.get()),
        TL_OK);

    EXPECT_EQ(velquin_TwinLens_finalize(nullptr), TL_ERROR_PARAM);
    TwinLensHandle copy = handle;  // another address: the guard does not match
    EXPECT_EQ(velquin_TwinLens_finalize(&copy), TL_ERROR_STATE);
    EXPECT_EQ(copy.session, handle.session);
    EXPECT_EQ(handle.session->magic, 0xDEADBEEFu);  // still alive

    // A handle that points at a buffer without a live session.
    std::vector<uint8_t> garbage(sizeof(TwinLensSession) + 16, 0x11);
    TwinLensHandle bogus{reinterpret_cast<TwinLensSession*>(garbage.data())};
    EXPECT_EQ(velquin_TwinLens_finalize(&bogus), TL_ERROR_STATE);

    EXPECT_EQ(velquin_TwinLens_finalize(&handle), TL_OK);
    EXPECT_EQ(velquin_TwinLens_finalize(&handle), TL_ERROR_PARAM);
    EXPECT_EQ(velquin_TwinLens_finalize(&copy), TL_ERROR_STATE);  // the zero-filled session is not live
}

TEST(Session, HandlesAreIndependent) {
    auto p = makeParams();
    const int32_t size = bufferSize(p.get());
    std::vector<uint8_t> a(size), b(size);
    TwinLensHandle ha{nullptr};
    TwinLensHandle hb{nullptr};
    ASSERT_EQ(velquin_TwinLens_initialize(&ha, a.data(), size, p.get()), TL_OK);
    p->format = "YUV420_PLANAR";
    ASSERT_EQ(velquin_TwinLens_initialize(&hb, b.data(), size, p.get()), TL_OK);
    EXPECT_EQ(ha.session->formatCode, 27u);
    EXPECT_EQ(hb.session->formatCode, 26u);
    EXPECT_EQ(velquin_TwinLens_finalize(&ha), TL_OK);
    EXPECT_EQ(hb.session->magic, 0xDEADBEEFu);
    EXPECT_EQ(velquin_TwinLens_finalize(&hb), TL_OK);
}
