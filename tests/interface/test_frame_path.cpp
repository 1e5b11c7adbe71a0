#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <vector>

#include "interface/twin_lens_session.h"
#include "support/session_params.h"
#include "support/test_env.h"

using vq_tl_test::makeParams;
using vq_tl_test::OpenSession;

namespace {

// What the estimation step and the completion callback of the tests see,
// and a gate that holds a frame in progress until the test opens it.
struct Probe {
    std::mutex mutex;
    std::condition_variable changed;
    bool gateOpen = true;
    int entered = 0;
    TLResult result = TL_OK;
    const uint8_t* mainPlane = nullptr;
    int32_t mainPitch = 0, lastSlot = -1;
    std::vector<std::pair<uint32_t, int32_t>> completed;  // (sequence, dropped) in order

    void setGate(bool open) {
        std::lock_guard<std::mutex> lock(mutex);
        gateOpen = open;
        changed.notify_all();
    }
    template <typename Predicate>
    void waitUntil(Predicate done) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, done);
    }
    // Every frame from 0 to count - 1 completed once, in order, none superseded.
    void expectCompletedInOrder(size_t count) {
        ASSERT_EQ(completed.size(), count);
        for (size_t i = 0; i < count; ++i)
            EXPECT_TRUE(completed[i].first == i && completed[i].second == 0) << i;
    }
};

TLResult probeStep(TwinLensSession* s, const TwinLensCameraParam*, int32_t, int32_t slot, vq_tl::Image* main,
                   vq_tl::Image*) {
    Probe* probe = static_cast<Probe*>(s->callbackUserData);
    std::unique_lock<std::mutex> lock(probe->mutex);
    ++probe->entered;
    probe->mainPlane = main->plane[0];
    probe->mainPitch = main->pitch[0];
    probe->lastSlot = slot;
    probe->changed.notify_all();
    probe->changed.wait(lock, [&] { return probe->gateOpen; });
    return probe->result;
}

int32_t probeCallback(void* user, uint32_t sequence, int32_t dropped) {
    Probe* probe = static_cast<Probe*>(user);
    std::lock_guard<std::mutex> lock(probe->mutex);
    probe->completed.emplace_back(sequence, dropped);
    probe->changed.notify_all();
    return 0;
}

class FramePath : public ::testing::Test {
protected:
    // Parameters whose step and callback report to `to`; mode 0 is synchronous.
    std::unique_ptr<TwinLensParams> params(int32_t mode, Probe* to = nullptr) {
        auto p = makeParams();
        p->asyncMode = mode;
        p->completionCallback = probeCallback;
        p->callbackUserData = to != nullptr ? to : &probe;
        return p;
    }
    // Offers `frame` as both main and sub; the sequence number it was given.
    int32_t offer(OpenSession& session) {
        int32_t sequence = -9;
        EXPECT_EQ(velquin_TwinLens_process(&session.handle, &frame, &frame, &sequence), TL_OK);
        return sequence;
    }
    Probe probe;
    std::vector<uint8_t> pixels = std::vector<uint8_t>(640 * 480 * 3 / 2);
    TwinLensImage frame{640, 480, pixels.data(), pixels.data() + 640 * 480, nullptr};  // YUV420_SEMIPLANAR
};

}  // namespace

TEST_F(FramePath, SynchronousFramesFlipTheSlotUnlessTheStepFails) {
    OpenSession session(params(0).get());
    ASSERT_EQ(session.opened, TL_OK);
    TwinLensSession* s = session.s();
    s->estimationStep = probeStep;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(offer(session), 0);
        EXPECT_EQ(probe.lastSlot, i % 2);
        EXPECT_EQ(s->writeSlot, (i + 1) % 2);
        EXPECT_EQ(s->frameCounter, i);
        EXPECT_EQ(s->state, 1u);  // no frame in progress afterwards
    }
    // The step sees the caller's pixels, not a copy.
    EXPECT_EQ(probe.mainPlane, pixels.data());
    EXPECT_EQ(velquin_TwinLens_process(&session.handle, &frame, &frame, nullptr), TL_OK);
    // A failed step keeps the last good result in force and the sequence as it was.
    probe.result = TL_ERROR_MEMORY;
    int32_t sequence = 5;
    EXPECT_EQ(velquin_TwinLens_process(&session.handle, &frame, &frame, &sequence), TL_ERROR_MEMORY);
    EXPECT_EQ(sequence, 5);
    EXPECT_EQ(s->writeSlot, 1);
    EXPECT_EQ(s->state, 1u);  // the next frame is taken
    probe.result = TL_OK;
    EXPECT_EQ(offer(session), 0);
    EXPECT_EQ(s->writeSlot, 0);
}

