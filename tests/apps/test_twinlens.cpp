// twinlens as its users run it: the built-in shot at a reduced size against
// the scene's truth and the files it writes, raw frames and OpenCV's
// calibration files giving the depth of the library's own row, factory
// records, folders of pairs, and every refusal with its line and exit code.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <set>

#include "support/scene.h"
#include "tree.h"
#include "tsan_gdal.h"

namespace fs = std::filesystem;
using vq_tl::twinlens::Node;

namespace {

struct Ran {
    int code;
    std::string out, err;
};

std::string slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A folder of the test's own, removed with everything in it at the end.
struct Scratch {
    fs::path dir;
    Scratch() {
        std::string pattern = (fs::temp_directory_path() / "twinlens-test-XXXXXX").string();
        dir = mkdtemp(pattern.data());
    }
    ~Scratch() { fs::remove_all(dir); }
    std::string operator/(const std::string& name) const { return (dir / name).string(); }
};

Ran twinlens(const std::vector<std::string>& args) {
    static Scratch capture;
    const std::string out = capture / "stdout", err = capture / "stderr";
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        std::vector<char*> argv{const_cast<char*>(VQ_TL_TWINLENS)};
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out), slurp(err)};
}

Node parsed(const std::string& json) {
    Node n;
    std::string error;
    EXPECT_TRUE(vq_tl::twinlens::parseJson(json, &n, &error)) << error << "\n" << json;
    return n;
}

// A member by a path of keys; a missing one is a null node.
const Node& member(const Node& n, std::initializer_list<const char*> path) {
    static const Node none;
    const Node* at = &n;
    for (const char* key : path) {
        at = at->find(key);
        if (at == nullptr) return none;
    }
    return *at;
}

// The shot of `twinlens demo --size 1000x750`: the scene at a quarter size
// with the background at 2 m and the baseline of 16 mm scaled by 4.
constexpr int32_t kWidth = 1000, kHeight = 750, kSubWidth = 648, kSubHeight = 486;
constexpr int32_t kDepthWidth = 500, kDepthHeight = 376;

const vq_tl_test::Scene& shot() {
    static const vq_tl_test::Scene scene([] {
        vq_tl_test::SceneConfig c;
        c.scale = 0.25, c.mainWidth = kWidth, c.backgroundDepth = 2.0, c.subCentre[0] = 0.064, c.threads = 2;
        return c;
    }());
    return scene;
}

// One demo run for the whole program, and the pair as raw NV21 beside it.
struct Demo {
    Scratch scratch;
    Ran ran;
    Demo() {
        ran = twinlens({"demo", "--size", "1000x750", "--out", scratch / "demo", "--save-pair", "--json"});
        for (const auto& [name, picture] :
             {std::pair{"main.nv21", shot().main.get()}, {"sub.nv21", shot().sub.get()}}) {
            std::ofstream f(scratch / name, std::ios::binary);
            const vq_tl::Image& i = picture->image;
            for (int k = 0; k < 2; ++k) {
                for (int32_t r = 0; r < picture->rows[k]; ++r)
                    f.write(reinterpret_cast<const char*>(picture->row(k, r)), i.width);
            }
        }
    }
    std::string file(const std::string& name) const { return scratch / ("demo/" + name); }
    std::vector<std::string> rawPair(const std::string& calib) const {
        return {"--main",     scratch / "main.nv21",
                "--sub",      scratch / "sub.nv21",
                "--format",   "nv21",
                "--size",     "1000x750",
                "--sub-size", "648x486",
                "--calib",    calib};
    }
};

const Demo& demo() {
    static const Demo d;
    return d;
}

cv::Mat decoded(const std::string& path) { return cv::imread(path, cv::IMREAD_UNCHANGED); }

int worstDifference(const cv::Mat& a, const cv::Mat& b) {
    if (a.size() != b.size() || a.type() != b.type()) return 256;
    cv::Mat d;
    cv::absdiff(a, b, d);
    double worst;
    cv::minMaxLoc(d, nullptr, &worst);
    return static_cast<int>(worst);
}

