// An image the benchmarks own: zeroed, or filled with a smooth pattern so
// that the work is not that of a constant.
#pragma once

#include <cstdint>
#include <cstring>

#include "image/image.h"
#include "runtime/env.h"

enum class BenchFill { kZero, kPattern };

struct BenchImage {
    vq_tl::Env env{};
    vq_tl::Image image;
    BenchImage(int32_t w, int32_t h, uint32_t format, BenchFill fill = BenchFill::kZero) {
        vq_tl::construct_Image(&image, &env);
        vq_tl::Image_init(&image, w, h, nullptr, format);
        const int32_t bytes = vq_tl::Image_getSize(w, h, format, vq_tl::IMAGE_SIZE_TOTAL);
        if (fill == BenchFill::kZero) {
            std::memset(image.plane[0], 0, static_cast<size_t>(bytes));
        } else {
            for (int32_t i = 0; i < bytes; ++i) image.plane[0][i] = static_cast<uint8_t>((i * 7) ^ (i >> 9));
        }
    }
    ~BenchImage() { vq_tl::destruct_Image(&image); }
    BenchImage(const BenchImage&) = delete;
    BenchImage& operator=(const BenchImage&) = delete;
    uint8_t* row(int32_t y) { return image.plane[0] + static_cast<size_t>(image.pitch[0]) * y; }
};