TEST_F(FramePath, PitchedFramesKeepTheirPitch) {
    auto p = params(0);
    p->format = "YUV420_PLANAR";
    OpenSession session(p.get());
    ASSERT_EQ(session.opened, TL_OK);
    session.s()->estimationStep = probeStep;
    std::vector<uint8_t> y(704 * 480), u(352 * 240), v(352 * 240);
    TwinLensImageEx ex{640, 480, y.data(), u.data(), v.data(), 704, 352, 352};
    ASSERT_EQ(velquin_TwinLens_processEx(&session.handle, &ex, &ex, nullptr), TL_OK);
    EXPECT_TRUE(probe.mainPitch == 704 && probe.mainPlane == y.data());
}

TEST_F(FramePath, BadFramesAndHandlesLeaveTheSequenceAlone) {
    auto p = params(0);
    p->subWidth = 800;
    p->subHeight = 600;
    OpenSession session(p.get());
    ASSERT_EQ(session.opened, TL_OK);
    session.s()->estimationStep = probeStep;
    std::vector<uint8_t> big(800 * 600 * 3 / 2);
    TwinLensImage large{800, 600, big.data(), big.data() + 800 * 600, nullptr}, noPlane = frame;
    noPlane.plane0 = nullptr;
    TwinLensHandle *h = &session.handle, never{nullptr};
    const struct {
        TwinLensHandle* handle;
        const TwinLensImage *main, *sub;
    } cases[] = {
        {h, &frame, &frame},  // sub too small
        {h, &large, &large},  // main too large
        {h, nullptr, &large},      {h, &frame, nullptr},     {h, &noPlane, &large},
        {nullptr, &frame, &large}, {&never, &frame, &large},
    };
    int32_t sequence = 9;
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
        EXPECT_EQ(velquin_TwinLens_process(cases[i].handle, cases[i].main, cases[i].sub, &sequence),
                  TL_ERROR_PARAM)
            << i;
    EXPECT_EQ(sequence, 9);
    EXPECT_EQ(probe.entered, 0);
    ASSERT_EQ(velquin_TwinLens_process(h, &frame, &large, &sequence), TL_OK);
    EXPECT_EQ(probe.entered, 1);
    ASSERT_EQ(velquin_TwinLens_finalize(h), TL_OK);
    EXPECT_EQ(velquin_TwinLens_process(h, &frame, &large, &sequence), TL_ERROR_PARAM);
}

TEST_F(FramePath, AsynchronousSequencesSkipFramesOfferedWhileOneRuns) {
    for (int32_t mode : {1, 2}) {
        SCOPED_TRACE(mode);
        Probe done;
        OpenSession session(params(mode, &done).get());
        ASSERT_EQ(session.opened, TL_OK);
        session.s()->estimationStep = probeStep;
        for (int32_t expected = 0; expected < 3; ++expected) {
            done.setGate(false);
            EXPECT_EQ(offer(session), expected);
            done.waitUntil([&] { return done.entered > expected; });
            // The worker holds the frame: more pairs are refused and use up no number.
            for (int i = 0; i < 3; ++i) EXPECT_EQ(offer(session), -1);
            EXPECT_EQ(velquin_TwinLens_process(&session.handle, &frame, &frame, nullptr), TL_OK);
            // The pool frame borrows the caller's planes.
            EXPECT_EQ(done.mainPlane, pixels.data());
            done.setGate(true);
            done.waitUntil([&] { return done.completed.size() > static_cast<size_t>(expected); });
        }
        ASSERT_EQ(velquin_TwinLens_finalize(&session.handle), TL_OK);
        done.expectCompletedInOrder(3);
    }
}

// Thousands of pairs offered from the caller's thread while callbacks arrive on
// the worker: every taken frame is numbered in order and completed once.
TEST_F(FramePath, AsynchronousStress) {
    OpenSession session(params(1).get());
    ASSERT_EQ(session.opened, TL_OK);
    session.s()->estimationStep = probeStep;
    const int32_t wanted = vq_tl_test_scaled(3000, 300);
    for (int32_t expected = 0; expected < wanted && !HasFailure();) {
        const int32_t sequence = offer(session);
        ASSERT_EQ(sequence, sequence >= 0 ? expected : -1);
        if (sequence >= 0) ++expected;
    }
    probe.waitUntil([&] { return probe.completed.size() >= static_cast<size_t>(wanted); });
    ASSERT_EQ(velquin_TwinLens_finalize(&session.handle), TL_OK);
    probe.expectCompletedInOrder(static_cast<size_t>(wanted));
}

// finalize right after an offer: the job is either finished with its callback
// or dropped without one, and nothing leaks (the sanitizer build checks).
TEST_F(FramePath, FinalizeRacesAQueuedJob) {
    for (int i = 0; i < vq_tl_test_scaled(60, 10); ++i) {
        Probe done;
        OpenSession session(params(1 + (i & 1), &done).get());
        ASSERT_EQ(session.opened, TL_OK);
        session.s()->estimationStep = probeStep;
        ASSERT_EQ(offer(session), 0);
        ASSERT_EQ(velquin_TwinLens_finalize(&session.handle), TL_OK);
        EXPECT_LE(done.completed.size(), 1u);  // the worker has been joined
    }
}
