#include "products.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "io.h"

namespace vq_tl::twinlens {

void turbo(double t, uint8_t bgr[3]) {
    // Polynomial fits of the Turbo map's three channels (sixth degree).
    t = std::clamp(t, 0.0, 1.0);
    const double r =
        0.13572138 +
        t * (4.61539260 + t * (-42.66032258 + t * (132.13108234 + t * (-152.94239396 + t * 59.28637943))));
    const double g =
        0.09140261 +
        t * (2.19418839 + t * (4.84296658 + t * (-14.18503333 + t * (4.27729857 + t * 2.82956604))));
    const double b =
        0.10667330 +
        t * (12.64194608 + t * (-60.58204836 + t * (110.36276771 + t * (-89.90310912 + t * 27.34824973))));
    auto byte = [](double v) { return static_cast<uint8_t>(std::lround(std::clamp(v, 0.0, 1.0) * 255)); };
    bgr[0] = byte(b), bgr[1] = byte(g), bgr[2] = byte(r);
}

void undistortPoint(const TwinLensLensDist& lens, double xd, double yd, double* x, double* y) {
    if (lens.kind == 1) {
        // The table: distorted radius T[i] of the ideal radius i / (n - 1), both over maxRadius.
        const TwinLensLensTable& d = lens.u.data;
        const double rd = std::hypot(xd, yd) / d.maxRadius;
        double ri = rd;
        for (int i = 1; i < d.count; ++i) {
            if (rd <= d.table[i] || i == d.count - 1) {
                const double a = d.table[i - 1], b = d.table[i], step = 1.0 / (d.count - 1);
                ri = b != a ? (i - 1 + (rd - a) / (b - a)) * step : i * step;
                break;
            }
        }
        const double scale = rd > 0 ? ri / rd : 1.0;
        *x = xd * scale, *y = yd * scale;
        return;
    }
    // Coefficients: Newton's method on the forward model from the distorted
    // point; each step squares the error, so 20 steps are plenty.
    const double k1 = lens.u.coeff.k[0], k2 = lens.u.coeff.k[1], k3 = lens.u.coeff.k[2];
    const double p1 = lens.u.coeff.p[0], p2 = lens.u.coeff.p[1];
    double u = xd, v = yd;
    for (int i = 0; i < 20; ++i) {
        const double r2 = u * u + v * v;
        const double radial = 1 + r2 * (k1 + r2 * (k2 + r2 * k3));
        const double slope = 2 * (k1 + r2 * (2 * k2 + r2 * 3 * k3));
        const double fx = u * radial + 2 * p1 * u * v + p2 * (r2 + 2 * u * u) - xd;
        const double fy = v * radial + p1 * (r2 + 2 * v * v) + 2 * p2 * u * v - yd;
        const double a = radial + u * u * slope + 2 * p1 * v + 6 * p2 * u;
        const double b = u * v * slope + 2 * p1 * u + 2 * p2 * v;
        const double d = radial + v * v * slope + 6 * p1 * v + 2 * p2 * u;
        const double det = a * d - b * b;
        if (det == 0) break;
        const double sx = (d * fx - b * fy) / det, sy = (a * fy - b * fx) / det;
        u -= sx, v -= sy;
        if (std::fabs(sx) + std::fabs(sy) < 1e-12) break;
    }
    *x = u, *y = v;
}

std::vector<uint8_t> pointCloud(const ShotResult& result, const Bgr& colour, const TwinLensCameraParam& row) {
    const int32_t w = result.depthWidth, h = result.depthHeight;
    const double* m = row.mainCameraMatrix;
    // Depth pixel centres in the calibration's pixels (centres at whole coordinates).
    const double sx = static_cast<double>(row.mainCalibWidth) / w,
                 sy = static_cast<double>(row.mainCalibHeight) / h;
    std::vector<uint8_t> body;
    size_t count = 0;
    for (int32_t j = 0; j < h; ++j) {
        for (int32_t i = 0; i < w; ++i) {
            const float z = result.metres[static_cast<size_t>(j) * w + i];
            if (!(z > 0)) continue;
            double x, y;
            undistortPoint(row.mainLensDist, ((i + 0.5) * sx - 0.5 - m[2]) / m[0],
                           ((j + 0.5) * sy - 0.5 - m[5]) / m[4], &x, &y);
            const float p[3] = {static_cast<float>(x * z), static_cast<float>(y * z), z};
            const uint8_t* c = &colour.bytes[(static_cast<size_t>(j) * w + i) * 3];
            const uint8_t rgb[3] = {c[2], c[1], c[0]};
            // x86 and Arm Linux are little-endian, the order the header names.
            const uint8_t* bytes = reinterpret_cast<const uint8_t*>(p);
            body.insert(body.end(), bytes, bytes + sizeof p);
            body.insert(body.end(), rgb, rgb + 3);
            ++count;
        }
    }
    const std::string header =
        "ply\nformat binary_little_endian 1.0\ncomment twinlens: main camera, metres, "
        "x right, y down, z forward\nelement vertex " +
        std::to_string(count) +
        "\nproperty float x\nproperty float y\nproperty float z\nproperty uchar red\n"
        "property uchar green\nproperty uchar blue\nend_header\n";
    std::vector<uint8_t> out(header.begin(), header.end());
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

bool encodeShot(const ShotResult& result, const Frame& main, const TwinLensCameraParam& row,
                const ColourRange& range, std::vector<OutputFile>* files, Problem* problem) {
    const int32_t w = result.depthWidth, h = result.depthHeight;
    const size_t n = static_cast<size_t>(w) * h;
    std::vector<uint16_t> millimetres(n);
    std::vector<uint8_t> coloured(n * 3);
    // The colour map runs linearly in 1 / depth, as disparity does.
    const double inverseNear = 1.0 / range.nearest, inverseFar = 1.0 / range.farthest;
    for (size_t k = 0; k < n; ++k) {
        const float z = result.metres[k];
        millimetres[k] = z > 0 ? static_cast<uint16_t>(std::clamp(std::lround(z * 1000.0), 1L, 65535L)) : 0;
        if (z > 0) turbo((1.0 / z - inverseFar) / (inverseNear - inverseFar), &coloured[3 * k]);
    }
    Bgr picture, small;
    frameToBgr(main, &picture);
    resizeArea(picture, w, h, &small);
    files->clear();
    auto add = [&](const char* name, bool encoded, std::vector<uint8_t> bytes) {
        if (!encoded) return fail(problem, kExitFailed, name, "cannot be encoded");
        files->emplace_back(name, std::move(bytes));
        return true;
    };
    std::vector<uint8_t> levels, depthMm, colours;
    const bool encoded[3] = {encodePng(result.levels.data(), w, h, 1, 8, &levels),
                             encodePng(millimetres.data(), w, h, 1, 16, &depthMm),
                             encodePng(coloured.data(), w, h, 3, 8, &colours)};
    if (!add("depth.png", encoded[0], std::move(levels)) ||
        !add("depth_mm.png", encoded[1], std::move(depthMm)) ||
        !add("depth_color.png", encoded[2], std::move(colours)))
        return false;
    for (const auto& [name, frame] :
         {std::pair{"bokeh.jpg", &result.bokeh}, {"background.jpg", &result.replaced}}) {
        Bgr bgr;
        std::vector<uint8_t> jpeg;
        frameToBgr(*frame, &bgr);
        const bool ok = encodeJpeg(bgr, 92, &jpeg);
        if (!add(name, ok, std::move(jpeg))) return false;
    }
    return add("points.ply", true, pointCloud(result, small, row));
}

}  // namespace vq_tl::twinlens