// The scene's calibration as OpenCV's stereo calibration writes it: camera 1
// the main one, T in millimetres, one image size for both cameras, so the
// sub camera's matrix is scaled from 2592 by 1944 to 4000 by 3000.
void writeOpenCvCalibration(const std::string& path, bool swapped) {
    const vq_tl_test::Scene& s = shot();
    TwinLensCameraParam row;
    s.cameraParam(&row);
    cv::Mat k1(3, 3, CV_64F, row.mainCameraMatrix), k2(3, 3, CV_64F, row.subCameraMatrix);
    k2 = k2.clone();
    k2.rowRange(0, 2) *= 4000.0 / 2592.0;
    auto distortion = [](const TwinLensLensDist& d) {
        const double* k = d.u.coeff.k;
        return cv::Mat(cv::Matx<double, 1, 5>(k[0], k[1], d.u.coeff.p[0], d.u.coeff.p[1], k[2]));
    };
    cv::Mat r(3, 3, CV_64F, row.stereoRotation), t = cv::Mat(3, 1, CV_64F, row.stereoTranslation) * 1000.0;
    cv::FileStorage fs(path, cv::FileStorage::WRITE);
    fs << "imageSize" << cv::Size(4000, 3000);
    if (!swapped) {
        fs << "M1" << k1 << "D1" << distortion(row.mainLensDist) << "M2" << k2 << "D2"
           << distortion(row.subLensDist) << "R" << r << "T" << t;
    } else {
        // Camera 1 the sub one: x_main = R^T x_sub - R^T T.
        fs << "M1" << k2 << "D1" << distortion(row.subLensDist) << "M2" << k1 << "D2"
           << distortion(row.mainLensDist) << "R" << cv::Mat(r.t()) << "T" << cv::Mat(-r.t() * t);
    }
}

}  // namespace

// The depth of the demo's files against the scene's truth, independently of
// the program's own scoring: at least 80 % of the scored pixels within 5 %
// of the true depth, as the program reports too; each depth level reads as
// one depth, increasing with the level; every file decodes at its size.
TEST(Twinlens, DemoDepthAndFiles) {
    const Demo& d = demo();
    ASSERT_EQ(d.ran.code, 0) << d.ran.err;
    const Node report = parsed(d.ran.out);
    EXPECT_GE(member(report, {"error", "within5Percent"}).number, 0.8) << d.ran.out;

    const std::map<std::string, std::tuple<int, int, int>> files = {
        {"depth.png", {kDepthWidth, kDepthHeight, CV_8UC1}},
        {"depth_mm.png", {kDepthWidth, kDepthHeight, CV_16UC1}},
        {"depth_color.png", {kDepthWidth, kDepthHeight, CV_8UC3}},
        {"bokeh.jpg", {kWidth, kHeight, CV_8UC3}},
        {"background.jpg", {kWidth, kHeight, CV_8UC3}},
        {"main.png", {kWidth, kHeight, CV_8UC3}},
        {"sub.png", {kSubWidth, kSubHeight, CV_8UC3}}};
    for (const auto& [name, want] : files) {
        const cv::Mat m = decoded(d.file(name));
        EXPECT_EQ(std::make_tuple(m.cols, m.rows, m.type()), want) << name;
    }

    const cv::Mat levels = decoded(d.file("depth.png")), mm = decoded(d.file("depth_mm.png"));
    ASSERT_EQ(mm.type(), CV_16UC1);
    std::map<int, std::set<int>> depthsOfLevel;
    int64_t scored = 0, close = 0, known = 0;
    const vq_tl_test::Scene& s = shot();
    for (int32_t y = 0; y < kDepthHeight; ++y) {
        for (int32_t x = 0; x < kDepthWidth; ++x) {
            const int z = mm.at<uint16_t>(y, x);
            known += z > 0;
            if (z > 0) depthsOfLevel[levels.at<uint8_t>(y, x)].insert(z);
            const size_t t = size_t((2 * y + 1) * kHeight / (2 * kDepthHeight)) * kWidth +
                             (2 * x + 1) * kWidth / (2 * kDepthWidth);
            if (!s.textured[t] || s.occluded[t]) continue;
            ++scored;
            close += std::fabs(z / 1000.0 - s.depth[t]) <= 0.05 * s.depth[t];
        }
    }
    EXPECT_GT(scored, kDepthWidth * kDepthHeight / 2);
    EXPECT_GE(double(close) / scored, 0.8);
    EXPECT_NEAR(double(close) / scored, member(report, {"error", "within5Percent"}).number, 0.005);
    int last = 0;
    for (const auto& [level, depths] : depthsOfLevel) {
        EXPECT_EQ(depths.size(), 1u) << "level " << level;
        EXPECT_GT(*depths.begin(), last) << "level " << level;
        last = *depths.rbegin();
    }

    // The point cloud: one point of 15 bytes for every pixel of known depth.
    const std::string ply = slurp(d.file("points.ply"));
    const size_t end = ply.find("end_header\n") + 11, count = ply.find("element vertex ");
    ASSERT_NE(count, std::string::npos);
    EXPECT_EQ(std::stoll(ply.substr(count + 15)), known);
    EXPECT_EQ(ply.size(), end + 15 * size_t(known));
}

