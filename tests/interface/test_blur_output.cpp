// The blurred picture and the replaced background of a live session on the
// synthetic shot: what stays sharp and what blurs with the focus, no bleeding
// of a sharp subject into the blur round it, the layouts alike, the mask of
// the replaced background, refused input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <tuple>
#include <vector>

#include "interface/live_shot.h"
#include "interface/twin_lens_session.h"
#include "runtime/fenced_word.h"
#include "support/picture.h"

using namespace vq_tl_test;

namespace {

using Mask = std::vector<uint8_t>;

int32_t W() { return shot().main->image.width; }
int32_t H() { return shot().main->image.height; }

Mask surfaces(std::initializer_list<SceneSurface> kinds) {
    Mask m(shot().surface.size());
    for (size_t i = 0; i < m.size(); ++i) {
        m[i] = std::find(kinds.begin(), kinds.end(), shot().surface[i]) != kinds.end();
    }
    return m;
}
Mask box() { return surfaces({kSceneBoxFront, kSceneBoxSide}); }

// Chessboard distance of every pixel to the nearest pixel of m (two sweeps).
std::vector<int32_t> distanceTo(const Mask& m) {
    const int32_t w = W(), h = H(), far = w + h;
    std::vector<int32_t> d(m.size());
    for (size_t i = 0; i < m.size(); ++i) d[i] = m[i] ? 0 : far;
    auto relax = [&](int32_t x, int32_t y, int32_t dx, int32_t dy) {
        if (x + dx < 0 || x + dx >= w || y + dy < 0) return;
        d[size_t(y) * w + x] = std::min(d[size_t(y) * w + x], d[size_t(y + dy) * w + x + dx] + 1);
    };
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x) {
            for (const auto& [dx, dy] : {std::pair{-1, 0}, {-1, -1}, {0, -1}, {1, -1}}) relax(x, y, dx, dy);
        }
    }
    for (int32_t y = h - 1; y >= 0; --y) {
        for (int32_t x = w - 1; x >= 0; --x) {
            for (const auto& [dx, dy] : {std::pair{1, 0}, {1, 1}, {0, 1}, {-1, 1}}) {
                if (y + dy < h) relax(x, y, dx, dy);
            }
        }
    }
    return d;
}

// The pixels of m at least `margin` pixels inside it.
Mask eroded(const Mask& m, int32_t margin) {
    Mask outside(m.size());
    for (size_t i = 0; i < m.size(); ++i) outside[i] = !m[i];
    const std::vector<int32_t> d = distanceTo(outside);
    Mask e(m.size());
    for (size_t i = 0; i < m.size(); ++i) e[i] = d[i] > margin;
    return e;
}

// The normalised focus point at the centre of a region's pixels.
std::pair<double, double> centreOf(const Mask& m) {
    double sx = 0, sy = 0, n = 0;
    for (size_t i = 0; i < m.size(); ++i) {
        if (m[i]) sx += double(i % W()), sy += double(i / W()), ++n;
    }
    return {(sx / n + 0.5) / W(), (sy / n + 0.5) / H()};
}

uint8_t lumaAt(const vq_tl::Image& p, size_t i) {
    return p.plane[0][size_t(p.pitch[0]) * (i / size_t(p.width)) + i % size_t(p.width)];
}

double psnr(const vq_tl::Image& a, const vq_tl::Image& b, const Mask& m) {
    double sum = 0, n = 0;
    for (size_t i = 0; i < m.size(); ++i) {
        if (!m[i]) continue;
        const double e = double(lumaAt(a, i)) - lumaAt(b, i);
        sum += e * e, ++n;
    }
    return sum == 0 ? 99.0 : 10 * std::log10(255.0 * 255.0 * n / sum);
}

// Mean squared Laplacian of the luma over a region: the high frequencies.
double detail(const vq_tl::Image& p, const Mask& m) {
    double sum = 0, n = 0;
    const int32_t w = W();
    for (size_t i = 0; i < m.size(); ++i) {
        const int32_t x = int32_t(i % w), y = int32_t(i / w);
        if (!m[i] || x == 0 || y == 0 || x == w - 1 || y == H() - 1) continue;
        const double l =
            4.0 * lumaAt(p, i) - lumaAt(p, i - 1) - lumaAt(p, i + 1) - lumaAt(p, i - w) - lumaAt(p, i + w);
        sum += l * l, ++n;
    }
    return sum / n;
}

