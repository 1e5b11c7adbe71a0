#include "frames.h"

#include <algorithm>
#include <cmath>

namespace vq_tl::twinlens {

const char* layoutName(Layout layout) {
    switch (layout) {
        case Layout::kNv12: return "nv12";
        case Layout::kI420: return "i420";
        default: return "nv21";
    }
}

bool parseLayout(const std::string& name, Layout* layout) {
    for (const Layout l : {Layout::kNv21, Layout::kNv12, Layout::kI420}) {
        if (name == layoutName(l)) return *layout = l, true;
    }
    return false;
}

const char* sessionFormat(Layout layout) {
    switch (layout) {
        case Layout::kNv12: return "YUV420_SEMIPLANAR";
        case Layout::kI420: return "YUV420_PLANAR";
        default: return "YVU420_SEMIPLANAR";
    }
}

void Frame::allocate(int32_t w, int32_t h, Layout l) {
    width = w, height = h, layout = l;
    bytes.assign(byteSize(w, h), 0);
}

TwinLensImage Frame::record() const {
    uint8_t* base = const_cast<uint8_t*>(bytes.data());
    const size_t lumaBytes = static_cast<size_t>(width) * height;
    uint8_t* second = base + lumaBytes;
    uint8_t* third = layout == Layout::kI420 ? second + lumaBytes / 4 : nullptr;
    return {width, height, base, second, third};
}

uint8_t& Frame::chroma(int32_t x, int32_t y, int uv) {
    uint8_t* c = bytes.data() + static_cast<size_t>(width) * height;
    const size_t half = static_cast<size_t>(width / 2) * (height / 2);
    switch (layout) {
        case Layout::kI420: return c[uv * half + static_cast<size_t>(y) * (width / 2) + x];
        case Layout::kNv12: return c[static_cast<size_t>(y) * width + 2 * x + uv];
        default: return c[static_cast<size_t>(y) * width + 2 * x + 1 - uv];
    }
}

uint8_t Frame::chroma(int32_t x, int32_t y, int uv) const {
    return const_cast<Frame*>(this)->chroma(x, y, uv);
}

namespace {

// JFIF's coefficients in 16-bit fixed point, rounded: Y = 0.299 R + 0.587 G
// + 0.114 B; U = 128 + 0.5 (B - Y) / 0.886; V = 128 + 0.5 (R - Y) / 0.701.
// Each row of weights sums to 65536 (Y) or 0 (U, V), so grey stays grey.
constexpr int32_t kYr = 19595, kYg = 38470, kYb = 7471;
constexpr int32_t kUr = -11059, kUg = -21709, kUb = 32768;
constexpr int32_t kVr = 32768, kVg = -27439, kVb = -5329;
// The inverse: R = Y + 1.402 V', G = Y - 0.344136 U' - 0.714136 V',
// B = Y + 1.772 U', with U' = U - 128, V' = V - 128.
constexpr int32_t kRv = 91881, kGu = -22554, kGv = -46802, kBu = 116130;

inline uint8_t clampByte(int32_t v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); }

}  // namespace

void bgrToFrame(const Bgr& bgr, Layout layout, Frame* frame) {
    const int32_t w = bgr.width, h = bgr.height;
    frame->allocate(w, h, layout);
    uint8_t* y = frame->luma();
    for (int32_t j = 0; j < h; ++j) {
        const uint8_t* p = &bgr.bytes[static_cast<size_t>(j) * w * 3];
        for (int32_t i = 0; i < w; ++i, p += 3)
            y[static_cast<size_t>(j) * w + i] =
                clampByte((kYr * p[2] + kYg * p[1] + kYb * p[0] + 32768) >> 16);
    }
    // Chroma of the mean colour of each 2 by 2 block (JPEG's centred siting).
    for (int32_t j = 0; j < h / 2; ++j) {
        for (int32_t i = 0; i < w / 2; ++i) {
            int32_t sum[3] = {0, 0, 0};
            for (int32_t dy = 0; dy < 2; ++dy) {
                const uint8_t* p = &bgr.bytes[(static_cast<size_t>(2 * j + dy) * w + 2 * i) * 3];
                for (int c = 0; c < 3; ++c) sum[c] += p[c] + p[3 + c];
            }
            // Sums of four: the weights take a further 2 bits of shift, which
            // rounds half up for either sign (sums stay below 2^31: 1020 * 65536).
            frame->chroma(i, j, 0) =
                clampByte(((kUr * sum[2] + kUg * sum[1] + kUb * sum[0] + (1 << 17)) >> 18) + 128);
            frame->chroma(i, j, 1) =
                clampByte(((kVr * sum[2] + kVg * sum[1] + kVb * sum[0] + (1 << 17)) >> 18) + 128);
        }
    }
}

