#include "rectify/rectify_util.h"

#include <cstring>

namespace vq_tl {

namespace {

template <typename T>
T* rowOf(const Image* m, int32_t row) {
    return reinterpret_cast<T*>(m->plane[0] + static_cast<intptr_t>(m->pitch[0]) * row);
}

bool hasPixels(const Image* m) { return m->plane[0] != nullptr && m->width > 0 && m->height > 0; }

template <typename T>
void dot(Image* out, const Image* a, const Image* b) {
    const int32_t inner = a->width;
    for (int32_t i = 0; i < a->height; ++i) {
        const T* ar = rowOf<const T>(a, i);
        T* orow = rowOf<T>(out, i);
        for (int32_t j = 0; j < b->width; ++j) {
            T acc = 0;
            for (int32_t k = 0; k < inner; ++k) acc += ar[k] * rowOf<const T>(b, k)[j];
            orow[j] = acc;
        }
    }
}

template <typename T>
void transpose(Image* out, const Image* a) {
    for (int32_t i = 0; i < a->height; ++i) {
        const T* ar = rowOf<const T>(a, i);
        for (int32_t j = 0; j < a->width; ++j) rowOf<T>(out, j)[i] = ar[j];
    }
}

bool isMatrixFormat(uint32_t format) { return format == IMAGE_FORMAT_FLOAT || format == IMAGE_FORMAT_INT32; }

}  // namespace

TLResult RectifyUtil_laDot(Image* out, const Image* a, const Image* b) {
    if (out == nullptr || a == nullptr || b == nullptr) return TL_ERROR_PARAM;
    if (!isMatrixFormat(a->format)) return TL_OK;
    if (b->format != a->format || out->format != a->format) return TL_ERROR_GENERAL;
    if (b->height != a->width || out->width != b->width || out->height != a->height) return TL_ERROR_GENERAL;
    if (!hasPixels(a) || !hasPixels(b) || !hasPixels(out)) return TL_ERROR_GENERAL;
    // out must not share memory with an input: rows of out are written while
    // the inputs are still read.
    if (out->plane[0] == a->plane[0] || out->plane[0] == b->plane[0]) return TL_ERROR_GENERAL;
    if (a->format == IMAGE_FORMAT_FLOAT) {
        dot<float>(out, a, b);
    } else {
        // Wrapping sums of integer matrices, computed in unsigned arithmetic.
        const int32_t inner = a->width;
        for (int32_t i = 0; i < a->height; ++i) {
            const int32_t* ar = rowOf<const int32_t>(a, i);
            int32_t* orow = rowOf<int32_t>(out, i);
            for (int32_t j = 0; j < b->width; ++j) {
                uint32_t acc = 0;
                for (int32_t k = 0; k < inner; ++k) {
                    acc +=
                        static_cast<uint32_t>(ar[k]) * static_cast<uint32_t>(rowOf<const int32_t>(b, k)[j]);
                }
                orow[j] = static_cast<int32_t>(acc);
            }
        }
    }
    return TL_OK;
}

TLResult RectifyUtil_laTranspose(Image* out, const Image* a) {
    if (out == nullptr || a == nullptr) return TL_ERROR_PARAM;
    if (!isMatrixFormat(a->format)) return TL_OK;
    if (out->format != a->format || out->width != a->height || out->height != a->width)
        return TL_ERROR_GENERAL;
    if (!hasPixels(a) || !hasPixels(out) || out->plane[0] == a->plane[0]) return TL_ERROR_GENERAL;
    if (a->format == IMAGE_FORMAT_FLOAT) {
        transpose<float>(out, a);
    } else {
        transpose<int32_t>(out, a);
    }
    return TL_OK;
}

TLResult RectifyUtil_laSolveGaussianElimination(Image* a, Image* b) {
    if (a == nullptr || b == nullptr) return TL_ERROR_PARAM;
    if (a->format != IMAGE_FORMAT_FLOAT || b->format != IMAGE_FORMAT_FLOAT) return TL_ERROR_UNSUPPORTED;
    const int32_t n = a->width;
    if (a->height != n || b->height != n || !hasPixels(a) || !hasPixels(b)) return TL_ERROR_GENERAL;

    for (int32_t c = 0; c < n; ++c) {
        // The held value starts as the signed diagonal entry and each entry
        // below with a greater magnitude replaces it by that magnitude: a
        // negative diagonal entry loses to any entry below, even a smaller
        // one. Kept as it is; normal equations have a positive diagonal.
        float held = rowOf<float>(a, c)[c];
        int32_t pivotRow = c;
        for (int32_t r = c + 1; r < n; ++r) {
            const float v = rowOf<float>(a, r)[c];
            const float magnitude = v < 0.0f ? -v : v;
            if (magnitude > held) {
                held = magnitude;
                pivotRow = r;
            }
        }
        if (held == 0.0f) return TL_ERROR_GENERAL;
        if (pivotRow != c) {
            float* x = rowOf<float>(a, c);
            float* y = rowOf<float>(a, pivotRow);
            for (int32_t j = 0; j < n; ++j) {
                const float t = x[j];
                x[j] = y[j];
                y[j] = t;
            }
            float* bx = rowOf<float>(b, c);
            float* by = rowOf<float>(b, pivotRow);
            for (int32_t j = 0; j < b->width; ++j) {
                const float t = bx[j];
                bx[j] = by[j];
                by[j] = t;
            }
        }
        float* pivot = rowOf<float>(a, c);
        const float scale = 1.0f / pivot[c];
        for (int32_t j = 0; j < n; ++j) pivot[j] *= scale;
        rowOf<float>(b, c)[0] *= scale;
        const float bc = rowOf<float>(b, c)[0];
        for (int32_t r = c + 1; r < n; ++r) {
            float* row = rowOf<float>(a, r);
            const float factor = row[c];
            for (int32_t j = 0; j < n; ++j) row[j] -= factor * pivot[j];
            rowOf<float>(b, r)[0] -= factor * bc;
        }
    }
    for (int32_t c = n - 1; c > 0; --c) {
        const float x = rowOf<float>(b, c)[0];
        for (int32_t r = 0; r < c; ++r) {
            float* row = rowOf<float>(a, r);
            rowOf<float>(b, r)[0] -= row[c] * x;
            row[c] = 0.0f;
        }
    }
    return TL_OK;
}

TLResult RectifyUtil_addMvec8Real(Mvec8Real* out, const Mvec8Real* a, const Mvec8Real* b) {
    if (out == nullptr || a == nullptr || b == nullptr) return TL_ERROR_PARAM;
    for (int i = 0; i < 9; ++i) out->m[i] = a->m[i] + b->m[i];
    return TL_OK;
}

TLResult RectifyUtil_scaleMvec8Real(Mvec8Real* out, double factor, const Mvec8Real* in) {
    if (out == nullptr || in == nullptr) return TL_ERROR_PARAM;
    for (int i = 0; i < 9; ++i) out->m[i] = in->m[i] * factor;
    return TL_OK;
}

TLResult RectifyUtil_invRotMatrix(Mvec8Real* out, const Mvec8Real* in) {
    if (out == nullptr || in == nullptr) return TL_ERROR_PARAM;
    const Mvec8Real copy = *in;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) out->m[3 * r + c] = copy.m[3 * c + r];
    }
    return TL_OK;
}

TLResult RectifyUtil_invCameraMatrix(Mvec8Real* out, const Mvec8Real* in) {
    if (out == nullptr || in == nullptr) return TL_ERROR_PARAM;
    const double* k = in->m;
    if (k[1] != 0.0 || k[3] != 0.0 || k[6] != 0.0 || k[7] != 0.0 || k[8] != 1.0) return TL_ERROR_GENERAL;
    const double fx = k[0], cx = k[2], fy = k[4], cy = k[5];
    Mvec8Real inverse = {{1.0 / fx, 0.0, -cx / fx, 0.0, 1.0 / fy, -cy / fy, 0.0, 0.0, 1.0}};
    *out = inverse;
    return TL_OK;
}

}  // namespace vq_tl