// A picture of the main frame's size and format in caller memory, with
// canaries; `from` copies pixels of another.
std::unique_ptr<Picture> mainPicture(const Picture* from = nullptr, uint32_t format = 0,
                                     int32_t padding = 8) {
    auto p = std::make_unique<Picture>(W(), H(), format != 0 ? format : shot().config.format, padding);
    if (from != nullptr) p->copyPixels(*from);
    return p;
}

// Chroma sample (x, y) of a 4:2:0 picture, U (0) or V (1), in any of the three layouts.
uint8_t& chroma(Picture& p, int32_t x, int32_t y, int uv) {
    switch (p.image.format) {
        case vq_tl::IMAGE_FORMAT_YUV420_PLANAR: return p.row(1 + uv, y)[x];
        case vq_tl::IMAGE_FORMAT_YUV420_SEMIPLANAR: return p.row(1, y)[2 * x + uv];
        default: return p.row(1, y)[2 * x + 1 - uv];
    }
}

// The same pixels in another layout.
void convertLayout(Picture& dst, Picture& src) {
    for (int32_t r = 0; r < src.rows[0]; ++r) std::memcpy(dst.row(0, r), src.row(0, r), src.rowBytes[0]);
    for (int32_t y = 0; y < src.image.height / 2; ++y) {
        for (int32_t x = 0; x < src.image.width / 2; ++x) {
            for (int uv = 0; uv < 2; ++uv) chroma(dst, x, y, uv) = chroma(src, x, y, uv);
        }
    }
}

TwinLensImageEx recordOf(const Picture& p) {
    const vq_tl::Image& i = p.image;
    return {i.width, i.height, i.plane[0], i.plane[1], i.plane[2], i.pitch[0], i.pitch[1], i.pitch[2]};
}

TLResult blurInto(OpenSession& s, Picture& dst, const Picture& src, double strength) {
    const TwinLensImageEx d = recordOf(dst), in = recordOf(src);
    return velquin_TwinLens_blurEx(&s.handle, &d, &in, strength);
}

TLResult setFocus(OpenSession& s, std::pair<double, double> at) {
    return velquin_TwinLens_setFocusCoord(&s.handle, at.first, at.second);
}

// The finished slot's map made from the scene's true depth, each pixel the
// level whose table depth lies nearest: the blur then sees exact edges.
void useTrueDepth(OpenSession& session) {
    TwinLensSession* s = session.s();
    const int32_t f = 1 - s->writeSlot;
    const float* table = s->slotDepthTable[f];
    vq_tl::Image& map = s->depthImage[f];
    for (int32_t y = 0; y < map.height; ++y) {
        for (int32_t x = 0; x < map.width; ++x) {
            const size_t t =
                size_t((2 * y + 1) * H() / (2 * map.height)) * W() + (2 * x + 1) * W() / (2 * map.width);
            int32_t best = 0;
            for (int32_t l = 1; l < 256; ++l) {
                if (std::fabs(table[l] - shot().depth[t]) < std::fabs(table[best] - shot().depth[t]))
                    best = l;
            }
            map.plane[0][size_t(map.pitch[0]) * y + x] = uint8_t(best);
        }
    }
}

}  // namespace

// Focus on the box: its inside stays within 40 dB of the source and the
// background's detail falls, more with more strength. Focus on the
// background: the roles swap.
TEST(BlurOutput, TheFocusedRegionStaysSharpAndTheRestBlurs) {
    OpenSession session(shotParams(0).get());
    ASSERT_EQ(offerShot(session), TL_OK);
    const Picture& src = *shot().main;
    const Mask boxInside = eroded(box(), 8), backInside = eroded(surfaces({kSceneBackground}), 8);
    const double boxDetail = detail(src.image, boxInside), backDetail = detail(src.image, backInside);
    auto out = mainPicture();

    ASSERT_EQ(setFocus(session, centreOf(boxInside)), TL_OK);
    double lastRatio = 1.0;
    for (const auto& [strength, ratioBound] : {std::pair{100.0, 0.85}, {300.0, 0.6}}) {
        ASSERT_EQ(blurInto(session, *out, src, strength), TL_OK);
        EXPECT_GE(psnr(out->image, src.image, boxInside), 40.0) << "strength " << strength;
        const double ratio = detail(out->image, backInside) / backDetail;
        EXPECT_LE(ratio, ratioBound) << "strength " << strength;
        EXPECT_LT(ratio, lastRatio) << "strength " << strength;
        lastRatio = ratio;
        EXPECT_TRUE(out->canariesIntact());
    }

    ASSERT_EQ(setFocus(session, centreOf(backInside)), TL_OK);
    ASSERT_EQ(blurInto(session, *out, src, 300.0), TL_OK);
    EXPECT_GE(psnr(out->image, src.image, backInside), 40.0);
    EXPECT_LE(detail(out->image, boxInside) / boxDetail, 0.2);
}

