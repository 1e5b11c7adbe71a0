// The program's readers and conversions: one document in JSON, OpenCV's
// YAML and OpenCV's XML read as one tree, refusals with their lines, the
// colour conversion of pictures, and OpenCV's distortion models.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "calibration.h"
#include "frames.h"
#include "tree.h"

using namespace vq_tl::twinlens;

namespace {

// A tree in one line: maps as {k:v,...}, lists as [..], strings quoted.
std::string dump(const Node& n) {
    switch (n.kind) {
        case Node::kNull: return "null";
        case Node::kBool: return n.number != 0 ? "true" : "false";
        case Node::kNumber: {
            char text[32];
            std::snprintf(text, sizeof text, "%g", n.number);
            return text;
        }
        case Node::kString: return std::string(1, '"').append(n.text).append(1, '"');
        case Node::kList: {
            std::string s = "[";
            for (size_t k = 0; k < n.items.size(); ++k) s.append(k > 0 ? "," : "").append(dump(n.items[k]));
            return s + "]";
        }
        default: {
            std::string s = "{";
            for (size_t k = 0; k < n.fields.size(); ++k)
                s.append(k > 0 ? "," : "")
                    .append(n.fields[k].first)
                    .append(":")
                    .append(dump(n.fields[k].second));
            return s + "}";
        }
    }
}

}  // namespace

// OpenCV writes matrices as a node of rows, cols, dt and data, data lists
// over several lines, sequences as "- " items or "_" elements.
TEST(Readers, OneDocumentInThreeSyntaxes) {
    const std::string want =
        "{M:{rows:2,cols:2,dt:\"d\",data:[1,-0.5,0.001,4]},size:[640,480],name:\"left cam\",on:true,"
        "list:[1,{a:2}],none:null}";
    const char* texts[] = {
        R"({"M": {"rows": 2, "cols": 2, "dt": "d", "data": [1.0, -5e-1, 1e-3, 4]},
            "size": [640, 480], "name": "left cam", "on": true, "list": [1, {"a": 2}], "none": null})",
        "%YAML:1.0\n---\n# a comment\nM: !!opencv-matrix\n   rows: 2\n   cols: 2\n   dt: d\n"
        "   data: [ 1., -5.0000000000000000e-01,\n       1.0000000000000000e-03, 4. ]\n"
        "size: [ 640, 480 ]\nname: \"left cam\"\non: true\nlist:\n   - 1\n   - a: 2\nnone:\n",
        "<?xml version=\"1.0\"?>\n<opencv_storage>\n<!-- a comment -->\n<M type_id=\"opencv-matrix\">\n"
        "  <rows>2</rows>\n  <cols>2</cols>\n  <dt>d</dt>\n  <data>\n    1. -5.0e-01 1.0e-03\n    "
        "4.</data></M>\n"
        "<size>\n  640 480</size>\n<name>\"left cam\"</name>\n<on>true</on>\n<list>\n  <_>1</_>\n  "
        "<_><a>2</a></_></list>\n"
        "<none/>\n</opencv_storage>\n"};
    for (const char* text : texts) {
        Node n;
        std::string error;
        ASSERT_TRUE(parseAny(text, &n, &error)) << error << "\n" << text;
        EXPECT_EQ(dump(n), want) << text;
    }
}

TEST(Readers, RefusalsNameTheirLine) {
    const std::pair<const char*, const char*> cases[] = {
        {"{\"a\": 1,\n \"b\": }", "line 2: unexpected '}'"},
        {"{\"a\": 1}\n{", "line 2: text after the end"},
        {"{\"a\": 1, \"a\": 2}", "line 1: \"a\" given twice"},
        {"[1, 2", "line 1: ',' or ']' expected"},
        {"{\"s\": \"\\q\"}", "line 1: bad escape \\q"},
        {"a: 1\nb: [ 1, 2,\n  3\nc: 2\n", "line 4: ',' or ']' expected"},
        {"a:\n   b: 1\n  c: 2\n", "line 3: indentation does not match the lines above"},
        {"a: &anchor 1\n", "line 1: anchors, aliases and block scalars are not read"},
        {"a: 1\n\tb: 2\n", "line 2: a tab in the indentation"},
        {"just words\n", "line 1: \"key: value\" expected"},
        {"<opencv_storage><a>1</b></opencv_storage>", "line 1: </a> expected, not </b>"},
        {"<opencv_storage>\n<a>1<b>2</b></a></opencv_storage>", "line 2: text beside elements in <a>"},
        {"<opencv_storage><a>&nbsp;</a></opencv_storage>", "line 1: unknown entity &nbsp;"},
        {"<!DOCTYPE x>\n<opencv_storage/>", "line 1: document type declarations are not read"},
    };
    for (const auto& [text, want] : cases) {
        Node n;
        std::string error;
        EXPECT_FALSE(parseAny(text, &n, &error)) << text;
        EXPECT_EQ(error, want) << text;
    }
}

