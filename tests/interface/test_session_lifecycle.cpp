#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <vector>

#include "interface/twin_lens_session.h"
#include "support/session_params.h"

using vq_tl_test::makeParams;
using vq_tl_test::OpenSession;

TEST(Session, OpensAndClosesWithinTheCallersBuffer) {
    auto p = makeParams();
    const int32_t size = velquin_TwinLens_getBufferSize(p.get());
    EXPECT_EQ(velquin_TwinLens_getBufferSize(makeParams(4000, 3000, 1000, 750).get()), size);
    // The caller's buffer, one or three bytes off alignment, sits between
    // margins that must stay untouched; finalize leaves it zero where the
    // session reached.
    constexpr size_t kMargin = 64;
    constexpr uint8_t kCanary = 0xC5;
    for (size_t misalign : {0, 1, 3}) {
        std::vector<uint8_t> block(size + 2 * kMargin + misalign, kCanary);
        const size_t offset = kMargin + misalign;
        TwinLensHandle handle{nullptr};
        ASSERT_EQ(velquin_TwinLens_initialize(&handle, block.data() + offset, size, p.get()), TL_OK);
        ASSERT_NE(handle.session, nullptr);
        EXPECT_EQ(velquin_TwinLens_finalize(&handle), TL_OK);
        EXPECT_EQ(handle.session, nullptr);
        for (size_t i = 0; i < block.size(); ++i) {
            const bool inside = i >= offset && i < offset + size;
            ASSERT_TRUE(block[i] == kCanary || (inside && block[i] == 0)) << misalign << ": byte " << i;
        }
    }
}

// The size rules, checked through getBufferSize and, for sizes small enough,
// through initialize as well.
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
    const int32_t size = velquin_TwinLens_getBufferSize(makeParams().get());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto p = makeParams(c.mw, c.mh, c.dw, c.dh);
        p->subWidth = c.sw;
        p->subHeight = c.sh;
        EXPECT_EQ(velquin_TwinLens_getBufferSize(p.get()),
                  c.valid ? size : static_cast<int32_t>(TL_ERROR_PARAM));
        if (c.valid && c.mw > 4000) continue;  // no giant images here
        OpenSession session(p.get());
        EXPECT_EQ(session.opened, c.valid ? TL_OK : TL_ERROR_PARAM);
    }
    EXPECT_EQ(velquin_TwinLens_getBufferSize(nullptr), static_cast<int32_t>(TL_ERROR_PARAM));
}

TEST(Session, InitializeRefusesInItsOrder) {
    const int32_t size = velquin_TwinLens_getBufferSize(makeParams().get());
    std::vector<uint8_t> buffer(size + 1);
    uint8_t* const b = buffer.data();
    const int32_t record = static_cast<int32_t>(sizeof(TwinLensSession));
    struct Case {
        const char* format;
        bool handle;
        uint8_t* buffer;
        int32_t size, mainWidth;
        TLResult expected;
    };
    const Case cases[] = {
        // A bad format wins over a null handle, a null buffer and bad sizes.
        {"RGB888", false, nullptr, 0, 3, TL_ERROR_UNSUPPORTED},
        {nullptr, true, b, size, 640, TL_ERROR_UNSUPPORTED},
        {"YUV420_PLANAR", false, b, size, 640, TL_ERROR_PARAM},
        {"YUV420_SEMIPLANAR", true, nullptr, size, 640, TL_ERROR_PARAM},
        {"YVU420_SEMIPLANAR", true, b, 0, 640, TL_ERROR_PARAM},
        {"YUV420_PLANAR", true, b, size, 3, TL_ERROR_PARAM},
        // Too small a buffer. One byte past an aligned address the record
        // starts alignof - 1 bytes in, so the reported size less one is short.
        {"YUV420_SEMIPLANAR", true, b, 100, 640, TL_ERROR_SYSTEM},
        {"YUV420_SEMIPLANAR", true, b, record - 1, 640, TL_ERROR_SYSTEM},
        {"YUV420_SEMIPLANAR", true, b + 1, size - 1, 640, TL_ERROR_SYSTEM},
    };
    for (const Case& c : cases) {
        auto p = makeParams(c.mainWidth);
        p->format = c.format;
        TwinLensHandle handle{reinterpret_cast<TwinLensSession*>(b)};  // stale
        EXPECT_EQ(velquin_TwinLens_initialize(c.handle ? &handle : nullptr, c.buffer, c.size, p.get()),
                  c.expected)
            << (c.format ? c.format : "null") << " " << c.size << " " << c.mainWidth;
        // The system code comes with the handle cleared.
        if (c.expected == TL_ERROR_SYSTEM) {
            EXPECT_EQ(handle.session, nullptr);
        }
    }
    TwinLensHandle handle{nullptr};
    EXPECT_EQ(velquin_TwinLens_initialize(&handle, b, size, nullptr), TL_ERROR_PARAM);
}

