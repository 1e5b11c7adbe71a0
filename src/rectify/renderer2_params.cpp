#include "rectify/renderer2_params.h"

#include <cstdlib>
#include <cstring>

#include "runtime/memory.h"

namespace vq_tl {

namespace {

// Four arrays per grid: two of reals and two of ints, 24 bytes per vertex.
constexpr int32_t kBytesPerVertex = 2 * sizeof(double) + 2 * sizeof(int32_t);

template <typename Grid>
void freeArrays(Grid* g) {
    Memory_free(g->x);
    Memory_free(g->y);
    Memory_free(g->xs);
    Memory_free(g->ys);
    g->x = nullptr;
    g->y = nullptr;
    g->xs = nullptr;
    g->ys = nullptr;
    g->cols = 0;
    g->rows = 0;
}

// Frees what an earlier layout left and allocates count vertices. On failure
// the arrays that were allocated stay for the next init or destruct, and the
// grid reports no vertices.
template <typename Grid>
TLResult allocateArrays(Grid* g, int32_t cols, int32_t rows) {
    freeArrays(g);
    const size_t count = static_cast<size_t>(cols) * static_cast<size_t>(rows);
    const size_t n = count > 0 ? count : 1;
    g->x = static_cast<double*>(Memory_alloc(n * sizeof(double)));
    g->y = static_cast<double*>(Memory_alloc(n * sizeof(double)));
    g->xs = static_cast<int32_t*>(Memory_alloc(n * sizeof(int32_t)));
    g->ys = static_cast<int32_t*>(Memory_alloc(n * sizeof(int32_t)));
    if (g->x == nullptr || g->y == nullptr || g->xs == nullptr || g->ys == nullptr) return TL_ERROR_MEMORY;
    g->cols = cols;
    g->rows = rows;
    return TL_OK;
}

template <typename Grid>
TLResult setMatrix(Grid* g, const Mvec8Real* matrix) {
    if (g == nullptr || matrix == nullptr) return TL_ERROR_PARAM;
    const int32_t n = g->cols * g->rows;
    if (n > 0 && (g->x == nullptr || g->xs == nullptr)) return TL_ERROR_PARAM;
    for (int32_t v = 0; v < n; ++v) {
        Mvec8Real_trans2DReal(matrix, &g->x[v], &g->y[v], g->xs[v], g->ys[v]);
    }
    return TL_OK;
}

template <typename Grid>
TLResult confine(Grid* g, const int32_t rect[4]) {
    if (g == nullptr || rect == nullptr) return TL_ERROR_PARAM;
    const int32_t n = g->cols * g->rows;
    if (n > 0 && g->x == nullptr) return TL_ERROR_PARAM;
    const double xLow = rect[0], xHigh = rect[2] - 2.0;
    const double yLow = rect[1], yHigh = rect[3] - 2.0;
    for (int32_t v = 0; v < n; ++v) {
        double x = g->x[v], y = g->y[v];
        x = x < xLow ? xLow : x;
        x = x > xHigh ? xHigh : x;
        y = y < yLow ? yLow : y;
        y = y > yHigh ? yHigh : y;
        g->x[v] = x;
        g->y[v] = y;
    }
    return TL_OK;
}

// Cell side from a divisor: a sixteenth-aligned share of the side, at least 8.
int32_t cellFromDivision(int32_t side, int32_t division) {
    const int32_t s = (side / division) & ~15;
    return s > kRenderer2MinCellSize ? s : kRenderer2MinCellSize;
}

}  // namespace

int32_t Renderer2_Params_getBufferSize() { return 409600; }

TLResult construct_Renderer2_Params(Renderer2_Params* params, Env* env) {
    if (params == nullptr) return TL_ERROR_PARAM;
    std::memset(params, 0, sizeof *params);
    params->env = env;
    return TL_OK;
}

TLResult destruct_Renderer2_Params(Renderer2_Params* params) {
    if (params == nullptr) return TL_ERROR_PARAM;
    freeArrays(params);
    std::memset(params, 0, sizeof *params);
    return TL_OK;
}

TLResult Renderer2_Params_recycle(Renderer2_Params* params) {
    if (params == nullptr) return TL_ERROR_PARAM;
    Env* env = params->env;
    destruct_Renderer2_Params(params);
    params->env = env;
    return TL_OK;
}

TLResult Renderer2_Params_initWithGridSize(Renderer2_Params* params, const int32_t rect[4], int32_t gridWidth,
                                           int32_t gridHeight) {
    if (params == nullptr || rect == nullptr) return TL_ERROR_PARAM;
    if (gridWidth < kRenderer2MinCellSize || gridHeight < kRenderer2MinCellSize) return TL_ERROR_PARAM;
    const int32_t left = rect[0], top = rect[1], right = rect[2], bottom = rect[3];
    const int64_t width = int64_t{right} - left, height = int64_t{bottom} - top;
    if (width < 1 || height < 1) return TL_ERROR_PARAM;
    const int64_t cols = (width - 1 + gridWidth) / gridWidth + 1;
    const int64_t rows = (height - 1 + gridHeight) / gridHeight + 1;
    if (cols * rows > kRenderer2MaxVertices) return TL_ERROR_PARAM;

    const TLResult r = allocateArrays(params, static_cast<int32_t>(cols), static_cast<int32_t>(rows));
    if (r != TL_OK) return r;
    params->left = left;
    params->top = top;
    params->right = right;
    params->bottom = bottom;
    params->gridWidth = gridWidth;
    params->gridHeight = gridHeight;
    int32_t v = 0;
    for (int32_t j = 0; j < params->rows; ++j) {
        // The last vertex of a column or row stands at the far edge: the last
        // cell is the remainder.
        const int32_t yPos = j == params->rows - 1 ? bottom : top + j * gridHeight;
        for (int32_t i = 0; i < params->cols; ++i, ++v) {
            const int32_t xPos = i == params->cols - 1 ? right : left + i * gridWidth;
            params->xs[v] = xPos;
            params->ys[v] = yPos;
            params->x[v] = xPos;
            params->y[v] = yPos;
        }
    }
    return TL_OK;
}

TLResult Renderer2_Params_init(Renderer2_Params* params, const void* any, int32_t width, int32_t height,
                               int32_t division) {
    if (any == nullptr) return TL_ERROR_PARAM;
    const int32_t rect[4] = {0, 0, width, height};
    return Renderer2_Params_initRect(params, any, rect, division);
}

TLResult Renderer2_Params_initVertical(Renderer2_Params* params, const void* any, int32_t width,
                                       int32_t height, int32_t division) {
    if (any == nullptr) return TL_ERROR_PARAM;
    const int32_t rect[4] = {0, 0, width, height};
    const int32_t cellHeight = division < 2 ? height : cellFromDivision(height, division);
    return Renderer2_Params_initWithGridSize(params, rect, width, cellHeight);
}

TLResult Renderer2_Params_initWithSize(Renderer2_Params* params, const void* any, int32_t width,
                                       int32_t height, int32_t size) {
    if (any == nullptr) return TL_ERROR_PARAM;
    const int32_t rect[4] = {0, 0, width, height};
    return Renderer2_Params_initWithGridSize(params, rect, size, size);
}

TLResult Renderer2_Params_initRect(Renderer2_Params* params, const void* any, const int32_t rect[4],
                                   int32_t division) {
    if (any == nullptr || rect == nullptr) return TL_ERROR_PARAM;
    const int32_t width = rect[2] - rect[0], height = rect[3] - rect[1];
    if (division < 2) return Renderer2_Params_initWithGridSize(params, rect, width, height);
    const int32_t side = cellFromDivision(width < height ? width : height, division);
    return Renderer2_Params_initWithGridSize(params, rect, side, side);
}

TLResult Renderer2_Params_initRectWithSize(Renderer2_Params* params, const void* any, const int32_t rect[4],
                                           int32_t size) {
    if (any == nullptr) return TL_ERROR_PARAM;
    return Renderer2_Params_initWithGridSize(params, rect, size, size);
}

TLResult Renderer2_Params_copy(Renderer2_Params* dst, const Renderer2_Params* src) {
    if (dst == nullptr || src == nullptr || dst == src) return TL_ERROR_PARAM;
    if (src->cols < 1 || src->rows < 1 || src->x == nullptr || src->y == nullptr || src->xs == nullptr ||
        src->ys == nullptr) {
        return TL_ERROR_PARAM;
    }
    const bool sameLayout = dst->cols == src->cols && dst->rows == src->rows && dst->left == src->left &&
                            dst->top == src->top && dst->right == src->right && dst->bottom == src->bottom &&
                            dst->gridWidth == src->gridWidth && dst->gridHeight == src->gridHeight &&
                            dst->x != nullptr;
    if (!sameLayout) {
        const int32_t rect[4] = {src->left, src->top, src->right, src->bottom};
        const TLResult r = Renderer2_Params_initWithGridSize(dst, rect, src->gridWidth, src->gridHeight);
        if (r != TL_OK) return r;
        // A source laid out by hand may not follow the layout rule.
        if (dst->cols != src->cols || dst->rows != src->rows) return TL_ERROR_PARAM;
    }
    const size_t n = static_cast<size_t>(src->cols) * src->rows;
    std::memcpy(dst->x, src->x, n * sizeof(double));
    std::memcpy(dst->y, src->y, n * sizeof(double));
    std::memcpy(dst->xs, src->xs, n * sizeof(int32_t));
    std::memcpy(dst->ys, src->ys, n * sizeof(int32_t));
    return TL_OK;
}

TLResult Renderer2_Params_setMvec8Real(Renderer2_Params* params, const Mvec8Real* matrix) {
    return setMatrix(params, matrix);
}

TLResult Renderer2_Grid_confineWithinRect(Renderer2_Params* grid, const int32_t rect[4]) {
    return confine(grid, rect);
}

TLResult Renderer2_Grid_confineWithinRect(Renderer2_GridWrapper* grid, const int32_t rect[4]) {
    return confine(grid, rect);
}

int32_t Renderer2_GridWrapper_getBufferSize(int32_t cols, int32_t rows) {
    if (cols < 0 || rows < 0) return -1;
    const int64_t bytes = int64_t{cols} * rows * kBytesPerVertex;
    return bytes > INT32_MAX ? -1 : static_cast<int32_t>(bytes);
}

TLResult construct_Renderer2_GridWrapper(Renderer2_GridWrapper* wrapper, Env* env) {
    if (wrapper == nullptr) return TL_ERROR_PARAM;
    std::memset(wrapper, 0, sizeof *wrapper);
    wrapper->env = env;
    return TL_OK;
}

TLResult destruct_Renderer2_GridWrapper(Renderer2_GridWrapper* wrapper) {
    if (wrapper == nullptr) return TL_ERROR_PARAM;
    freeArrays(wrapper);
    std::memset(wrapper, 0, sizeof *wrapper);
    return TL_OK;
}

TLResult Renderer2_GridWrapper_recycle(Renderer2_GridWrapper* wrapper) {
    if (wrapper == nullptr) return TL_ERROR_PARAM;
    Env* env = wrapper->env;
    destruct_Renderer2_GridWrapper(wrapper);
    wrapper->env = env;
    return TL_OK;
}

TLResult Renderer2_GridWrapper_init(Renderer2_GridWrapper* wrapper, int32_t cols, int32_t rows) {
    if (wrapper == nullptr || cols < 0 || rows < 0) return TL_ERROR_PARAM;
    if (Renderer2_GridWrapper_getBufferSize(cols, rows) < 0) return TL_ERROR_PARAM;
    return allocateArrays(wrapper, cols, rows);
}

TLResult Renderer2_GridWrapper_initWithGridSize(Renderer2_GridWrapper* wrapper, int32_t width, int32_t height,
                                                int32_t gridWidth, int32_t gridHeight) {
    if (wrapper == nullptr || width < 1 || height < 1 || gridWidth < 1 || gridHeight < 1)
        return TL_ERROR_PARAM;
    const int32_t cols = (width - 1) / gridWidth + 2;  // ceil(width / gridWidth) + 1
    const int32_t rows = (height - 1) / gridHeight + 2;
    const TLResult r = Renderer2_GridWrapper_init(wrapper, cols, rows);
    if (r != TL_OK) return r;
    int32_t v = 0;
    for (int32_t j = 0; j < rows; ++j) {
        const int64_t yPos = int64_t{j} * gridHeight;
        const int32_t ys = yPos < height ? static_cast<int32_t>(yPos) : height;
        for (int32_t i = 0; i < cols; ++i, ++v) {
            const int64_t xPos = int64_t{i} * gridWidth;
            const int32_t xs = xPos < width ? static_cast<int32_t>(xPos) : width;
            wrapper->xs[v] = xs;
            wrapper->ys[v] = ys;
            wrapper->x[v] = xs;
            wrapper->y[v] = ys;
        }
    }
    return TL_OK;
}

TLResult Renderer2_GridWrapper_setMvec8Real(Renderer2_GridWrapper* wrapper, const Mvec8Real* matrix) {
    return setMatrix(wrapper, matrix);
}

}  // namespace vq_tl
