// A picture in caller memory for kernel tests: every row is followed by canary bytes and the planes by a
// canary tail, so that writes outside the pixels are seen, and pitches are wider than the rows.
#pragma once

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "image/image.h"

namespace vq_tl_test {

constexpr uint8_t kCanary = 0x5C;

struct Picture {
    vq_tl::Env env{};
    vq_tl::Image image;
    std::vector<uint8_t> storage;
    int32_t rowBytes[3] = {0, 0, 0};
    int32_t rows[3] = {0, 0, 0};

    // `padding` bytes after each row; a multiple of 4 keeps 16- and 32-bit rows aligned for whole elements.
    Picture(int32_t w, int32_t h, uint32_t format, int32_t padding = 8) {
        using namespace vq_tl;
        construct_Image(&image, &env);
        const int32_t planes = Image_getPlaneCount(format);
        const int32_t pitchSel[3] = {IMAGE_SIZE_PITCH0, IMAGE_SIZE_PITCH1, IMAGE_SIZE_PITCH2};
        const int32_t rowSel[3] = {IMAGE_SIZE_ROWS0, IMAGE_SIZE_ROWS1, IMAGE_SIZE_ROWS2};
        int32_t pitch[3] = {0, 0, 0};
        size_t offset[3] = {0, 0, 0}, total = 0;
        for (int k = 0; k < planes; ++k) {
            rowBytes[k] = Image_getSize(w, h, format, pitchSel[k]);
            rows[k] = Image_getSize(w, h, format, rowSel[k]);
            pitch[k] = rowBytes[k] + padding;
            offset[k] = total;
            total += static_cast<size_t>(pitch[k]) * rows[k];
        }
        storage.assign(total + 8, kCanary);
        uint8_t* b = storage.data();
        ImagePlanes p;
        std::memset(&p, 0, sizeof p);
        if (planes == 1) p.one = ImagePlanes1{b, pitch[0]};
        if (planes == 2) p.two = ImagePlanes2{b + offset[0], b + offset[1], pitch[0], pitch[1]};
        if (planes == 3)
            p.three = ImagePlanes3{b + offset[0], b + offset[1], b + offset[2], pitch[0], pitch[1], pitch[2]};
        Image_initWithPitch(&image, w, h, &p, format);
    }
    ~Picture() { vq_tl::destruct_Image(&image); }
    Picture(const Picture&) = delete;
    Picture& operator=(const Picture&) = delete;

    uint8_t* row(int k, int32_t r) const { return image.plane[k] + static_cast<size_t>(image.pitch[k]) * r; }
    template <typename T>
    T& at(int32_t x, int32_t y, int k = 0) {
        return reinterpret_cast<T*>(row(k, y))[x];
    }
    uint8_t& u8(int32_t x, int32_t y) { return at<uint8_t>(x, y); }

    void fillRandom(std::mt19937& rng) {
        for (int k = 0; k < 3; ++k) {
            for (int32_t r = 0; r < rows[k]; ++r) {
                for (int32_t i = 0; i < rowBytes[k]; ++i) row(k, r)[i] = static_cast<uint8_t>(rng());
            }
        }
    }
    // Every byte of every plane set to `value + plane index`.
    void fillPlanes(uint8_t value) {
        for (int k = 0; k < 3; ++k) {
            for (int32_t r = 0; r < rows[k]; ++r) std::memset(row(k, r), value + k, rowBytes[k]);
        }
    }
    // The pixels of a picture of the same size and format; pitches may differ.
    void copyPixels(const Picture& o) {
        for (int k = 0; k < 3; ++k) {
            for (int32_t r = 0; r < rows[k]; ++r) std::memcpy(row(k, r), o.row(k, r), rowBytes[k]);
        }
    }
    bool samePixels(const Picture& o) const {
        for (int k = 0; k < 3; ++k) {
            for (int32_t r = 0; r < rows[k]; ++r) {
                if (std::memcmp(row(k, r), o.row(k, r), rowBytes[k]) != 0) return false;
            }
        }
        return true;
    }
    bool canariesIntact() const {
        for (int k = 0; k < 3; ++k) {
            for (int32_t r = 0; r < rows[k]; ++r) {
                for (int32_t i = rowBytes[k]; i < image.pitch[k]; ++i) {
                    if (row(k, r)[i] != kCanary) return false;
                }
            }
        }
        return storage.back() == kCanary;
    }
};

// Element i (x * channels + c) of row y of a single-plane picture or view, by the element type of its format:
// 16 bits for UINT16 and UINT1616, signed for INT16 and INT32, float for FLOAT, a byte for the others.
inline double elementOf(const vq_tl::Image& v, int32_t i, int32_t y) {
    const uint8_t* row = v.plane[0] + static_cast<size_t>(v.pitch[0]) * y;
    auto load = [&](auto e) {
        std::memcpy(&e, row + sizeof e * i, sizeof e);
        return static_cast<double>(e);
    };
    switch (v.format) {
        case vq_tl::IMAGE_FORMAT_UINT16:
        case vq_tl::IMAGE_FORMAT_UINT1616: return load(uint16_t{});
        case vq_tl::IMAGE_FORMAT_INT16: return load(int16_t{});
        case vq_tl::IMAGE_FORMAT_INT32: return load(int32_t{});
        case vq_tl::IMAGE_FORMAT_FLOAT: return load(float{});
        default: return row[i];
    }
}

// Bilinear sample of at(x, y) over a w by h grid at (sx, sy), real weights, edges repeated.
template <typename At>
double bilinear(At at, int32_t w, int32_t h, double sx, double sy) {
    const double fx = std::floor(sx), fy = std::floor(sy), ax = sx - fx, ay = sy - fy;
    auto v = [&](double x, double y) {
        return static_cast<double>(at(static_cast<int32_t>(std::fmin(std::fmax(x, 0.0), w - 1.0)),
                                      static_cast<int32_t>(std::fmin(std::fmax(y, 0.0), h - 1.0))));
    };
    return (v(fx, fy) * (1 - ax) + v(fx + 1, fy) * ax) * (1 - ay) +
           (v(fx, fy + 1) * (1 - ax) + v(fx + 1, fy + 1) * ax) * ay;
}

}  // namespace vq_tl_test
