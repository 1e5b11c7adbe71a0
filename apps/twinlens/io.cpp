#include "io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

namespace vq_tl::twinlens {

namespace {

std::string reason(int error) { return std::strerror(error); }

// OpenCV's decoders and the libraries under them write their complaints
// about a damaged file to the standard error; the program reports one line
// of its own instead, so theirs go to /dev/null while a picture decodes.
class QuietStderr {
public:
    QuietStderr() {
        std::fflush(stderr);
        saved_ = dup(2);
        const int null = open("/dev/null", O_WRONLY);
        if (saved_ >= 0 && null >= 0) dup2(null, 2);
        if (null >= 0) close(null);
    }
    ~QuietStderr() {
        std::fflush(stderr);
        if (saved_ >= 0) dup2(saved_, 2), close(saved_);
    }
    QuietStderr(const QuietStderr&) = delete;
    QuietStderr& operator=(const QuietStderr&) = delete;

private:
    int saved_;
};

bool writeWhole(const std::string& path, const void* data, size_t size, Problem* problem) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return fail(problem, kExitFailed, path, "cannot write: " + reason(errno));
    const bool written = std::fwrite(data, 1, size, f) == size;
    const int error = errno;
    if (std::fclose(f) != 0 || !written) {
        std::remove(path.c_str());
        return fail(problem, kExitFailed, path, "cannot write: " + reason(written ? errno : error));
    }
    return true;
}

}  // namespace

bool readFile(const std::string& path, std::string* bytes, Problem* problem) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return fail(problem, kExitInput, path, reason(errno));
    if (S_ISDIR(st.st_mode)) return fail(problem, kExitInput, path, "is a folder, not a file");
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return fail(problem, kExitInput, path, "cannot read: " + reason(errno));
    bytes->clear();
    char chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) bytes->append(chunk, n);
    const bool bad = std::ferror(f) != 0;
    const int error = errno;
    std::fclose(f);
    if (bad) return fail(problem, kExitInput, path, "cannot read: " + reason(error));
    if (bytes->empty()) return fail(problem, kExitInput, path, "the file is empty");
    return true;
}

bool readPicture(const std::string& path, Bgr* bgr, Problem* problem) {
    std::string bytes;
    if (!readFile(path, &bytes, problem)) return false;
    cv::Mat picture;
    {
        QuietStderr quiet;
        const cv::Mat raw(1, static_cast<int>(bytes.size()), CV_8U, bytes.data());
        picture = cv::imdecode(raw, cv::IMREAD_COLOR);
    }
    if (picture.empty() || picture.type() != CV_8UC3)
        return fail(problem, kExitInput, path, "not a picture that can be decoded (PNG or JPEG expected)");
    bgr->width = picture.cols, bgr->height = picture.rows;
    bgr->bytes.resize(static_cast<size_t>(picture.cols) * picture.rows * 3);
    for (int y = 0; y < picture.rows; ++y)
        std::memcpy(&bgr->bytes[static_cast<size_t>(y) * picture.cols * 3], picture.ptr(y),
                    picture.cols * 3u);
    return true;
}

bool readRawFrame(const std::string& path, int32_t width, int32_t height, Layout layout, Frame* frame,
                  Problem* problem) {
    std::string bytes;
    if (!readFile(path, &bytes, problem)) return false;
    const size_t want = Frame::byteSize(width, height);
    if (bytes.size() != want) {
        return fail(problem, kExitInput, path,
                    std::to_string(bytes.size()) + " bytes, but a " + std::to_string(width) + "x" +
                        std::to_string(height) + " " + layoutName(layout) + " frame has " +
                        std::to_string(want));
    }
    frame->allocate(width, height, layout);
    std::memcpy(frame->bytes.data(), bytes.data(), want);
    return true;
}

bool encodePng(const void* pixels, int32_t width, int32_t height, int channels, int bits,
               std::vector<uint8_t>* out) {
    const int type = CV_MAKETYPE(bits == 16 ? CV_16U : CV_8U, channels);
    const cv::Mat m(height, width, type, const_cast<void*>(pixels));
    return cv::imencode(".png", m, *out, {cv::IMWRITE_PNG_COMPRESSION, 3});
}

bool encodeJpeg(const Bgr& bgr, int quality, std::vector<uint8_t>* out) {
    const cv::Mat m(bgr.height, bgr.width, CV_8UC3, const_cast<uint8_t*>(bgr.bytes.data()));
    return cv::imencode(".jpg", m, *out, {cv::IMWRITE_JPEG_QUALITY, quality});
}

bool makeFolders(const std::string& dir, std::vector<std::string>* made, Problem* problem) {
    std::string path;
    size_t pos = 0;
    while (pos <= dir.size()) {
        size_t slash = dir.find('/', pos);
        if (slash == std::string::npos) slash = dir.size();
        path = dir.substr(0, slash);
        pos = slash + 1;
        if (path.empty() || path == "." || path == "..") continue;
        struct stat st;
        if (stat(path.c_str(), &st) == 0) {
            if (!S_ISDIR(st.st_mode)) return fail(problem, kExitFailed, path, "exists and is not a folder");
            continue;
        }
        if (mkdir(path.c_str(), 0777) != 0)
            return fail(problem, kExitFailed, path, "cannot make the folder: " + reason(errno));
        made->push_back(path);
    }
    return true;
}

bool OutputSet::begin(Problem* problem) {
    if (!makeFolders(dir_, &made_, problem)) return false;
    std::string pattern = dir_ + "/.twinlens-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        return fail(problem, kExitFailed, dir_, "cannot write into the folder: " + reason(errno));
    staging_ = pattern;
    return true;
}

bool OutputSet::add(const std::string& name, const std::vector<uint8_t>& bytes, Problem* problem) {
    if (!writeWhole(staging_ + "/" + name, bytes.data(), bytes.size(), problem)) return false;
    names_.push_back(name);
    return true;
}

bool OutputSet::add(const std::string& name, const std::string& bytes, Problem* problem) {
    if (!writeWhole(staging_ + "/" + name, bytes.data(), bytes.size(), problem)) return false;
    names_.push_back(name);
    return true;
}

bool OutputSet::commit(Problem* problem) {
    for (size_t k = 0; k < names_.size(); ++k) {
        const std::string to = dir_ + "/" + names_[k];
        if (std::rename((staging_ + "/" + names_[k]).c_str(), to.c_str()) != 0) {
            const int error = errno;
            // Take back the files already moved: all or nothing.
            for (size_t m = 0; m < k; ++m) std::remove((dir_ + "/" + names_[m]).c_str());
            return fail(problem, kExitFailed, to, "cannot write: " + reason(error));
        }
    }
    rmdir(staging_.c_str());
    committed_ = true;
    return true;
}

void OutputSet::discard() {
    if (committed_) return;
    if (!staging_.empty()) {
        for (const std::string& name : names_) std::remove((staging_ + "/" + name).c_str());
        rmdir(staging_.c_str());
    }
    for (auto it = made_.rbegin(); it != made_.rend(); ++it) rmdir(it->c_str());
}

}  // namespace vq_tl::twinlens