// The demo's pair as raw NV21 with its calibration row gives the demo's
// depth bytes; OpenCV's YAML and XML of the same calibration (T in
// millimetres, the sub camera at the main one's size, or the cameras the
// other way round) convert to the same row and the same depth within a level.
TEST(Twinlens, CalibrationFilesGiveTheSameDepth) {
    const Demo& d = demo();
    Scratch dir;
    std::vector<std::string> run = d.rawPair(d.file("calibration.json"));
    run.insert(run.begin(), {"run", "--out", dir / "row"});
    const Ran fromRow = twinlens(run);
    ASSERT_EQ(fromRow.code, 0) << fromRow.err;
    const cv::Mat depth = decoded(dir / "row/depth.png");
    EXPECT_EQ(worstDifference(depth, decoded(d.file("depth.png"))), 0);

    TwinLensCameraParam want;
    shot().cameraParam(&want);
    for (const auto& [name, swapped] :
         {std::pair{"calib.yml", false}, {"calib.xml", false}, {"swapped.yml", true}}) {
        SCOPED_TRACE(name);
        writeOpenCvCalibration(dir / name, swapped);
        const Ran converted =
            twinlens({"convert", "--calib", dir / name, "--calib-main", swapped ? "2" : "1"});
        ASSERT_EQ(converted.code, 0) << converted.err;
        EXPECT_NE(converted.err.find("millimetres"), std::string::npos) << converted.err;
        const Node row = parsed(converted.out);
        std::vector<double> v;
        const std::pair<const char*, const double*> matrices[] = {
            {"mainCameraMatrix", want.mainCameraMatrix},
            {"stereoRotation", want.stereoRotation},
            {"stereoTranslation", want.stereoTranslation}};
        for (const auto& [key, values] : matrices) {
            ASSERT_TRUE(member(row, {key}).numbers(&v)) << key;
            for (size_t k = 0; k < v.size(); ++k) EXPECT_NEAR(v[k], values[k], 1e-9) << key << " " << k;
        }
        EXPECT_NEAR(member(row, {"subCameraMatrix"}).items[0].number, want.subCameraMatrix[0] * 4000 / 2592,
                    1e-9);
        ASSERT_TRUE(member(row, {"subLensDist", "k"}).numbers(&v));
        EXPECT_EQ(v, std::vector<double>(want.subLensDist.u.coeff.k, want.subLensDist.u.coeff.k + 3));
    }
    run = d.rawPair(dir / "swapped.yml");
    run.insert(run.begin(), {"run", "--out", dir / "opencv", "--calib-main", "2"});
    const Ran fromOpenCv = twinlens(run);
    ASSERT_EQ(fromOpenCv.code, 0) << fromOpenCv.err;
    EXPECT_LE(worstDifference(decoded(dir / "opencv/depth.png"), depth), 1);
}