// The blur of a background pixel must not take in the sharp box beside it.
// The same exact depth map blurs two sources that differ only inside the
// box (luma 250 and 10 there), at full strength (the cap of 15 pixels at the
// reference size, 3.25 pixels here). Outside the box the two outputs differ
// only by what the box bleeds: 4 to 8 pixels out, less than half of what a
// plain Gaussian of that sigma lets through (computed here), and nothing
// from 9 pixels on. The blur map's edge is as soft as its depth-size pixels
// allow, which is what bleeds at all.
TEST(BlurOutput, NoHaloOfTheSharpBoxInTheBlurRoundIt) {
    OpenSession session(shotParams(0).get());
    ASSERT_EQ(offerShot(session), TL_OK);
    useTrueDepth(session);
    const Mask b = box();
    ASSERT_EQ(setFocus(session, centreOf(eroded(b, 8))), TL_OK);
    auto bright = mainPicture(shot().main.get()), dark = mainPicture(shot().main.get());
    for (size_t i = 0; i < b.size(); ++i) {
        if (!b[i]) continue;
        bright->u8(int32_t(i % W()), int32_t(i / W())) = 250;
        dark->u8(int32_t(i % W()), int32_t(i / W())) = 10;
    }
    auto outBright = mainPicture(), outDark = mainPicture();
    ASSERT_EQ(blurInto(session, *outBright, *bright, 300.0), TL_OK);
    ASSERT_EQ(blurInto(session, *outDark, *dark, 300.0), TL_OK);

    // The plain Gaussian's share of the box at every pixel, separably.
    const double sigma = 15.0 * std::sqrt(double(W()) * H() / 15925248.0);
    const int32_t r = int32_t(std::ceil(4 * sigma));
    std::vector<double> taps(2 * r + 1), across(b.size()), share(b.size());
    double sum = 0;
    for (int32_t k = -r; k <= r; ++k) sum += taps[k + r] = std::exp(-k * k / (2 * sigma * sigma));
    for (size_t i = 0; i < b.size(); ++i) {
        const int32_t x = int32_t(i % W());
        for (int32_t k = -r; k <= r; ++k)
            across[i] += taps[k + r] / sum * b[i - x + std::clamp(x + k, 0, W() - 1)];
    }
    for (size_t i = 0; i < b.size(); ++i) {
        const int32_t y = int32_t(i / W());
        for (int32_t k = -r; k <= r; ++k) {
            share[i] += taps[k + r] / sum * across[i % W() + size_t(std::clamp(y + k, 0, H() - 1)) * W()];
        }
    }

    const std::vector<int32_t> d = distanceTo(b);
    double bled = 0, plain = 0;
    int32_t farWorst = 0;
    for (size_t i = 0; i < b.size(); ++i) {
        const int32_t diff = std::abs(int32_t(lumaAt(outBright->image, i)) - lumaAt(outDark->image, i));
        if (d[i] >= 4 && d[i] <= 8) bled += diff, plain += 240 * share[i];
        if (d[i] >= 9) farWorst = std::max(farWorst, diff);
    }
    EXPECT_LT(bled, 0.5 * plain) << "summed over the band 4 to 8 pixels out";
    EXPECT_LE(farWorst, 1);
}

