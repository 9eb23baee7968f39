// Image files through OpenImageIO: brackets with their camera metadata, pictures out.
#pragma once

#include <Brackvista40Lib1.h>

#include <cstdint>
#include <string>
#include <vector>

namespace bvcli {

// What one bracket file says about itself (read from its header only).
struct BracketInfo {
    std::string path;
    int width = 0, height = 0, channels = 0;
    int bits = 8;              // 8, or 16 for anything deeper
    double exposure_time = 0;  // seconds, 0 unknown
    double fnumber = 0;        // 0 unknown
    int iso = 0;               // 0 unknown
    std::vector<uint8_t> icc;  // embedded ICC profile, empty if none
    bool linear = false;       // decoder delivers linear values (camera raw)
    exifInfo exif{};           // camera metadata in the library's record
    std::string profile_name;  // "sRGB", "Adobe RGB (1998)", ... or ""
};

// Brackets decoded to 3 interleaved channels, back to back, one bit depth.
struct BracketSet {
    std::vector<BracketInfo> info;
    int width = 0, height = 0, bits = 8;
    std::vector<uint8_t> data;  // n * width * height * 3 samples of `bits`
    size_t image_samples() const { return static_cast<size_t>(width) * height * 3; }
};

// Smallest bracket the merge accepts (its progress step needs 16 rows).
constexpr int kMinSide = 16;

BracketInfo probe_bracket(const std::string &path);
// Reads every file; all must share one size. Fails with a one-line message.
BracketSet load_brackets(const std::vector<std::string> &paths);

// Writes an RGB picture (8 or 16 bits) in the format named by `format_ext`
// (".png", ".jpg", ".tif"); meta, when given, becomes EXIF.
// `shown` is the name used in messages (path may be a temporary).
void write_picture(const std::string &path, const std::string &shown, const std::string &format_ext,
                   int width, int height, int bits, const void *pixels,
                   const exifInfo *meta = nullptr);

// Float RGB images in formats the library does not read itself (EXR, float
// TIFF, PFM), and writing them for the demo's ground truth.
struct FloatImage {
    int width = 0, height = 0;
    std::vector<float> rgb;
};
FloatImage read_float_image(const std::string &path);
void write_float_image(const std::string &path, const std::string &shown,
                       const std::string &format_ext, const FloatImage &img);

// Image files found in a folder (by extension), sorted by name.
std::vector<std::string> list_images(const std::string &folder);
bool is_directory(const std::string &path);

}  // namespace bvcli
