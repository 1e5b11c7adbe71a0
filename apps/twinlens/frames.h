// Frames in the library's YUV 4:2:0 layouts and interleaved BGR pictures
// (OpenCV's order), with the conversions between them.
//
// Colour: full-range BT.601 as in JFIF (Y 0..255, chroma centred on 128),
// which is what phone cameras hand out as NV21 and what JPEG stores, so a
// JPEG's pixels come back within a level.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "velquin/twin_lens_types.h"

namespace vq_tl::twinlens {

enum class Layout { kNv21, kNv12, kI420 };

// "nv21", "nv12", "i420".
const char* layoutName(Layout layout);
bool parseLayout(const std::string& name, Layout* layout);
// The format name a session takes for the layout.
const char* sessionFormat(Layout layout);

// A frame with tight rows: the luma plane, then the chroma (V,U pairs for
// NV21, U,V pairs for NV12, the U and then the V plane for I420). Even sizes.
struct Frame {
    int32_t width = 0, height = 0;
    Layout layout = Layout::kNv21;
    std::vector<uint8_t> bytes;

    static size_t byteSize(int32_t width, int32_t height) {
        return static_cast<size_t>(width) * height * 3 / 2;
    }
    void allocate(int32_t w, int32_t h, Layout l);
    uint8_t* luma() { return bytes.data(); }
    const uint8_t* luma() const { return bytes.data(); }
    TwinLensImage record() const;
    // Chroma sample (x, y) of the half-size grid: U (0) or V (1).
    uint8_t chroma(int32_t x, int32_t y, int uv) const;
    uint8_t& chroma(int32_t x, int32_t y, int uv);
};

struct Bgr {
    int32_t width = 0, height = 0;
    std::vector<uint8_t> bytes;  // 3 a pixel: blue, green, red
};

// Even sizes only: callers crop odd pictures first.
void bgrToFrame(const Bgr& bgr, Layout layout, Frame* frame);
void frameToBgr(const Frame& frame, Bgr* bgr);
// The same frame in another layout.
void convertFrame(const Frame& src, Layout layout, Frame* dst);
// Area average: every output pixel the mean of the input pixels it covers
// (fractional coverage at its edges). For reductions; enlarges as well.
void resizeArea(const Bgr& src, int32_t width, int32_t height, Bgr* dst);

}  // namespace vq_tl::twinlens