TEST(Session, RowInForceIsTheLowerMiddleRow) {
    struct Case {
        int32_t count, index;
    };
    const Case cases[] = {{1, 0}, {2, 0}, {4, 1}, {5, 2}, {20, 9}, {0, 0}, {INT32_MIN, 0}};
    for (const Case& c : cases) {
        auto p = makeParams();
        p->cameraParamCount = c.count;
        OpenSession session(p.get());
        ASSERT_EQ(session.opened, TL_OK);
        const TwinLensSession* s = session.s();
        EXPECT_EQ(s->cameraParamIndex, c.index) << c.count;
        // No rows are copied for a count below 1.
        EXPECT_EQ(s->calibWidth, c.count > 0 ? 4000 + c.index : 0);
        EXPECT_EQ(s->calibHeight, c.count > 0 ? 3000 + c.index : 0);
        EXPECT_TRUE(c.count < 1 || std::memcmp(&s->cameraParams[c.count - 1], &p->cameraParams[c.count - 1],
                                               sizeof(TwinLensCameraParam)) == 0);
    }
}

TEST(Session, FinalizeGuardsAndIndependentHandles) {
    auto p = makeParams();
    OpenSession session(p.get());
    p->format = "YUV420_PLANAR";
    OpenSession other(p.get());
    ASSERT_TRUE(session.opened == TL_OK && other.opened == TL_OK);
    EXPECT_EQ(session.s()->formatCode, vq_tl::IMAGE_FORMAT_YUV420_SEMIPLANAR);
    EXPECT_EQ(other.s()->formatCode, vq_tl::IMAGE_FORMAT_YUV420_PLANAR);
    TwinLensHandle& handle = session.handle;
    EXPECT_EQ(velquin_TwinLens_finalize(nullptr), TL_ERROR_PARAM);
    TwinLensHandle copy = handle;  // another address: the guard does not match
    EXPECT_EQ(velquin_TwinLens_finalize(&copy), TL_ERROR_STATE);
    EXPECT_EQ(copy.session, handle.session);
    // A handle that points at a buffer without a live session.
    std::vector<uint8_t> garbage(sizeof(TwinLensSession) + 16, 0x11);
    TwinLensHandle bogus{reinterpret_cast<TwinLensSession*>(garbage.data())};
    EXPECT_EQ(velquin_TwinLens_finalize(&bogus), TL_ERROR_STATE);

    EXPECT_EQ(velquin_TwinLens_finalize(&handle), TL_OK);  // still alive after the refusals
    EXPECT_EQ(velquin_TwinLens_finalize(&handle), TL_ERROR_PARAM);
    EXPECT_EQ(velquin_TwinLens_finalize(&copy), TL_ERROR_STATE);  // the zero-filled session is not live
    EXPECT_EQ(velquin_TwinLens_finalize(&other.handle), TL_OK);
}