// Strength 0 gives back the source within one level. Sessions in the three
// layouts, fed the same shot, render the same luma and the same chroma.
TEST(BlurOutput, StrengthZeroAndTheThreeLayoutsAlike) {
    struct Layout {
        const char* name;
        uint32_t format;
    };
    const Layout layouts[] = {{"YVU420_SEMIPLANAR", vq_tl::IMAGE_FORMAT_YVU420_SEMIPLANAR},
                              {"YUV420_SEMIPLANAR", vq_tl::IMAGE_FORMAT_YUV420_SEMIPLANAR},
                              {"YUV420_PLANAR", vq_tl::IMAGE_FORMAT_YUV420_PLANAR}};
    std::vector<uint8_t> first;
    for (const Layout& layout : layouts) {
        SCOPED_TRACE(layout.name);
        auto params = shotParams(0);
        params->format = layout.name;
        OpenSession session(params.get());
        auto main = mainPicture(nullptr, layout.format);
        auto sub =
            std::make_unique<Picture>(shot().sub->image.width, shot().sub->image.height, layout.format);
        convertLayout(*main, *shot().main);
        convertLayout(*sub, *shot().sub);
        const TwinLensImageEx m = recordOf(*main), s = recordOf(*sub);
        ASSERT_EQ(velquin_TwinLens_processEx(&session.handle, &m, &s, nullptr), TL_OK);
        ASSERT_EQ(setFocus(session, centreOf(eroded(box(), 8))), TL_OK);

        auto out = mainPicture(nullptr, layout.format);
        ASSERT_EQ(blurInto(session, *out, *main, 0.0), TL_OK);
        int32_t worst = 0;
        for (int k = 0; k < 3; ++k) {
            for (int32_t r = 0; r < out->rows[k]; ++r) {
                for (int32_t i = 0; i < out->rowBytes[k]; ++i) {
                    worst = std::max(worst, std::abs(int32_t(out->row(k, r)[i]) - main->row(k, r)[i]));
                }
            }
        }
        EXPECT_LE(worst, 1) << "strength 0";

        ASSERT_EQ(blurInto(session, *out, *main, 200.0), TL_OK);
        std::vector<uint8_t> bytes;
        for (int32_t r = 0; r < H(); ++r) bytes.insert(bytes.end(), out->row(0, r), out->row(0, r) + W());
        for (int uv = 0; uv < 2; ++uv) {
            for (int32_t y = 0; y < H() / 2; ++y) {
                for (int32_t x = 0; x < W() / 2; ++x) bytes.push_back(chroma(*out, x, y, uv));
            }
        }
        if (first.empty()) first = bytes;
        EXPECT_TRUE(bytes == first);
    }
}

// The box keeps its own pixels and the background far from it takes the new
// picture, for a picture at the main size and at the depth size; without a
// background the source comes back.
TEST(BlurOutput, ReplacedBackgroundFollowsTheForegroundMask) {
    OpenSession session(shotParams(0).get());
    auto out = mainPicture();
    const TwinLensImageEx src = recordOf(*shot().main), dst = recordOf(*out);
    ASSERT_EQ(velquin_TwinLens_replaceBackgroundEx(&session.handle, &dst, &src), TL_OK);
    EXPECT_TRUE(out->samePixels(*shot().main)) << "before the first frame";
    ASSERT_EQ(offerShot(session), TL_OK);

    Picture flat(800, 600, shot().config.format);
    flat.fillPlanes(30);  // luma 30, chroma 31 and 32
    const TwinLensImageEx back = recordOf(flat);
    ASSERT_EQ(velquin_TwinLens_setBackgroundImageEx(&session.handle, &back), TL_OK);
    ASSERT_EQ(velquin_TwinLens_replaceBackgroundEx(&session.handle, &dst, &src), TL_OK);
    // The mask comes from the estimated map, whose box edge wanders by a few
    // pixels where the sub camera sees round the box.
    const Mask boxInside = eroded(box(), 6), backInside = eroded(surfaces({kSceneBackground}), 6);
    int64_t boxKept = 0, boxCount = 0, backTaken = 0, backCount = 0;
    for (size_t i = 0; i < boxInside.size(); ++i) {
        boxCount += boxInside[i], backCount += backInside[i];
        boxKept += boxInside[i] && lumaAt(out->image, i) == lumaAt(shot().main->image, i);
        backTaken += backInside[i] && lumaAt(out->image, i) == 30;
    }
    EXPECT_GE(double(boxKept) / double(boxCount), 0.95) << boxKept << " of " << boxCount;
    EXPECT_GE(double(backTaken) / double(backCount), 0.999) << backTaken << " of " << backCount;
    EXPECT_TRUE(out->canariesIntact());

    ASSERT_EQ(velquin_TwinLens_setBackgroundImage(&session.handle, nullptr), TL_OK);
    ASSERT_EQ(velquin_TwinLens_replaceBackgroundEx(&session.handle, &dst, &src), TL_OK);
    EXPECT_TRUE(out->samePixels(*shot().main)) << "background cleared";
}