// Grey stays grey; the primaries land where JFIF puts them; any colour of a
// 2 by 2 block comes back within 2 levels in every layout.
TEST(Readers, ColourConversion) {
    struct Known {
        uint8_t b, g, r, y, u, v;
    };
    const Known known[] = {{0, 0, 0, 0, 128, 128},     {255, 255, 255, 255, 128, 128},
                           {77, 77, 77, 77, 128, 128}, {0, 0, 255, 76, 85, 255},
                           {0, 255, 0, 150, 44, 21},   {255, 0, 0, 29, 255, 107}};
    for (const Layout layout : {Layout::kNv21, Layout::kNv12, Layout::kI420}) {
        for (const Known& k : known) {
            const Bgr block{2, 2, {k.b, k.g, k.r, k.b, k.g, k.r, k.b, k.g, k.r, k.b, k.g, k.r}};
            Frame f;
            bgrToFrame(block, layout, &f);
            EXPECT_EQ(f.luma()[3], k.y) << int(k.r) << "," << int(k.g) << "," << int(k.b);
            EXPECT_EQ(f.chroma(0, 0, 0), k.u) << int(k.r) << "," << int(k.g) << "," << int(k.b);
            EXPECT_EQ(f.chroma(0, 0, 1), k.v) << int(k.r) << "," << int(k.g) << "," << int(k.b);
        }
        std::mt19937 rng(7);
        Bgr picture{64, 32, std::vector<uint8_t>(64 * 32 * 3)};
        for (int32_t y = 0; y < 32; y += 2) {
            for (int32_t x = 0; x < 64; x += 2) {
                const uint8_t c[3] = {uint8_t(rng()), uint8_t(rng()), uint8_t(rng())};
                for (int k = 0; k < 12; ++k)
                    picture.bytes[((y + k / 6) * 64 + x + k / 3 % 2) * 3 + k % 3] = c[k % 3];
            }
        }
        Frame frame;
        Bgr back;
        bgrToFrame(picture, layout, &frame);
        frameToBgr(frame, &back);
        int worst = 0;
        for (size_t k = 0; k < back.bytes.size(); ++k)
            worst = std::max(worst, std::abs(back.bytes[k] - picture.bytes[k]));
        EXPECT_LE(worst, 2) << layoutName(layout);
    }
}

// OpenCV's rational model (k4..k6 below the fraction) becomes three radial
// terms whose forward model stays within half a pixel of it out to the
// corners; a divisor too strong for that, thin-prism terms and vectors of
// other lengths are refused.
TEST(Readers, OpenCvDistortionModels) {
    auto yaml = [](const std::string& d1) {
        return "%YAML:1.0\nimageSize: [ 4000, 3000 ]\nM1: [ 3000, 0, 2000, 0, 3000, 1500, 0, 0, 1 ]\nD1: [ " +
               d1 +
               " ]\nM2: [ 3000, 0, 2000, 0, 3000, 1500, 0, 0, 1 ]\nD2: [ 0, 0, 0, 0 ]\n"
               "R: [ 1, 0, 0, 0, 1, 0, 0, 0, 1 ]\nT: [ -10, 0, 0 ]\n";
    };
    const double k[3] = {0.08, -0.18, 0.06}, below[3] = {0.05, 0.02, 0.0};
    Calibration c;
    Problem problem;
    ASSERT_TRUE(
        parseCalibration(yaml("0.08, -0.18, 4e-4, -3e-4, 0.06, 0.05, 0.02, 0"), "c.yml", {}, &c, &problem))
        << problem.text();
    const TwinLensLensCoeff& fitted = c.rows[0].mainLensDist.u.coeff;
    EXPECT_EQ(fitted.p[0], 4e-4);
    EXPECT_EQ(fitted.p[1], -3e-4);
    // The corner of 4000 by 3000 at f 3000 lies at a normalised radius of 0.833.
    for (double r = 0; r <= 0.834; r += 0.01) {
        const double r2 = r * r;
        const double rational =
            (1 + r2 * (k[0] + r2 * (k[1] + r2 * k[2]))) / (1 + r2 * (below[0] + r2 * below[1]));
        const double three = 1 + r2 * (fitted.k[0] + r2 * (fitted.k[1] + r2 * fitted.k[2]));
        EXPECT_LE(std::fabs(r * (rational - three)) * 3000, 0.5) << "radius " << r;
    }
    EXPECT_DOUBLE_EQ(c.rows[0].stereoTranslation[0], -0.010);

    const std::pair<const char*, const char*> refused[] = {
        {"0.1, 0, 0, 0, 0, 2, 0, 0", "differ from k1 to k3 by up to 7.49 pixels"},
        {"0, 0, 0, 0, 0, 0, 0, 0, 0.01, 0, 0, 0", "thin-prism and tilted-sensor terms"},
        {"0.1, 0.2, 0.3", "has 3 values; OpenCV's models have 4, 5, 8, 12 or 14"},
    };
    for (const auto& [d1, want] : refused) {
        EXPECT_FALSE(parseCalibration(yaml(d1), "c.yml", {}, &c, &problem)) << d1;
        EXPECT_EQ(problem.code, kExitCalibration);
        EXPECT_NE(problem.what.find(want), std::string::npos) << problem.what;
    }
}
