#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "interface/twin_lens_session.h"
#include "support/session_params.h"
#include "support/test_env.h"

using vq_tl_test::makeParams;

namespace {

// One synchronised pair of frames in YUV420_SEMIPLANAR.
struct Frames {
    int32_t width, height;
    std::vector<uint8_t> mainY, mainUV, subY, subUV;
    TwinLensImage main, sub;
    Frames(int32_t w, int32_t h)
        : width(w), height(h), mainY(w * h), mainUV(w * h / 2), subY(w * h), subUV(w * h / 2) {
        main = {w, h, mainY.data(), mainUV.data(), nullptr};
        sub = {w, h, subY.data(), subUV.data(), nullptr};
    }
};

// What the estimation step of the tests sees, and a gate that holds a frame
// in progress until the test opens it.
struct StepProbe {
    std::mutex mutex;
    std::condition_variable changed;
    bool gateOpen = true;
    int entered = 0;
    TLResult result = TL_OK;
    const uint8_t* mainPlane = nullptr;
    int32_t mainPitch = 0;
    int32_t lastSlot = -1;

    void close() {
        std::lock_guard<std::mutex> lock(mutex);
        gateOpen = false;
    }
    void open() {
        std::lock_guard<std::mutex> lock(mutex);
        gateOpen = true;
        changed.notify_all();
    }
    void waitEntered(int count) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return entered >= count; });
    }
};

StepProbe* gProbe = nullptr;

TLResult probeStep(TwinLensSession*, const TwinLensCameraParam*, int32_t slot, vq_tl::Image* main,
                   vq_tl::Image*) {
    std::unique_lock<std::mutex> lock(gProbe->mutex);
    ++gProbe->entered;
    gProbe->mainPlane = main->plane[0];
    gProbe->mainPitch = main->pitch[0];
    gProbe->lastSlot = slot;
    gProbe->changed.notify_all();
    gProbe->changed.wait(lock, [] { return gProbe->gateOpen; });
    return gProbe->result;
}

// Completion callbacks, in the order they arrived.
struct Completions {
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<std::pair<uint32_t, int32_t>> seen;

    static int32_t callback(void* user, uint32_t sequence, int32_t dropped) {
        Completions* self = static_cast<Completions*>(user);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->seen.emplace_back(sequence, dropped);
        self->arrived.notify_all();
        return 0;
    }
    void waitFor(size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        arrived.wait(lock, [&] { return seen.size() >= count; });
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return seen.size();
    }
};

struct Session {
    std::vector<uint8_t> buffer;
    TwinLensHandle handle{nullptr};
    TLResult opened;
    explicit Session(TwinLensParams* p) : buffer(velquin_TwinLens_getBufferSize(p)) {
        opened = velquin_TwinLens_initialize(&handle, buffer.data(), static_cast<int32_t>(buffer.size()), p);
    }
    ~Session() {
        if (handle.session != nullptr) velquin_TwinLens_finalize(&handle);
    }
    TwinLensSession* s() { return handle.session; }
};

class FramePath : public ::testing::Test {
protected:
    void SetUp() override { gProbe = &probe; }
    void TearDown() override { gProbe = nullptr; }
    StepProbe probe;
    Completions completions;
};

}  // namespace

TEST_F(FramePath, SynchronousFramesFlipTheSlotAndReturnSequenceZero) {
    auto p = makeParams(640, 480, 320, 240);
    Session session(p.get());
    ASSERT_EQ(session.opened, TL_OK);
    session.s()->estimationStep = probeStep;
    Frames frames(640, 480);
    for (int i = 0; i < 4; ++i) {
        int32_t sequence = 77;
        ASSERT_EQ(velquin_TwinLens_process(&session.handle, &frames.main, &frames.sub, &sequence), TL_OK);
        EXPECT_EQ(sequence, 0);
        EXPECT_EQ(probe.lastSlot, i % 2);
        EXPECT_EQ(session.s()->writeSlot, (i + 1) % 2);
        EXPECT_EQ(session.s()->frameCounter, i);
        EXPECT_EQ(session.s()->state, 1u);
    }
    // The step sees the caller's pixels, not a copy.
    EXPECT_EQ(probe.mainPlane, frames.mainY.data());
    EXPECT_EQ(velquin_TwinLens_process(&session.handle, &frames.main, &frames.sub, nullptr), TL_OK);
}