// Refusals leave dst as it was. The plain form keeps strength within 0 to
// 300, the pitched form takes any; calls before the first frame give the
// source back.
TEST(BlurOutput, RefusedInputAndTheOtherBackEnds) {
    OpenSession session(shotParams(0).get());
    TwinLensHandle* h = &session.handle;
    auto out = mainPicture(nullptr, 0, 0);  // tight rows for the plain records
    out->fillPlanes(7);
    auto untouched = mainPicture(out.get());
    const TwinLensImage src = frameOf(*shot().main);
    const TwinLensImage dst{W(), H(), out->image.plane[0], out->image.plane[1], nullptr};
    const TwinLensImage small{W() - 2, H(), out->image.plane[0], out->image.plane[1], nullptr};
    const TwinLensImage noPlane{W(), H(), nullptr, nullptr, nullptr};
    const TwinLensHandle none{nullptr};
    struct Case {
        const char* what;
        TLResult got, want;
    };
    const Case refused[] = {
        {"strength -0.1", velquin_TwinLens_blur(h, &dst, &src, -0.1), TL_ERROR_PARAM},
        {"strength 300.1", velquin_TwinLens_blur(h, &dst, &src, 300.1), TL_ERROR_PARAM},
        {"strength NaN", velquin_TwinLens_blur(h, &dst, &src, kNaN), TL_ERROR_PARAM},
        {"dst of another size", velquin_TwinLens_blur(h, &small, &src, 1.0), TL_ERROR_PARAM},
        {"src of another size", velquin_TwinLens_blur(h, &small, &small, 1.0), TL_ERROR_PARAM},
        {"no plane", velquin_TwinLens_blur(h, &noPlane, &src, 1.0), TL_ERROR_PARAM},
        {"null handle", velquin_TwinLens_blur(const_cast<TwinLensHandle*>(&none), &dst, &src, 1.0),
         TL_ERROR_PARAM},
        {"replace, sizes differ", velquin_TwinLens_replaceBackground(h, &small, &src), TL_ERROR_PARAM},
        {"background without plane", velquin_TwinLens_setBackgroundImage(h, &noPlane), TL_ERROR_PARAM},
        {"coarse level 41", velquin_TwinLens_setCoarseBokehLevel(h, 41), TL_ERROR_PARAM},
        {"max sigma -1", velquin_TwinLens_setMaxSigma(h, -1.0f), TL_ERROR_PARAM},
        {"max sigma NaN", velquin_TwinLens_setMaxSigma(h, float(kNaN)), TL_ERROR_PARAM},
    };
    for (const Case& c : refused) EXPECT_EQ(c.got, c.want) << c.what;
    EXPECT_TRUE(out->samePixels(*untouched));
    EXPECT_EQ(velquin_TwinLens_setCoarseBokehLevel(h, 40), TL_OK);

    // Not ready: the state is tested after the sizes and the strength.
    vq_tl::FencedWord_fetchAnd(&session.s()->state, ~vq_tl::kStateReady);
    EXPECT_EQ(velquin_TwinLens_blur(h, &dst, &src, 1.0), TL_ERROR_STATE);
    EXPECT_EQ(velquin_TwinLens_blur(h, &small, &src, 1.0), TL_ERROR_PARAM);
    EXPECT_EQ(velquin_TwinLens_replaceBackground(h, &dst, &src), TL_ERROR_STATE);
    EXPECT_EQ(velquin_TwinLens_setBackgroundImage(h, nullptr), TL_ERROR_STATE);
    vq_tl::FencedWord_fetchOr(&session.s()->state, vq_tl::kStateReady);
    EXPECT_TRUE(out->samePixels(*untouched));

    // Before the first frame the blur is a copy; so is any strength of the
    // pitched form, and any strength once the blur's cap is 0.
    ASSERT_EQ(velquin_TwinLens_blur(h, &dst, &src, 300.0), TL_OK);
    EXPECT_TRUE(out->samePixels(*shot().main));
    ASSERT_EQ(offerShot(session), TL_OK);
    ASSERT_EQ(velquin_TwinLens_setMaxSigma(h, 0.0f), TL_OK);
    EXPECT_EQ(blurInto(session, *out, *shot().main, 1e6), TL_OK);
    EXPECT_TRUE(out->samePixels(*shot().main));
    ASSERT_EQ(velquin_TwinLens_setMaxSigma(h, 15.0f), TL_OK);

    // Back-end 1 renders small blurs only, 2 none in this build, 3 nothing.
    for (const auto& [backend, strength, want] :
         {std::tuple{1, 300.0, TL_ERROR_UNSUPPORTED}, {2, 300.0, TL_ERROR_UNSUPPORTED}, {3, 300.0, TL_OK}}) {
        session.s()->blurBackend = backend;
        out->copyPixels(*untouched);
        EXPECT_EQ(velquin_TwinLens_blur(h, &dst, &src, strength), want) << "back-end " << backend;
        if (backend == 3) {
            EXPECT_TRUE(out->samePixels(*untouched));
        }
    }
    session.s()->blurBackend = 1;
    EXPECT_EQ(velquin_TwinLens_blur(h, &dst, &src, 1.0), TL_OK) << "a small blur on back-end 1";
    session.s()->blurBackend = 0;
}
