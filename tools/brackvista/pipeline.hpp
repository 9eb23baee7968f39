// The workflow steps shared by merge, tonemap, info and demo.
#pragma once

#include <Brackvista40Lib1.h>

#include <string>
#include <vector>

#include "imageio.hpp"
#include "progress.hpp"

namespace bvcli {

// How the exposures of a bracket set are found, in order of precedence:
// given values, a fixed spacing, camera EXIF, or estimation from the pixels.
struct ExposureChoice {
    std::vector<float> given;  // per input, relative (any scale)
    double ev_step = 0;        // > 0: evenly spaced this many stops
    bool estimate = false;     // ignore EXIF
    bool median = false;       // estimate by median brightness, not pixel ratios
    double gamma = 0;          // > 0: response exponent to use
};

// Reads an exposures list: either numbers separated by commas, or a file
// with one "name exposure ..." line per bracket ('#' starts a comment). With
// no inputs named, a file's own list of names (relative to it) is the input.
void parse_exposures(const std::string &arg, std::vector<std::string> &inputs,
                     std::vector<float> &exposures);

struct HdrImage {
    int width = 0, height = 0;
    bool is_float = false;
    std::vector<uint8_t> rgbe;  // RGBE scanline image when !is_float
    std::vector<float> rgb;     // float RGB image when is_float
    exifInfo exif{};
    bool has_exif = false;
    std::string profile;  // colour profile name for the header
};

struct MergeReport {
    std::vector<float> exposures;       // per bracket, as merged
    std::string exposure_source;        // "given", "EXIF", "fixed spacing", "estimated ..."
    std::vector<float> estimate;        // measured from the pixels, empty if not made
    std::vector<float> confidence;      // of each estimate, 0..1
    std::vector<std::string> warnings;  // one line each, for the user
    float gamma = 2.2f;
    std::string gamma_source;  // "ICC profile", "default", "given", "raw decoder"
    float stats[3] = {};       // min, max, mean luminance x 256
    int middle = 0;            // bracket whose metadata went into the header
};

// Merges decoded brackets; the middle bracket's metadata goes to the header.
HdrImage merge_brackets(const BracketSet &set, const ExposureChoice &choice, MergeReport *report,
                        int threads);

// Writes an HDR image by extension: .hdr (Radiance) or .tif/.tiff (float).
void check_hdr_extension(const std::string &path);
void save_hdr(OutputFile &out, const HdrImage &img);

// Reads .hdr through the library, other HDR formats through OpenImageIO.
HdrImage load_hdr(const std::string &path);

LogLumStats hdr_stats(const HdrImage &img);

// Renders with the simple tone mapper in strips (progress, Ctrl-C).
std::vector<uint8_t> tonemap_image(const HdrImage &img, const LogLumStats &stats,
                                   const TmParam &param, int bits, int threads);

// Writes a picture, choosing the format by extension (.png .jpg .jpeg .tif .tiff).
void check_picture_extension(const std::string &path, int bits);
void save_picture(OutputFile &out, int width, int height, int bits,
                  const std::vector<uint8_t> &pixels, const exifInfo *meta = nullptr);

}  // namespace bvcli