TEST_F(FramePath, AFailedStepLeavesTheLastGoodResultInForce) {
    auto p = makeParams(640, 480, 320, 240);
    Session session(p.get());
    ASSERT_EQ(session.opened, TL_OK);
    session.s()->estimationStep = probeStep;
    Frames frames(640, 480);
    ASSERT_EQ(velquin_TwinLens_process(&session.handle, &frames.main, &frames.sub, nullptr), TL_OK);
    probe.result = TL_ERROR_MEMORY;
    int32_t sequence = 5;
    EXPECT_EQ(velquin_TwinLens_process(&session.handle, &frames.main, &frames.sub, &sequence),
              TL_ERROR_MEMORY);
    EXPECT_EQ(sequence, 5);
    EXPECT_EQ(session.s()->writeSlot, 1);
    EXPECT_EQ(session.s()->state, 1u);  // the next frame is taken
    probe.result = TL_OK;
    EXPECT_EQ(velquin_TwinLens_process(&session.handle, &frames.main, &frames.sub, nullptr), TL_OK);
    EXPECT_EQ(session.s()->writeSlot, 0);
}

TEST_F(FramePath, PitchedFramesKeepTheirPitch) {
    auto p = makeParams(640, 480, 320, 240);
    p->format = "YUV420_PLANAR";
    Session session(p.get());
    ASSERT_EQ(session.opened, TL_OK);
    session.s()->estimationStep = probeStep;
    std::vector<uint8_t> y(704 * 480), u(352 * 240), v(352 * 240);
    TwinLensImageEx frame{640, 480, y.data(), u.data(), v.data(), 704, 352, 352};
    ASSERT_EQ(velquin_TwinLens_processEx(&session.handle, &frame, &frame, nullptr), TL_OK);
    EXPECT_EQ(probe.mainPitch, 704);
    EXPECT_EQ(probe.mainPlane, y.data());
}

TEST_F(FramePath, BadFramesAndHandles) {
    auto p = makeParams(640, 480, 320, 240);
    p->subWidth = 800;
    p->subHeight = 600;
    Session session(p.get());
    ASSERT_EQ(session.opened, TL_OK);
    session.s()->estimationStep = probeStep;
    Frames main(640, 480);
    Frames sub(800, 600);
    int32_t sequence = 9;
    TwinLensHandle& h = session.handle;
    EXPECT_EQ(velquin_TwinLens_process(&h, &main.main, &main.sub, &sequence),
              TL_ERROR_PARAM);  // sub too small
    EXPECT_EQ(velquin_TwinLens_process(&h, &sub.main, &sub.sub, &sequence),
              TL_ERROR_PARAM);  // main too large
    EXPECT_EQ(velquin_TwinLens_process(&h, nullptr, &sub.sub, &sequence), TL_ERROR_PARAM);
    EXPECT_EQ(velquin_TwinLens_process(&h, &main.main, nullptr, &sequence), TL_ERROR_PARAM);
    TwinLensImage noPlane = main.main;
    noPlane.plane0 = nullptr;
    EXPECT_EQ(velquin_TwinLens_process(&h, &noPlane, &sub.sub, &sequence), TL_ERROR_PARAM);
    EXPECT_EQ(velquin_TwinLens_process(nullptr, &main.main, &sub.sub, &sequence), TL_ERROR_PARAM);
    TwinLensHandle never{nullptr};
    EXPECT_EQ(velquin_TwinLens_process(&never, &main.main, &sub.sub, &sequence), TL_ERROR_PARAM);
    EXPECT_EQ(sequence, 9);
    EXPECT_EQ(probe.entered, 0);
    EXPECT_EQ(session.s()->state, 1u);
    ASSERT_EQ(velquin_TwinLens_process(&h, &main.main, &sub.sub, &sequence), TL_OK);
    EXPECT_EQ(probe.entered, 1);
    ASSERT_EQ(velquin_TwinLens_finalize(&h), TL_OK);
    EXPECT_EQ(velquin_TwinLens_process(&h, &main.main, &sub.sub, &sequence), TL_ERROR_PARAM);
}

