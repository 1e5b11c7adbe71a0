// The run-time settings of a live session: argument checks and their order,
// the nearest calibration row for a lens position, and calibration changes
// that the next frame rebuilds its grids from.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <vector>

#include "interface/twin_lens_session.h"
#include "runtime/fenced_word.h"
#include "support/session_params.h"

using vq_tl_test::makeParams;
using vq_tl_test::OpenSession;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// The bytes a setter may change: the estimator, the rows with their index and
// dirty mark, the focus point and the refine-only rate.
std::vector<uint8_t> settingsBytes(const TwinLensSession* s) {
    std::vector<uint8_t> out;
    auto add = [&](const void* from, const void* to) {
        out.insert(out.end(), static_cast<const uint8_t*>(from), static_cast<const uint8_t*>(to));
    };
    add(&s->estimator, &s->estimator + 1);
    add(&s->cameraParams, &s->executor);
    add(&s->focusX, &s->estimationStep);
    return out;
}

}  // namespace

// Each call on a null handle, on a session whose ready bit is clear, and on
// a live one. The focus point is judged before the ready bit, every other
// argument after it; setIONInfo refuses everything. A refused call leaves
// every setting and the dirty mark as they were.
TEST(Settings, ArgumentChecksAndTheirOrder) {
    OpenSession session(makeParams().get());
    ASSERT_EQ(session.opened, TL_OK);
    TwinLensSession* s = session.s();
    TwinLensCameraParam row = s->cameraParams[0], noFocal = row, skewed = row, noWidth = row;
    noFocal.subCameraMatrix[0] = 0, skewed.mainCameraMatrix[1] = 0.5, noWidth.subCalibWidth = 0;
    float nearest, farthest;
    const float fNaN = std::nanf("");
    constexpr TLResult OK = TL_OK, P = TL_ERROR_PARAM, S = TL_ERROR_STATE, U = TL_ERROR_UNSUPPORTED;
    const struct {
        std::function<TLResult(TwinLensHandle*)> call;
        TLResult live, notReady;
    } cases[] = {
        {[](auto h) { return velquin_TwinLens_setFocusCoord(h, 1.0, 0.0); }, OK, S},
        {[](auto h) { return velquin_TwinLens_setFocusCoord(h, 1.01, 0.5); }, P, P},
        {[](auto h) { return velquin_TwinLens_setFocusCoord(h, 0.5, kNaN); }, P, P},
        {[](auto h) { return velquin_TwinLens_setFocusPos(h, kNaN); }, P, S},
        {[](auto h) { return velquin_TwinLens_setFocusPos(h, kInf); }, P, S},
        {[&](auto h) { return velquin_TwinLens_getValidDepthRange(h, &nearest, &farthest); }, OK, S},
        {[&](auto h) { return velquin_TwinLens_getValidDepthRange(h, &nearest, nullptr); }, P, S},
        {[&](auto h) { return velquin_TwinLens_setCameraMatrix(h, &row); }, OK, S},
        {[](auto h) { return velquin_TwinLens_setCameraMatrix(h, nullptr); }, P, S},
        {[&](auto h) { return velquin_TwinLens_setCameraMatrix(h, &noFocal); }, P, S},
        {[&](auto h) { return velquin_TwinLens_setCameraMatrix(h, &skewed); }, P, S},
        {[&](auto h) { return velquin_TwinLens_setCalibSize(h, &row); }, OK, S},
        {[&](auto h) { return velquin_TwinLens_setCalibSize(h, &noWidth); }, P, S},
        {[](auto h) { return velquin_TwinLens_setCalibSize(h, nullptr); }, P, S},
        {[](auto h) { return velquin_TwinLens_setLowerDispByMulParams(h, .5f, .5f, 0); }, OK, S},
        {[](auto h) { return velquin_TwinLens_setLowerDispByMulParams(h, 0, 1, 1); }, OK, S},
        {[](auto h) { return velquin_TwinLens_setLowerDispByMulParams(h, .6f, .5f, 0); }, P, S},
        {[](auto h) { return velquin_TwinLens_setLowerDispByMulParams(h, -.1f, .5f, 0); }, P, S},
        {[](auto h) { return velquin_TwinLens_setLowerDispByMulParams(h, 0, 1.1f, 0); }, P, S},
        {[](auto h) { return velquin_TwinLens_setLowerDispByMulParams(h, 0, 1, 1.1f); }, P, S},
        {[=](auto h) { return velquin_TwinLens_setLowerDispByMulParams(h, 0, 1, fNaN); }, P, S},
        {[](auto h) { return velquin_TwinLens_getCurrentCameraParam(h, nullptr); }, P, S},
        {[](auto h) { return velquin_TwinLens_setRefineOnlyRate(h, 1); }, OK, S},
        {[](auto h) { return velquin_TwinLens_setRefineOnlyRate(h, 0); }, P, S},
        {[](auto h) { return velquin_TwinLens_setCorrectDispParams(h, .2, .2); }, OK, S},
        {[](auto h) { return velquin_TwinLens_setCorrectDispParams(h, .1, .2); }, P, S},
        {[](auto h) { return velquin_TwinLens_setCorrectDispParams(h, kNaN, 0); }, P, S},
        {[](auto h) { return velquin_TwinLens_setIONInfo(h, h); }, U, U},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        SCOPED_TRACE(i);
        TwinLensHandle none{nullptr};
        EXPECT_EQ(c.call(nullptr), c.notReady == U ? U : P);
        EXPECT_EQ(c.call(&none), c.notReady == U ? U : P);
        vq_tl::FencedWord_store(&s->cameraDirty, 0);
        const std::vector<uint8_t> before = settingsBytes(s);
        s->state &= ~vq_tl::kStateReady;
        EXPECT_EQ(c.call(&session.handle), c.notReady);
        s->state |= vq_tl::kStateReady;
        EXPECT_TRUE(settingsBytes(s) == before);
        EXPECT_EQ(c.call(&session.handle), c.live);
        EXPECT_TRUE(c.live == OK || settingsBytes(s) == before);
    }
}

