// The synthetic 12 MP shot (4000 x 3000 main, 2592 x 1944 sub, NV21) in a
// live synchronous session, normal mode, refine level 2, with the parallel
// layers the session builds for itself; the first shot has been processed,
// so the grids are built.
#pragma once

#include <memory>

#include "support/scene.h"
#include "support/session_params.h"

struct BenchLiveShot {
    vq_tl_test::Scene scene;
    std::unique_ptr<vq_tl_test::OpenSession> session;
    TwinLensImage main{}, sub{};
    bool ready = false;

    static vq_tl_test::SceneConfig config() {
        vq_tl_test::SceneConfig c;
        c.threads = 4;
        c.truth = false;
        return c;
    }
    BenchLiveShot(int32_t depthWidth, int32_t depthHeight) : scene(config()) {
        const vq_tl::Image &m = scene.main->image, &s = scene.sub->image;
        auto p = vq_tl_test::makeParams(m.width, m.height, depthWidth, depthHeight);
        p->subWidth = s.width;
        p->subHeight = s.height;
        p->format = "YVU420_SEMIPLANAR";
        p->refineLevel = 2;
        scene.cameraParam(&p->cameraParams[0]);
        session = std::make_unique<vq_tl_test::OpenSession>(p.get());
        main = {m.width, m.height, m.plane[0], m.plane[1], nullptr};
        sub = {s.width, s.height, s.plane[0], s.plane[1], nullptr};
        ready = session->opened == TL_OK && shot() == TL_OK;
    }
    TLResult shot() { return velquin_TwinLens_process(&session->handle, &main, &sub, nullptr); }
};