// A factory record, converted by the library's converter: a hand-worked row.
// f = 3.5 mm / 1.4 um = 2500 pixels; cx = 0.014 mm / 1.4 um + 2000 - 16 =
// 1994; cy = 1500 - 8 = 1492; 2 degrees about z; an all-zero table is an
// undistorted lens; a baseline of 12 (mm, by its length) is 0.012 m.
TEST(Twinlens, FactoryRecord) {
    Scratch dir;
    std::ofstream(dir / "factory.json")
        << R"({"extrinsicsForward": 1, "mainPixelPitch": 1.4, "subPixelPitch": 1.4,
        "mainFocalLength": 3.5, "subFocalLength": 3.5, "mainSensorWidth": 4000, "mainSensorHeight": 3000,
        "subSensorWidth": 4000, "subSensorHeight": 3000, "mainCenterOffsetX": 0.014, "mainCenterOffsetY": 0,
        "subCenterOffsetX": 0, "subCenterOffsetY": 0, "mainCropLeft": 16, "mainCropTop": 8, "mainCropWidth": 3968,
        "mainCropHeight": 2976, "subCropLeft": 16, "subCropTop": 8, "subCropWidth": 3968, "subCropHeight": 2976,
        "mainDistKind": 0, "subDistKind": 0, "mainDistTable": [0, 0, 0], "subDistTable": [0, 0, 0],
        "translationX": -12, "translationY": 0, "translationZ": 0, "rotationX": 0, "rotationY": 0, "rotationZ": 2})";
    const Ran ran = twinlens({"convert", "--calib", dir / "factory.json"});
    ASSERT_EQ(ran.code, 0) << ran.err;
    const Node row = parsed(ran.out);
    std::vector<double> v;
    ASSERT_TRUE(member(row, {"mainCameraMatrix"}).numbers(&v));
    const double camera[9] = {2500, 0, 1994, 0, 2500, 1492, 0, 0, 1};
    for (int k = 0; k < 9; ++k) EXPECT_NEAR(v[k], camera[k], 1e-3) << k;
    ASSERT_TRUE(member(row, {"stereoRotation"}).numbers(&v));
    const double c = std::cos(2 * M_PI / 180), s = std::sin(2 * M_PI / 180);
    const double rotation[9] = {c, -s, 0, s, c, 0, 0, 0, 1};
    for (int k = 0; k < 9; ++k) EXPECT_NEAR(v[k], rotation[k], 1e-7) << k;
    ASSERT_TRUE(member(row, {"stereoTranslation"}).numbers(&v));
    EXPECT_NEAR(v[0], -0.012, 1e-9);
    EXPECT_EQ(member(row, {"mainCalibWidth"}).number, 3968);
    ASSERT_TRUE(member(row, {"mainLensDist", "k"}).numbers(&v));
    EXPECT_EQ(v, std::vector<double>(3, 0.0));
}

// Every pair of a folder, sessions kept while the sizes stay; a main picture
// without its sub fails alone. The results land in OUT/NAME/.
TEST(Twinlens, BatchOfAFolder) {
    const Demo& d = demo();
    Scratch dir;
    fs::create_directory(dir / "pairs");
    for (const std::string name : {"a", "b"}) {
        fs::copy_file(d.scratch / "main.nv21", dir / ("pairs/" + name + "_main.nv21"));
        fs::copy_file(d.scratch / "sub.nv21", dir / ("pairs/" + name + "_sub.nv21"));
    }
    fs::copy_file(d.scratch / "main.nv21", dir / "pairs/c_main.nv21");
    const Ran ran =
        twinlens({"batch", "--calib", d.file("calibration.json"), "--format", "nv21", "--size", "1000x750",
                  "--sub-size", "648x486", "--out", dir / "out", "--json", dir / "pairs"});
    EXPECT_EQ(ran.code, 1);
    const Node report = parsed(ran.out);
    EXPECT_EQ(member(report, {"summary", "succeeded"}).number, 2);
    EXPECT_EQ(member(report, {"summary", "failed"}).number, 1);
    const Node& pairs = member(report, {"pairs"});
    ASSERT_EQ(pairs.items.size(), 3u);
    EXPECT_NE(member(pairs.items[2], {"error"}).text.find("has no sub picture"), std::string::npos);
    for (const char* name : {"a", "b"})
        EXPECT_EQ(worstDifference(decoded(dir / (std::string("out/") + name + "/depth.png")),
                                  decoded(d.file("depth.png"))),
                  0);
    EXPECT_FALSE(fs::exists(dir / "out/c"));
}