// Rows at 10, 20, 30, the middle one in force at first: the nearest row
// wins and of two equally near the lower; the row in force stays without
// marking the session, a new one marks it.
TEST(Settings, FocusPositionPicksTheNearestRow) {
    auto p = makeParams();
    p->cameraParamCount = 3;
    for (int i = 0; i < 3; ++i) p->cameraParams[i].focusPosition = 10.0 * (i + 1);
    OpenSession session(p.get());
    ASSERT_EQ(session.opened, TL_OK);
    const struct {
        double position;
        int32_t row;
    } cases[] = {{20.0, 1}, {15.0, 0}, {15.1, 1}, {25.0, 1}, {1e6, 2}, {29.9, 2}, {-1e6, 0}, {10.0, 0}};
    int32_t inForce = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.position);
        vq_tl::FencedWord_store(&session.s()->cameraDirty, 0);
        ASSERT_EQ(velquin_TwinLens_setFocusPos(&session.handle, c.position), TL_OK);
        TwinLensCameraParam row;
        ASSERT_EQ(velquin_TwinLens_getCurrentCameraParam(&session.handle, &row), TL_OK);
        EXPECT_EQ(row.focusPosition, 10.0 * (c.row + 1));
        EXPECT_EQ(session.s()->cameraDirty, c.row != inForce ? 1 : 0);
        inForce = c.row;
    }
}

// A small session on flat frames. The far limit of the valid range is f B,
// f the rectified focal length of the last rebuild. Camera matrices scaled
// by 2 (focal lengths and principal point) double it from the next frame on,
// and the row in force reads back as set. Calibration sizes doubled as well
// describe the first camera again: the first limit comes back.
TEST(Settings, CalibrationChangesRebuildTheNextFrame) {
    OpenSession session(makeParams(320, 240, 160, 120).get());
    ASSERT_EQ(session.opened, TL_OK);
    std::vector<uint8_t> pixels(320 * 240 * 3 / 2, 128);
    const TwinLensImage frame{320, 240, pixels.data(), pixels.data() + 320 * 240, nullptr};
    auto farLimit = [&] {
        float nearest = -1, farthest = -1;
        EXPECT_EQ(velquin_TwinLens_getValidDepthRange(&session.handle, &nearest, &farthest), TL_OK);
        EXPECT_TRUE(nearest > 0 && nearest < farthest) << nearest << " to " << farthest;
        return farthest;
    };
    ASSERT_EQ(velquin_TwinLens_process(&session.handle, &frame, &frame, nullptr), TL_OK);
    const float first = farLimit();

    TwinLensCameraParam row;
    ASSERT_EQ(velquin_TwinLens_getCurrentCameraParam(&session.handle, &row), TL_OK);
    for (double* m : {row.mainCameraMatrix, row.subCameraMatrix})
        for (int k : {0, 2, 4, 5}) m[k] *= 2;
    ASSERT_EQ(velquin_TwinLens_setCameraMatrix(&session.handle, &row), TL_OK);
    EXPECT_EQ(farLimit(), first) << "before the next frame";
    ASSERT_EQ(velquin_TwinLens_process(&session.handle, &frame, &frame, nullptr), TL_OK);
    EXPECT_NEAR(farLimit(), 2 * first, 1e-3 * first);

    for (int32_t* side : {&row.mainCalibWidth, &row.mainCalibHeight, &row.subCalibWidth, &row.subCalibHeight})
        *side *= 2;
    ASSERT_EQ(velquin_TwinLens_setCalibSize(&session.handle, &row), TL_OK);
    TwinLensCameraParam back;
    ASSERT_EQ(velquin_TwinLens_getCurrentCameraParam(&session.handle, &back), TL_OK);
    EXPECT_EQ(std::memcmp(&back, &row, sizeof row), 0);
    ASSERT_EQ(velquin_TwinLens_process(&session.handle, &frame, &frame, nullptr), TL_OK);
    EXPECT_NEAR(farLimit(), first, 1e-4 * first);
}