void frameToBgr(const Frame& frame, Bgr* bgr) {
    const int32_t w = frame.width, h = frame.height;
    bgr->width = w, bgr->height = h;
    bgr->bytes.resize(static_cast<size_t>(w) * h * 3);
    for (int32_t j = 0; j < h; ++j) {
        uint8_t* p = &bgr->bytes[static_cast<size_t>(j) * w * 3];
        const uint8_t* y = frame.luma() + static_cast<size_t>(j) * w;
        for (int32_t i = 0; i < w; ++i, p += 3) {
            const int32_t u = frame.chroma(i / 2, j / 2, 0) - 128, v = frame.chroma(i / 2, j / 2, 1) - 128;
            const int32_t l = y[i] * 65536 + 32768;
            p[0] = clampByte((l + kBu * u) >> 16);
            p[1] = clampByte((l + kGu * u + kGv * v) >> 16);
            p[2] = clampByte((l + kRv * v) >> 16);
        }
    }
}

void convertFrame(const Frame& src, Layout layout, Frame* dst) {
    dst->allocate(src.width, src.height, layout);
    std::copy(src.luma(), src.luma() + static_cast<size_t>(src.width) * src.height, dst->luma());
    for (int32_t j = 0; j < src.height / 2; ++j) {
        for (int32_t i = 0; i < src.width / 2; ++i) {
            for (int uv = 0; uv < 2; ++uv) dst->chroma(i, j, uv) = src.chroma(i, j, uv);
        }
    }
}

void resizeArea(const Bgr& src, int32_t width, int32_t height, Bgr* dst) {
    dst->width = width, dst->height = height;
    dst->bytes.assign(static_cast<size_t>(width) * height * 3, 0);
    const double sx = static_cast<double>(src.width) / width, sy = static_cast<double>(src.height) / height;
    std::vector<double> row(static_cast<size_t>(width) * 3);
    for (int32_t j = 0; j < height; ++j) {
        std::fill(row.begin(), row.end(), 0.0);
        const double y0 = j * sy, y1 = (j + 1) * sy;
        double rowsWeight = 0;
        for (int32_t v = static_cast<int32_t>(y0); v < src.height && v < y1; ++v) {
            const double wy = std::min<double>(v + 1, y1) - std::max<double>(v, y0);
            if (wy <= 0) continue;
            rowsWeight += wy;
            const uint8_t* s = &src.bytes[static_cast<size_t>(v) * src.width * 3];
            for (int32_t i = 0; i < width; ++i) {
                const double x0 = i * sx, x1 = (i + 1) * sx;
                for (int32_t u = static_cast<int32_t>(x0); u < src.width && u < x1; ++u) {
                    const double wx = (std::min<double>(u + 1, x1) - std::max<double>(u, x0)) * wy;
                    for (int c = 0; c < 3; ++c) row[3 * i + c] += wx * s[3 * u + c];
                }
            }
        }
        uint8_t* d = &dst->bytes[static_cast<size_t>(j) * width * 3];
        for (int32_t i = 0; i < width; ++i) {
            const double area = rowsWeight * (std::min<double>((i + 1) * sx, src.width) - i * sx);
            for (int c = 0; c < 3; ++c)
                d[3 * i + c] = static_cast<uint8_t>(std::lround(row[3 * i + c] / area));
        }
    }
}

}  // namespace vq_tl::twinlens
