// The synthetic stereo shot in live sessions: the scene at a quarter of the
// full size, session parameters for it, and the offer of its frames. One
// rendering serves every test of the program.
#pragma once

#include <condition_variable>
#include <limits>
#include <memory>
#include <mutex>

#include "support/scene.h"
#include "support/session_params.h"

namespace vq_tl_test {

inline constexpr int32_t kDepthWidth = 480, kDepthHeight = 360;
inline constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// A quarter of the full size (1000 by 750 main, 648 by 486 sub), with the
// background at 2 m and a 64 mm baseline: every surface lies 6 to 16 working
// pixels of disparity away, inside the normal mode's range and far enough
// from zero for a reading within 5 %.
inline const Scene& shot() {
    static const Scene scene([] {
        SceneConfig c;
        c.scale = 0.25, c.threads = 2, c.backgroundDepth = 2.0, c.subCentre[0] = 0.064;
        return c;
    }());
    return scene;
}

// Completed frames of an asynchronous session.
struct Completions {
    std::mutex mutex;
    std::condition_variable changed;
    uint32_t count = 0;
    static int32_t callback(void* user, uint32_t, int32_t) {
        auto* c = static_cast<Completions*>(user);
        std::lock_guard<std::mutex> lock(c->mutex);
        ++c->count;
        c->changed.notify_all();
        return 0;
    }
    void waitFor(uint32_t n) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return count >= n; });
    }
};

inline std::unique_ptr<TwinLensParams> shotParams(int32_t asyncMode, Completions* completions = nullptr) {
    const vq_tl::Image &m = shot().main->image, &s = shot().sub->image;
    auto p = makeParams(m.width, m.height, kDepthWidth, kDepthHeight);
    p->subWidth = s.width, p->subHeight = s.height;
    p->format = "YVU420_SEMIPLANAR";
    p->asyncMode = asyncMode, p->refineLevel = 2;
    p->completionCallback = Completions::callback, p->callbackUserData = completions;
    shot().cameraParam(&p->cameraParams[0]);
    return p;
}

inline TwinLensImage frameOf(const Picture& p) {
    return {p.image.width, p.image.height, p.image.plane[0], p.image.plane[1], nullptr};
}

// Offers the shot; an asynchronous session is waited for until `number`
// frames have completed.
inline TLResult offerShot(OpenSession& session, Completions* completions = nullptr, uint32_t number = 0) {
    const TwinLensImage main = frameOf(*shot().main), sub = frameOf(*shot().sub);
    const TLResult r = velquin_TwinLens_process(&session.handle, &main, &sub, nullptr);
    if (completions != nullptr && r == TL_OK) completions->waitFor(number);
    return r;
}

}  // namespace vq_tl_test