// Each refusal: one line naming the file and the problem on the standard
// error, its exit code, and no output folder left behind.
TEST(Twinlens, Refusals) {
    const Demo& d = demo();
    Scratch dir;
    cv::imwrite(dir / "wide.png", cv::Mat(720, 1280, CV_8UC3, cv::Scalar(90, 120, 150)));
    std::ofstream(dir / "garbage.png") << "not a picture";
    std::ofstream(dir / "short.nv21") << std::string(1000, 'x');
    std::ofstream(dir / "broken.json") << "{\"mainCameraMatrix\": [1, 2,";
    std::string row = slurp(d.file("calibration.json"));
    const size_t r = row.find("\"stereoRotation\": [") + 19;
    std::ofstream(dir / "skewed.json") << row.substr(0, r) << "2" << row.substr(row.find(',', r));
    const size_t t = row.find("\"stereoTranslation\": [");
    std::ofstream(dir / "forward.json") << row.substr(0, t) << "\"stereoTranslation\": [0, 0, 0.064]\n}\n";
    std::ofstream(dir / "typo.json") << row.substr(0, row.size() - 3)
                                     << ",\n  \"stereoTranslaton\": [1, 0, 0]\n}\n";

    const std::string main = d.file("main.png"), sub = d.file("sub.png"), calib = d.file("calibration.json");
    const std::string out = dir / "out";
    struct Case {
        std::vector<std::string> args;
        int code;
        std::string line;
    };
    const Case cases[] = {
        {{"run", "--main", dir / "missing.png", "--sub", sub, "--calib", calib},
         3,
         dir / "missing.png: No such file"},
        {{"run", "--main", dir / "garbage.png", "--sub", sub, "--calib", calib},
         3,
         "garbage.png: not a picture"},
        {{"run", "--main", main, "--sub", dir / "wide.png", "--calib", calib},
         3,
         "wide.png: 1280x720 does not match"},
        {{"run", "--main", dir / "short.nv21", "--sub", dir / "short.nv21", "--format", "nv21", "--size",
          "1000x750", "--calib", calib},
         3,
         "short.nv21: 1000 bytes, but a 1000x750 nv21 frame has 1125000"},
        {{"run", "--main", main, "--sub", sub, "--calib", dir / "broken.json"},
         4,
         "broken.json: does not parse: line 1"},
        {{"run", "--main", main, "--sub", sub, "--calib", dir / "skewed.json"},
         4,
         "skewed.json: stereoRotation is not a rotation"},
        {{"run", "--main", main, "--sub", sub, "--calib", dir / "forward.json"},
         4,
         "forward.json: cannot be rectified"},
        {{"run", "--main", main, "--sub", sub, "--calib", dir / "typo.json"},
         4,
         "unknown key \"stereoTranslaton\""},
        {{"run", "--main", main, "--sub", sub, "--calib", calib, "--frob"}, 2, "unknown option --frob"},
        {{"run", "--main", main, "--sub", sub}, 2, "--calib FILE is missing"},
        {{"run", "--main", main, "--sub", sub, "--calib", calib, "--strength", "301"},
         2,
         "--strength takes a number from 0 to 300"},
        {{"demo", "--size", "1000x700"}, 2, "4:3 height"},
        {{"batch", "--calib", calib, dir / "nowhere"}, 3, "nowhere: cannot read the folder"},
        {{"run", "--main", main, "--sub", sub, "--calib", calib, "--out", calib + "/out"},
         1,
         "exists and is not a folder"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = c.args;
        if (std::find(args.begin(), args.end(), "--out") == args.end())
            args.insert(args.end(), {"--out", out});
        const Ran ran = twinlens(args);
        EXPECT_EQ(ran.code, c.code) << c.line;
        EXPECT_EQ(ran.err.find("twinlens: "), 0u) << ran.err;
        EXPECT_NE(ran.err.find(c.line), std::string::npos) << ran.err;
        EXPECT_EQ(std::count(ran.err.begin(), ran.err.end(), '\n'), 1) << ran.err;
        EXPECT_FALSE(fs::exists(out)) << c.line;
    }
    // A file that cannot take its place (a folder of its name stands there):
    // the files already moved are taken back, the folder holds what it held.
    fs::create_directories(dir / "taken/depth_mm.png");
    const Ran taken =
        twinlens({"run", "--main", main, "--sub", sub, "--calib", calib, "--out", dir / "taken"});
    EXPECT_EQ(taken.code, 1);
    EXPECT_NE(taken.err.find("depth_mm.png: cannot write"), std::string::npos) << taken.err;
    std::vector<std::string> left;
    for (const auto& e : fs::directory_iterator(dir / "taken")) left.push_back(e.path().filename());
    EXPECT_EQ(left, std::vector<std::string>{"depth_mm.png"});

    const Ran json = twinlens(
        {"run", "--main", main, "--sub", dir / "wide.png", "--calib", calib, "--json", "--out", out});
    const Node report = parsed(json.out);
    EXPECT_TRUE(member(report, {"ok"}).kind == Node::kBool && member(report, {"ok"}).number == 0);
    EXPECT_EQ(member(report, {"exitCode"}).number, 3);
    EXPECT_EQ(member(report, {"file"}).text, dir / "wide.png");
}