TEST_F(FramePath, AsynchronousSequencesSkipFramesOfferedWhileOneRuns) {
    for (int32_t mode : {1, 2}) {
        SCOPED_TRACE(mode);
        Completions done;
        auto p = makeParams(640, 480, 320, 240);
        p->asyncMode = mode;
        p->completionCallback = Completions::callback;
        p->callbackUserData = &done;
        Session session(p.get());
        ASSERT_EQ(session.opened, TL_OK);
        session.s()->estimationStep = probeStep;
        probe.entered = 0;
        Frames frames(640, 480);
        for (uint32_t expected = 0; expected < 3; ++expected) {
            probe.close();
            int32_t sequence = -9;
            ASSERT_EQ(velquin_TwinLens_process(&session.handle, &frames.main, &frames.sub, &sequence), TL_OK);
            EXPECT_EQ(sequence, static_cast<int32_t>(expected));
            probe.waitEntered(static_cast<int>(expected) + 1);
            // The worker holds the frame: more pairs are refused and use up no number.
            for (int i = 0; i < 3; ++i) {
                ASSERT_EQ(velquin_TwinLens_process(&session.handle, &frames.main, &frames.sub, &sequence),
                          TL_OK);
                EXPECT_EQ(sequence, -1);
            }
            EXPECT_EQ(velquin_TwinLens_process(&session.handle, &frames.main, &frames.sub, nullptr), TL_OK);
            // The pool frame borrows the caller's planes.
            EXPECT_EQ(probe.mainPlane, frames.mainY.data());
            probe.open();
            done.waitFor(expected + 1);
        }
        ASSERT_EQ(velquin_TwinLens_finalize(&session.handle), TL_OK);
        ASSERT_EQ(done.seen.size(), 3u);
        for (uint32_t i = 0; i < 3; ++i) {
            EXPECT_EQ(done.seen[i].first, i);
            EXPECT_EQ(done.seen[i].second, 0);
        }
    }
}

TEST_F(FramePath, SynchronousSessionsHaveNoWorkerAndNoPoolFrames) {
    auto p = makeParams(640, 480, 320, 240);
    Session session(p.get());
    ASSERT_EQ(session.opened, TL_OK);
    EXPECT_EQ(session.s()->worker.join, nullptr);
    EXPECT_EQ(vq_tl::LinkedBlockingQueue_size(&session.s()->mainFramePool), 0);
    auto q = makeParams(640, 480, 320, 240);
    q->asyncMode = 1;
    Session async(q.get());
    ASSERT_EQ(async.opened, TL_OK);
    EXPECT_NE(async.s()->worker.join, nullptr);
    EXPECT_EQ(vq_tl::LinkedBlockingQueue_size(&async.s()->mainFramePool), 2);
    EXPECT_EQ(vq_tl::LinkedBlockingQueue_size(&async.s()->subFramePool), 2);
}

// Thousands of pairs offered from the caller's thread while callbacks arrive on
// the worker: every taken frame is numbered in order and completed once.
TEST_F(FramePath, AsynchronousStress) {
    auto p = makeParams(640, 480, 320, 240);
    p->asyncMode = 1;
    p->completionCallback = Completions::callback;
    p->callbackUserData = &completions;
    Session session(p.get());
    ASSERT_EQ(session.opened, TL_OK);
    Frames frames(640, 480);
    const int32_t wanted = vq_tl_test_scaled(3000, 300);
    int32_t expected = 0;
    while (expected < wanted) {
        int32_t sequence = -2;
        ASSERT_EQ(velquin_TwinLens_process(&session.handle, &frames.main, &frames.sub, &sequence), TL_OK);
        if (sequence >= 0) {
            ASSERT_EQ(sequence, expected);
            ++expected;
        } else {
            ASSERT_EQ(sequence, -1);
        }
    }
    completions.waitFor(static_cast<size_t>(expected));
    ASSERT_EQ(velquin_TwinLens_finalize(&session.handle), TL_OK);
    ASSERT_EQ(completions.seen.size(), static_cast<size_t>(expected));
    for (int32_t i = 0; i < expected; ++i) {
        EXPECT_EQ(completions.seen[i].first, static_cast<uint32_t>(i));
        EXPECT_EQ(completions.seen[i].second, 0);
    }
}

// finalize right after an offer: the job is either finished with its callback
// or dropped without one, and nothing leaks (the sanitizer build checks).
TEST_F(FramePath, FinalizeRacesAQueuedJob) {
    Frames frames(640, 480);
    const int rounds = vq_tl_test_scaled(200, 20);
    for (int i = 0; i < rounds; ++i) {
        Completions done;
        auto p = makeParams(640, 480, 320, 240);
        p->asyncMode = 1 + (i & 1);
        p->completionCallback = Completions::callback;
        p->callbackUserData = &done;
        Session session(p.get());
        ASSERT_EQ(session.opened, TL_OK);
        int32_t sequence = -2;
        ASSERT_EQ(velquin_TwinLens_process(&session.handle, &frames.main, &frames.sub, &sequence), TL_OK);
        ASSERT_EQ(sequence, 0);
        ASSERT_EQ(velquin_TwinLens_finalize(&session.handle), TL_OK);
        EXPECT_LE(done.count(), 1u);
    }
}
