// Files in and out: input pictures and raw frames, the encoders of the
// outputs, and the set of output files of one run.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "frames.h"
#include "problem.h"

namespace vq_tl::twinlens {

// The whole file; a missing, unreadable or empty file is a problem of the input.
bool readFile(const std::string& path, std::string* bytes, Problem* problem);
// A picture that OpenCV's imgcodecs decodes (JPEG, PNG and the other formats
// it was built with), as 8-bit BGR; JPEG's orientation tag is applied.
bool readPicture(const std::string& path, Bgr* bgr, Problem* problem);
// A raw frame of exactly width * height * 3 / 2 bytes.
bool readRawFrame(const std::string& path, int32_t width, int32_t height, Layout layout, Frame* frame,
                  Problem* problem);

// PNG of 1 or 3 channels (BGR) of 8 or 16 bits, rows tight, 16-bit samples in
// the machine's order; JPEG of a BGR picture. False when encoding fails.
bool encodePng(const void* pixels, int32_t width, int32_t height, int channels, int bits,
               std::vector<uint8_t>* out);
bool encodeJpeg(const Bgr& bgr, int quality, std::vector<uint8_t>* out);

// The output files of one run, written into a hidden folder inside the
// destination and moved into place together once all of them exist: a run
// that fails leaves nothing behind, and removes the destination folders it
// made.
class OutputSet {
public:
    explicit OutputSet(std::string dir) : dir_(std::move(dir)) {}
    ~OutputSet() { discard(); }
    OutputSet(const OutputSet&) = delete;
    OutputSet& operator=(const OutputSet&) = delete;

    // Makes the destination (with its parents) and the staging folder.
    bool begin(Problem* problem);
    bool add(const std::string& name, const std::vector<uint8_t>& bytes, Problem* problem);
    bool add(const std::string& name, const std::string& bytes, Problem* problem);
    // Moves every file into the destination, replacing files of the same name.
    bool commit(Problem* problem);
    const std::string& dir() const { return dir_; }
    const std::vector<std::string>& names() const { return names_; }

private:
    void discard();
    std::string dir_, staging_;
    std::vector<std::string> made_;  // folders this set created, innermost last
    std::vector<std::string> names_;
    bool committed_ = false;
};

// Makes a folder and its parents; appends those it created to `made`.
bool makeFolders(const std::string& dir, std::vector<std::string>* made, Problem* problem);

}  // namespace vq_tl::twinlens
